#include "common/timeline.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace host {

namespace {

std::string compact(const OrderedJson& v) {
    return v.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string str(const OrderedJson& r, const char* key) {
    auto it = r.find(key);
    return it != r.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A member of what may not be an object at all: the documents come from outside the tool.
OrderedJson at(const OrderedJson& v, const char* key) {
    auto it = v.is_object() ? v.find(key) : v.end();
    return it == v.end() ? OrderedJson() : *it;
}

OrderedJson arrayAt(const OrderedJson& v, const char* key) {
    OrderedJson a = at(v, key);
    return a.is_array() ? a : OrderedJson::array();
}

std::string regionName(const OrderedJson& r) {
    if (!r.is_object()) return "-";
    std::string s = str(r, "identifier");
    if (r.contains("name") && r["name"].is_string()) s += " \"" + str(r, "name") + "\"";
    if (r.contains("accuracy") && r["accuracy"].is_number())
        s += fmt::format(" {:.2f} m", r["accuracy"].get<double>());
    return s.empty() ? r.value("class", std::string("?")) : s;
}

bool isRanging(const OrderedJson& r) {
    std::string type = str(r, "type"), name = str(r, "name");
    if (type == "delegate")
        return name == "zonewise:didRangeBeacons:inRegion:" ||
               (name == "lurewave:didDetectPlace:onEvent:" && r.value("event", -1) == 0);
    if (type == "notification") return name == "QZWManagerDidRangeBeaconsInRegion";
    if (type == "forwarded") return str(r, "call") == "locationManager:didRangeBeacons:inRegion:";
    return false;
}

// What changes from one ranging report to the next while nothing else does: the readings.
void dropReadings(OrderedJson& v) {
    if (v.is_array()) {
        for (auto& e : v) dropReadings(e);
    } else if (v.is_object()) {
        v.erase("accuracy");
        v.erase("rssi");
        v.erase("proximity");
        for (auto& [k, e] : v.items()) dropReadings(e);
    }
}

// The smallest accuracy anywhere in a record; a negative one is the platform's "unknown".
void nearestIn(const OrderedJson& v, std::optional<double>& nearest) {
    if (v.is_array()) {
        for (const auto& e : v) nearestIn(e, nearest);
    } else if (v.is_object()) {
        if (auto it = v.find("accuracy"); it != v.end() && it->is_number()) {
            double a = it->get<double>();
            if (a >= 0) nearest = nearest ? std::min(*nearest, a) : a;
        }
        for (const auto& [k, e] : v.items()) nearestIn(e, nearest);
    }
}

// Which region a ranging record is about, and how to name it. The campaign layer's place event
// names a place made from a region, with the region's name: it folds with that region.
struct Subject {
    std::string key, label;
    bool region;  // named by the region itself, not by a place made from it
};

Subject rangingSubject(const OrderedJson& r) {
    const OrderedJson* region = nullptr;
    if (r.contains("region")) region = &r["region"];
    if (r.contains("userInfo") && r["userInfo"].contains("QZWRegion"))
        region = &r["userInfo"]["QZWRegion"];
    if (region && region->is_object()) {
        OrderedJson bare = *region;
        dropReadings(bare);
        std::string name = str(bare, "name");
        return {name.empty() ? "region " + str(bare, "identifier") : "name " + name,
                regionName(bare), true};
    }
    const auto& place = r.contains("place") ? r["place"] : OrderedJson::object();
    std::string name = str(place, "name");
    std::string id = place.contains("id") ? compact(place["id"]) : "?";
    if (name.empty()) return {"place " + id, "place " + id, false};
    return {"name " + name, "place " + id + " \"" + name + "\"", false};
}

std::string text(const OrderedJson& r) {
    std::string type = str(r, "type");
    if (type == "delegate") {
        std::string s = str(r, "name");
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
        std::string s = str(r, "name");
        const auto& info = r.contains("userInfo") ? r["userInfo"] : OrderedJson::object();
        if (info.contains("QZWRegion")) s += " " + regionName(info["QZWRegion"]);
        if (info.contains("QZWAnalyticsEventDetails"))
            s += " " + compact(info["QZWAnalyticsEventDetails"]);
        return s;
    }
    if (type == "log") return str(r, "line");
    if (type == "location" || type == "forwarded")
        return str(r, "call") + (r.contains("region") ? " " + regionName(r["region"]) : "");
    if (type == "server") {
        std::string s = str(r, "method") + " " + str(r, "path");
        std::string body = str(r, "body");
        return body.empty() ? s : s + "  " + Timeline::summarizeDocument(body);
    }
    OrderedJson rest = r;
    rest.erase("t");
    rest.erase("type");
    return compact(rest);
}

TimelineEntry entryOf(const OrderedJson& r) {
    TimelineEntry e;
    e.from = e.to = r.value("t", 0.0);
    e.type = str(r, "type");
    e.text = text(r);
    if (e.type == "server" && !str(r, "body").empty()) {
        auto body = nlohmann::ordered_json::parse(str(r, "body"), nullptr, false);
        e.details = body.is_discarded() ? str(r, "body") : body.dump(2);
    }
    return e;
}

std::string plain(const OrderedJson& v) {
    // "2026-03-01T09:00:58Z" → "09:00:58"; anything else as it is.
    std::string s = v.is_string() ? v.get<std::string>() : compact(v);
    return s.size() >= 19 && s[10] == 'T' ? s.substr(11, 8) : s;
}

}  // namespace

Timeline::Timeline(bool fold, Sink sink, bool live, double maxSpan)
    : fold_(fold), live_(live), sink_(std::move(sink)), maxSpan_(maxSpan) {}

void Timeline::add(const OrderedJson& record) {
    double t = record.value("t", 0.0);
    bool ranging = fold_ && isRanging(record);
    for (auto& slot : queue_) {
        if (slot.open && ((live_ && !ranging) || t - slot.entry.to > kQuietGap ||
                          t - slot.entry.from >= maxSpan_))
            close(slot);
    }
    if (!ranging) {
        queue_.push_back({entryOf(record)});
        drain();
        return;
    }
    auto [subject, label, byRegion] = rangingSubject(record);
    std::optional<double> nearest;
    nearestIn(record, nearest);
    auto it = std::find_if(queue_.begin(), queue_.end(),
                           [&](const Slot& s) { return s.open && s.subject == subject; });
    if (it == queue_.end()) {
        Slot slot;
        slot.open = true;
        slot.subject = subject;
        slot.entry.from = slot.entry.to = t;
        slot.entry.type = "ranging";
        slot.entry.text = label;
        slot.entry.count = 1;
        slot.entry.nearest = nearest;
        slot.alone.push_back(record);
        queue_.push_back(std::move(slot));
        drain();
        return;
    }
    TimelineEntry& e = it->entry;
    if (t > e.to) {
        e.count++;  // reports, not records: one report reaches the host several ways
        e.to = t;
        it->alone.clear();
    } else if (!it->alone.empty()) {
        it->alone.push_back(record);
    }
    // The region's own name is better than the place's that reached the fold first.
    if (byRegion) e.text = label;
    if (nearest) e.nearest = e.nearest ? std::min(*e.nearest, *nearest) : *nearest;
    drain();
}

void Timeline::close(Slot& s) {
    s.open = false;
    if (s.alone.empty()) return;
    // Reports of a single instant are printed as they came, readings and all.
    std::vector<TimelineEntry> lines;
    for (const auto& r : s.alone) lines.push_back(entryOf(r));
    s.alone.clear();
    s.entry = lines.back();
    lines.pop_back();
    s.before = std::move(lines);
}

void Timeline::drain() {
    std::size_t n = 0;
    for (; n < queue_.size() && !queue_[n].open; ++n) {
        for (const auto& e : queue_[n].before) sink_(e);
        sink_(queue_[n].entry);
    }
    queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(n));
}

void Timeline::flush() {
    for (auto& slot : queue_)
        if (slot.open) close(slot);
    drain();
}

std::vector<TimelineEntry> Timeline::of(const std::vector<OrderedJson>& records) {
    std::vector<TimelineEntry> out;
    Timeline t(true, [&](const TimelineEntry& e) { out.push_back(e); });
    for (const auto& r : records) t.add(r);
    t.flush();
    return out;
}

std::string Timeline::format(const TimelineEntry& e, bool verbose) {
    std::string s = fmt::format("{:>10.3f}s  {:<12} {}", e.from, e.type, e.text);
    if (e.count > 1) {
        s += fmt::format("  x{} over {:.1f}–{:.1f} s", e.count, e.from, e.to);
        if (e.nearest) s += fmt::format(", nearest {:.1f} m", *e.nearest);
    }
    if (verbose && !e.details.empty()) s += "\n" + e.details;
    return s;
}

std::string Timeline::summarizeDocument(const std::string& body) {
    auto doc = nlohmann::ordered_json::parse(body, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        std::string s = doc.is_discarded() ? body : compact(doc);
        return s.size() > 120 ? s.substr(0, 117) + "..." : s;
    }
    std::vector<std::string> parts;
    if (doc.contains("beacon_status_events")) {
        std::string s = "beacon status:";
        for (const auto& e : arrayAt(doc, "beacon_status_events")) {
            s += fmt::format(" {}/{}", compact(at(e, "major")),
                             compact(at(e, "minor")));
            for (const char* k : {"first_seen", "last_seen"})
                if (e.contains(k)) s += fmt::format(" {} {}", k[0] == 'f' ? "first seen" : "last seen", plain(e[k]));
        }
        parts.push_back(s);
    }
    // Custom events travel grouped by type, one "<type>_events" array each.
    for (const auto& [key, events] : doc.items()) {
        const std::string suffix = "_events";
        if (key == "zonewise_events" || key == "beacon_status_events" || !events.is_array() ||
            key.size() <= suffix.size() || key.compare(key.size() - suffix.size(), suffix.size(), suffix))
            continue;
        std::string s;
        for (const auto& e : events) {
            if (!e.is_object()) continue;
            s += s.empty() ? " " : ", ";
            s += str(e, "event_type").empty() ? std::string("?") : str(e, "event_type");
            if (e.contains("campaign_id")) s += " " + plain(e["campaign_id"]);
            if (e.contains("place_id")) s += " at place " + plain(e["place_id"]);
        }
        parts.push_back(key.substr(0, key.size() - suffix.size()) + " events:" +
                        (s.empty() ? " none" : s));
    }
    if (doc.contains("zonewise_events")) {
        std::string s;
        for (const auto& k : arrayAt(doc, "zonewise_events")) {
            for (const auto& v : arrayAt(k, "region_sessions"))
                s += fmt::format("{}beacon region {}/{}", s.empty() ? " " : ", ",
                                 plain(at(v, "region_major")),
                                 plain(at(v, "region_minor")));
            for (const auto& v : arrayAt(k, "geo_region_sessions"))
                s += (s.empty() ? " geofence " : ", geofence ") + plain(at(v, "region_id"));
        }
        parts.push_back("visits:" + (s.empty() ? std::string(" none") : s));
    }
    if (doc.contains("ios_token")) parts.push_back("push token " + plain(doc["ios_token"]));
    if (parts.empty()) {
        std::string s = compact(doc);
        return s.size() > 120 ? s.substr(0, 117) + "..." : s;
    }
    std::string s;
    for (const auto& p : parts) s += (s.empty() ? "" : "; ") + p;
    return s;
}

}  // namespace host
