#include "sensing/beacon_monitor.h"

#include <gtest/gtest.h>

#include <thread>

#include <fmt/format.h>

#include "sensing/radio.h"
#include "support/location_events.h"
#include "support/test_support.h"

using namespace quenby::platform;
using namespace quenby::sensing;
using quenby::test::kTestStart;

namespace {

const UUID kStore = *UUID::parse("B9407F30-F5F8-466E-AFF9-25556B57FE6D");
const UUID kOther = *UUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");

using Recorder = quenby::test::LocationEventLog;

std::shared_ptr<BeaconRegion> region(std::string id, std::optional<std::uint16_t> major = {},
                                     std::optional<std::uint16_t> minor = {}, UUID uuid = kStore) {
    return std::make_shared<BeaconRegion>(uuid, major, minor, std::move(id));
}

class BeaconMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override { manager->setDelegate(recorder); }

    void start(BeaconRegionMonitor::Options o = {}) {
        monitor = BeaconRegionMonitor::create(scheduler, service, o);
        monitor->scannerStarted();
    }
    void hear(std::uint16_t major, std::uint16_t minor, int rssi = -65, UUID uuid = kStore,
              std::int8_t power = -59) {
        monitor->advertisement({uuid, major, minor, power, rssi, scheduler->now()});
    }
    void at(double seconds) {
        scheduler->advanceTo(Date::fromSecondsSince1970(kTestStart + seconds));
    }
    std::vector<std::string> take() { return std::exchange(recorder->events, {}); }

    std::shared_ptr<Scheduler> scheduler =
        Scheduler::create(std::make_shared<VirtualClock>(Date::fromSecondsSince1970(kTestStart)));
    std::shared_ptr<LocationService> service = LocationService::create(scheduler);
    std::shared_ptr<LocationManager> manager = service->createLocationManager();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<BeaconRegionMonitor> monitor;
};

using Events = std::vector<std::string>;

TEST_F(BeaconMonitorTest, EntersOnceAndExitsExactlyAtTheTimeoutPerRegion) {
    manager->startMonitoringForRegion(region("door", 1));
    manager->startMonitoringForRegion(region("shelf", 2));
    start();
    hear(1, 1);
    at(3);
    hear(1, 1);
    hear(2, 1);
    at(5);
    hear(2, 1);
    monitor->scannerStarted();  // already running: restarts no deadline
    EXPECT_EQ(take(), (Events{"enter door", "enter shelf"}));
    at(12.999);
    EXPECT_EQ(take(), Events{});
    at(13);
    EXPECT_EQ(take(), Events{"exit door"});
    at(14.999);
    EXPECT_EQ(take(), Events{});
    at(15);
    EXPECT_EQ(take(), Events{"exit shelf"});
    at(60);
    hear(1, 1);
    EXPECT_EQ(take(), Events{"enter door"});

    // The library re-registers its kit on every sync: the same definition keeps its state and
    // reports under the new object; a changed definition starts over without an exit.
    manager->startMonitoringForRegion(region("door", 1));
    scheduler->settle();
    hear(1, 1);
    EXPECT_EQ(take(), Events{});
    manager->startMonitoringForRegion(region("door", 3));
    scheduler->settle();
    at(100);
    EXPECT_EQ(take(), Events{});
}

TEST_F(BeaconMonitorTest, MatchesUuidThenMajorThenMinor) {
    manager->startMonitoringForRegion(region("store"));
    manager->startMonitoringForRegion(region("aisle", 1));
    manager->startMonitoringForRegion(region("till", 1, 2));
    manager->startMonitoringForRegion(region("elsewhere", {}, {}, kOther));
    start();
    hear(1, 3);
    EXPECT_EQ(take(), (Events{"enter store", "enter aisle"}));
    hear(2, 2);
    hear(1, 2);
    EXPECT_EQ(take(), Events{"enter till"});
    hear(1, 2, -65, *UUID::parse("00000000-0000-0000-0000-000000000000"));
    hear(7, 7, -90, kOther);  // below the hearing threshold
    EXPECT_EQ(take(), Events{});
    hear(7, 7, -85, kOther);
    EXPECT_EQ(take(), Events{"enter elsewhere"});
}

TEST_F(BeaconMonitorTest, StateIsUnknownUntilAFullWindowThenOutsideOrInside) {
    auto door = region("door", 1), shelf = region("shelf", 2);
    manager->startMonitoringForRegion(door);
    manager->startMonitoringForRegion(shelf);
    start();
    at(9.5);
    manager->requestStateForRegion(door);
    manager->requestStateForRegion(std::make_shared<CircularRegion>(1, 2, 50, "park"));
    at(10);
    manager->requestStateForRegion(door);
    hear(2, 1);
    manager->requestStateForRegion(shelf);
    scheduler->settle();
    EXPECT_EQ(take(), (Events{"state door 0", "enter shelf", "state door 2", "state shelf 1"}));

    // A region registered later has not been listened for before its registration.
    auto till = region("till", 3);
    manager->startMonitoringForRegion(till);
    at(19);
    manager->requestStateForRegion(till);
    at(20);
    manager->requestStateForRegion(till);
    scheduler->settle();
    EXPECT_EQ(take(), (Events{"state till 0", "exit shelf", "state till 2"}));

    // While the scanner is down a region inside stays inside and nothing is claimed outside.
    hear(2, 1);
    monitor->scannerStopped(std::nullopt);
    manager->requestStateForRegion(shelf);
    manager->requestStateForRegion(door);
    at(100);
    EXPECT_EQ(take(), (Events{"enter shelf", "state shelf 1", "state door 0"}));
}

TEST_F(BeaconMonitorTest, RangesEverySecondWithSmoothedTrimmedReadings) {
    manager->startRangingBeaconsInRegion(region("aisle", 1));
    start();
    at(1);
    EXPECT_EQ(take(), Events{"range aisle [ ]"});
    // Ten readings: a tenth goes at each end, the reflection at -40 with one -70, and the -60
    // stays (untrimmed: -66, a fifth trimmed: -70).
    for (int i = 0; i < 10; ++i) hear(1, 1, i == 4 ? -40 : i == 7 ? -60 : -70);
    // Five readings: one dropped at each end (without it: -63).
    for (int rssi : {-50, -60, -60, -60, -84}) hear(1, 2, rssi);
    // Under five, a plain mean rounded to the nearest dBm: -63.5 (trimmed, it would be -61.5).
    for (int rssi : {-60, -61, -62, -71}) hear(1, 3, rssi);
    hear(2, 1, -50);  // another aisle
    at(2);
    EXPECT_EQ(take(), Events{"range aisle [ 1.2 -60 1.12 2 1.3 -64 1.78 2 1.1 -69 3.16 3 ]"});

    // At 6 the readings of 1 leave the smoothing window (and 1.2, 1.3 the memory); the reading
    // of 5 stays until 10.
    at(5);
    hear(1, 1, -80);
    take();
    at(6);
    EXPECT_EQ(take(), Events{"range aisle [ 1.1 -80 11.22 3 ]"});
    at(9);
    EXPECT_EQ(take(), Events(3, "range aisle [ 1.1 -80 11.22 3 ]"));
    at(10);
    EXPECT_EQ(take(), Events{"range aisle [ ]"});

    // A beacon flooding the window is smoothed over its latest readings, in bounded memory.
    at(20);
    take();
    for (int i = 0; i < 1200; ++i) hear(1, 5, i < 1000 ? -80 : -60);
    at(21);
    EXPECT_EQ(take(), Events{"range aisle [ 1.5 -60 1.12 2 ]"});

    manager->stopRangingBeaconsInRegion(region("aisle", 1));
    at(30);
    EXPECT_EQ(take(), Events{});
}

TEST_F(BeaconMonitorTest, SortsNearestFirstUnknownLastAndForgetsAfterMemory) {
    manager->startRangingBeaconsInRegion(region("store"));
    start({.exitTimeout = 10, .rangingMemory = 8, .smoothingWindow = 3});
    hear(1, 9, -70);
    hear(4, 4, 0);  // heard without a level
    hear(3, 1, -60);
    hear(2, 5, -70);
    hear(2, 4, -70, kStore, 0);  // uncalibrated frame: no distance
    at(1);
    EXPECT_EQ(take(), Events{"range store [ 3.1 -60 1.12 2 1.9 -70 3.55 3 2.5 -70 3.55 3 "
                             "2.4 -70 -1 0 4.4 0 -1 0 ]"});
    at(2);
    hear(1, 9, -50);
    take();
    // Past the smoothing window but within memory: heard, with no level to report.
    at(3);
    EXPECT_EQ(take(), Events{"range store [ 1.9 -50 0.35 1 2.4 0 -1 0 2.5 0 -1 0 3.1 0 -1 0 "
                             "4.4 0 -1 0 ]"});
    at(7);
    take();
    at(8);
    EXPECT_EQ(take(), Events{"range store [ 1.9 0 -1 0 ]"});
    at(10);
    EXPECT_EQ(take(), (Events{"range store [ 1.9 0 -1 0 ]", "range store [ ]"}));
}

TEST_F(BeaconMonitorTest, ScannerOutageFailsEachRegionOnceAndSuspendsEverything) {
    manager->startMonitoringForRegion(region("door", 1));
    manager->startRangingBeaconsInRegion(region("aisle", 2));
    start();
    hear(1, 1);
    hear(2, 1);
    at(1);
    EXPECT_EQ(take(), (Events{"enter door", "range aisle [ 2.1 -65 2 2 ]"}));

    const Error down{"org.bluez", 5, "Adapter removed"};
    monitor->scannerStopped(down);
    monitor->scannerStopped(down);
    hear(2, 1);
    manager->startMonitoringForRegion(region("door", 1));  // the same definition: not new
    manager->startMonitoringForRegion(region("till", 3));
    at(60);
    EXPECT_EQ(take(),
              (Events{"monitoring failed door org.bluez 5", "ranging failed aisle org.bluez 5",
                      "monitoring failed till org.bluez 5"}));
    hear(3, 1);  // queued before the failure, handled after it
    EXPECT_EQ(take(), Events{});

    // The door, still inside, gets a whole timeout of listening after the restart.
    monitor->scannerStarted();
    at(61);
    hear(3, 1);
    EXPECT_EQ(take(), (Events{"range aisle [ ]", "enter till"}));
    at(69.999);
    take();
    at(70);
    EXPECT_EQ(take(), (Events{"exit door", "range aisle [ ]"}));
    at(71);
    EXPECT_EQ(take(), (Events{"exit till", "range aisle [ ]"}));

    monitor->scannerStopped(down);
    EXPECT_EQ(take(),
              (Events{"monitoring failed door org.bluez 5", "monitoring failed till org.bluez 5",
                      "ranging failed aisle org.bluez 5"}));
}

TEST_F(BeaconMonitorTest, ScanningObserverHearsEachChangeOnce) {
    start();
    std::vector<bool> seen;
    monitor->setScanningObserver([&](bool wanted) { seen.push_back(wanted); });
    EXPECT_FALSE(monitor->wantsScanning());
    manager->startMonitoringForRegion(std::make_shared<CircularRegion>(1, 2, 50, "park"));
    scheduler->settle();
    for (int major = 1; major <= 3; ++major) manager->startMonitoringForRegion(region("r", major));
    manager->startRangingBeaconsInRegion(region("aisle", 2));
    scheduler->settle();
    EXPECT_EQ(seen, std::vector<bool>{true});
    for (int major = 1; major <= 3; ++major) manager->stopMonitoringForRegion(region("r", major));
    scheduler->settle();
    EXPECT_EQ(seen, std::vector<bool>{true});
    manager->stopRangingBeaconsInRegion(region("aisle", 2));
    scheduler->settle();
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
    EXPECT_FALSE(monitor->wantsScanning());
}

TEST_F(BeaconMonitorTest, RegionsRegisteredOnAnotherThreadReachTheHostAndShutdownStops) {
    start();
    std::thread request([&] {
        manager->startMonitoringForRegion(region("door", 1));
        manager->startRangingBeaconsInRegion(region("door", 1));
        manager->requestStateForRegion(region("door", 1));
    });
    request.join();
    EXPECT_FALSE(monitor->wantsScanning());  // nothing ran on the host thread yet
    scheduler->settle();
    EXPECT_TRUE(monitor->wantsScanning());
    hear(1, 1);
    at(1);
    EXPECT_EQ(take(), (Events{"state door 0", "enter door", "range door [ 1.1 -65 2 2 ]"}));

    monitor->shutdown();
    manager->startMonitoringForRegion(region("till", 3));
    manager->requestStateForRegion(region("door", 1));
    hear(1, 1);
    at(30);
    EXPECT_EQ(take(), Events{});

    // Posted work outlives the monitor harmlessly.
    start();
    manager->requestStateForRegion(region("door", 1));
    monitor.reset();
    at(60);
    EXPECT_EQ(take(), Events{});
}

TEST(IBeaconFrame, ParsesExactlyTheProximityFrame) {
    std::vector<std::uint8_t> f = {0x02, 0x15};
    f.insert(f.end(), kStore.bytes().begin(), kStore.bytes().end());
    f.insert(f.end(), {0x12, 0x34, 0xAB, 0xCD, 0xC5});
    auto p = parseIBeaconFrame(f.data(), f.size());
    ASSERT_TRUE(p);
    EXPECT_EQ(std::tuple(p->uuid, p->major, p->minor, p->measuredPower),
              std::tuple(kStore, 0x1234, 0xABCD, -59));
    // One byte short or long, another type or length byte, nothing at all.
    auto longer = f, otherType = f, otherLength = f;
    longer.push_back(0);
    otherType[0] ^= 0x01;
    otherLength[1] ^= 0x01;
    EXPECT_FALSE(parseIBeaconFrame(f.data(), f.size() - 1));
    for (const auto& bad : {longer, otherType, otherLength})
        EXPECT_FALSE(parseIBeaconFrame(bad.data(), bad.size()));
    EXPECT_FALSE(parseIBeaconFrame(nullptr, 0));
    EXPECT_FALSE(parseIBeaconFrame(nullptr, 23));
}

TEST(RadioModel, RoundTripsDistanceAndNamesTheBands) {
    for (double d : {0.1, 0.5, 1.0, 2.5, 7.0, 30.0}) {
        EXPECT_NEAR(RadioModel::distanceFor(-59, RadioModel::rssiAt(-59, d)), d, 1e-9);
    }
    EXPECT_DOUBLE_EQ(RadioModel::rssiAt(-59, 10), -79);
    EXPECT_LT(RadioModel::distanceFor(-59, 0), 0);
    EXPECT_LT(RadioModel::distanceFor(0, -60), 0);
    EXPECT_EQ(RadioModel::proximityFor(-1), 0);
    EXPECT_EQ(RadioModel::proximityFor(0.49), 1);
    EXPECT_EQ(RadioModel::proximityFor(0.5), 2);
    EXPECT_EQ(RadioModel::proximityFor(2.99), 2);
    EXPECT_EQ(RadioModel::proximityFor(3.0), 3);
}

}  // namespace
