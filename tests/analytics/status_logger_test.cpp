#include "proximity/QZWStatusLogger.h"

#include <gtest/gtest.h>

#include "analytics/analytics_fixture.h"
#include "proximity/QZWNotifications.h"
#include "support/test_server.h"

using namespace quenby;
using namespace quenby::test;

TEST(QZWStatusLogger, PostsEachRangedBeaconToTheDevelopmentServerOneRequestEach) {
    std::unique_ptr<TestServer> dev;
    try {
        dev = std::make_unique<TestServer>(3000);
    } catch (const std::exception&) {
        GTEST_SKIP() << "port 3000 is taken on this machine";
    }
    dev->on("POST", "/sdk/v1/events", Reply{200, "{}"});
    VirtualPlatform vp;
    ConsoleCapture console;
    auto logger = QZWStatusLogger::create(vp.platform);
    auto post = [&](const char* name) {
        platform::Notification n{name, nullptr, {}};
        n.userInfo.set(QZWManagerNotificationRegionKey,
                       std::shared_ptr<const QZWRegion>(beaconRegion(1, nullptr)));
        n.userInfo.set(QZWManagerNotificationBeaconsKey,
                       std::vector<std::shared_ptr<const QZWBeacon>>{beacon(1, 2), beacon(1, 3)});
        platform::NotificationCenter::defaultCenter().post(n);
    };
    post(QZWManagerDidEnterRegionNotification);
    post(QZWManagerDidRangeBeaconsInRegionNotification);
    auto got = dev->requestsTo("/sdk/v1/events");
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, std::string("{\"beacon_status_events\":[{\"uuid\":\"") + kUUID +
                               "\",\"major\":1,\"minor\":2}]}");
    EXPECT_EQ(got[1].header("X-ZW-FrameworkVersion"), "1.0.3");
    EXPECT_TRUE(console.contains("Status enter"));
    EXPECT_TRUE(console.contains("Status range"));
    EXPECT_EQ(console.withPrefix("Posting a status for <QZWBeacon uuid=").size(), 2u);

    logger.reset();
    post(QZWManagerDidRangeBeaconsInRegionNotification);
    post(QZWManagerDidEnterRegionNotification);
    EXPECT_EQ(dev->requestsTo("/sdk/v1/events").size(), 2u) << "gone: nothing more is posted";
}
