// A walk through a store, end to end through the public API.
#include <gtest/gtest.h>

#include "proximity/manager_fixture.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;

TEST(QZWManagerWalk, RegionsBeaconsAndFencesReachDelegateNotificationsDatabasesAndServers) {
    ManagerFixture f;
    f.start();
    EXPECT_EQ(f.kitRequests(), 2u) << "every kit request reaches the server twice";
    EXPECT_EQ(f.recorder->events(), (Lines{"didSync"}));
    EXPECT_EQ(f.calls(),
              (Lines{"startMonitoringForRegion fence-1", "requestStateForRegion fence-1",
                     "startMonitoringForRegion door", "startMonitoringForRegion store",
                     "startRangingBeaconsInRegion door", "startRangingBeaconsInRegion store"}));
    ASSERT_TRUE(f.manager->kit());
    EXPECT_EQ(f.manager->kit()->name(), "Store");
    ASSERT_TRUE(f.manager->statusManager()) << "the kit names a status service";
    f.recorder->clear();

    // Into the store: the door's region, two rangings of its beacon and an unknown one, out.
    auto door = ManagerFixture::door();
    f.location().deliverEnter(door);
    f.scheduler().advanceBy(2);
    f.location().deliverRanging(door, {ManagerFixture::beacon(1, 1), ManagerFixture::beacon(9, 9)});
    f.scheduler().advanceBy(1);
    f.location().deliverRanging(door, {ManagerFixture::beacon(1, 1)});
    f.scheduler().advanceBy(4);
    f.location().deliverExit(door);
    // Through the car park's fence.
    auto fence = std::make_shared<const platform::CircularRegion>(40.0, -75.0, 50.0, "fence-1");
    f.location().deliverState(fence, 1);
    f.location().deliverEnter(fence);
    f.scheduler().advanceBy(10);
    f.location().deliverExit(fence);

    EXPECT_EQ(
        f.recorder->events(),
        (Lines{"didEnter door", "note QZWManagerDidEnterRegion door",
               "didRange door: Door beacon Store", "note QZWManagerDidRangeBeaconsInRegion door",
               "didRange door: Door beacon", "note QZWManagerDidRangeBeaconsInRegion door",
               "didExit door", "note QZWManagerDidExitRegion door", "didDetermineState 1 fence-1",
               "note QZWManagerDidDetermineStateForRegion fence-1", "didEnter fence-1",
               "note QZWManagerDidEnterRegion fence-1", "didExit fence-1",
               "note QZWManagerDidExitRegion fence-1"}))
        << "the unknown beacon still gets an entry, with the UUID level's name";
    auto notes = f.recorder->notifications();
    std::vector<int> codes;
    for (const auto& n : notes)
        codes.push_back(*n.userInfo.get<int>(QZWManagerNotificationEventKey));
    EXPECT_EQ(codes, (std::vector<int>{2, 4, 4, 3, 1, 2, 3})) << "enter, ranged, exit, state";
    EXPECT_EQ(notes[0].sender, f.manager.get());
    EXPECT_EQ(*notes[4].userInfo.get<std::int64_t>(QZWManagerNotificationRegionStateKey), 1);
    auto enteredDoor =
        *notes[0].userInfo.get<std::shared_ptr<const QZWRegion>>(QZWManagerNotificationRegionKey);
    EXPECT_EQ(enteredDoor->attributes(), Json({{"lw_place_ids", "[7]"}}));

    std::string analytics = f.vp.documents.file("ZonewiseAnalytics.sqlite");
    EXPECT_EQ(
        queryRows(analytics, "select * from region_sessions where exited_at is not null").size(),
        1u);
    auto beacons = queryRows(analytics, "select * from beacon_sessions order by id");
    ASSERT_EQ(beacons.size(), 2u);
    EXPECT_FALSE(beacons[0]["last_detected_at"].is_null()) << "the door beacon was seen twice";
    EXPECT_EQ(queryRows(analytics, "select * from geo_region_sessions where exited_at is not null")
                  .size(),
              1u);

    // The next timer tick uploads the visits; no new kit request within the hour.
    f.scheduler().advanceBy(30 - 17);
    EXPECT_EQ(f.kitRequests(), 2u);
    auto uploads = f.server.requestsTo("/analytics");
    ASSERT_EQ(uploads.size(), 1u);
    Json doc = Json::parse(uploads[0].body)["zonewise_events"][0];
    EXPECT_EQ(doc["kit_id"], "17");
    EXPECT_EQ(doc["region_sessions"][0]["beacon_sessions"].size(), 2u);
    EXPECT_EQ(doc["geo_region_sessions"][0]["region_id"], "fence-1");

    // The status watchdog reports the sightings once more than 30 s have passed.
    f.scheduler().advanceBy(60);
    auto status = f.server.requestsTo("/status");
    ASSERT_EQ(status.size(), 1u);
    Json sightings = Json::parse(status[0].body)["beacon_status_events"];
    ASSERT_EQ(sightings.size(), 2u);
    EXPECT_EQ(sightings[0]["minor"], 1);
    EXPECT_EQ(sightings[0]["last_seen"], "2026-03-01T09:00:03Z");
    EXPECT_EQ(status[0].header("AUTHORIZATION"), "Token token=\"st\"");

    // Notifications coalesce within a run-loop pass; delegate calls do not.
    f.recorder->clear();
    f.scheduler().performPass([&] {
        f.location().deliverEnter(door);
        f.location().deliverEnter(door);
        EXPECT_EQ(f.recorder->events(), (Lines{"didEnter door", "didEnter door"}))
            << "nothing is delivered inside the pass";
    });
    EXPECT_EQ(f.recorder->events(),
              (Lines{"didEnter door", "didEnter door", "note QZWManagerDidEnterRegion door"}));

    // An empty report still makes a delegate call and a notification.
    f.recorder->clear();
    f.location().deliverRanging(door, {});
    EXPECT_EQ(f.recorder->events(),
              (Lines{"didRange door:", "note QZWManagerDidRangeBeaconsInRegion door"}));
    notes = f.recorder->notifications();
    auto empty = notes.back().userInfo.get<std::vector<std::shared_ptr<const QZWBeacon>>>(
        QZWManagerNotificationBeaconsKey);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
}
