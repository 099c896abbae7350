// A development aid a host may create: on every ranging it posts each ranged beacon's identity,
// one synchronous request per beacon, to a local development server (port 3000).
#pragma once

#include <memory>
#include <vector>

#include "platform/notifications.h"
#include "platform/platform.h"
#include "proximity/QZWKit.h"

class QZWStatusLogger : public std::enable_shared_from_this<QZWStatusLogger> {
  public:
    static constexpr const char* kDevelopmentURL = "http://127.0.0.1:3000/sdk/v1/events";

    static std::shared_ptr<QZWStatusLogger> create(
        std::shared_ptr<quenby::platform::Platform> platform);
    // Stops observing region entries. The ranging observation stays registered, as it always
    // has; once the logger is gone it does nothing.
    ~QZWStatusLogger();

    void didEnterRegion(const quenby::platform::Notification& n);
    void didRangeBeaconsInRegion(const quenby::platform::Notification& n);
    // The region is not used.
    void postStatusWithRegionOrBeacons(
        const QZWRegion* region, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons);

  private:
    explicit QZWStatusLogger(std::shared_ptr<quenby::platform::Platform> p)
        : platform_(std::move(p)) {}
    void registerForZWNotifications();
    void unregisterForZWNotifications();

    std::shared_ptr<quenby::platform::Platform> platform_;
    quenby::platform::NotificationCenter::ObserverId enterObserver_ = 0;
};
