#include "sensing/geofence_monitor.h"

#include <cmath>
#include <numbers>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/location.h"

namespace quenby::sensing {

using platform::CircularRegion;
using platform::LocationService;
using platform::Region;

namespace {

constexpr double kEarthRadius = 6371008.8;  // metres, the IUGG mean radius

// The location service's state codes.
enum State : std::int64_t { kUnknown = 0, kInside = 1, kOutside = 2 };

double radians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

const CircularRegion* asCircle(const std::shared_ptr<const Region>& region) {
    if (!region || region->kind() != Region::Kind::Circular) return nullptr;
    return static_cast<const CircularRegion*>(region.get());
}

bool sameGeometry(const CircularRegion& a, const CircularRegion& b) {
    return a.latitude() == b.latitude() && a.longitude() == b.longitude() &&
           a.radius() == b.radius();
}

}  // namespace

double greatCircleDistance(double lat1, double lng1, double lat2, double lng2) {
    double dLat = radians(lat2 - lat1);
    double dLng = radians(lng2 - lng1);
    double s = std::sin(dLat / 2), t = std::sin(dLng / 2);
    double a = s * s + std::cos(radians(lat1)) * std::cos(radians(lat2)) * t * t;
    // Rounding can push `a` a hair past 1 for antipodal points; asin would answer NaN.
    return 2 * kEarthRadius * std::asin(std::sqrt(std::min(1.0, a)));
}

struct GeofenceMonitor::Impl {
    // Every member is touched on the host thread only; the call observer, which runs on whatever
    // thread registers a region, reaches them solely through postToMain.
    struct Tracked {
        std::shared_ptr<const Region> region;  // as the service holds it
        const CircularRegion* circle = nullptr;
        State state = kUnknown;
    };

    std::shared_ptr<platform::Scheduler> scheduler;
    std::shared_ptr<LocationService> location;
    Options options;
    std::optional<LocationService::ObserverId> observer;
    std::vector<Tracked> regions;  // in the service's order
    std::optional<Fix> lastUsable;
    bool outage = false;
    bool stopped = false;

    State classify(State previous, const Fix& f, const CircularRegion& c) const {
        double d = greatCircleDistance(f.latitude, f.longitude, c.latitude(), c.longitude());
        if (d <= c.radius()) return kInside;
        if (d > c.radius() + options.margin) return kOutside;
        return previous == kUnknown ? kOutside : previous;
    }

    // Mirrors the service's circular regions. A region keeps its state only while it stays
    // registered with the same centre and radius; anything else starts unknown.
    void reread() {
        std::vector<Tracked> next;
        for (const auto& r : location->monitoredRegions()) {
            const CircularRegion* c = asCircle(r);
            if (!c) continue;
            Tracked t{r, c, kUnknown};
            for (const auto& old : regions) {
                if (old.region->identifier() == r->identifier() && sameGeometry(*old.circle, *c)) {
                    t.state = old.state;
                    break;
                }
            }
            next.push_back(std::move(t));
        }
        regions = std::move(next);
    }

    void onCall(const LocationService::Call& call) {
        if (stopped) return;
        if (call.name == "stopMonitoringForRegion") {
            // Dropped before re-reading so that a stop followed by a start of the same region,
            // both made before this task runs, still begins again from unknown.
            std::erase_if(regions, [&](const Tracked& t) {
                return t.region->identifier() == call.region->identifier();
            });
            reread();
        } else if (call.name == "startMonitoringForRegion") {
            reread();
        } else if (call.name == "requestStateForRegion") {
            answerState(call.region);
        }
    }

    void answerState(const std::shared_ptr<const Region>& region) {
        const CircularRegion* c = asCircle(region);
        State state = kUnknown;
        if (lastUsable) {
            State previous = kUnknown;
            for (const auto& t : regions) {
                if (t.region->identifier() == region->identifier() && sameGeometry(*t.circle, *c))
                    previous = t.state;
            }
            state = previous != kUnknown ? previous : classify(kUnknown, *lastUsable, *c);
        }
        location->deliverState(region, state);
    }
};

GeofenceMonitor::GeofenceMonitor(std::shared_ptr<platform::Scheduler> scheduler,
                                 std::shared_ptr<LocationService> location, Options options)
    : impl_(std::make_unique<Impl>()) {
    impl_->scheduler = std::move(scheduler);
    impl_->location = std::move(location);
    impl_->options = options;
}

std::shared_ptr<GeofenceMonitor> GeofenceMonitor::create(
    std::shared_ptr<platform::Scheduler> scheduler, std::shared_ptr<LocationService> location,
    Options options) {
    std::shared_ptr<GeofenceMonitor> m(
        new GeofenceMonitor(std::move(scheduler), std::move(location), options));
    m->attach();
    return m;
}

void GeofenceMonitor::attach() {
    std::weak_ptr<GeofenceMonitor> weak = weak_from_this();
    std::weak_ptr<platform::Scheduler> scheduler = impl_->scheduler;
    impl_->observer =
        impl_->location->addCallObserver([weak, scheduler](const LocationService::Call& call) {
            // Only circular regions concern this monitor; anything else would wake the host thread
            // for nothing.
            if (!asCircle(call.region)) return;
            if (call.name != "startMonitoringForRegion" && call.name != "stopMonitoringForRegion" &&
                call.name != "requestStateForRegion")
                return;
            if (auto s = scheduler.lock()) {
                s->postToMain([weak, call] {
                    if (auto self = weak.lock()) self->impl_->onCall(call);
                });
            }
        });
    impl_->reread();
}

GeofenceMonitor::~GeofenceMonitor() {
    if (impl_->observer) impl_->location->removeCallObserver(*impl_->observer);
}

void GeofenceMonitor::fix(const Fix& f) {
    Impl& d = *impl_;
    if (d.stopped || !std::isfinite(f.latitude) || !std::isfinite(f.longitude)) return;
    // A delegate may release the last outside reference to this monitor from its callback.
    auto keepAlive = shared_from_this();
    d.outage = false;
    d.location->deliverLocations({{f.latitude, f.longitude}});

    // Negative: the receiver gave no estimate, which is no reason to distrust it. NaN fails both
    // comparisons and decides nothing.
    bool usable = f.horizontalError < 0 || f.horizontalError <= d.options.maxHorizontalError;
    if (!usable || d.stopped) return;
    d.lastUsable = f;

    // Every state is settled before any callback runs, so a callback that asks for a region's
    // state already hears the new one.
    std::vector<std::pair<std::shared_ptr<const Region>, bool /*enter*/>> events;
    for (auto& t : d.regions) {
        State next = d.classify(t.state, f, *t.circle);
        if (next == kInside && t.state != kInside) events.emplace_back(t.region, true);
        if (next == kOutside && t.state == kInside) events.emplace_back(t.region, false);
        t.state = next;
    }
    for (const auto& [region, enter] : events) {
        if (d.stopped) return;
        if (enter) {
            d.location->deliverEnter(region);
        } else {
            d.location->deliverExit(region);
        }
    }
}

void GeofenceMonitor::sourceFailed(const platform::Error& error) {
    Impl& d = *impl_;
    if (d.stopped || d.outage) return;
    auto keepAlive = shared_from_this();
    d.outage = true;
    for (const auto& r : d.location->monitoredRegions()) {
        if (d.stopped) return;
        if (asCircle(r)) d.location->deliverMonitoringFailure(r, error);
    }
}

void GeofenceMonitor::shutdown() {
    Impl& d = *impl_;
    if (d.observer) d.location->removeCallObserver(*d.observer);
    d.observer.reset();
    d.stopped = true;
    d.regions.clear();
}

}  // namespace quenby::sensing
