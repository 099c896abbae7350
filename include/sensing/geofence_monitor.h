// Circular-region monitoring computed from position fixes.
//
// The monitor follows the circular regions the library registers with the LocationService and,
// for every fix, delivers through the service on the host thread: the location update (so the
// last-known-location accessors read it), then enter/exit once per transition. A region is
// inside when the great-circle distance from the fix to its centre is within its radius and
// outside once the distance exceeds radius + `margin`; between the two the previous state holds
// (from unknown, that band counts as outside without an event). Fixes whose horizontal error is
// above `maxHorizontalError` update the location but decide nothing. State requests are answered
// from the last usable fix, unknown before there is one. A region stopped and started again, or
// replaced by one of another centre or radius, starts unknown.
//
// Why a margin: a receiver standing still reports positions that wander by a few metres from one
// fix to the next (multipath, satellites rising and setting). Someone lingering at the edge of a
// geofence would otherwise be told they left and came back every few seconds. The default 20 m
// is several times that wander, so after the first enter only a real walk away produces an exit;
// it is also small against the geofences a kit defines (tens to hundreds of metres), so the exit
// comes a few seconds of walking late at most. Fixes worse than 50 m (gpsd's 95 % estimate; a
// clear-sky fix is 5-20 m) are too coarse to tell a doorway from the car park, so they move the
// last location but decide no transition.
#pragma once

#include <memory>

#include "platform/location_manager.h"
#include "platform/scheduler.h"
#include "platform/types.h"

namespace quenby::sensing {

struct Fix {
    double latitude = 0, longitude = 0;
    double horizontalError = -1;  // metres (95 %); negative when the receiver gave no estimate
    platform::Date at;            // when it arrived
};

// Great-circle distance in metres (haversine on a sphere of radius 6371008.8 m).
double greatCircleDistance(double lat1, double lng1, double lat2, double lng2);

class GeofenceMonitor : public std::enable_shared_from_this<GeofenceMonitor> {
  public:
    struct Options {
        double margin = 20.0;              // metres beyond the radius before exit
        double maxHorizontalError = 50.0;  // metres; worse fixes decide no transition
    };

    // Starts following the service's regions at once. Host thread.
    static std::shared_ptr<GeofenceMonitor> create(
        std::shared_ptr<platform::Scheduler> scheduler,
        std::shared_ptr<platform::LocationService> location, Options options);
    static std::shared_ptr<GeofenceMonitor> create(
        std::shared_ptr<platform::Scheduler> scheduler,
        std::shared_ptr<platform::LocationService> location) {
        return create(std::move(scheduler), std::move(location), Options{});
    }
    ~GeofenceMonitor();
    GeofenceMonitor(const GeofenceMonitor&) = delete;
    GeofenceMonitor& operator=(const GeofenceMonitor&) = delete;

    // One fix of mode 2 or better. A fix without finite coordinates is ignored; one whose
    // horizontal error is NaN moves the location but decides nothing. Host thread.
    void fix(const Fix& f);
    // The position source failed (gpsd gone): a monitoring failure for every monitored circular
    // region, once per outage (the next fix ends the outage). Host thread.
    void sourceFailed(const platform::Error& error);

    // Stops following the service. Host thread.
    void shutdown();

  private:
    struct Impl;
    GeofenceMonitor(std::shared_ptr<platform::Scheduler> scheduler,
                    std::shared_ptr<platform::LocationService> location, Options options);
    void attach();
    std::unique_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
