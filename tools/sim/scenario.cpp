#include "sim/scenario.h"

#include <fmt/format.h>

#include <climits>

#include "platform/json.h"
#include "platform/types.h"
#include "platform/uuid.h"

namespace sim {

namespace {

[[noreturn]] void fail(const std::string& msg) {
    throw ScenarioError(msg);
}

void onlyKeys(const Json& obj, std::initializer_list<const char*> allowed,
              const std::string& what) {
    for (const auto& [k, v] : obj.items()) {
        bool ok = false;
        for (const char* a : allowed) ok = ok || k == a;
        if (!ok) fail(fmt::format("unknown key \"{}\" in {}", k, what));
    }
}

const Json& need(const Json& obj, const char* key, const std::string& what) {
    if (!obj.contains(key)) fail(fmt::format("{} needs \"{}\"", what, key));
    return obj[key];
}

double number(const Json& v, const std::string& what) {
    if (!v.is_number()) fail(what + " must be a number");
    return v.get<double>();
}

long long integer(const Json& v, const std::string& what, long long lo, long long hi) {
    if (!v.is_number_integer()) fail(what + " must be an integer");
    long long n = v.get<long long>();
    if (n < lo || n > hi) fail(fmt::format("{} must be from {} to {}", what, lo, hi));
    return n;
}

const std::string& string(const Json& v, const std::string& what) {
    if (!v.is_string()) fail(what + " must be a string");
    return v.get_ref<const std::string&>();
}

void boolean(const Json& v, const std::string& what) {
    if (!v.is_boolean()) fail(what + " must be true or false");
}

void object(const Json& v, const std::string& what) {
    if (!v.is_object()) fail(what + " must be an object");
}

void pair(const Json& v, const std::string& what) {
    if (!v.is_array() || v.size() != 2 || !v[0].is_number() || !v[1].is_number()) {
        fail(what + " must be [number, number]");
    }
}

void uuid(const Json& v, const std::string& what) {
    if (!quenby::platform::UUID::parse(string(v, what))) fail(what + " must be a UUID");
}

void region(const Json& r, bool beaconOnly) {
    object(r, "a region");
    if (r.contains("uuid")) {
        onlyKeys(r, {"uuid", "major", "minor", "identifier"}, "a beacon region");
        uuid(r["uuid"], "a region's \"uuid\"");
        if (r.contains("major")) integer(r["major"], "\"major\"", 0, 65535);
        if (r.contains("minor")) {
            if (!r.contains("major")) fail("a beacon region with a minor needs a major");
            integer(r["minor"], "\"minor\"", 0, 65535);
        }
        if (r.contains("identifier")) string(r["identifier"], "\"identifier\"");
        return;
    }
    if (beaconOnly) fail("a beacon region needs \"uuid\"");
    onlyKeys(r, {"identifier", "center", "radius"}, "a circular region");
    string(need(r, "identifier", "a circular region"), "\"identifier\"");
    if (r.contains("center")) pair(r["center"], "\"center\"");
    if (r.contains("radius")) number(r["radius"], "\"radius\"");
}

void error(const Json& e) {
    object(e, "an error");
    onlyKeys(e, {"domain", "code", "description"}, "an error");
    string(need(e, "domain", "an error"), "\"domain\"");
    integer(need(e, "code", "an error"), "\"code\"", LLONG_MIN, LLONG_MAX);
    if (e.contains("description")) string(e["description"], "\"description\"");
}

void beacon(const Json& b) {
    object(b, "a beacon");
    onlyKeys(b, {"uuid", "major", "minor", "proximity", "accuracy", "rssi"}, "a beacon");
    uuid(need(b, "uuid", "a beacon"), "a beacon's \"uuid\"");
    integer(need(b, "major", "a beacon"), "\"major\"", 0, 65535);
    integer(need(b, "minor", "a beacon"), "\"minor\"", 0, 65535);
    if (b.contains("proximity")) integer(b["proximity"], "\"proximity\"", 0, 3);
    if (b.contains("accuracy")) number(b["accuracy"], "\"accuracy\"");
    if (b.contains("rssi")) integer(b["rssi"], "\"rssi\"", -200, 0);
}

void walk(const Json& w) {
    object(w, "\"walk\"");
    onlyKeys(w, {"origin", "beacons", "path"}, "\"walk\"");
    pair(need(w, "origin", "\"walk\""), "\"origin\"");
    const Json& beacons = need(w, "beacons", "\"walk\"");
    if (!beacons.is_array()) fail("\"beacons\" must be an array");
    for (const auto& b : beacons) {
        object(b, "a walk beacon");
        onlyKeys(b, {"uuid", "major", "minor", "at", "measuredPower"}, "a walk beacon");
        uuid(need(b, "uuid", "a walk beacon"), "a walk beacon's \"uuid\"");
        integer(need(b, "major", "a walk beacon"), "\"major\"", 0, 65535);
        integer(need(b, "minor", "a walk beacon"), "\"minor\"", 0, 65535);
        pair(need(b, "at", "a walk beacon"), "\"at\"");
        if (b.contains("measuredPower")) number(b["measuredPower"], "\"measuredPower\"");
    }
    const Json& path = need(w, "path", "\"walk\"");
    if (!path.is_array() || path.empty()) fail("\"path\" must be a non-empty array");
    double last = 0;
    for (const auto& p : path) {
        if (!p.is_array() || p.size() != 3 || !p[0].is_number() || !p[1].is_number() ||
            !p[2].is_number()) {
            fail("a path point must be [x, y, t]");
        }
        double t = p[2].get<double>();
        if (t < last) fail("path times must not go back");
        last = t;
    }
}

const std::set<std::string> kPlainCalls = {"start",
                                           "stop",
                                           "sync",
                                           "syncWithCompletionHandler",
                                           "deregisterDeviceToken",
                                           "resignActive",
                                           "getLat",
                                           "getLng",
                                           "foundCampaigns",
                                           "activeCampaigns",
                                           "destroy",
                                           "create"};
const std::set<std::string> kCampaignCalls = {
    "setCampaignViewed",  "setCampaignFulfilled", "registerDeviceToken", "deregisterDeviceToken",
    "remoteNotification", "foundCampaigns",       "activeCampaigns",     "showCampaignAlert"};

void call(const Json& a, const std::string& host) {
    std::string name = string(a["call"], "\"call\"");
    if (host == "proximity" && kCampaignCalls.count(name)) {
        fail(fmt::format("call \"{}\" needs the campaigns host", name));
    }
    if (kPlainCalls.count(name)) {
        onlyKeys(a, {"call"}, "call \"" + name + "\"");
    } else if (name == "setPartnerIdentifier") {
        onlyKeys(a, {"call", "value"}, "call \"setPartnerIdentifier\"");
        string(need(a, "value", "setPartnerIdentifier"), "\"value\"");
    } else if (name == "logLevel") {
        onlyKeys(a, {"call", "value"}, "call \"logLevel\"");
        integer(need(a, "value", "logLevel"), "\"value\"", -128, 127);
    } else if (name == "setCampaignViewed" || name == "showCampaignAlert") {
        onlyKeys(a, {"call", "campaign"}, "call \"" + name + "\"");
        string(need(a, "campaign", name), "\"campaign\"");
    } else if (name == "setCampaignFulfilled") {
        onlyKeys(a, {"call", "campaign", "place"}, "call \"setCampaignFulfilled\"");
        string(need(a, "campaign", name), "\"campaign\"");
        const Json& p = need(a, "place", name);
        object(p, "\"place\"");
        onlyKeys(p, {"id", "name", "type"}, "\"place\"");
        integer(need(p, "id", "\"place\""), "a place's \"id\"", LLONG_MIN, LLONG_MAX);
        if (p.contains("name")) string(p["name"], "a place's \"name\"");
        if (p.contains("type")) integer(p["type"], "a place's \"type\"", 0, 1);
    } else if (name == "registerDeviceToken") {
        onlyKeys(a, {"call", "hex"}, "call \"registerDeviceToken\"");
        hexBytes(string(need(a, "hex", name), "\"hex\""));
    } else if (name == "remoteNotification") {
        onlyKeys(a, {"call", "userInfo"}, "call \"remoteNotification\"");
        object(need(a, "userInfo", name), "\"userInfo\"");
    } else if (name == "postEvent") {
        onlyKeys(a, {"call", "type", "details"}, "call \"postEvent\"");
        string(need(a, "type", name), "\"type\"");
        object(need(a, "details", name), "\"details\"");
    } else {
        fail(fmt::format("unknown call \"{}\"", name));
    }
}

void action(const Json& a, const std::string& host, bool inPass) {
    object(a, "an action");
    Json rest = a;
    rest.erase("at");
    if (rest.contains("call")) return call(rest, host);
    if (rest.size() != 1 && !(rest.contains("state") || rest.contains("range") ||
                              rest.contains("rangingFail") || rest.contains("monitoringFail"))) {
        fail(rest.empty() ? "a step needs an action" : "a step holds one action");
    }
    const std::string key = rest.begin().key();
    if (key == "enter" || key == "exit") {
        region(rest[key], false);
    } else if (rest.contains("state")) {
        onlyKeys(rest, {"state", "value"}, "\"state\"");
        region(rest["state"], false);
        integer(need(rest, "value", "\"state\""), "\"value\"", 0, 2);
    } else if (rest.contains("range")) {
        onlyKeys(rest, {"range", "beacons"}, "\"range\"");
        region(rest["range"], true);
        const Json& beacons = need(rest, "beacons", "\"range\"");
        if (!beacons.is_array()) fail("\"beacons\" must be an array");
        for (const auto& b : beacons) beacon(b);
    } else if (rest.contains("rangingFail") || rest.contains("monitoringFail")) {
        bool ranging = rest.contains("rangingFail");
        const char* name = ranging ? "rangingFail" : "monitoringFail";
        onlyKeys(rest, {name, "error"}, fmt::format("\"{}\"", name));
        region(rest[name], ranging);
        error(need(rest, "error", name));
    } else if (key == "fail") {
        error(rest[key]);
    } else if (key == "authorization") {
        integer(rest[key], "\"authorization\"", 0, 4);
    } else if (key == "location") {
        pair(rest[key], "\"location\"");
    } else if (key == "applicationState") {
        std::string s = string(rest[key], "\"applicationState\"");
        if (s != "active" && s != "inactive" && s != "background") {
            fail("\"applicationState\" must be active, inactive or background");
        }
    } else if (key == "expireBackgroundTask") {
        string(rest[key], "\"expireBackgroundTask\"");
    } else if (key == "alertButton") {
        integer(rest[key], "\"alertButton\"", 0, 1);
    } else if (key == "push") {
        object(rest[key], "\"push\"");
    } else if (key == "deviceToken") {
        hexBytes(string(rest[key], "\"deviceToken\""));
    } else if (key == "walk") {
        walk(rest[key]);
    } else if (key == "pass" && !inPass) {
        if (!rest[key].is_array()) fail("\"pass\" must be an array of actions");
        for (const auto& inner : rest[key]) {
            if (inner.is_object() && inner.contains("at")) fail("actions of a pass have no \"at\"");
            action(inner, host, true);
        }
    } else {
        fail(fmt::format("unknown action \"{}\"", key));
    }
}

}  // namespace

std::vector<std::uint8_t> hexBytes(const std::string& hex) {
    if (hex.size() % 2 != 0) fail("a hex string needs an even number of digits");
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        auto v = [&](char c) -> int {
            int d = quenby::platform::hexDigitValue(c);
            if (d < 0) fail("not a hex string: " + hex);
            return d;
        };
        out.push_back(static_cast<std::uint8_t>(v(hex[i]) * 16 + v(hex[i + 1])));
    }
    return out;
}

Scenario parseScenario(const std::string& text) {
    std::string why;
    auto parsed = quenby::platform::parseJson(text, &why);
    if (!parsed) fail("not JSON: " + why);
    const Json& s = *parsed;
    object(s, "a scenario");
    onlyKeys(s, {"start", "host", "bundle", "server", "device", "steps", "until"}, "the scenario");
    Scenario out;
    if (s.contains("start")) {
        std::string start = string(s["start"], "\"start\"");
        // Accepted with or without a fraction of a second.
        auto t = quenby::platform::parseTimestamp(start);
        if (!t && start.size() == 20 && start.back() == 'Z') {
            t = quenby::platform::parseTimestamp(start.substr(0, 19) + ".0Z");
        }
        if (!t) fail("\"start\" must be a time such as 2026-03-01T09:00:00Z");
        out.start = t->timeIntervalSince1970();
    } else {
        out.start = 1772355600.0;  // 2026-03-01T09:00:00Z
    }
    if (s.contains("host")) {
        out.host = string(s["host"], "\"host\"");
        if (out.host != "campaigns" && out.host != "proximity") {
            fail("\"host\" must be campaigns or proximity");
        }
    }
    if (s.contains("bundle")) {
        object(s["bundle"], "\"bundle\"");
        onlyKeys(s["bundle"], {"Info.plist", "Lurewave.plist", "Zonewise.plist"}, "\"bundle\"");
        for (const auto& [k, v] : s["bundle"].items()) object(v, "\"" + k + "\"");
        out.bundle = s["bundle"];
    }
    if (s.contains("server")) {
        object(s["server"], "\"server\"");
        onlyKeys(s["server"], {"kit", "campaigns"}, "\"server\"");
        out.server = s["server"];
    }
    if (s.contains("device")) {
        const Json& d = s["device"];
        object(d, "\"device\"");
        onlyKeys(d,
                 {"authorization", "monitoringAvailable", "rangingAvailable", "vendorId",
                  "applicationState", "hostAppDelegate", "secondListener"},
                 "\"device\"");
        if (d.contains("authorization")) {
            out.device.authorization =
                static_cast<int>(integer(d["authorization"], "\"authorization\"", 0, 4));
        }
        if (d.contains("monitoringAvailable")) {
            boolean(d["monitoringAvailable"], "\"monitoringAvailable\"");
            out.device.monitoringAvailable = d["monitoringAvailable"];
        }
        if (d.contains("rangingAvailable")) {
            boolean(d["rangingAvailable"], "\"rangingAvailable\"");
            out.device.rangingAvailable = d["rangingAvailable"];
        }
        if (d.contains("vendorId")) {
            if (d["vendorId"].is_null()) {
                out.device.vendorId.reset();
            } else {
                uuid(d["vendorId"], "\"vendorId\"");
                out.device.vendorId = d["vendorId"].get<std::string>();
            }
        }
        if (d.contains("applicationState")) {
            out.device.applicationState = string(d["applicationState"], "\"applicationState\"");
            if (out.device.applicationState != "active" &&
                out.device.applicationState != "inactive" &&
                out.device.applicationState != "background") {
                fail("\"applicationState\" must be active, inactive or background");
            }
        }
        if (d.contains("hostAppDelegate")) {
            if (!d["hostAppDelegate"].is_array()) fail("\"hostAppDelegate\" must be an array");
            for (const auto& c : d["hostAppDelegate"]) {
                std::string name = string(c, "a host delegate callback");
                if (name != "fetch" && name != "legacy" && name != "token") {
                    fail("\"hostAppDelegate\" holds fetch, legacy or token");
                }
                out.device.hostAppDelegate.insert(name);
            }
        }
        if (d.contains("secondListener")) {
            boolean(d["secondListener"], "\"secondListener\"");
            out.device.secondListener = d["secondListener"];
        }
    }
    if (s.contains("steps")) {
        if (!s["steps"].is_array()) fail("\"steps\" must be an array");
        double last = 0;
        for (std::size_t i = 0; i < s["steps"].size(); ++i) {
            const Json& step = s["steps"][i];
            std::string at = step.is_object() && step.contains("at") ? step["at"].dump() : "?";
            try {
                object(step, "a step");
                double t = number(need(step, "at", "a step"), "\"at\"");
                if (t < last) fail("time goes back");
                last = t;
                action(step, out.host, false);
                Json act = step;
                act.erase("at");
                out.steps.push_back({t, std::move(act)});
            } catch (const ScenarioError& e) {
                fail(fmt::format("step {} (at {}): {}", i, at, e.what()));
            }
        }
        out.until = last;
    }
    if (s.contains("until")) {
        out.until = number(s["until"], "\"until\"");
        if (!out.steps.empty() && out.until < out.steps.back().at)
            fail("\"until\" is before the last step");
    }
    return out;
}

void substituteServer(Json& j, const std::string& base) {
    if (j.is_string()) {
        std::string s = j.get<std::string>();
        for (std::size_t p = s.find("{server}"); p != std::string::npos;
             p = s.find("{server}", p)) {
            s.replace(p, 8, base);
            p += base.size();
        }
        j = s;
    } else if (j.is_structured()) {
        for (auto& v : j) substituteServer(v, base);
    }
}

}  // namespace sim
