// The location service: region monitoring, state requests, beacon ranging, authorization and the
// last location, as an application sees them through its location managers.
//
// On Linux there is no system service to ask, so the service is fed by its host: a BLE scanner or
// a GPS reader of the host's own, the simulator, or a test calls the deliver… operations, and
// every live location manager's delegate hears the event on the host thread. Monitored and ranged
// regions, authorization and availability are application-wide, as on a phone; every call the
// library makes is recorded in order.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/location.h"
#include "platform/scheduler.h"
#include "platform/types.h"

namespace quenby::platform {

struct Location {
    double latitude = 0, longitude = 0;
};

struct Heading {
    double magneticHeading = 0, trueHeading = 0;
};

class LocationManager;

// The location manager's callbacks; each does nothing unless overridden. Called on the host
// thread. A failure that the library raises itself (monitoring unavailable, not authorized) comes
// with no location manager.
class LocationManagerDelegate {
  public:
    virtual ~LocationManagerDelegate() = default;
    virtual void locationManagerDidUpdateLocations(LocationManager&, const std::vector<Location>&) {
    }
    virtual void locationManagerDidUpdateHeading(LocationManager&, const Heading&) {}
    // Nothing: this delegate does not answer.
    virtual std::optional<bool> locationManagerShouldDisplayHeadingCalibration(LocationManager&) {
        return std::nullopt;
    }
    // state: 0 unknown, 1 inside, 2 outside.
    virtual void locationManagerDidDetermineStateForRegion(LocationManager&, std::int64_t /*state*/,
                                                           const std::shared_ptr<const Region>&) {}
    virtual void locationManagerDidRangeBeaconsInRegion(
        LocationManager&, const std::vector<Beacon>&, const std::shared_ptr<const BeaconRegion>&) {}
    virtual void locationManagerRangingBeaconsDidFailForRegionWithError(
        LocationManager&, const std::shared_ptr<const BeaconRegion>&, const Error&) {}
    virtual void locationManagerDidEnterRegion(LocationManager&,
                                               const std::shared_ptr<const Region>&) {}
    virtual void locationManagerDidExitRegion(LocationManager&,
                                              const std::shared_ptr<const Region>&) {}
    virtual void locationManagerDidFailWithError(LocationManager*, const Error&) {}
    virtual void locationManagerMonitoringDidFailForRegionWithError(
        LocationManager&, const std::shared_ptr<const Region>&, const Error&) {}
    virtual void locationManagerDidChangeAuthorizationStatus(LocationManager&, int /*status*/) {}
    virtual void locationManagerDidStartMonitoringForRegion(LocationManager&,
                                                            const std::shared_ptr<const Region>&) {}
    virtual void locationManagerDidPauseLocationUpdates(LocationManager&) {}
    virtual void locationManagerDidResumeLocationUpdates(LocationManager&) {}
    virtual void locationManagerDidFinishDeferredUpdatesWithError(LocationManager&,
                                                                  const std::optional<Error>&) {}
};

class LocationService;

// One handle on the service. Thread-safe.
class LocationManager {
  public:
    ~LocationManager();
    LocationManager(const LocationManager&) = delete;
    LocationManager& operator=(const LocationManager&) = delete;

    // Held weakly: once the delegate is gone, its events go nowhere.
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate);
    std::shared_ptr<LocationManagerDelegate> delegate() const;

    // The application's monitored regions, every one, in the order they were started.
    std::vector<std::shared_ptr<const Region>> monitoredRegions() const;
    // The regions being ranged; nothing where the platform cannot range beacons.
    std::optional<std::vector<std::shared_ptr<const BeaconRegion>>> rangedRegions() const;
    // A region of an identifier already monitored (or ranged) replaces it.
    void startMonitoringForRegion(const std::shared_ptr<const Region>& region);
    void stopMonitoringForRegion(const std::shared_ptr<const Region>& region);
    bool canRequestState() const;
    void requestStateForRegion(const std::shared_ptr<const Region>& region);
    void startRangingBeaconsInRegion(const std::shared_ptr<const BeaconRegion>& region);
    void stopRangingBeaconsInRegion(const std::shared_ptr<const BeaconRegion>& region);

    // 0 not determined, 1 restricted, 2 denied, 3 authorized always, 4 authorized when in use.
    int authorizationStatus() const;
    bool canRequestAlwaysAuthorization() const;
    void requestAlwaysAuthorization();
    // Nothing when the platform cannot say.
    std::optional<bool> isMonitoringAvailableForRegions() const;
    bool regionMonitoringAvailable() const;
    bool isRangingAvailable() const;
    std::optional<Location> location() const;

  private:
    friend class LocationService;
    explicit LocationManager(std::shared_ptr<LocationService> service)
        : service_(std::move(service)) {}

    std::shared_ptr<LocationService> service_;
    mutable std::mutex mu_;
    std::weak_ptr<LocationManagerDelegate> delegate_;  // guarded by mu_
};

class LocationService : public std::enable_shared_from_this<LocationService> {
  public:
    struct Capabilities {
        bool rangingSupported = true;  // ranged regions exist at all
        bool stateRequestsSupported = true;
        bool alwaysRequestSupported = true;
        std::optional<bool> monitoringAvailable = true;  // nothing: the platform cannot say
        bool regionMonitoringAvailable = true;           // the older question
        bool rangingAvailable = true;
    };

    // A call the library made, for the host's records and tests.
    struct Call {
        std::string name;  // "startMonitoringForRegion", "requestAlwaysAuthorization", …
        std::shared_ptr<const Region> region;
    };

    static std::shared_ptr<LocationService> create(std::shared_ptr<Scheduler> scheduler,
                                                   int authorizationStatus = 3);

    std::shared_ptr<LocationManager> createLocationManager();

    Capabilities capabilities() const;
    void setCapabilities(const Capabilities& c);
    int authorizationStatus() const;
    // Changes the status without telling anyone (deliverAuthorizationChange tells).
    void setAuthorizationStatus(int status);

    std::vector<Call> calls() const;
    void clearCalls();
    // Called for every call as it is made, on the caller's thread (region registration may come
    // from a request thread). The host's own slot.
    void setCallObserver(std::function<void(const Call&)> observer);
    // Further observers, for the sources that sense the regions the library registers; called
    // after the host's, in the order added.
    using ObserverId = std::uint64_t;
    ObserverId addCallObserver(std::function<void(const Call&)> observer);
    void removeCallObserver(ObserverId id);
    std::vector<std::shared_ptr<const Region>> monitoredRegions() const;
    std::vector<std::shared_ptr<const BeaconRegion>> rangedRegions() const;
    std::optional<Location> lastLocation() const;

    // Events, each delivered to every live location manager's delegate as one run-loop pass on
    // the host thread (so their queued notifications go out when it ends). Host thread only.
    // Several events in one pass: call them inside Scheduler::performPass.
    void deliverEnter(const std::shared_ptr<const Region>& region);
    void deliverExit(const std::shared_ptr<const Region>& region);
    void deliverState(const std::shared_ptr<const Region>& region, std::int64_t state);
    void deliverRanging(const std::shared_ptr<const BeaconRegion>& region,
                        const std::vector<Beacon>& beacons);
    void deliverFailure(const Error& error);
    void deliverRangingFailure(const std::shared_ptr<const BeaconRegion>& region,
                               const Error& error);
    void deliverMonitoringFailure(const std::shared_ptr<const Region>& region, const Error& error);
    // Sets the status, then tells every delegate.
    void deliverAuthorizationChange(int status);
    // Sets the last location, then tells every delegate.
    void deliverLocations(const std::vector<Location>& locations);

  private:
    friend class LocationManager;
    LocationService(std::shared_ptr<Scheduler> s, int status)
        : scheduler_(std::move(s)), status_(status) {}
    void record(std::string name, std::shared_ptr<const Region> region);
    void each(const std::function<void(LocationManager&, LocationManagerDelegate&)>& f);

    std::shared_ptr<Scheduler> scheduler_;
    mutable std::mutex mu_;
    Capabilities caps_;                                        // guarded by mu_
    int status_;                                               // guarded by mu_
    std::vector<std::shared_ptr<const Region>> monitored_;     // guarded by mu_
    std::vector<std::shared_ptr<const BeaconRegion>> ranged_;  // guarded by mu_
    std::optional<Location> location_;                         // guarded by mu_
    std::vector<Call> calls_;                                  // guarded by mu_
    std::function<void(const Call&)> observer_;                // guarded by mu_
    std::vector<std::pair<ObserverId, std::function<void(const Call&)>>>
        observers_;                                            // guarded by mu_
    ObserverId nextObserver_ = 1;                              // guarded by mu_
    std::vector<std::weak_ptr<LocationManager>> managers_;     // guarded by mu_
};

}  // namespace quenby::platform
