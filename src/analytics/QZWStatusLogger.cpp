#include "proximity/QZWStatusLogger.h"

#include "platform/console.h"
#include "proximity/QZWAPIRequest.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWNotifications.h"

using quenby::platform::Notification;
using quenby::platform::NotificationCenter;

std::shared_ptr<QZWStatusLogger> QZWStatusLogger::create(
    std::shared_ptr<quenby::platform::Platform> platform) {
    std::shared_ptr<QZWStatusLogger> logger(new QZWStatusLogger(std::move(platform)));
    logger->registerForZWNotifications();
    return logger;
}

QZWStatusLogger::~QZWStatusLogger() {
    unregisterForZWNotifications();
}

void QZWStatusLogger::registerForZWNotifications() {
    auto& center = NotificationCenter::defaultCenter();
    std::weak_ptr<QZWStatusLogger> weak = weak_from_this();
    enterObserver_ = center.addObserver(QZWManagerDidEnterRegionNotification, nullptr,
                                        [weak](const Notification& n) {
                                            if (auto self = weak.lock()) self->didEnterRegion(n);
                                        });
    center.addObserver(QZWManagerDidRangeBeaconsInRegionNotification, nullptr,
                       [weak](const Notification& n) {
                           if (auto self = weak.lock()) self->didRangeBeaconsInRegion(n);
                       });
}

void QZWStatusLogger::unregisterForZWNotifications() {
    NotificationCenter::defaultCenter().removeObserver(enterObserver_);
}

void QZWStatusLogger::didEnterRegion(const Notification&) {
    quenby::platform::consoleWrite("Status enter");
}

void QZWStatusLogger::didRangeBeaconsInRegion(const Notification& n) {
    quenby::platform::consoleWrite("Status range");
    auto* region =
        n.userInfo.get<std::shared_ptr<const QZWRegion>>(QZWManagerNotificationRegionKey);
    auto* beacons = n.userInfo.get<std::vector<std::shared_ptr<const QZWBeacon>>>(
        QZWManagerNotificationBeaconsKey);
    if (beacons) postStatusWithRegionOrBeacons(region ? region->get() : nullptr, *beacons);
}

void QZWStatusLogger::postStatusWithRegionOrBeacons(
    const QZWRegion*, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons) {
    auto text = [](const std::optional<quenby::platform::Number>& n) {
        return n ? n->description() : std::string("(null)");
    };
    for (const auto& b : beacons) {
        if (!b) continue;
        quenby::platform::consoleWrite("Posting a status for " + b->description());
        QZWAPIRequest api(platform_, QZWConfiguration::sharedConfiguration(*platform_).apiToken());
        std::string body = "{\"beacon_status_events\":[{\"uuid\":\"" +
                           (b->uuid() ? b->uuid()->uuidString() : "(null)") +
                           "\",\"major\":" + text(b->major()) + ",\"minor\":" + text(b->minor()) +
                           "}]}";
        api.post(quenby::platform::Url::parse(kDevelopmentURL), body);  // the result is ignored
    }
}
