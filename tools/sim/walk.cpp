#include "sim/walk.h"

#include <cmath>

#include "sensing/radio.h"

namespace sim {

using quenby::platform::BeaconRegion;
using quenby::platform::CircularRegion;
using quenby::platform::Region;

namespace {
constexpr double kMetresPerDegree = 111320.0;
}

Walk::Walk(const nlohmann::json& description,
           std::shared_ptr<quenby::platform::Scheduler> scheduler,
           std::shared_ptr<quenby::platform::LocationService> location)
    : scheduler_(std::move(scheduler)), location_(std::move(location)) {
    originLat_ = description["origin"][0].get<double>();
    originLng_ = description["origin"][1].get<double>();
    for (const auto& b : description["beacons"]) {
        beacons_.push_back({*quenby::platform::UUID::parse(b["uuid"].get<std::string>()),
                            b["major"].get<int>(), b["minor"].get<int>(), b["at"][0].get<double>(),
                            b["at"][1].get<double>(), b.value("measuredPower", -59.0)});
    }
    for (const auto& p : description["path"]) {
        path_.push_back({p[0].get<double>(), p[1].get<double>(), p[2].get<double>()});
    }
}

std::pair<double, double> Walk::toLocal(double latitude, double longitude) const {
    double x = (longitude - originLng_) * kMetresPerDegree * std::cos(originLat_ * M_PI / 180.0);
    double y = (latitude - originLat_) * kMetresPerDegree;
    return {x, y};
}

std::pair<double, double> Walk::positionAt(double s) const {
    if (s <= path_.front().t) return {path_.front().x, path_.front().y};
    for (std::size_t i = 1; i < path_.size(); ++i) {
        const Point &a = path_[i - 1], &b = path_[i];
        if (s <= b.t) {
            double f = b.t > a.t ? (s - a.t) / (b.t - a.t) : 1.0;
            return {a.x + (b.x - a.x) * f, a.y + (b.y - a.y) * f};
        }
    }
    return {path_.back().x, path_.back().y};
}

void Walk::start() {
    startedAt_ = scheduler_->now().timeIntervalSince1970();
    std::weak_ptr<Walk> weak = weak_from_this();
    timer_ = scheduler_->scheduleRunLoopTimer(1.0, true, [weak] {
        if (auto self = weak.lock()) self->tick();
    });
    tick();  // where the walk begins counts too
}

bool Walk::insideCircle(const CircularRegion& c, double x, double y) const {
    auto [cx, cy] = toLocal(c.latitude(), c.longitude());
    return std::hypot(x - cx, y - cy) <= c.radius();
}

std::vector<quenby::platform::Beacon> Walk::heard(const BeaconRegion& region, double x, double y) {
    std::normal_distribution<double> noise(0.0, kNoiseDb);
    std::vector<quenby::platform::Beacon> out;
    for (const auto& t : beacons_) {
        if (t.uuid != region.proximityUUID()) continue;
        if (region.major() && *region.major() != t.major) continue;
        if (region.minor() && *region.minor() != t.minor) continue;
        using quenby::sensing::RadioModel;
        double rssi =
            RadioModel::rssiAt(t.measuredPower, std::hypot(x - t.x, y - t.y)) + noise(rng_);
        if (rssi < RadioModel::kHearingDbm) continue;
        double accuracy = RadioModel::distanceFor(t.measuredPower, rssi);
        std::int64_t proximity = RadioModel::proximityFor(accuracy);
        out.push_back({t.uuid, t.major, t.minor, proximity, std::round(accuracy * 100) / 100,
                       std::lround(rssi)});
    }
    return out;
}

void Walk::answerStateRequest(const std::shared_ptr<const Region>& region) {
    double s = scheduler_->now().timeIntervalSince1970() - startedAt_;
    auto [x, y] = positionAt(s);
    bool in = false;
    if (auto* c = dynamic_cast<const CircularRegion*>(region.get())) {
        in = insideCircle(*c, x, y);
    } else if (auto* b = dynamic_cast<const BeaconRegion*>(region.get())) {
        in = !heard(*b, x, y).empty();
    }
    location_->deliverState(region, in ? 1 : 2);
}

void Walk::tick() {
    double now = scheduler_->now().timeIntervalSince1970();
    double s = now - startedAt_;
    auto [x, y] = positionAt(s);
    for (const auto& region : location_->monitoredRegions()) {
        const std::string& id = region->identifier();
        bool was = inside_.count(id) != 0;
        bool in = was;
        if (auto* c = dynamic_cast<const CircularRegion*>(region.get())) {
            in = insideCircle(*c, x, y);
        } else if (auto* b = dynamic_cast<const BeaconRegion*>(region.get())) {
            if (!heard(*b, x, y).empty()) {
                lastHeard_[id] = now;
                in = true;
            } else if (was && now - lastHeard_[id] >= kExitAfter) {
                in = false;
            }
        }
        if (in && !was) {
            inside_.insert(id);
            location_->deliverEnter(region);
        } else if (!in && was) {
            inside_.erase(id);
            location_->deliverExit(region);
        }
    }
    // A device without ranging hears its beacons only through region monitoring.
    auto ranged = location_->capabilities().rangingAvailable
                      ? location_->rangedRegions()
                      : std::vector<std::shared_ptr<const BeaconRegion>>{};
    for (const auto& region : ranged) {
        auto beacons = heard(*region, x, y);
        if (!beacons.empty()) location_->deliverRanging(region, beacons);
    }
    if (s >= path_.back().t && timer_) {
        timer_->invalidate();
        timer_.reset();
    }
}

}  // namespace sim
