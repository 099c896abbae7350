// Observes the manager's region, ranging and analytics-event notifications on the default center
// and records each through an analytics instance of its own.
#pragma once

#include <memory>
#include <vector>

#include "analytics/QZWAnalytics.h"
#include "platform/notifications.h"
#include "platform/platform.h"

class QZWAnalyticsLogger : public std::enable_shared_from_this<QZWAnalyticsLogger> {
  public:
    // Observes from the moment it is made; stops when it goes.
    static std::shared_ptr<QZWAnalyticsLogger> create(
        std::shared_ptr<quenby::platform::Platform> platform);
    ~QZWAnalyticsLogger();
    QZWAnalyticsLogger(const QZWAnalyticsLogger&) = delete;
    QZWAnalyticsLogger& operator=(const QZWAnalyticsLogger&) = delete;

    const std::shared_ptr<QZWAnalytics>& analytics() const { return analytics_; }

    void didEnterRegion(const quenby::platform::Notification& n);
    void didExitRegion(const quenby::platform::Notification& n);
    void didRangeBeaconsInRegion(const quenby::platform::Notification& n);
    void didTriggerAnalyticsEvent(const quenby::platform::Notification& n);

  private:
    QZWAnalyticsLogger() = default;
    void registerForZWNotifications();
    void unregisterForZWNotifications();
    void initProperties(std::shared_ptr<quenby::platform::Platform> platform);

    std::shared_ptr<QZWAnalytics> analytics_;  // set before observing; constant afterwards
    std::vector<quenby::platform::NotificationCenter::ObserverId> observers_;
};
