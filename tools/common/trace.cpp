#include "common/trace.h"

#include <cstdio>

#include <fmt/format.h>

using quenby::platform::Date;

namespace host {

Trace::Trace(std::shared_ptr<quenby::platform::Scheduler> scheduler, Date start, Form form,
             bool live, double maxFold, Observer observer)
    : scheduler_(std::move(scheduler)),
      start_(start),
      form_(form),
      observer_(std::move(observer)),
      timeline_(form == Form::Timeline,
                [form](const TimelineEntry& e) { print(Timeline::format(e, form == Form::Verbose)); },
                live, maxFold) {}

double Trace::now() const {
    return scheduler_->now().timeIntervalSince(start_);
}

void Trace::print(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Trace::add(const std::string& type, const OrderedJson& fields) {
    OrderedJson r;
    r["t"] = std::round(now() * 1000) / 1000;
    r["type"] = type;
    for (const auto& [k, v] : fields.items()) r[k] = v;
    std::lock_guard lk(mu_);
    if (observer_) observer_(r);
    if (form_ == Form::Json)
        print(r.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    else
        timeline_.add(r);
}

void Trace::note(const std::string& text) {
    if (form_ == Form::Json) return;
    std::lock_guard lk(mu_);
    timeline_.flush();
    print(text);
}

void Trace::flush() {
    std::lock_guard lk(mu_);
    timeline_.flush();
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
