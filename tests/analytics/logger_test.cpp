// Notifications in, rows out: the analytics logger and event posting.
#include <gtest/gtest.h>

#include "analytics/QZWAnalyticsLogger.h"
#include "analytics/analytics_fixture.h"
#include "platform/notifications.h"
#include "proximity/QZWAnalyticsEvent.h"
#include "proximity/QZWNotifications.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;
using platform::Notification;
using platform::NotificationQueue;

namespace {

Notification regionNote(const char* name, std::shared_ptr<const QZWRegion> region,
                        std::vector<std::shared_ptr<const QZWBeacon>> beacons = {}) {
    Notification n{name, nullptr, {}};
    n.userInfo.set(QZWManagerNotificationRegionKey, std::move(region));
    if (!beacons.empty()) n.userInfo.set(QZWManagerNotificationBeaconsKey, std::move(beacons));
    return n;
}

void post(AnalyticsFixture& f, Notification n) {
    f.vp.scheduler().performPass(
        [&] { NotificationQueue::defaultQueue().enqueueNotification(std::move(n)); });
}

}  // namespace

TEST(QZWAnalyticsLogger, RecordsOnlyWhileLoggingThroughItsOwnRecorder) {
    AnalyticsFixture f;
    std::shared_ptr<const QZWRegion> region = beaconRegion(1, 2);
    post(f, regionNote(QZWManagerDidEnterRegionNotification, region));
    EXPECT_TRUE(f.rows("select * from region_sessions").empty()) << "no logger, nothing written";

    f.analytics->startLogging();
    std::weak_ptr<QZWAnalyticsLogger> first = f.analytics->logger();
    f.analytics->startLogging();
    EXPECT_EQ(f.analytics->logger(), first.lock()) << "a second start keeps the first logger";
    EXPECT_NE(first.lock()->analytics().get(), f.analytics.get()) << "it records on its own";

    post(f, regionNote(QZWManagerDidEnterRegionNotification, region));
    post(f, regionNote(QZWManagerDidRangeBeaconsInRegionNotification, region, {beacon(1, 2)}));
    post(f, regionNote(QZWManagerDidExitRegionNotification, region));
    auto sessions = f.rows("select * from region_sessions where exited_at is not null");
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(f.rows("select * from beacon_sessions").size(), 1u);

    f.analytics->stopLogging();
    EXPECT_FALSE(f.analytics->logger());
    EXPECT_TRUE(first.expired());
    post(f, regionNote(QZWManagerDidEnterRegionNotification, region));
    post(f, regionNote(QZWManagerDidRangeBeaconsInRegionNotification, region, {beacon(7, 7)}));
    EXPECT_EQ(f.rows("select * from region_sessions").size(), 1u);
    EXPECT_EQ(f.rows("select * from beacon_sessions").size(), 1u);
}

TEST(QZWAnalyticsEvent, EventsPostedInOnePassCollapseIntoOne) {
    AnalyticsFixture f;
    f.analytics->startLogging();
    f.vp.scheduler().performPass([&] {
        QZWAnalyticsEvent::postEventWithDetails("lurewave_events", {{"n", 1}});
        QZWAnalyticsEvent::postEventWithDetails("lurewave_events", {{"n", 2}});
        EXPECT_TRUE(f.rows("select * from events").empty()) << "delivered after the pass";
    });
    auto events = f.analytics->eventsToBeUploaded();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eventDetails, Json({{"n", 1}}));

    f.vp.scheduler().performPass([] { QZWAnalyticsEvent::postEventWithDetails("t", {{"n", 3}}); });
    EXPECT_EQ(f.analytics->eventsToBeUploaded().size(), 2u) << "a later pass records again";

    f.analytics->stopLogging();
    f.vp.scheduler().performPass([] { QZWAnalyticsEvent::postEventWithDetails("t", {{"n", 4}}); });
    EXPECT_EQ(f.analytics->eventsToBeUploaded().size(), 2u) << "no logger: the event is lost";
}
