// BluezBeaconSource against python-dbusmock's bluez5 template on a private bus, feeding the real
// BeaconRegionMonitor; what the application would see is recorded by a location manager delegate.
#include "sensing/bluez_beacon_source.h"

#include <gtest/gtest.h>

#include <cmath>

#include <fmt/format.h>

#include "platform/clock.h"
#include "platform/location_manager.h"
#include "sensing/beacon_monitor.h"
#include "sensing/radio.h"
#include "support/bluez_mock.h"
#include "support/daemons.h"

using namespace quenby::platform;
using namespace quenby::sensing;
using quenby::testing::BluezMock;
using quenby::testing::PrivateBus;
using quenby::testing::waitFor;
using Source = BluezBeaconSource;

// sdbus-c++ 1.2 (Debian) leaks the sd_bus object it made when a connection to a bus named by its
// address cannot be started: the failure throws before the object is released. Only the tests that
// give the source an address where no bus listens meet it; LeakSanitizer reads this list at exit.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sd_bus_new\n";
}

namespace {

const UUID kStore = *UUID::parse("B9407F30-F5F8-466E-AFF9-25556B57FE6D");
const UUID kOther = *UUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");

// What the application hears; host thread (the test thread, pumping the scheduler).
struct Recorder : LocationManagerDelegate {
    std::vector<std::string> enters;
    std::vector<Error> monitoringFailures, rangingFailures;
    std::vector<std::vector<Beacon>> reports;  // non-empty ranging reports only

    void locationManagerDidEnterRegion(LocationManager&,
                                       const std::shared_ptr<const Region>& r) override {
        enters.push_back(r->identifier());
    }
    void locationManagerMonitoringDidFailForRegionWithError(LocationManager&,
                                                            const std::shared_ptr<const Region>&,
                                                            const Error& e) override {
        monitoringFailures.push_back(e);
    }
    void locationManagerRangingBeaconsDidFailForRegionWithError(
        LocationManager&, const std::shared_ptr<const BeaconRegion>&, const Error& e) override {
        rangingFailures.push_back(e);
    }
    void locationManagerDidRangeBeaconsInRegion(
        LocationManager&, const std::vector<Beacon>& bs,
        const std::shared_ptr<const BeaconRegion>&) override {
        if (!bs.empty()) reports.push_back(bs);
    }
};

class BluezSourceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        bus_ = PrivateBus::start(&why);
        if (!bus_) GTEST_SKIP() << "no private D-Bus daemon in this sandbox: " << why;
        bluez_ = BluezMock::start(*bus_, &why);
        ASSERT_TRUE(bluez_) << why;
        manager_->setDelegate(recorder_);
    }

    void TearDown() override {
        source_.reset();
        monitor_->shutdown();
    }

    void startSource(std::optional<std::string> adapter = std::nullopt,
                     std::optional<std::string> bus = std::nullopt) {
        BluezBeaconSource::Options o;
        o.adapter = std::move(adapter);
        o.busAddress = bus ? *bus : bus_->address();
        o.retryInterval = 0.2;
        source_ = BluezBeaconSource::create(scheduler_, monitor_, o);
    }

    // Monitors and ranges the store's region (major 1) in one go.
    void watchStore() {
        auto r = std::make_shared<BeaconRegion>(kStore, 1, std::nullopt, "store");
        manager_->startMonitoringForRegion(r);
        manager_->startRangingBeaconsInRegion(r);
        store_ = r;
    }

    // Waits for `pred` while serving the host thread's queue, where the source delivers.
    bool until(const std::function<bool()>& pred, double seconds = 5.0) {
        return waitFor([&] { return scheduler_->settle(), pred(); }, seconds);
    }

    bool discovering(const std::string& adapter = "hci0") {
        return until([&] { return bluez_->discovering(adapter) == true; });
    }
    // hci0, the store watched, and the source discovering on it.
    void running() {
        bluez_->addAdapter("hci0");
        watchStore();
        startSource();
        ASSERT_TRUE(discovering());
    }

    BluezBeaconSource::Stats stats() const { return source_->stats(); }

    // A device advertising the store's beacon 1.2 at -59 dBm/1 m, heard at `rssi`.
    std::string beacon(const std::string& address, std::int16_t rssi,
                       const std::string& adapter = "hci0") {
        auto path = bluez_->addDevice(adapter, address, "beacon");
        bluez_->setRssi(path, rssi);
        bluez_->setIBeacon(path, kStore.bytes(), 1, 2, -59);
        return path;
    }

    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<BluezMock> bluez_;
    std::shared_ptr<Scheduler> scheduler_ = Scheduler::create(std::make_shared<SystemClock>());
    std::shared_ptr<LocationService> location_ = LocationService::create(scheduler_);
    std::shared_ptr<LocationManager> manager_ = location_->createLocationManager();
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
    std::shared_ptr<BeaconRegionMonitor> monitor_ = BeaconRegionMonitor::create(
        scheduler_, location_, {.exitTimeout = 1.5, .rangingInterval = 0.25});
    std::shared_ptr<BeaconRegion> store_;
    std::unique_ptr<BluezBeaconSource> source_;
};

TEST_F(BluezSourceTest, DiscoveryRunsExactlyWhileARegionIsWatched) {
    bluez_->addAdapter("hci0");
    startSource();
    // An adapter alone is no reason to scan.
    // Readings go on until the source, listening by then, has counted one.
    auto idle = bluez_->addDevice("hci0", "00:00:00:00:00:01", "probe");
    ASSERT_TRUE(until([&] { return bluez_->setRssi(idle, -40) && stats().ignored >= 1; }));
    EXPECT_EQ(bluez_->discovering("hci0"), false);
    EXPECT_EQ(stats().discoveryStarts, 0u);

    watchStore();
    ASSERT_TRUE(discovering());
    auto filter = bluez_->discoveryFilter("hci0");
    ASSERT_TRUE(filter);
    ASSERT_TRUE(filter->count("Transport") && filter->count("DuplicateData"));
    EXPECT_EQ(filter->at("Transport").get<std::string>(), "le");
    EXPECT_TRUE(filter->at("DuplicateData").get<bool>());

    manager_->stopMonitoringForRegion(store_);
    manager_->stopRangingBeaconsInRegion(store_);
    ASSERT_TRUE(until([&] { return bluez_->discovering("hci0") == false; }));
    EXPECT_EQ(stats().discoveryStarts, 1u);
    EXPECT_EQ(stats().discoveryStops, 1u);

    // Leaving stops discovery before the destructor returns.
    watchStore();
    ASSERT_TRUE(discovering());
    source_.reset();
    EXPECT_EQ(bluez_->discovering("hci0"), false);
}

TEST_F(BluezSourceTest, NamedAdapterIsChosenOverTheFirstPoweredOne) {
    bluez_->addAdapter("hci0");
    bluez_->addAdapter("hci1");
    watchStore();
    startSource("hci1");
    ASSERT_TRUE(discovering("hci1"));
    EXPECT_EQ(bluez_->discovering("hci0"), false);
    source_.reset();

    // Unnamed: the first adapter that is powered.
    bluez_->setPowered("hci0", false);
    startSource();
    ASSERT_TRUE(discovering("hci1"));
    EXPECT_EQ(bluez_->discovering("hci0"), false);
    source_.reset();

    // A named adapter that is missing is a failure, whatever else is powered.
    startSource("hci7");
    ASSERT_TRUE(until([&] { return !recorder_->monitoringFailures.empty(); }));
    EXPECT_EQ(recorder_->monitoringFailures[0],
              (Error{Source::kErrorDomain, Source::NoAdapter,
                     "Bluetooth adapter hci7 is missing or powered off"}));
    EXPECT_EQ(stats().discoveryStarts, 0u);
}

TEST_F(BluezSourceTest, BeaconEntersAndRangesWithTheRadioModelsAccuracy) {
    ASSERT_NO_FATAL_FAILURE(running());

    auto path = beacon("C0:FF:EE:00:00:01", -65);
    ASSERT_TRUE(until([&] { return !recorder_->enters.empty(); }));
    EXPECT_EQ(recorder_->enters, std::vector<std::string>{"store"});
    ASSERT_TRUE(until([&] { return !recorder_->reports.empty(); }));
    const Beacon& b = recorder_->reports.back().at(0);
    EXPECT_EQ(std::tuple(b.proximityUUID, b.major, b.minor, b.rssi), std::tuple(kStore, 1, 2, -65));
    EXPECT_NEAR(b.accuracy, RadioModel::distanceFor(-59, -65), 0.005);  // reported in cm

    // BlueZ sends RSSI alone while the frame stays the same: each reading still counts.
    auto before = stats().advertisements;
    for (int i = 0; i < 4; ++i) {
        bluez_->setRssi(path, static_cast<std::int16_t>(-50 - i));
        ASSERT_TRUE(until([&] { return stats().advertisements == before + i + 1; }))
            << "reading " << i;
    }
    // The monitor smooths; a reading of -50..-53 must pull the -65 up.
    recorder_->reports.clear();
    ASSERT_TRUE(until([&] { return !recorder_->reports.empty(); }));
    EXPECT_GT(recorder_->reports.back().at(0).rssi, -65);

    // A device whose frame changes to another beacon is heard as that one.
    bluez_->setIBeacon(path, kOther.bytes(), 1, 2, -59);
    bluez_->setRssi(path, -60);
    ASSERT_TRUE(until([&] { return stats().advertisements == before + 6; }));
}

TEST_F(BluezSourceTest, MalformedManufacturerDataAndCrowdsOfOtherDevicesAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(running());
    auto path = bluez_->addDevice("hci0", "BA:D0:00:00:00:01", "odd");
    ASSERT_TRUE(until([&] { return stats().ignored >= 1; }));  // announced without a frame

    auto frame = quenby::testing::iBeaconFrame(kStore.bytes(), 1, 2, -59);
    using Data = std::map<std::uint16_t, sdbus::Variant>;
    auto apple = [](auto v) {
        return sdbus::Variant(Data{{BluezMock::kApple, sdbus::Variant(v)}});
    };
    auto edited = [&](auto edit) {
        auto f = frame;
        edit(f);
        return apple(f);
    };
    const std::vector<std::pair<std::string, sdbus::Variant>> bad = {
        {"short frame", edited([](auto& f) { f.pop_back(); })},
        {"long frame", edited([](auto& f) { f.push_back(0); })},
        {"other Apple type", edited([](auto& f) { f[0] = 0x10; })},
        {"wrong length byte", edited([](auto& f) { f[1] = 0x16; })},
        {"empty frame", apple(std::vector<std::uint8_t>{})},
        {"other company", sdbus::Variant(Data{{0x0059, sdbus::Variant(frame)}})},
        {"no entries", sdbus::Variant(Data{})},
        {"frame as a string", apple(std::string("\x02\x15"))},
        {"not a dictionary", sdbus::Variant(frame)},
        {"string keys",
         sdbus::Variant(std::map<std::string, sdbus::Variant>{{"76", sdbus::Variant(frame)}})},
    };
    for (const auto& [what, value] : bad) {
        auto ignored = stats().ignored;
        ASSERT_TRUE(bluez_->setDeviceProperty(path, "ManufacturerData", value)) << what;
        ASSERT_TRUE(until([&] { return stats().ignored == ignored + 1; })) << what;
    }
    // An RSSI of the wrong type is no reading either, even next to a good frame.
    ASSERT_TRUE(bluez_->setManufacturerData(path, {{BluezMock::kApple, sdbus::Variant(frame)}}));
    ASSERT_TRUE(until([&] { return stats().advertisements == 1; }));
    auto ignored = stats().ignored;
    bluez_->setDeviceProperty(path, "RSSI", sdbus::Variant(std::string("-40")));
    ASSERT_TRUE(until([&] { return stats().ignored == ignored + 1; }));
    // A frame replaced by garbage is gone: the next reading alone is not a beacon.
    bluez_->setDeviceProperty(path, "ManufacturerData", bad[0].second);
    bluez_->setRssi(path, -45);
    ASSERT_TRUE(until([&] { return stats().ignored == ignored + 3; }));
    EXPECT_EQ(stats().advertisements, 1u);

    // Hundreds of devices without a frame do not disturb: a good beacon among them is heard, and
    // nothing else.
    constexpr int kCrowd = 300;
    auto phone = [](int i) { return fmt::format("10:00:00:00:{:02X}:{:02X}", i / 256, i % 256); };
    ignored = stats().ignored;
    for (int i = 0; i < kCrowd; ++i) bluez_->addDevice("hci0", phone(i), "phone");
    beacon("C0:FF:EE:00:00:02", -60);
    for (int i = 0; i < kCrowd; i += 3)
        bluez_->setRssi(BluezMock::devicePath("hci0", phone(i)), -70);
    ASSERT_TRUE(until([&] { return stats().ignored >= ignored + kCrowd + kCrowd / 3; }));
    EXPECT_EQ(stats().advertisements, 2u);
    recorder_->reports.clear();
    ASSERT_TRUE(until([&] { return !recorder_->reports.empty(); }));
    EXPECT_EQ(recorder_->reports.back().size(), 1u);
    for (int i = 0; i < kCrowd; i += 2) bluez_->removeDevice("hci0", phone(i));
    EXPECT_TRUE(recorder_->monitoringFailures.empty());
}

TEST_F(BluezSourceTest, BluetoothdRestartAdapterRemovedOrPoweredOffFailOnceEachAndRecover) {
    ASSERT_NO_FATAL_FAILURE(running());
    bluez_->kill();
    ASSERT_TRUE(until([&] { return !recorder_->monitoringFailures.empty(); }));
    EXPECT_EQ(recorder_->monitoringFailures[0].code, Source::DaemonGone);
    ASSERT_TRUE(bluez_->restart());
    bluez_->addAdapter("hci0");
    ASSERT_TRUE(discovering());
    EXPECT_EQ(stats().discoveryStarts, 2u);

    // Another beacon's: heard, but no region of ours to enter.
    auto stale = bluez_->addDevice("hci0", "C0:FF:EE:00:00:06", "other");
    bluez_->setIBeacon(stale, kOther.bytes(), 1, 2, -59);
    ASSERT_TRUE(until([&] { return stats().advertisements == 1; }));
    bluez_->removeAdapter("hci0");
    ASSERT_TRUE(until([&] { return recorder_->monitoringFailures.size() == 2; }));
    EXPECT_EQ(recorder_->monitoringFailures[1].code, Source::NoAdapter);
    bluez_->addAdapter("hci0");
    ASSERT_TRUE(until([&] { return stats().discoveryStarts == 3; }));
    EXPECT_EQ(bluez_->discovering("hci0"), true);
    // The devices of the removed adapter went with it: a lone RSSI on the old path is nothing.
    auto ignored = stats().ignored;
    bluez_->setRssi(stale, -55);
    ASSERT_TRUE(until([&] { return stats().ignored == ignored + 1; }));
    EXPECT_EQ(stats().advertisements, 1u);

    bluez_->setPowered("hci0", false);
    ASSERT_TRUE(until([&] {
        return recorder_->monitoringFailures.size() == 3 && recorder_->rangingFailures.size() == 3;
    }));
    EXPECT_EQ(recorder_->monitoringFailures[2].domain, Source::kErrorDomain);
    EXPECT_EQ(recorder_->monitoringFailures[2].code, Source::NoAdapter);
    // Heard while off, but nothing enters.
    beacon("C0:FF:EE:00:00:04", -60);
    ASSERT_TRUE(until([&] { return stats().advertisements == 2; }));
    bluez_->setPowered("hci0", true);
    ASSERT_TRUE(until([&] { return stats().discoveryStarts == 4; }));
    EXPECT_TRUE(recorder_->enters.empty());
    bluez_->setRssi(BluezMock::devicePath("hci0", "C0:FF:EE:00:00:04"), -58);
    ASSERT_TRUE(until([&] { return !recorder_->enters.empty(); }));
    EXPECT_EQ(recorder_->monitoringFailures.size(), 3u);
    EXPECT_EQ(recorder_->rangingFailures.size(), 3u);
}

TEST_F(BluezSourceTest, RefusedDiscoveryFailsWithBluezsErrorAndIsRetried) {
    bluez_->addAdapter("hci0");
    bluez_->refuseDiscovery("hci0", "org.bluez.Error.NotReady", "Resource Not Ready");
    watchStore();
    startSource();
    ASSERT_TRUE(until([&] { return !recorder_->monitoringFailures.empty(); }));
    EXPECT_EQ(recorder_->monitoringFailures[0],
              (Error{"org.bluez.Error.NotReady", Source::DiscoveryRefused, "Resource Not Ready"}));

    bluez_->acceptDiscovery("hci0");
    ASSERT_TRUE(discovering());
    EXPECT_EQ(stats().discoveryStarts, 1u);
    EXPECT_EQ(recorder_->monitoringFailures.size(), 1u);
}

TEST_F(BluezSourceTest, UnreachableOrLostBusIsAFailure) {
    watchStore();
    startSource(std::nullopt, "unix:path=/nonexistent/quenby-bus");
    ASSERT_TRUE(until([&] { return !recorder_->rangingFailures.empty(); }));
    EXPECT_EQ(recorder_->rangingFailures[0].code, Source::BusUnreachable);
    source_.reset();

    // dbus-daemon itself going away under running discovery: a failure, and reconnecting
    // attempts do not keep the source from leaving.
    bluez_->addAdapter("hci0");
    startSource();
    ASSERT_TRUE(discovering());
    recorder_->rangingFailures.clear();
    bus_.reset();
    ASSERT_TRUE(until([&] { return !recorder_->rangingFailures.empty(); }));
    // A dbus-daemon stopping in good order announces bluetoothd's departure before it drops us.
    EXPECT_EQ(recorder_->rangingFailures[0].domain, Source::kErrorDomain);
    EXPECT_TRUE(recorder_->rangingFailures[0].code == Source::BusUnreachable ||
                recorder_->rangingFailures[0].code == Source::DaemonGone);
    source_.reset();
    bluez_.reset();  // its bus is gone; it only stops its process
}

}  // namespace
