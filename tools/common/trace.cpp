#include "common/trace.h"

#include <cstdio>

#include <fmt/format.h>

using quenby::platform::Date;

namespace host {

Trace::Trace(std::shared_ptr<quenby::platform::Scheduler> scheduler, Date start, bool json,
             bool retain)
    : scheduler_(std::move(scheduler)), start_(start), json_(json), retain_(retain) {}

double Trace::now() const {
    return scheduler_->now().timeIntervalSince(start_);
}

void Trace::add(const std::string& type, const OrderedJson& fields) {
    OrderedJson r;
    r["t"] = std::round(now() * 1000) / 1000;
    r["type"] = type;
    for (const auto& [k, v] : fields.items()) r[k] = v;
    std::lock_guard lk(mu_);
    if (retain_) records_.push_back(r);
    std::string line =
        json_ ? r.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) : readable(r);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Trace::note(const std::string& text) {
    if (json_) return;
    std::lock_guard lk(mu_);
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

std::vector<OrderedJson> Trace::records(const std::string& type) const {
    std::lock_guard lk(mu_);
    std::vector<OrderedJson> out;
    for (const auto& r : records_) {
        if (r["type"] == type) out.push_back(r);
    }
    return out;
}

namespace {
std::string compact(const OrderedJson& v) {
    return v.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string regionName(const OrderedJson& r) {
    if (!r.is_object()) return "-";
    std::string s = r.value("identifier", std::string());
    if (r.contains("name")) s += " \"" + r["name"].get<std::string>() + "\"";
    if (r.contains("accuracy")) s += fmt::format(" {:.2f} m", r["accuracy"].get<double>());
    return s.empty() ? r.value("class", std::string("?")) : s;
}
}  // namespace

std::string Trace::readable(const OrderedJson& r) const {
    std::string type = r["type"];
    std::string head = fmt::format("{:>10.3f}s  {:<12} ", r["t"].get<double>(), type);
    if (type == "delegate") {
        std::string s = head + r["name"].get<std::string>();
        if (r.contains("region")) s += " " + regionName(r["region"]);
        if (r.contains("beacons")) {
            s += " [";
            for (const auto& b : r["beacons"]) s += " " + regionName(b);
            s += " ]";
        }
        if (r.contains("state")) s += " state " + compact(r["state"]);
        if (r.contains("place")) s += " place " + compact(r["place"]);
        if (r.contains("event")) s += " event " + compact(r["event"]);
        if (r.contains("campaign")) s += " " + compact(r["campaign"]);
        if (r.contains("error")) s += " " + compact(r["error"]);
        return s;
    }
    if (type == "notification") {
        std::string s = head + r["name"].get<std::string>();
        const auto& info = r["userInfo"];
        if (info.contains("QZWRegion")) s += " " + regionName(info["QZWRegion"]);
        if (info.contains("QZWAnalyticsEventDetails"))
            s += " " + compact(info["QZWAnalyticsEventDetails"]);
        return s;
    }
    if (type == "log") return head + r["line"].get<std::string>();
    if (type == "location") {
        return head + r["call"].get<std::string>() +
               (r.contains("region") ? " " + regionName(r["region"]) : "");
    }
    if (type == "server") {
        std::string s = head + r["method"].get<std::string>() + " " + r["path"].get<std::string>();
        std::string body = r["body"];
        if (!body.empty()) {
            auto parsed = nlohmann::json::parse(body, nullptr, false);
            s += "\n" + (parsed.is_discarded() ? body : parsed.dump(2));
        }
        return s;
    }
    OrderedJson rest = r;
    rest.erase("t");
    rest.erase("type");
    return head + compact(rest);
}

OrderedJson regionJson(const QZWRegion& r) {
    OrderedJson j;
    switch (r.kind()) {
        case QZWRegion::Kind::Circle:
            j["class"] = "QZWCircle";
            break;
        case QZWRegion::Kind::BeaconRegion:
            j["class"] = "QZWBeaconRegion";
            break;
        case QZWRegion::Kind::Beacon:
            j["class"] = "QZWBeacon";
            break;
    }
    if (r.identifier()) j["identifier"] = *r.identifier();
    if (r.name()) j["name"] = *r.name();
    j["attributes"] = r.attributes();
    auto identity = [&](const auto& x) {
        if (x.uuid()) j["uuid"] = x.uuid()->uuidString();
        if (x.major()) j["major"] = x.major()->toJson();
        if (x.minor()) j["minor"] = x.minor()->toJson();
    };
    if (auto* c = dynamic_cast<const QZWCircle*>(&r)) {
        j["latitude"] = c->latitude();
        j["longitude"] = c->longitude();
        j["radius"] = c->radius();
    } else if (auto* br = dynamic_cast<const QZWBeaconRegion*>(&r)) {
        identity(*br);
    } else if (auto* b = dynamic_cast<const QZWBeacon*>(&r)) {
        identity(*b);
        j["proximity"] = b->proximity();
        j["accuracy"] = b->accuracy();
        if (b->rssi()) j["rssi"] = b->rssi()->toJson();
    }
    return j;
}

OrderedJson platformRegionJson(const quenby::platform::Region& r) {
    OrderedJson j;
    if (auto* b = dynamic_cast<const quenby::platform::BeaconRegion*>(&r)) {
        j["class"] = "beacon";
        j["identifier"] = r.identifier();
        j["uuid"] = b->proximityUUID().uuidString();
        if (b->major()) j["major"] = *b->major();
        if (b->minor()) j["minor"] = *b->minor();
    } else if (auto* c = dynamic_cast<const quenby::platform::CircularRegion*>(&r)) {
        j["class"] = "circle";
        j["identifier"] = r.identifier();
        j["latitude"] = c->latitude();
        j["longitude"] = c->longitude();
        j["radius"] = c->radius();
    }
    return j;
}

OrderedJson placeJson(const LWPlace& p) {
    OrderedJson j;
    j["id"] = p.id();
    if (p.name()) j["name"] = *p.name();
    j["type"] = p.type();
    return j;
}

OrderedJson campaignJson(const LWCampaign& c) {
    OrderedJson j;
    j["id"] = c.id();
    j["viewed"] = c.viewed();
    j["viewCount"] = c.viewCount();
    j["fulfilled"] = c.fulfilled();
    auto at = c.foundAt();
    j["foundAt"] = at ? placeJson(*at) : OrderedJson();
    return j;
}

OrderedJson errorJson(const quenby::platform::Error& e) {
    OrderedJson j;
    j["domain"] = e.domain;
    j["code"] = e.code;
    j["description"] = e.description;
    return j;
}

}  // namespace host
