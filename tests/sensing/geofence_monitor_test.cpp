#include "sensing/geofence_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/location.h"
#include "platform/location_manager.h"
#include "platform/scheduler.h"
#include "support/location_events.h"
#include "support/test_support.h"

namespace quenby::sensing {
namespace {

using platform::BeaconRegion;
using platform::CircularRegion;
using platform::Date;
using platform::Error;
using platform::LocationManager;
using platform::LocationService;
using platform::Region;

constexpr double kLat = 51.5, kLng = -0.12;
constexpr double kMetresPerDegree = 6371008.8 * std::numbers::pi / 180.0;

using Recorder = quenby::test::LocationEventLog;

class GeofenceMonitorTest : public ::testing::Test {
  protected:
    std::shared_ptr<platform::VirtualClock> clock =
        std::make_shared<platform::VirtualClock>(Date::fromSecondsSince1970(test::kTestStart));
    std::shared_ptr<platform::Scheduler> scheduler = platform::Scheduler::create(clock);
    std::shared_ptr<LocationService> service = LocationService::create(scheduler);
    std::shared_ptr<LocationManager> manager = service->createLocationManager();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<const CircularRegion> shop =
        std::make_shared<CircularRegion>(kLat, kLng, 100.0, "shop");

    void SetUp() override { manager->setDelegate(recorder); }

    std::shared_ptr<GeofenceMonitor> start(GeofenceMonitor::Options o = {}) {
        auto m = GeofenceMonitor::create(scheduler, service, o);
        scheduler->settle();
        return m;
    }
    // A fix `metres` due north of the shop's centre (along a meridian, so the distance is exact).
    Fix at(double metres, double error = 5.0) {
        return Fix{kLat + metres / kMetresPerDegree, kLng, error, scheduler->now()};
    }
    // Feeds fixes at these distances, one second apart.
    void walk(GeofenceMonitor& m, const std::vector<double>& distances) {
        for (double d : distances) {
            m.fix(at(d));
            scheduler->advanceBy(1);
        }
    }
    void requestState(const std::shared_ptr<const Region>& r) {
        manager->requestStateForRegion(r);
        scheduler->settle();
    }
};

TEST(GreatCircleDistanceTest, MatchesKnownDistances) {
    // Nashville BNA to Los Angeles LAX, the usual haversine example: 2887.2599506 km on a sphere
    // of 6372.8 km, so scaled to this sphere's radius.
    EXPECT_NEAR(greatCircleDistance(36.12, -86.67, 33.94, -118.40),
                2887259.9506 * 6371008.8 / 6372800.0, 1.0);
    EXPECT_NEAR(greatCircleDistance(0, 0, 1, 0), 111195.08, 0.01);
    EXPECT_NEAR(greatCircleDistance(0, 0, 90, 0), 10007557.2, 0.1);
    // Antipodes: rounding must not turn the answer into NaN.
    EXPECT_NEAR(greatCircleDistance(10, 20, -10, -160), std::numbers::pi * 6371008.8, 1.0);
    EXPECT_EQ(greatCircleDistance(kLat, kLng, kLat, kLng), 0.0);
    EXPECT_DOUBLE_EQ(greatCircleDistance(kLat, kLng, 48.85, 2.35),
                     greatCircleDistance(48.85, 2.35, kLat, kLng));
}

TEST_F(GeofenceMonitorTest, WalkInAndOutGivesOneEnterThenOneExitAfterTheMargin) {
    manager->startMonitoringForRegion(shop);
    auto m = start();
    // From unknown, the margin band already counts as outside, without an event.
    walk(*m, {110});
    requestState(shop);
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"state shop 2"});
    recorder->events.clear();
    walk(*m, {115, 300, 150, 101});
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{});
    recorder->events.clear();
    walk(*m, {99, 40});
    // The location first, so that the delegate reads it when told of the entry.
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"location", "enter shop", "location"}));
    EXPECT_NEAR(service->lastLocation()->latitude, at(40).latitude, 1e-12);
    walk(*m, {0, 60, 100});
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"enter shop"});
    // Within radius + 20 m the device still counts as inside.
    walk(*m, {110, 119.5});
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"enter shop"});
    walk(*m, {121, 200, 500});
    EXPECT_EQ(recorder->transitions(), (std::vector<std::string>{"enter shop", "exit shop"}));
    walk(*m, {90});
    EXPECT_EQ(recorder->transitions(),
              (std::vector<std::string>{"enter shop", "exit shop", "enter shop"}));
}

TEST_F(GeofenceMonitorTest, ReceiverJitterAtTheEdgeNeverFlaps) {
    manager->startMonitoringForRegion(shop);
    auto m = start();
    // A receiver standing at the radius, wandering ±5 m from fix to fix for ten minutes.
    std::vector<double> jitter;
    for (int i = 0; i < 600; ++i) jitter.push_back(100.0 + 5.0 * std::sin(i * 1.7));
    walk(*m, jitter);
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"enter shop"});

    // The margin is what holds it: without one the same walk flaps.
    m->shutdown();
    recorder->events.clear();
    auto bare = start({.margin = 0.0});
    walk(*bare, jitter);
    EXPECT_GT(recorder->transitions().size(), 100u);
}

TEST_F(GeofenceMonitorTest, CoarseFixesMoveTheLocationButDecideNothing) {
    manager->startMonitoringForRegion(shop);
    auto m = start();
    m->fix(at(0, 80.0));
    m->fix(at(0, std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"location", "location"}));
    EXPECT_TRUE(service->lastLocation());
    requestState(shop);  // no usable fix yet
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"state shop 0"});

    m->fix(at(0, 50.0));  // at the limit: usable
    EXPECT_EQ(recorder->transitions(), (std::vector<std::string>{"state shop 0", "enter shop"}));
    m->fix(at(500, 51.0));  // far away, but too coarse to leave by
    m->fix(at(500, 1e9));
    EXPECT_EQ(recorder->transitions().back(), "enter shop");
    m->fix(at(500, -1.0));  // no estimate at all is trusted
    EXPECT_EQ(recorder->transitions().back(), "exit shop");

    // No coordinates, no location.
    recorder->events.clear();
    m->fix(Fix{std::numeric_limits<double>::quiet_NaN(), kLng, 5.0, scheduler->now()});
    m->fix(Fix{kLat, std::numeric_limits<double>::infinity(), 5.0, scheduler->now()});
    EXPECT_EQ(recorder->events, std::vector<std::string>{});
}

TEST_F(GeofenceMonitorTest, StateRequestsAnswerFromTheLastUsableFix) {
    auto park =
        std::make_shared<CircularRegion>(kLat + 1000 / kMetresPerDegree, kLng, 50.0, "park");
    auto beacons =
        std::make_shared<BeaconRegion>(platform::UUID{}, std::nullopt, std::nullopt, "b");
    manager->startMonitoringForRegion(shop);
    manager->startMonitoringForRegion(beacons);
    auto m = start();
    requestState(shop);
    requestState(beacons);  // another monitor's business
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"state shop 0"});

    recorder->events.clear();
    m->fix(at(10));
    requestState(shop);
    requestState(park);  // not monitored: answered from the fix all the same
    walk(*m, {115});     // in the band: still inside
    requestState(shop);
    walk(*m, {1010});
    requestState(shop);
    requestState(park);
    EXPECT_EQ(
        recorder->transitions(),
        (std::vector<std::string>{"enter shop", "state shop 1", "state park 2", "state shop 1",
                                  "exit shop", "state shop 2", "state park 1"}));
}

TEST_F(GeofenceMonitorTest, RegionsRegisteredFromAnotherThreadAreFollowedOnceSettled) {
    auto m = start();
    // A request thread registers while the host thread keeps deciding: the monitor's state is
    // the host thread's alone (ThreadSanitizer holds the test to that).
    std::atomic<bool> done{false};
    std::thread request([&] {
        for (int i = 0; i < 200; ++i) {
            manager->startMonitoringForRegion(std::make_shared<CircularRegion>(
                kLat, kLng, 100.0, "shop" + std::to_string(i % 5)));
        }
        done = true;
    });
    while (!done) {
        m->fix(at(0));
        scheduler->settle();
    }
    request.join();
    scheduler->settle();
    walk(*m, {500});
    recorder->events.clear();
    walk(*m, {0});
    EXPECT_EQ(recorder->transitions(),
              (std::vector<std::string>{"enter shop0", "enter shop1", "enter shop2", "enter shop3",
                                        "enter shop4"}));
}

TEST_F(GeofenceMonitorTest, SourceFailureReachesEveryCircularRegionOncePerOutageUntilShutdown) {
    auto park = std::make_shared<CircularRegion>(kLat, kLng + 0.1, 50.0, "park");
    manager->startMonitoringForRegion(shop);
    manager->startMonitoringForRegion(
        std::make_shared<BeaconRegion>(platform::UUID{}, std::nullopt, std::nullopt, "b"));
    manager->startMonitoringForRegion(park);
    auto m = start();
    Error gone{"gpsd", -4, "can't connect"};
    m->sourceFailed(gone);
    m->sourceFailed(gone);
    EXPECT_EQ(recorder->transitions(),
              (std::vector<std::string>{"monitoring failed shop gpsd -4",
                                        "monitoring failed park gpsd -4"}));
    m->fix(at(500));
    m->sourceFailed(gone);
    EXPECT_EQ(recorder->transitions().size(), 4u);

    // After shutdown nothing is told any more.
    recorder->events.clear();
    m->shutdown();
    m->fix(at(0));
    m->sourceFailed(Error{"gpsd", 0, "closed"});
    requestState(shop);
    EXPECT_EQ(recorder->events, std::vector<std::string>{});
}

TEST_F(GeofenceMonitorTest, StoppedRegionsFallSilentAndComeBackUnknown) {
    manager->startMonitoringForRegion(shop);
    auto m = start();
    walk(*m, {0});
    manager->stopMonitoringForRegion(shop);
    scheduler->settle();
    walk(*m, {500, 0});
    EXPECT_EQ(recorder->transitions(), std::vector<std::string>{"enter shop"});

    // Re-registered while inside: unknown again, so the next fix enters once more.
    manager->startMonitoringForRegion(shop);
    scheduler->settle();
    walk(*m, {0});
    // Stopped and started before the host thread hears of either: still a fresh start.
    manager->stopMonitoringForRegion(shop);
    manager->startMonitoringForRegion(shop);
    scheduler->settle();
    walk(*m, {0});
    // Replaced by a region of another radius under the same identifier: fresh as well. The same
    // region registered again is not.
    manager->startMonitoringForRegion(std::make_shared<CircularRegion>(kLat, kLng, 150.0, "shop"));
    scheduler->settle();
    walk(*m, {0});
    manager->startMonitoringForRegion(std::make_shared<CircularRegion>(kLat, kLng, 150.0, "shop"));
    scheduler->settle();
    walk(*m, {0});
    EXPECT_EQ(recorder->transitions(),
              (std::vector<std::string>{"enter shop", "enter shop", "enter shop", "enter shop"}));
}

}  // namespace
}  // namespace quenby::sensing
