#include "analytics/QZWAnalyticsLogger.h"

#include "proximity/QZWNotifications.h"

using quenby::platform::Json;
using quenby::platform::Notification;
using quenby::platform::NotificationCenter;

namespace {
const QZWRegion* regionOf(const Notification& n) {
    auto* r = n.userInfo.get<std::shared_ptr<const QZWRegion>>(QZWManagerNotificationRegionKey);
    return r ? r->get() : nullptr;
}
}  // namespace

std::shared_ptr<QZWAnalyticsLogger> QZWAnalyticsLogger::create(
    std::shared_ptr<quenby::platform::Platform> platform) {
    std::shared_ptr<QZWAnalyticsLogger> logger(new QZWAnalyticsLogger());
    // The recorder exists before the first notification can arrive on another thread.
    logger->initProperties(std::move(platform));
    logger->registerForZWNotifications();
    return logger;
}

QZWAnalyticsLogger::~QZWAnalyticsLogger() {
    unregisterForZWNotifications();
}

void QZWAnalyticsLogger::initProperties(std::shared_ptr<quenby::platform::Platform> platform) {
    analytics_ = std::make_shared<QZWAnalytics>(std::move(platform));
}

void QZWAnalyticsLogger::registerForZWNotifications() {
    auto& center = NotificationCenter::defaultCenter();
    std::weak_ptr<QZWAnalyticsLogger> weak = weak_from_this();
    auto observe = [&](const char* name, void (QZWAnalyticsLogger::*handler)(const Notification&)) {
        observers_.push_back(
            center.addObserver(name, nullptr, [weak, handler](const Notification& n) {
                if (auto self = weak.lock()) ((*self).*handler)(n);
            }));
    };
    observe(QZWManagerDidEnterRegionNotification, &QZWAnalyticsLogger::didEnterRegion);
    observe(QZWManagerDidExitRegionNotification, &QZWAnalyticsLogger::didExitRegion);
    observe(QZWManagerDidRangeBeaconsInRegionNotification,
            &QZWAnalyticsLogger::didRangeBeaconsInRegion);
    observe(QZWManagerDidTriggerAnalyticsEvent, &QZWAnalyticsLogger::didTriggerAnalyticsEvent);
}

void QZWAnalyticsLogger::unregisterForZWNotifications() {
    for (auto id : observers_) NotificationCenter::defaultCenter().removeObserver(id);
    observers_.clear();
}

void QZWAnalyticsLogger::didEnterRegion(const Notification& n) {
    analytics_->openSessionWithRegion(regionOf(n));
}

void QZWAnalyticsLogger::didExitRegion(const Notification& n) {
    analytics_->closeSessionWithRegion(regionOf(n));
}

void QZWAnalyticsLogger::didRangeBeaconsInRegion(const Notification& n) {
    static const std::vector<std::shared_ptr<const QZWBeacon>> kNone;
    auto* beacons = n.userInfo.get<std::vector<std::shared_ptr<const QZWBeacon>>>(
        QZWManagerNotificationBeaconsKey);
    analytics_->updateSessionWithRegionAndBeacons(regionOf(n), beacons ? *beacons : kNone);
}

void QZWAnalyticsLogger::didTriggerAnalyticsEvent(const Notification& n) {
    auto* type = n.userInfo.get<std::string>(QZWManagerNotificationAnalyticsEventTypeKey);
    auto* details = n.userInfo.get<Json>(QZWManagerNotificationAnalyticsEventDetailsKey);
    // An event needs both; the poster always gives them.
    if (!type || !details) return;
    analytics_->addEventWithDetails(*type, *details);
}
