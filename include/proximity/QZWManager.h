// The proximity layer's entry point. It keeps the kit current (from the server, else its cache),
// registers the kit's geofences and beacon regions with the location service, ranges the beacons,
// turns every location callback into delegate calls and notifications, feeds the beacon-status
// layer and drives the analytics recorder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/json.h"
#include "platform/location_manager.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWKit.h"

class QZWAnalytics;
class QTLStatusManager;
class QZWManager;

// The host's listener. Every operation is optional: the defaults do nothing. Called on the host
// thread for location events, on a background context for sync results.
class QZWManagerDelegate {
  public:
    virtual ~QZWManagerDelegate() = default;
    // A sync succeeded and the kit was rebuilt.
    virtual void zonewiseDidSync(QZWManager&) {}
    virtual void zonewiseDidEnter(QZWManager&, const std::shared_ptr<const QZWRegion>&) {}
    virtual void zonewiseDidExit(QZWManager&, const std::shared_ptr<const QZWRegion>&) {}
    // state: 0 unknown, 1 inside, 2 outside.
    virtual void zonewiseDidDetermineStateForRegion(QZWManager&, std::int64_t /*state*/,
                                                    const std::shared_ptr<const QZWRegion>&) {}
    virtual void zonewiseDidRangeBeaconsInRegion(
        QZWManager&, const std::vector<std::shared_ptr<const QZWBeacon>>&,
        const std::shared_ptr<const QZWBeaconRegion>&) {}
    // A sync failed, or the location service failed, is unavailable or not authorized.
    virtual void zonewiseDidFailWithError(QZWManager&, const quenby::platform::Error&) {}
};

// Raised at creation when the host declares no location usage: a programming error of the host.
class QZWException : public std::runtime_error {
  public:
    QZWException(std::string name, const std::string& reason)
        : std::runtime_error(reason), name_(std::move(name)) {}
    const std::string& name() const { return name_; }
    std::string reason() const { return what(); }

  private:
    std::string name_;
};

class QZWManager : public quenby::platform::LocationManagerDelegate,
                   public std::enable_shared_from_this<QZWManager> {
  public:
    using Json = quenby::platform::Json;
    using Error = quenby::platform::Error;
    using Region = quenby::platform::Region;

    // Creation. `config`, when given, replaces the shared configuration's settings (the file's are
    // not merged in). Throws QZWException "Missing info.plist key" when neither
    // "NSLocationAlwaysUsageDescription" nor "NSLocationWhenInUseUsageDescription" is declared in
    // the host's (or the library's) Info.plist.
    static std::shared_ptr<QZWManager> manager(std::shared_ptr<quenby::platform::Platform> p);
    static std::shared_ptr<QZWManager> managerWithDelegate(
        std::shared_ptr<quenby::platform::Platform> p, std::weak_ptr<QZWManagerDelegate> delegate);
    static std::shared_ptr<QZWManager> managerWithConfig(
        std::shared_ptr<quenby::platform::Platform> p, const Json& config);
    static std::shared_ptr<QZWManager> managerWithDelegateAndConfig(
        std::shared_ptr<quenby::platform::Platform> p, std::weak_ptr<QZWManagerDelegate> delegate,
        const std::optional<Json>& config);
    ~QZWManager() override;

    static std::string getVersion() { return "1.0.3"; }

    // Syncs at once, then keeps a 30-second timer on the host run loop, and starts analytics
    // logging. Does nothing while started.
    void start();
    // Stops the timer, clears the application's regions (when authorized) and stops analytics
    // logging. The kit and the status manager are kept.
    void stop();
    void sync();
    // `handler` is kept and called again at the end of every later sync (0 success, 2 failure)
    // until replaced.
    void syncWithCompletionHandler(std::function<void(int)> handler);

    std::shared_ptr<const QZWRegion> getRegionForIdentifier(const std::string& identifier) const;
    std::shared_ptr<const QZWRegion> getQZWRegionForCLRegion(
        const std::shared_ptr<const Region>& region) const;
    // The last known position, "%f" (six decimals); 0.000000 without one.
    std::string getLat() const;
    std::string getLng() const;
    void setPartnerIdentifier(const std::string& identifier);
    void logLevel(int level);

    std::shared_ptr<QZWManagerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<QZWManagerDelegate> delegate);
    const std::shared_ptr<quenby::platform::LocationManager>& locationManager() const {
        return locationManager_;
    }
    // A second listener that hears every location callback first.
    std::shared_ptr<quenby::platform::LocationManagerDelegate> locationManagerDelegate() const;
    void setLocationManagerDelegate(std::weak_ptr<quenby::platform::LocationManagerDelegate> d);
    // The current kit; null until one was loaded. Safe to read from any thread.
    std::shared_ptr<const QZWKit> kit() const;
    std::shared_ptr<QTLStatusManager> statusManager() const;
    std::optional<quenby::platform::Date> lastSuccessfulSync() const;

    // The steps of the lifecycle, public as the host-facing operations use them.
    void performSync();
    void timedSync();
    void buildKitFromCacheForURL(const std::optional<quenby::platform::Url>& url);
    void buildKitFrom(const Json* dict);
    void clearCLMonitoredRegions();
    void clearCLRangedRegions();
    void stopRangingIBeacons() { clearCLRangedRegions(); }
    void startMonitoringFences();
    void startMonitoringIBeacons();
    void startRangingIBeacons();
    void startStatusMonitoring();
    void stopStatusMonitoring();
    bool checkCLAuthorized();
    bool isRangingRegion(const std::shared_ptr<const Region>& region) const;

    // Location callbacks: each is forwarded to the second listener first.
    void locationManagerDidUpdateLocations(quenby::platform::LocationManager&,
                                           const std::vector<quenby::platform::Location>&) override;
    void locationManagerDidUpdateHeading(quenby::platform::LocationManager&,
                                         const quenby::platform::Heading&) override;
    std::optional<bool> locationManagerShouldDisplayHeadingCalibration(
        quenby::platform::LocationManager&) override;
    void locationManagerDidDetermineStateForRegion(quenby::platform::LocationManager&,
                                                   std::int64_t state,
                                                   const std::shared_ptr<const Region>&) override;
    void locationManagerDidRangeBeaconsInRegion(
        quenby::platform::LocationManager&, const std::vector<quenby::platform::Beacon>&,
        const std::shared_ptr<const quenby::platform::BeaconRegion>&) override;
    void locationManagerRangingBeaconsDidFailForRegionWithError(
        quenby::platform::LocationManager&,
        const std::shared_ptr<const quenby::platform::BeaconRegion>&, const Error&) override;
    void locationManagerDidEnterRegion(quenby::platform::LocationManager&,
                                       const std::shared_ptr<const Region>&) override;
    void locationManagerDidExitRegion(quenby::platform::LocationManager&,
                                      const std::shared_ptr<const Region>&) override;
    void locationManagerDidFailWithError(quenby::platform::LocationManager*, const Error&) override;
    void locationManagerMonitoringDidFailForRegionWithError(quenby::platform::LocationManager&,
                                                            const std::shared_ptr<const Region>&,
                                                            const Error&) override;
    void locationManagerDidChangeAuthorizationStatus(quenby::platform::LocationManager&,
                                                     int status) override;
    void locationManagerDidStartMonitoringForRegion(quenby::platform::LocationManager&,
                                                    const std::shared_ptr<const Region>&) override;
    void locationManagerDidPauseLocationUpdates(quenby::platform::LocationManager&) override;
    void locationManagerDidResumeLocationUpdates(quenby::platform::LocationManager&) override;
    void locationManagerDidFinishDeferredUpdatesWithError(quenby::platform::LocationManager&,
                                                          const std::optional<Error>&) override;

  private:
    QZWManager(std::shared_ptr<quenby::platform::Platform> p,
               std::weak_ptr<QZWManagerDelegate> delegate, const std::optional<Json>& config);
    void checkForLocationAlwaysUsageDescription() const;
    void postNotificationWithUserInfo(const char* name, quenby::platform::UserInfo info);
    // Enter and exit: the delegate call, then the notification.
    void regionEvent(const std::shared_ptr<const Region>& region, std::int64_t event);
    void callSyncBlock(int result);

    std::shared_ptr<quenby::platform::Platform> platform_;
    QZWConfiguration& config_;
    std::shared_ptr<quenby::platform::LocationManager> locationManager_;
    std::unique_ptr<QZWAnalytics> analytics_;
    std::shared_ptr<quenby::platform::RunLoopTimer> syncTimer_;  // host thread only

    // The kit is replaced on a request's background context while the host thread reads it:
    // readers take a snapshot under the lock and use it without one.
    mutable std::mutex mu_;
    std::shared_ptr<const QZWKit> kit_;                                // guarded by mu_
    std::shared_ptr<QTLStatusManager> status_;                         // guarded by mu_
    std::optional<quenby::platform::Date> lastSuccessfulSync_;         // guarded by mu_
    std::function<void(int)> didSyncBlock_;                            // guarded by mu_
    std::weak_ptr<QZWManagerDelegate> delegate_;                       // guarded by mu_
    std::weak_ptr<quenby::platform::LocationManagerDelegate> second_;  // guarded by mu_
    bool started_ = false;                                             // guarded by mu_
};
