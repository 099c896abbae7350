// lurewave-sim from the outside: scenarios in, JSON Lines out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <thread>

#include "support/test_server.h"
#include "support/test_support.h"

using nlohmann::json;
using quenby::test::TempDir;
using quenby::test::countOf;

namespace {

const char* kU = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

struct SimRun {
    int status = -1;
    std::vector<json> trace;
    std::string out, err;

    std::vector<json> of(const std::string& type) const {
        std::vector<json> r;
        std::copy_if(trace.begin(), trace.end(), std::back_inserter(r),
                     [&](const json& l) { return l["type"] == type; });
        return r;
    }
    // The lines of `type` whose name, call, line or path (whichever that type has) is `what`.
    std::vector<json> where(const std::string& type, const json& what) const {
        static const std::map<std::string, std::string> key = {
            {"delegate", "name"}, {"notification", "name"}, {"log", "line"}, {"server", "path"}};
        std::string k = key.contains(type) ? key.at(type) : "call";
        std::vector<json> r;
        for (const auto& l : of(type))
            if (l.contains(k) && l[k] == what) r.push_back(l);
        return r;
    }
};

SimRun run(const std::string& scenario, std::vector<std::string> args = {"--json"}) {
    TempDir dir;
    quenby::test::writeFile(dir.file("s.json"), scenario);
    std::string cmd = std::string(QUENBY_SIM_TOOL) + " run " + dir.file("s.json");
    for (const auto& a : args) cmd += " " + a;
    int raw = std::system((cmd + " > " + dir.file("out") + " 2> " + dir.file("err")).c_str());
    SimRun r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1,
             {},
             quenby::test::readFile(dir.file("out")).value_or(""),
             quenby::test::readFile(dir.file("err")).value_or("")};
    if (std::find(args.begin(), args.end(), "--json") == args.end()) return r;
    for (std::size_t pos = 0, end; pos < r.out.size(); pos = end + 1) {
        end = r.out.find('\n', pos);
        r.trace.push_back(json::parse(r.out.substr(pos, end - pos)));
    }
    return r;
}

// A store with a door beacon (place 7), a checkout beacon (place 9) and a car park (place 7), and
// one campaign found at the door within 2 m and fulfilled at the checkout.
json store(json steps, json device = json::object(), std::string host = "campaigns") {
    json s = json::parse(R"({"start": "2026-03-01T09:00:00Z",
      "bundle": {"Info.plist": {"NSLocationAlwaysUsageDescription": "offers"},
        "Lurewave.plist": {"LWKitURL": "{server}/campaigns", "LWAPIToken": "lw",
          "ZWKitURL": "{server}/kit", "ZWAPIToken": "zw", "ZWAnalyticsURL": "{server}/analytics"},
        "Zonewise.plist": {"ZWKitURL": "{server}/kit", "ZWAPIToken": "zw",
          "ZWAnalyticsURL": "{server}/analytics"}},
      "server": {
        "kit": {"kit": {"id": 17, "status_url": "{server}/status", "status_token": "st",
          "map": {"overlays": [{"type": "circle", "identifier": "lot", "name": "Car park",
            "center": [40.0, -75.0], "radius": 30, "attributes": {"lw_place_ids": "[7]"}}]},
          "ibeacons": [
            {"uuid": "U", "major": 1, "minor": 1, "identifier": "door", "name": "Door",
             "attributes": {"lw_place_ids": "[7]"}},
            {"uuid": "U", "major": 1, "minor": 3, "identifier": "checkout", "name": "Checkout",
             "attributes": {"lw_place_ids": "[9]"}}]}},
        "campaigns": {"kits": [{"id": 17, "configuration": {"ios_tokens_url": "{server}/tokens"}}],
          "linked": {
            "contents": [{"id": 5, "alert_title": "20% off", "alert_message": "Today only"}],
            "campaigns": [{"id": "c1", "start_at": "2026-03-01T08:00:00.000+0000",
              "end_at": "2026-03-02T08:00:00.000+0000", "trigger_distance": 2.0,
              "links": {"content": 5, "places": [7], "fulfillment_places": [9]}}]}}}})");
    for (auto& b : s["server"]["kit"]["kit"]["ibeacons"]) b["uuid"] = kU;
    s["host"] = host;
    s["device"] = device;
    s["steps"] = steps;
    return s;
}

json door() {
    return {{"uuid", kU}, {"major", 1}, {"minor", 1}, {"identifier", "door"}};
}
json beacon(int minor, double accuracy) {
    return {{"uuid", kU},     {"major", 1},           {"minor", minor},
            {"proximity", 2}, {"accuracy", accuracy}, {"rssi", -60}};
}
json call(int at, const std::string& name, json more = json::object()) {
    more["at"] = at;
    more["call"] = name;
    return more;
}
json clError(int code) {
    return {{"domain", "kCLErrorDomain"}, {"code", code}};
}

// Start, a walk past the door beacon at `beaconAt` along `path` from second 1, a sync at 2.
json startWalkSync(const json& beaconAt, const json& path) {
    json beacon = {
        {"uuid", kU}, {"major", 1}, {"minor", 1}, {"at", beaconAt}, {"measuredPower", -59}};
    json walk = {{"origin", {40.0, -75.0}}, {"beacons", json::array({beacon})}, {"path", path}};
    return json::array({call(0, "start"), {{"at", 1}, {"walk", walk}}, call(2, "sync")});
}

}  // namespace

TEST(LurewaveSim, CampaignHostActionsAndTraceLines) {
    // clang-format off
    json steps = json::array({
        call(0, "start"), call(1, "setPartnerIdentifier", {{"value", "p-1"}}),
        call(1, "logLevel", {{"value", 7}}), {{"at", 2}, {"enter", door()}},
        {{"at", 3}, {"range", door()}, {"beacons", {beacon(1, 2.5)}}},
        {{"at", 4}, {"range", door()}, {"beacons", {beacon(1, 1.5)}}},
        call(5, "setCampaignViewed", {{"campaign", "c1"}}),
        call(5, "setCampaignViewed", {{"campaign", "nope"}}),
        {{"at", 6}, {"range", {{"uuid", kU}, {"major", 1}, {"minor", 3}}},
         {"beacons", {beacon(3, 4.0)}}},
        call(7, "setCampaignFulfilled",
             {{"campaign", "c1"}, {"place", {{"id", 9}, {"name", "n"}, {"type", 0}}}}),
        {{"at", 7}, {"state", {{"identifier", "lot"}, {"center", {40.0, -75.0}}, {"radius", 30}}},
         {"value", 1}},
        {{"at", 8}, {"exit", door()}}, {{"at", 9}, {"fail", clError(1)}},
        {{"at", 9}, {"rangingFail", door()}, {"error", clError(16)}},
        {{"at", 9}, {"monitoringFail", door()}, {"error", clError(4)}},
        {{"at", 10}, {"location", {40.5, -75.25}}}, call(10, "getLat"), call(10, "getLng"),
        call(11, "registerDeviceToken", {{"hex", "0a1b2c"}}),
        {{"at", 11}, {"deviceToken", "0a1b2c"}}, call(12, "deregisterDeviceToken"),
        call(13, "showCampaignAlert", {{"campaign", "c1"}}), {{"at", 13}, {"alertButton", 1}},
        {{"at", 14}, {"push", {{"aps", {{"content-available", 1}}}}}},
        call(15, "remoteNotification", {{"userInfo", json::object()}}),
        call(16, "syncWithCompletionHandler"),
        call(17, "postEvent", {{"type", "custom"}, {"details", {{"k", "{server}/a {server}/b"}}}}),
        call(18, "foundCampaigns"), call(18, "activeCampaigns"),
        {{"at", 19}, {"applicationState", "background"}}, {{"at", 19}, {"enter", door()}},
        {{"at", 20}, {"expireBackgroundTask", "Lurewave:ExtendedRanging"}},
        call(21, "resignActive"), {{"at", 22}, {"authorization", 2}},
        {{"at", 23}, {"pass", {{{"enter", door()}}, {{"enter", door()}}}}}, call(24, "sync"),
        call(25, "stop"), call(26, "destroy"), call(27, "create"), call(28, "foundCampaigns")});
    // clang-format on
    auto r = run(
        store(steps, {{"secondListener", true}, {"hostAppDelegate", {"legacy", "token"}}}).dump());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    std::set<std::string> types;
    for (const auto& l : r.trace) {
        ASSERT_TRUE(l.contains("t") && l.contains("type")) << l;
        types.insert(l["type"]);
    }
    EXPECT_EQ(types, (std::set<std::string>{"app", "delegate", "forwarded", "location", "log",
                                            "notification", "result", "server"}));

    // How many lines of a kind ("some": at least one). Two entries in one pass make one
    // notification, though the listener hears both.
    for (const auto& c : json::parse(R"([
        ["delegate", "lurewave:didFindCampaign:", 2], ["app", "scheduleLocalNotification", 2],
        ["result", "setCampaignViewed", 2], ["app", "showAlert", 1], ["server", "/tokens", 2],
        ["notification", "QZWManagerDidDetermineStateForRegion", 1],
        ["notification", "QZWManagerDidEnterRegion", 3],
        ["forwarded", "locationManager:didEnterRegion:", 4],
        ["forwarded", "locationManager:didExitRegion:", 1],
        ["app", "endBackgroundTask", "some"], ["result", "syncWithCompletionHandler", "some"],
        ["forwarded", "locationManager:didChangeAuthorizationStatus:", "some"],
        ["forwarded", "locationManager:monitoringDidFailForRegion:withError:", "some"],
        ["delegate", "lurewave:didFailWithError:", "some"],
        ["location", "stopMonitoringForRegion", "some"], ["app", "hostDelegate", 2],
        ["log", "Lurewave: Sync completed.", "some"],
        ["log", "Zonewise[Debug] Monitoring Geofence Circle Car park", "some"]])")) {
        auto n = r.where(c[0], c[1]).size();
        EXPECT_TRUE(c[2] == "some" ? n > 0 : c[2] == n) << c << ": " << n;
    }
    // Fields of the n-th line of a kind. Found at 1.5 m (not 2.5 m), viewed, fulfilled; the host
    // schedules the notification. Without a recurrence it is found again when the car park's state
    // says inside (a geofence is near).
    for (const auto& f : json::parse(R"([
        ["delegate", "lurewave:didFindCampaign:", 0, "/t", 4],
        ["delegate", "lurewave:didFindCampaign:", 1, "/t", 7],
        ["delegate", "lurewave:didFindCampaign:", 0, "/campaign/foundAt",
         {"id": 7, "name": "Door", "type": 0}],
        ["app", "scheduleLocalNotification", 0, "/body", "20%% off"],
        ["app", "scheduleLocalNotification", 0, "/userInfo", {"campaignId": "c1"}],
        ["result", "setCampaignViewed", 0, "/value/viewCount", 1],
        ["result", "setCampaignViewed", 1, "/value", null, "no campaign of that id"],
        ["result", "setCampaignFulfilled", 0, "/value/fulfilled", true, "already, at the checkout"],
        ["delegate", "lurewave:didDetectPlace:onEvent:", 0, "/event", 1],
        ["delegate", "lurewave:didDetectPlace:onEvent:", 0, "/place/id", 7],
        ["app", "beginBackgroundTask", 0, "/name", "Lurewave:ExtendedRanging"],
        ["app", "showAlert", 0, "/buttons", ["Cancel", "View Details"]],
        ["result", "alertCompletion", 0, "/value", "c1"],
        ["result", "getLat", 0, "/value", "40.500000"],
        ["result", "getLng", 0, "/value", "-75.250000"],
        ["result", "remoteNotification", 0, "/value", 0, "a place 13 s ago"],
        ["result", "push", 0, "/value", 0],
        ["result", "foundCampaigns", 0, "/value", ["c1"]],
        ["result", "activeCampaigns", 0, "/value", ["c1"]],
        ["result", "foundCampaigns", 1, "/value", ["c1"], "restored by the manager created again"],
        ["app", "hostDelegate", 0, "/name", "token"], ["app", "hostDelegate", 1, "/name", "legacy"],
        ["notification", "QZWManagerDidTriggerAnalyticsEvent", 0,
         "/userInfo/QZWAnalyticsEventType", "lurewave_events"],
        ["notification", "QZWManagerDidRangeBeaconsInRegion", 0, "/userInfo/QZWEvent", 4],
        ["notification", "QZWManagerDidRangeBeaconsInRegion", 0,
         "/userInfo/QZWIBeacons/0/class", "QZWBeacon"],
        ["notification", "QZWManagerDidRangeBeaconsInRegion", 0,
         "/userInfo/QZWIBeacons/0/accuracy", 2.5],
        ["notification", "QZWManagerDidDetermineStateForRegion", 0, "/userInfo/QZWRegionState", 1],
        ["notification", "QZWManagerDidDetermineStateForRegion", 0,
         "/userInfo/QZWRegion/class", "QZWCircle"],
        ["notification", "QZWManagerDidEnterRegion", 0, "/userInfo/QZWRegion/class",
         "QZWBeaconRegion"],
        ["location", "startMonitoringForRegion", 0, "/region", {"class": "circle",
         "identifier": "lot", "latitude": 40.0, "longitude": -75.0, "radius": 30.0}],
        ["server", "/tokens", 0, "/method", "POST"], ["server", "/tokens", 1, "/method", "DELETE"],
        ["server", "/tokens", 0, "/body", "{\"ios_token\":\"0a1b2c\"}"],
        ["server", "/tokens", 0, "/headers/X-LW-FrameworkVersion", "0.2.1"]])")) {
        auto lines = r.where(f[0], f[1]);
        json::json_pointer at(f[3].get<std::string>());
        ASSERT_LT(f[2].get<std::size_t>(), lines.size()) << f;
        const json& l = lines[f[2].get<std::size_t>()];
        EXPECT_EQ(l.contains(at) ? l[at] : json("(none)"), f[4]) << f;
    }
    // Only the server's own Host header keeps the placeholder: each of a string's {server}s
    // is replaced.
    EXPECT_EQ(countOf(r.out, "{server}"), countOf(r.out, "\"Host\":\"{server}\""));
}

TEST(LurewaveSim, ProximityHostWalkAndReadableTimeline) {
    // The sync registers again while walking: the walk answers the state request. The path starts
    // at 5 s, half a 10-second mark interval before 10 s.
    json steps = startWalkSync({40, 0}, {{-60, 0, 4}, {40, 0.5, 60}, {90, 0, 100}});
    json s = store(steps, json::object(), "proximity");
    std::string wide(130, 'P');  // wider than the map: the label goes in anyway
    s["server"]["kit"]["kit"]["map"]["overlays"][0]["name"] = wide;
    s["until"] = 200;
    TempDir docs;
    auto r = run(s.dump(), {"--json", "--documents", docs.path(), "--svg", docs.file("map.svg")});
    ASSERT_EQ(r.status, 0) << r.err;
    auto names = [&](const std::string& n) { return r.where("delegate", n).size(); };
    EXPECT_EQ(names("zonewiseDidSync:"), 2u);
    EXPECT_EQ(names("zonewise:didEnter:"), 2u) << "the car park, then the door";
    EXPECT_EQ(names("zonewise:didExit:"), 2u);
    auto range = r.where("delegate", "zonewise:didRangeBeacons:inRegion:");
    EXPECT_GT(range.size(), 20u);
    auto state = r.where("delegate", "zonewise:didDetermineState:forRegion:");
    ASSERT_EQ(state.size(), 1u) << "the state request made during the walk is answered";
    EXPECT_EQ(state[0]["state"], 2) << "still outside the car park";
    double nearest = 99;
    for (const auto& l : range)
        nearest = std::min(nearest, l["beacons"][0]["accuracy"].get<double>());
    EXPECT_LT(nearest, 1.5) << "passing within half a metre";
    EXPECT_TRUE(quenby::test::readFile(docs.file("ZonewiseAnalytics.sqlite")));
    std::string map = quenby::test::readFile(docs.file("map.svg")).value_or("");
    EXPECT_NE(map.find("<polyline"), std::string::npos);
    EXPECT_NE(map.find(">" + wide + " · r 30 m</text>"), std::string::npos);
    EXPECT_EQ(countOf(map, "class=\"time\""), 11u) << "5, 10, 20 … 90 and 101 s";

    // The same run as a readable timeline ends with a summary.
    auto readable = run(s.dump(), {});
    EXPECT_EQ(readable.status, 0);
    EXPECT_NE(readable.out.find("zonewise:didEnter: door \"Door\""), std::string::npos);
    EXPECT_NE(readable.out.find("Summary"), std::string::npos);
}

TEST(LurewaveSim, DeviceWithoutRangingFailsEveryRangingRequestAndIsNeverRanged) {
    // The sync asks to range everything again while walking.
    json steps = startWalkSync({0, 0}, {{-30, 0, 0}, {0, 0, 30}, {30, 0, 60}});
    json s = store(steps, {{"rangingAvailable", false}, {"secondListener", true}}, "proximity");
    s["until"] = 100;
    auto r = run(s.dump());
    ASSERT_EQ(r.status, 0) << r.err;

    auto asked = r.where("location", "startRangingBeaconsInRegion");
    auto failed = r.where("forwarded", "locationManager:rangingBeaconsDidFailForRegion:withError:");
    ASSERT_GE(asked.size(), 4u) << "both beacon regions, at the start and on the sync";
    EXPECT_EQ(failed.size(), asked.size()) << "one failure for every request";
    std::multiset<std::string> askedIds, failedIds;
    for (const auto& l : asked) askedIds.insert(l["region"]["identifier"]);
    for (const auto& l : failed) failedIds.insert(l["region"]["identifier"]);
    EXPECT_EQ(failedIds, askedIds);
    EXPECT_EQ(asked[0]["region"], json({{"class", "beacon"},
                                        {"identifier", asked[0]["region"]["identifier"]},
                                        {"uuid", kU},
                                        {"major", 1},
                                        {"minor", asked[0]["region"]["minor"]}}));
    for (std::size_t i = 0; i < std::min(asked.size(), failed.size()); ++i)
        EXPECT_EQ(failed[i]["t"], asked[i]["t"]) << "answered at once, without virtual time";
    std::size_t logged = 0;
    for (const auto& l : r.of("log"))
        logged += l["line"].get<std::string>().find(
                      "Ranging Beacons Failed with Error: Error "
                      "Domain=kCLErrorDomain Code=16 ") != std::string::npos;
    EXPECT_EQ(logged, asked.size());

    EXPECT_FALSE(r.where("delegate", "zonewise:didEnter:").empty())
        << "beacon regions are still monitored";
    EXPECT_TRUE(r.where("delegate", "zonewise:didRangeBeacons:inRegion:").empty());
    EXPECT_TRUE(r.where("notification", "QZWManagerDidRangeBeaconsInRegion").empty());
    EXPECT_TRUE(r.where("forwarded", "locationManager:didRangeBeacons:inRegion:").empty());
}

TEST(LurewaveSim, MissingLocationUsageEndsWithTheException) {
    json s = store(json::array({call(0, "start")}));
    s["bundle"].erase("Info.plist");
    auto r = run(s.dump());
    EXPECT_EQ(r.status, 3);
    auto e = r.of("exception");
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]["name"], "Missing info.plist key");
    EXPECT_EQ(e[0]["reason"],
              "You must add either the NSLocationAlwaysUsageDescription or "
              "NSLocationWhenInUseUsageDescription keys to your info.plist file.");
}

TEST(LurewaveSim, MalformedScenariosAreRejectedBeforeAnythingRuns) {
    // A scenario's text, a scenario, or a step that follows a start ("U" standing for the beacons'
    // UUID, "door" for their region); and how the one message ends, naming what is wrong and where.
    for (const auto& c : json::parse(R"([["{not json", "not JSON: "],
        [{"stpes": []}, "unknown key \"stpes\" in the scenario"],
        [{"device": {"vendorId": "not-a-uuid"}}, "\"vendorId\" must be a UUID"],
        [{"device": {"authorization": "3"}}, "\"authorization\" must be an integer"],
        [{"device": {"monitoringAvailable": "yes"}},
         "\"monitoringAvailable\" must be true or false"],
        [{"device": {"applicationState": "asleep"}},
         "\"applicationState\" must be active, inactive or background"],
        [{"at": 5, "jump": 1}, "unknown action \"jump\""],
        [{"at": 5, "call": "dance"}, "unknown call \"dance\""],
        [{"at": -1, "call": "stop"}, "time goes back"],
        [{"at": 5, "enter": {"uuid": "U", "minor": 2}},
         "a beacon region with a minor needs a major"],
        [{"at": 5, "exit": {"uuid": "U", "major": 70000}}, "\"major\" must be from 0 to 65535"],
        [{"at": 5, "enter": {"identifier": "f", "radius": "far"}}, "\"radius\" must be a number"],
        [{"at": 5, "state": {"identifier": "f"}}, "\"state\" needs \"value\""],
        [{"at": 5, "range": "door", "beacons": [{"uuid": "U"}]}, "a beacon needs \"major\""],
        [{"at": 5, "range": "door", "beacons": [{"uuid": "U", "major": 1, "minor": 1,
          "accuracy": "near"}]}, "\"accuracy\" must be a number"],
        [{"at": 5, "call": "registerDeviceToken", "hex": "abc"},
         "a hex string needs an even number of digits"],
        [{"at": 5, "call": "setPartnerIdentifier", "value": 5}, "\"value\" must be a string"],
        [{"at": 5, "call": "setCampaignFulfilled", "campaign": "c1", "place": {"id": 9, "name": 9}},
         "a place's \"name\" must be a string"],
        [{"at": 5, "call": "postEvent", "type": "t", "details": 1},
         "\"details\" must be an object"],
        [{"at": 5, "walk": {"beacons": [], "path": [[0, 0, 0]]}}, "\"walk\" needs \"origin\""],
        [{"at": 5, "walk": {"origin": [0, 0], "beacons": [{"major": 1, "minor": 1, "at": [0, 0]}],
          "path": [[0, 0, 0]]}}, "a walk beacon needs \"uuid\""],
        [{"at": "5", "call": "stop"}, "\"at\" must be a number"],
        [{"host": "proximity", "steps": [{"at": 0, "call": "foundCampaigns"}]},
         "step 0 (at 0): call \"foundCampaigns\" needs the campaigns host"]])")) {
        std::string scenario = c[0].is_string() ? c[0].get<std::string>() : c[0].dump();
        std::string message = c[1];
        for (std::size_t p; (p = scenario.find("\"U\"")) != std::string::npos;)
            scenario.replace(p, 3, json(kU).dump());
        if (c[0].contains("at")) {
            json step = json::parse(scenario);
            if (step.contains("range")) step["range"] = door();
            scenario = json{{"steps", {call(0, "start"), step}}}.dump();
            message = "step 1 (at " + step["at"].dump() + "): " + message;
        }
        auto r = run(scenario);
        EXPECT_EQ(r.status, 2) << scenario;
        EXPECT_TRUE(r.out.empty()) << "no trace for " << scenario;
        // The parser's own words after "not JSON: " are not the tool's.
        EXPECT_TRUE(message.ends_with(": ") ? r.err.find(message) != std::string::npos
                                            : r.err.ends_with(": " + message + "\n"))
            << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << "one message: " << r.err;
    }
}

TEST(LurewaveSim, ServeAnswersTheKitAndFeedAndPrintsEveryRequest) {
    TempDir dir;
    quenby::test::writeFile(dir.file("kit.json"), R"({"kit": {"id": 1}})");
    quenby::test::writeFile(dir.file("feed.json"), R"({"kits": [{"id": 1}]})");
    auto serve = [&](int port) {
        return std::string(QUENBY_SIM_TOOL) + " serve --kit " + dir.file("kit.json") +
               " --campaigns " + dir.file("feed.json") + " --port " + std::to_string(port) + " > " +
               dir.file("out") + " 2>&1";
    };
    int port = quenby::test::refusedPort();
    FILE* p = popen((serve(port) + " & echo $!").c_str(), "r");
    int pid = 0;
    ASSERT_EQ(fscanf(p, "%d", &pid), 1);
    pclose(p);
    httplib::Client client("127.0.0.1", port);
    // The server process is starting: retry the connection, not a wait on the library.
    auto kit = client.Get("/kit");
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!kit && std::chrono::steady_clock::now() < give_up) kit = client.Get("/kit");
    ASSERT_TRUE(kit);
    EXPECT_EQ(json::parse(kit->body), json({{"kit", {{"id", 1}}}}));
    EXPECT_EQ(json::parse(client.Get("/campaigns")->body), json({{"kits", {{{"id", 1}}}}}));
    EXPECT_EQ(client.Post("/analytics", "{\"a\":1}", "application/json")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Delete("/tokens")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Put("/places", "{}", "application/json")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Post("/status", "plain words", "text/plain")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Get("/other")->status, 404);
    kill(pid, SIGTERM);
    give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (kill(pid, 0) == 0 && std::chrono::steady_clock::now() < give_up)
        std::this_thread::yield();
    std::string out = quenby::test::readFile(dir.file("out")).value_or("");
    EXPECT_NE(out.find("\"a\": 1"), std::string::npos) << out;
    EXPECT_NE(out.find("\nplain words\n"), std::string::npos)
        << "a body that is not JSON as it came";
    EXPECT_NE(out.find("serving on http://127.0.0.1:" + std::to_string(port) +
                       ": GET /kit, GET /campaigns, POST and DELETE anywhere else\n"),
              std::string::npos);
    // Every request heads its own line, however the greeting and the first request interleave.
    for (const char* line : {"GET /kit", "GET /campaigns", "POST /analytics", "DELETE /tokens",
                             "PUT /places", "POST /status"})
        EXPECT_NE(("\n" + out).find(std::string("\n") + line + "\n"), std::string::npos) << line;

    // A port another socket holds (without SO_REUSEPORT, which the server sets): the server says
    // which, and does not start.
    int held = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(held, reinterpret_cast<sockaddr*>(&addr), len), 0);
    ::listen(held, 1);
    ::getsockname(held, reinterpret_cast<sockaddr*>(&addr), &len);
    int raw = std::system(("timeout 30 " + serve(ntohs(addr.sin_port))).c_str());
    ::close(held);
    EXPECT_NE(raw, 0);
    out = quenby::test::readFile(dir.file("out")).value_or("");
    EXPECT_NE(out.find("cannot listen on 127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "\n"),
              std::string::npos)
        << out;
}

TEST(LurewaveSim, SameScenarioSameTraceByteForByte) {
    // A walk past the door, ranged every second: the sync timer's analytics upload and the
    // status watchdog come due on the same seconds (every 30) as a ranging pass and its upload.
    json together = store(startWalkSync({40, 0}, {{-60, 0, 4}, {40, 0.5, 60}, {90, 0, 100}}),
                          json::object(), "proximity");
    together["until"] = 200;
    std::string example =
        quenby::test::readFile(std::string(QUENBY_SOURCE_DIR) + "/examples/shopper.json")
            .value_or("");
    ASSERT_FALSE(example.empty());
    for (const auto& scenario : {together.dump(), example}) {
        auto first = run(scenario);
        ASSERT_EQ(first.status, 0) << first.err;
        ASSERT_FALSE(first.where("server", "/status").empty());
        ASSERT_FALSE(first.where("server", "/analytics").empty());
        // The server's own port, new every run, is written as the scenario writes its address.
        EXPECT_EQ(first.of("server")[0]["headers"].value("Host", ""), "{server}");
        for (int i = 0; i < 4; ++i) {
            auto again = run(scenario);
            EXPECT_EQ(again.status, 0) << again.err;
            if (again.out == first.out) continue;
            // Name the first line that differs, not two traces of thousands of lines.
            auto at = std::mismatch(first.out.begin(), first.out.end(), again.out.begin(),
                                    again.out.end());
            auto line = [](const std::string& s, std::string::const_iterator it) {
                auto from = s.rfind('\n', it - s.begin());
                from = from == std::string::npos ? 0 : from + 1;
                return s.substr(from, s.find('\n', from) - from);
            };
            FAIL() << "run " << i + 2 << " differs from the first at line "
                   << std::count(first.out.begin(), at.first, '\n') + 1 << ":\n  "
                   << line(first.out, at.first) << "\n  " << line(again.out, at.second);
        }
    }
}
