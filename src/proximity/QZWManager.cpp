#include "proximity/QZWManager.h"

#include <fmt/format.h>

#include "analytics/QZWAnalytics.h"
#include "platform/notifications.h"
#include "proximity/QZWAPIDeserializer.h"
#include "proximity/QZWAPIRequest.h"
#include "proximity/QZWLogger.h"
#include "proximity/QZWNotifications.h"
#include "proximity/QZWPartner.h"
#include "status/QTLStatusManager.h"

using quenby::platform::Beacon;
using quenby::platform::BeaconRegion;
using quenby::platform::Error;
using quenby::platform::Json;
using quenby::platform::LocationManager;
using quenby::platform::Region;
using quenby::platform::UserInfo;

namespace {

constexpr double kSyncInterval = 30.0;
constexpr double kResyncAfter = 3600.0;

std::string orNull(const std::optional<std::string>& s) {
    return s.value_or("(null)");
}

std::string uuidText(const std::optional<quenby::platform::UUID>& u) {
    return u ? u->uuidString() : "(null)";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Creation

std::shared_ptr<QZWManager> QZWManager::manager(std::shared_ptr<quenby::platform::Platform> p) {
    return managerWithDelegateAndConfig(std::move(p), {}, std::nullopt);
}

std::shared_ptr<QZWManager> QZWManager::managerWithDelegate(
    std::shared_ptr<quenby::platform::Platform> p, std::weak_ptr<QZWManagerDelegate> delegate) {
    return managerWithDelegateAndConfig(std::move(p), std::move(delegate), std::nullopt);
}

std::shared_ptr<QZWManager> QZWManager::managerWithConfig(
    std::shared_ptr<quenby::platform::Platform> p, const Json& config) {
    return managerWithDelegateAndConfig(std::move(p), {}, config);
}

std::shared_ptr<QZWManager> QZWManager::managerWithDelegateAndConfig(
    std::shared_ptr<quenby::platform::Platform> p, std::weak_ptr<QZWManagerDelegate> delegate,
    const std::optional<Json>& config) {
    std::shared_ptr<QZWManager> m(new QZWManager(std::move(p), std::move(delegate), config));
    m->locationManager_->setDelegate(m);
    return m;
}

QZWManager::QZWManager(std::shared_ptr<quenby::platform::Platform> p,
                       std::weak_ptr<QZWManagerDelegate> delegate,
                       const std::optional<Json>& config)
    // The usage check comes first: a host without the declaration must be stopped before the
    // shared configuration is made (and complains about its own files) on its behalf.
    : platform_(std::move(p)),
      config_((checkForLocationAlwaysUsageDescription(),
               QZWConfiguration::sharedConfiguration(*platform_))) {
    if (config) config_.configureWithDictionary(*config);
    buildKitFromCacheForURL(config_.url());  // not started: nothing is registered yet
    delegate_ = std::move(delegate);
    locationManager_ = platform_->location->createLocationManager();
    analytics_ = std::make_unique<QZWAnalytics>(platform_);
}

QZWManager::~QZWManager() {
    if (syncTimer_) syncTimer_->invalidate();
    analytics_->stopLogging();
}

void QZWManager::checkForLocationAlwaysUsageDescription() const {
    auto declared = [&](const char* key) {
        if (platform_->mainBundle.objectForInfoDictionaryKey(key)) return true;
        return platform_->libraryBundle &&
               platform_->libraryBundle->objectForInfoDictionaryKey(key).has_value();
    };
    if (!declared("NSLocationAlwaysUsageDescription") &&
        !declared("NSLocationWhenInUseUsageDescription")) {
        throw QZWException("Missing info.plist key",
                           "You must add either the NSLocationAlwaysUsageDescription or "
                           "NSLocationWhenInUseUsageDescription keys to your info.plist file.");
    }
}

// ---------------------------------------------------------------------------------------------
// Lifecycle and sync

void QZWManager::start() {
    if (syncTimer_) return;
    // Marked started before the first sync leaves: its answer may come back on another thread
    // before this call returns, and it must find the manager started to register the regions.
    {
        std::lock_guard lk(mu_);
        started_ = true;
    }
    performSync();
    std::weak_ptr<QZWManager> weak = weak_from_this();
    syncTimer_ = platform_->scheduler->scheduleRunLoopTimer(kSyncInterval, true, [weak] {
        if (auto self = weak.lock()) self->timedSync();
    });
    analytics_->startLogging();
}

void QZWManager::timedSync() {
    auto last = lastSuccessfulSync();
    auto now = platform_->scheduler->now();
    // Fetched at most about once an hour after a success, every tick while fetching fails.
    if (!last || *last < now.addingTimeInterval(-kResyncAfter)) performSync();
    analytics_->uploadAnalyticsToServer();
}

void QZWManager::stop() {
    {
        std::lock_guard lk(mu_);
        started_ = false;
    }
    if (syncTimer_) {
        syncTimer_->invalidate();
        syncTimer_.reset();
    }
    if (checkCLAuthorized()) {
        clearCLMonitoredRegions();
        clearCLRangedRegions();
    }
    analytics_->stopLogging();
}

void QZWManager::sync() {
    performSync();
}

void QZWManager::syncWithCompletionHandler(std::function<void(int)> handler) {
    {
        std::lock_guard lk(mu_);
        didSyncBlock_ = std::move(handler);
    }
    performSync();
}

void QZWManager::callSyncBlock(int result) {
    std::function<void(int)> block;
    {
        std::lock_guard lk(mu_);
        block = didSyncBlock_;
    }
    if (block) block(result);
}

void QZWManager::performSync() {
    QZWAPIRequest api(platform_, config_.apiToken());
    std::weak_ptr<QZWManager> weak = weak_from_this();
    api.get(config_.url(), [weak](std::optional<Error> error, std::optional<Json> object) {
        auto self = weak.lock();
        if (!self) return;
        // After a failure the request hands over the cached copy: it is applied all the same.
        if (object) self->buildKitFrom(quenby::platform::jsonMember(&*object, "kit"));
        if (error) {
            self->callSyncBlock(2);
            if (auto d = self->delegate()) d->zonewiseDidFailWithError(*self, *error);
            return;
        }
        {
            std::lock_guard lk(self->mu_);
            self->lastSuccessfulSync_ = self->platform_->scheduler->now();
        }
        self->callSyncBlock(0);
        if (auto d = self->delegate()) d->zonewiseDidSync(*self);
    });
}

void QZWManager::buildKitFromCacheForURL(const std::optional<quenby::platform::Url>& url) {
    QZWAPIRequest api(platform_, config_.apiToken());
    auto data = url ? api.readFromDisk(*url) : std::nullopt;
    if (!data) {
        QZWLogger::log(QZWLogLevelWarning, "Unable to load kit from cache file");
        return;
    }
    QZWLogger::log(QZWLogLevelDebug, "Loading kit from cache file");
    auto object = QZWAPIRequest::parseResponse(data);
    buildKitFrom(object ? quenby::platform::jsonMember(&*object, "kit") : nullptr);
}

void QZWManager::buildKitFrom(const Json* dict) {
    // Replaced even when there is no dictionary: the kit then has no fields.
    auto kit = QZWAPIDeserializer().buildKit(dict);
    bool started;
    {
        std::lock_guard lk(mu_);
        kit_ = std::move(kit);
        started = started_;
    }
    if (!started || !checkCLAuthorized()) return;
    // No diffing against the previous kit: everything is torn down and registered again.
    clearCLMonitoredRegions();
    clearCLRangedRegions();
    startMonitoringFences();
    startMonitoringIBeacons();
    startRangingIBeacons();
    startStatusMonitoring();
}

// ---------------------------------------------------------------------------------------------
// Region registration

void QZWManager::clearCLMonitoredRegions() {
    for (const auto& r : locationManager_->monitoredRegions()) {
        QZWLogger::logFormat(QZWLogLevelInfo, "Stopping monitoring for {}", r->identifier());
        locationManager_->stopMonitoringForRegion(r);
    }
}

void QZWManager::clearCLRangedRegions() {
    auto ranged = locationManager_->rangedRegions();
    if (!ranged) return;
    for (const auto& r : *ranged) {
        QZWLogger::logFormat(QZWLogLevelInfo, "Stopping ranging for {}", r->identifier());
        locationManager_->stopRangingBeaconsInRegion(r);
    }
}

void QZWManager::startMonitoringFences() {
    auto k = kit();
    if (!k || !k->map()) return;
    for (const auto& circle : k->map()->overlays()) {
        QZWLogger::logFormat(QZWLogLevelDebug, "Monitoring Geofence Circle {}",
                             orNull(circle->name()));
        locationManager_->startMonitoringForRegion(circle->region());
        // A device already inside hears so at once.
        if (locationManager_->canRequestState())
            locationManager_->requestStateForRegion(circle->region());
    }
}

void QZWManager::startMonitoringIBeacons() {
    auto k = kit();
    if (!k) return;
    for (const auto& r : k->beaconRegions()) {
        QZWLogger::logFormat(QZWLogLevelDebug, "Start Monitoring For UUID {}", uuidText(r->uuid()));
        // An entry that names no platform region (a minor without a major) is never registered.
        if (r->region()) locationManager_->startMonitoringForRegion(r->region());
    }
}

void QZWManager::startRangingIBeacons() {
    auto k = kit();
    if (!k) return;
    for (const auto& r : k->beaconRegions()) {
        QZWLogger::logFormat(QZWLogLevelDebug, "Start Ranging For UUID {}", uuidText(r->uuid()));
        if (r->region()) locationManager_->startRangingBeaconsInRegion(r->region());
    }
}

void QZWManager::startStatusMonitoring() {
    stopStatusMonitoring();
    auto k = kit();
    if (!k || !k->statusToken() || !k->statusURL()) return;
    auto status = QTLStatusManager::initWithConfig(
        platform_, {{"url", *k->statusURL()}, {"token", *k->statusToken()}});
    std::lock_guard lk(mu_);
    status_ = std::move(status);
}

void QZWManager::stopStatusMonitoring() {
    std::shared_ptr<QTLStatusManager> released;
    std::lock_guard lk(mu_);
    released = std::move(status_);
}

bool QZWManager::checkCLAuthorized() {
    auto available = locationManager_->isMonitoringAvailableForRegions();
    if (available && !*available) {
        locationManagerDidFailWithError(nullptr,
                                        Error{"Zonewise", 522, "Region Monitoring Not Available"});
        return false;
    }
    if (!available && !locationManager_->regionMonitoringAvailable()) return false;
    int status = locationManager_->authorizationStatus();
    if (status == 0 || status == 3) {
        if (status == 0 && locationManager_->canRequestAlwaysAuthorization()) {
            locationManager_->requestAlwaysAuthorization();
        }
        return true;
    }
    locationManagerDidFailWithError(nullptr,
                                    Error{"Zonewise", 523, "Region Monitoring Not Authorized"});
    return false;
}

bool QZWManager::isRangingRegion(const std::shared_ptr<const Region>& region) const {
    auto ranged = locationManager_->rangedRegions();
    if (!ranged || !region) return false;
    for (const auto& r : *ranged) {
        QZWLogger::logFormat(QZWLogLevelDebug, "Checking ranging for {}", r->identifier());
        if (r->identifier() == region->identifier()) return true;
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Queries and settings

std::shared_ptr<const QZWKit> QZWManager::kit() const {
    std::lock_guard lk(mu_);
    return kit_;
}

std::shared_ptr<QTLStatusManager> QZWManager::statusManager() const {
    std::lock_guard lk(mu_);
    return status_;
}

std::optional<quenby::platform::Date> QZWManager::lastSuccessfulSync() const {
    std::lock_guard lk(mu_);
    return lastSuccessfulSync_;
}

std::shared_ptr<QZWManagerDelegate> QZWManager::delegate() const {
    std::lock_guard lk(mu_);
    return delegate_.lock();
}

void QZWManager::setDelegate(std::weak_ptr<QZWManagerDelegate> delegate) {
    std::lock_guard lk(mu_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<quenby::platform::LocationManagerDelegate> QZWManager::locationManagerDelegate()
    const {
    std::lock_guard lk(mu_);
    return second_.lock();
}

void QZWManager::setLocationManagerDelegate(
    std::weak_ptr<quenby::platform::LocationManagerDelegate> d) {
    std::lock_guard lk(mu_);
    second_ = std::move(d);
}

std::shared_ptr<const QZWRegion> QZWManager::getRegionForIdentifier(
    const std::string& identifier) const {
    auto k = kit();
    return k ? k->getRegionForIdentifier(identifier) : nullptr;
}

std::shared_ptr<const QZWRegion> QZWManager::getQZWRegionForCLRegion(
    const std::shared_ptr<const Region>& region) const {
    if (!region) return nullptr;
    if (region->kind() == Region::Kind::Beacon) {
        auto k = kit();
        if (!k) return nullptr;
        return k->getIBeaconRegionForCLBeaconRegion(
            std::static_pointer_cast<const BeaconRegion>(region));
    }
    return getRegionForIdentifier(region->identifier());
}

std::string QZWManager::getLat() const {
    auto l = locationManager_->location();
    return fmt::format("{:.6f}", l ? l->latitude : 0.0);
}

std::string QZWManager::getLng() const {
    auto l = locationManager_->location();
    return fmt::format("{:.6f}", l ? l->longitude : 0.0);
}

void QZWManager::setPartnerIdentifier(const std::string& identifier) {
    QZWPartner().setIdentifier(identifier);
}

void QZWManager::logLevel(int level) {
    QZWLogger::setLevel(level);
}

// ---------------------------------------------------------------------------------------------
// Location callbacks

void QZWManager::postNotificationWithUserInfo(const char* name, UserInfo info) {
    // Delivered when the current run-loop pass ends; same-name notifications of this manager
    // still waiting then go out as one.
    quenby::platform::NotificationQueue::defaultQueue().enqueueNotification(
        quenby::platform::Notification{name, this, std::move(info)});
}

void QZWManager::regionEvent(const std::shared_ptr<const Region>& region, std::int64_t event) {
    auto r = getQZWRegionForCLRegion(region);
    if (!r) return;  // not a kit region, or no kit
    auto d = delegate();
    if (event == 2) {
        if (d) d->zonewiseDidEnter(*this, r);
        postNotificationWithUserInfo(QZWManagerDidEnterRegionNotification,
                                     UserInfo()
                                         .set(QZWManagerNotificationEventKey, 2)
                                         .set(QZWManagerNotificationRegionKey, r));
    } else {
        if (d) d->zonewiseDidExit(*this, r);
        postNotificationWithUserInfo(QZWManagerDidExitRegionNotification,
                                     UserInfo()
                                         .set(QZWManagerNotificationEventKey, 3)
                                         .set(QZWManagerNotificationRegionKey, r));
    }
}

void QZWManager::locationManagerDidEnterRegion(LocationManager& lm,
                                               const std::shared_ptr<const Region>& region) {
    if (auto second = locationManagerDelegate()) second->locationManagerDidEnterRegion(lm, region);
    regionEvent(region, 2);
}

void QZWManager::locationManagerDidExitRegion(LocationManager& lm,
                                              const std::shared_ptr<const Region>& region) {
    if (auto second = locationManagerDelegate()) second->locationManagerDidExitRegion(lm, region);
    regionEvent(region, 3);
}

void QZWManager::locationManagerDidDetermineStateForRegion(
    LocationManager& lm, std::int64_t state, const std::shared_ptr<const Region>& region) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidDetermineStateForRegion(lm, state, region);
    }
    auto r = getQZWRegionForCLRegion(region);
    if (!r) return;
    if (auto d = delegate()) d->zonewiseDidDetermineStateForRegion(*this, state, r);
    postNotificationWithUserInfo(QZWManagerDidDetermineStateForRegionNotification,
                                 UserInfo()
                                     .set(QZWManagerNotificationEventKey, 1)
                                     .set(QZWManagerNotificationRegionStateKey, state)
                                     .set(QZWManagerNotificationRegionKey, r));
}

void QZWManager::locationManagerDidRangeBeaconsInRegion(
    LocationManager& lm, const std::vector<Beacon>& beacons,
    const std::shared_ptr<const BeaconRegion>& region) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidRangeBeaconsInRegion(lm, beacons, region);
    }
    auto k = kit();  // one snapshot for the whole report
    if (k && region) {
        auto kitRegion = k->getIBeaconRegionForCLBeaconRegion(region);
        std::vector<std::shared_ptr<const QZWBeacon>> found;
        found.reserve(beacons.size());
        for (const auto& b : beacons) found.push_back(k->getIBeaconForCLBeacon(b));
        // Every report, an empty one too.
        if (auto d = delegate()) d->zonewiseDidRangeBeaconsInRegion(*this, found, kitRegion);
        postNotificationWithUserInfo(
            QZWManagerDidRangeBeaconsInRegionNotification,
            UserInfo()
                .set(QZWManagerNotificationEventKey, 4)
                .set(QZWManagerNotificationBeaconsKey, std::move(found))
                .set(QZWManagerNotificationRegionKey, std::shared_ptr<const QZWRegion>(kitRegion)));
    }
    if (auto status = statusManager()) {
        for (const auto& b : beacons) status->rangedBeacon(QTLBeacon::beaconWithCLBeacon(b));
    }
}

void QZWManager::locationManagerRangingBeaconsDidFailForRegionWithError(
    LocationManager& lm, const std::shared_ptr<const BeaconRegion>& region, const Error& error) {
    QZWLogger::logFormat(QZWLogLevelError, "Ranging Beacons Failed with Error: {}",
                         error.toString());
    if (auto second = locationManagerDelegate()) {
        second->locationManagerRangingBeaconsDidFailForRegionWithError(lm, region, error);
    }
}

void QZWManager::locationManagerDidFailWithError(LocationManager* lm, const Error& error) {
    if (auto second = locationManagerDelegate()) second->locationManagerDidFailWithError(lm, error);
    if (auto d = delegate()) d->zonewiseDidFailWithError(*this, error);
}

void QZWManager::locationManagerDidUpdateLocations(
    LocationManager& lm, const std::vector<quenby::platform::Location>& locations) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidUpdateLocations(lm, locations);
    }
}

void QZWManager::locationManagerDidUpdateHeading(LocationManager& lm,
                                                 const quenby::platform::Heading& heading) {
    if (auto second = locationManagerDelegate())
        second->locationManagerDidUpdateHeading(lm, heading);
}

std::optional<bool> QZWManager::locationManagerShouldDisplayHeadingCalibration(
    LocationManager& lm) {
    auto second = locationManagerDelegate();
    auto answer =
        second ? second->locationManagerShouldDisplayHeadingCalibration(lm) : std::nullopt;
    return answer.value_or(false);
}

void QZWManager::locationManagerMonitoringDidFailForRegionWithError(
    LocationManager& lm, const std::shared_ptr<const Region>& region, const Error& error) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerMonitoringDidFailForRegionWithError(lm, region, error);
    }
}

void QZWManager::locationManagerDidChangeAuthorizationStatus(LocationManager& lm, int status) {
    // A later grant registers nothing by itself: the next kit build does.
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidChangeAuthorizationStatus(lm, status);
    }
}

void QZWManager::locationManagerDidStartMonitoringForRegion(
    LocationManager& lm, const std::shared_ptr<const Region>& region) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidStartMonitoringForRegion(lm, region);
    }
}

void QZWManager::locationManagerDidPauseLocationUpdates(LocationManager& lm) {
    if (auto second = locationManagerDelegate()) second->locationManagerDidPauseLocationUpdates(lm);
}

void QZWManager::locationManagerDidResumeLocationUpdates(LocationManager& lm) {
    if (auto second = locationManagerDelegate())
        second->locationManagerDidResumeLocationUpdates(lm);
}

void QZWManager::locationManagerDidFinishDeferredUpdatesWithError(LocationManager& lm,
                                                                  const std::optional<Error>& e) {
    if (auto second = locationManagerDelegate()) {
        second->locationManagerDidFinishDeferredUpdatesWithError(lm, e);
    }
}
