#include "platform/location_manager.h"

#include <algorithm>

namespace quenby::platform {

namespace {
template <class R>
void replaceByIdentifier(std::vector<std::shared_ptr<const R>>& list,
                         const std::shared_ptr<const R>& region) {
    auto it = std::find_if(list.begin(), list.end(),
                           [&](const auto& r) { return r->identifier() == region->identifier(); });
    if (it != list.end()) {
        *it = region;
    } else {
        list.push_back(region);
    }
}

template <class R>
void removeByIdentifier(std::vector<std::shared_ptr<const R>>& list,
                        const std::string& identifier) {
    std::erase_if(list, [&](const auto& r) { return r->identifier() == identifier; });
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// LocationManager

LocationManager::~LocationManager() = default;

void LocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    std::lock_guard lk(mu_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<LocationManagerDelegate> LocationManager::delegate() const {
    std::lock_guard lk(mu_);
    return delegate_.lock();
}

std::vector<std::shared_ptr<const Region>> LocationManager::monitoredRegions() const {
    return service_->monitoredRegions();
}

std::optional<std::vector<std::shared_ptr<const BeaconRegion>>> LocationManager::rangedRegions()
    const {
    if (!service_->capabilities().rangingSupported) return std::nullopt;
    return service_->rangedRegions();
}

void LocationManager::startMonitoringForRegion(const std::shared_ptr<const Region>& region) {
    if (!region) return;
    {
        std::lock_guard lk(service_->mu_);
        replaceByIdentifier(service_->monitored_, region);
    }
    service_->record("startMonitoringForRegion", region);
}

void LocationManager::stopMonitoringForRegion(const std::shared_ptr<const Region>& region) {
    if (!region) return;
    {
        std::lock_guard lk(service_->mu_);
        removeByIdentifier(service_->monitored_, region->identifier());
    }
    service_->record("stopMonitoringForRegion", region);
}

bool LocationManager::canRequestState() const {
    return service_->capabilities().stateRequestsSupported;
}

void LocationManager::requestStateForRegion(const std::shared_ptr<const Region>& region) {
    if (region) service_->record("requestStateForRegion", region);
}

void LocationManager::startRangingBeaconsInRegion(
    const std::shared_ptr<const BeaconRegion>& region) {
    if (!region) return;
    {
        std::lock_guard lk(service_->mu_);
        replaceByIdentifier(service_->ranged_, region);
    }
    service_->record("startRangingBeaconsInRegion", region);
    // A device without ranging refuses every request, as the platform does; the call may come
    // from a request thread, and callbacks belong on the host thread.
    if (!service_->capabilities().rangingAvailable) {
        std::weak_ptr<LocationService> weak = service_;
        service_->scheduler_->postToMain([weak, region] {
            if (auto service = weak.lock()) {
                service->deliverRangingFailure(
                    region, Error{"kCLErrorDomain", 16, "Ranging is unavailable on this device"});
            }
        });
    }
}

void LocationManager::stopRangingBeaconsInRegion(
    const std::shared_ptr<const BeaconRegion>& region) {
    if (!region) return;
    {
        std::lock_guard lk(service_->mu_);
        removeByIdentifier(service_->ranged_, region->identifier());
    }
    service_->record("stopRangingBeaconsInRegion", region);
}

int LocationManager::authorizationStatus() const {
    return service_->authorizationStatus();
}

bool LocationManager::canRequestAlwaysAuthorization() const {
    return service_->capabilities().alwaysRequestSupported;
}

void LocationManager::requestAlwaysAuthorization() {
    service_->record("requestAlwaysAuthorization", nullptr);
}

std::optional<bool> LocationManager::isMonitoringAvailableForRegions() const {
    return service_->capabilities().monitoringAvailable;
}

bool LocationManager::regionMonitoringAvailable() const {
    return service_->capabilities().regionMonitoringAvailable;
}

bool LocationManager::isRangingAvailable() const {
    return service_->capabilities().rangingAvailable;
}

std::optional<Location> LocationManager::location() const {
    return service_->lastLocation();
}

// ---------------------------------------------------------------------------------------------
// LocationService

std::shared_ptr<LocationService> LocationService::create(std::shared_ptr<Scheduler> scheduler,
                                                         int authorizationStatus) {
    return std::shared_ptr<LocationService>(
        new LocationService(std::move(scheduler), authorizationStatus));
}

std::shared_ptr<LocationManager> LocationService::createLocationManager() {
    std::shared_ptr<LocationManager> m(new LocationManager(shared_from_this()));
    std::lock_guard lk(mu_);
    std::erase_if(managers_, [](const auto& w) { return w.expired(); });
    managers_.push_back(m);
    return m;
}

LocationService::Capabilities LocationService::capabilities() const {
    std::lock_guard lk(mu_);
    return caps_;
}

void LocationService::setCapabilities(const Capabilities& c) {
    std::lock_guard lk(mu_);
    caps_ = c;
}

int LocationService::authorizationStatus() const {
    std::lock_guard lk(mu_);
    return status_;
}

void LocationService::setAuthorizationStatus(int status) {
    std::lock_guard lk(mu_);
    status_ = status;
}

std::vector<LocationService::Call> LocationService::calls() const {
    std::lock_guard lk(mu_);
    return calls_;
}

void LocationService::clearCalls() {
    std::lock_guard lk(mu_);
    calls_.clear();
}

void LocationService::setCallObserver(std::function<void(const Call&)> observer) {
    std::lock_guard lk(mu_);
    observer_ = std::move(observer);
}

LocationService::ObserverId LocationService::addCallObserver(
    std::function<void(const Call&)> observer) {
    std::lock_guard lk(mu_);
    observers_.emplace_back(nextObserver_, std::move(observer));
    return nextObserver_++;
}

void LocationService::removeCallObserver(ObserverId id) {
    std::lock_guard lk(mu_);
    std::erase_if(observers_, [&](const auto& o) { return o.first == id; });
}

std::vector<std::shared_ptr<const Region>> LocationService::monitoredRegions() const {
    std::lock_guard lk(mu_);
    return monitored_;
}

std::vector<std::shared_ptr<const BeaconRegion>> LocationService::rangedRegions() const {
    std::lock_guard lk(mu_);
    return ranged_;
}

std::optional<Location> LocationService::lastLocation() const {
    std::lock_guard lk(mu_);
    return location_;
}

void LocationService::record(std::string name, std::shared_ptr<const Region> region) {
    std::function<void(const Call&)> observer;
    std::vector<std::pair<ObserverId, std::function<void(const Call&)>>> others;
    Call call{std::move(name), std::move(region)};
    {
        std::lock_guard lk(mu_);
        calls_.push_back(call);
        observer = observer_;
        others = observers_;
    }
    if (observer) observer(call);
    for (const auto& [id, o] : others) o(call);
}

void LocationService::each(
    const std::function<void(LocationManager&, LocationManagerDelegate&)>& f) {
    std::vector<std::shared_ptr<LocationManager>> live;
    {
        std::lock_guard lk(mu_);
        for (const auto& w : managers_) {
            if (auto m = w.lock()) live.push_back(std::move(m));
        }
    }
    scheduler_->performPass([&] {
        for (const auto& m : live) {
            if (auto d = m->delegate()) f(*m, *d);
        }
    });
}

void LocationService::deliverEnter(const std::shared_ptr<const Region>& region) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidEnterRegion(m, region);
    });
}

void LocationService::deliverExit(const std::shared_ptr<const Region>& region) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidExitRegion(m, region);
    });
}

void LocationService::deliverState(const std::shared_ptr<const Region>& region,
                                   std::int64_t state) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidDetermineStateForRegion(m, state, region);
    });
}

void LocationService::deliverRanging(const std::shared_ptr<const BeaconRegion>& region,
                                     const std::vector<Beacon>& beacons) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidRangeBeaconsInRegion(m, beacons, region);
    });
}

void LocationService::deliverFailure(const Error& error) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidFailWithError(&m, error);
    });
}

void LocationService::deliverRangingFailure(const std::shared_ptr<const BeaconRegion>& region,
                                            const Error& error) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerRangingBeaconsDidFailForRegionWithError(m, region, error);
    });
}

void LocationService::deliverMonitoringFailure(const std::shared_ptr<const Region>& region,
                                               const Error& error) {
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerMonitoringDidFailForRegionWithError(m, region, error);
    });
}

void LocationService::deliverAuthorizationChange(int status) {
    setAuthorizationStatus(status);
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidChangeAuthorizationStatus(m, status);
    });
}

void LocationService::deliverLocations(const std::vector<Location>& locations) {
    if (!locations.empty()) {
        std::lock_guard lk(mu_);
        location_ = locations.back();
    }
    each([&](LocationManager& m, LocationManagerDelegate& d) {
        d.locationManagerDidUpdateLocations(m, locations);
    });
}

}  // namespace quenby::platform
