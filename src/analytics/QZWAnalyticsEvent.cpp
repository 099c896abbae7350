#include "proximity/QZWAnalyticsEvent.h"

#include "platform/notifications.h"
#include "proximity/QZWNotifications.h"

const void* QZWAnalyticsEvent::sender() {
    static const char kClassIdentity = 0;
    return &kClassIdentity;
}

void QZWAnalyticsEvent::postEventWithDetails(const std::string& type,
                                             const quenby::platform::Json& details) {
    quenby::platform::Notification n{QZWManagerDidTriggerAnalyticsEvent, sender(), {}};
    n.userInfo.set(QZWManagerNotificationAnalyticsEventTypeKey, type);
    n.userInfo.set(QZWManagerNotificationAnalyticsEventDetailsKey, details);
    quenby::platform::NotificationQueue::defaultQueue().enqueueNotification(std::move(n));
}
