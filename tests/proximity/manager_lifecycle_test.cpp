// The manager's lifecycle and its failure paths, end to end.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "platform/plist.h"
#include "proximity/QZWLogger.h"
#include "proximity/manager_fixture.h"
#include "support/location_events.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;

TEST(QZWManagerLifecycle, ServerDownUsesTheCacheRetriesEveryThirtySecondsThenHourly) {
    ManagerFixture f(false);
    // A kit cached by an earlier run; the server answers nothing useful (empty bodies).
    writeFile(f.vp.documents.file("zonewise-api-kits-17.data"), sampleKit(f.server).dump());
    f.server.on("GET", "/api/kits/17", Reply{200, ""});
    f.create();
    ASSERT_TRUE(f.manager->kit()) << "loaded from the cache at creation";
    EXPECT_EQ(f.manager->kit()->id(), 17);
    EXPECT_TRUE(f.calls().empty()) << "but not registered before start";

    std::vector<std::pair<int, std::size_t>> results;  // and the delegate calls heard before
    std::mutex mu;
    f.manager->syncWithCompletionHandler([&](int r) {
        auto heard = f.recorder->events().size();
        std::lock_guard lk(mu);
        results.emplace_back(r, heard);
    });
    f.scheduler().settle();
    f.manager->start();
    f.manager->start();  // a second start does nothing: one sync, one timer
    f.scheduler().settle();
    EXPECT_EQ(f.kitRequests(), 4u);
    EXPECT_EQ(f.recorder->events(), (Lines{"didFail Zonewise 204", "didFail Zonewise 204"}));
    EXPECT_EQ(f.calls().size(), 6u) << "the cached kit is applied and registered anyway";
    EXPECT_FALSE(f.manager->lastSuccessfulSync());

    f.scheduler().advanceBy(30);
    EXPECT_EQ(f.kitRequests(), 6u) << "one timer, retrying every tick while syncs fail";
    f.scheduler().advanceBy(30);
    EXPECT_EQ(f.kitRequests(), 8u);

    // The server is back: one sync, then none for an hour.
    f.serveKit(sampleKit(f.server));
    f.scheduler().advanceBy(30);  // t = 90
    EXPECT_EQ(f.kitRequests(), 10u);
    ASSERT_TRUE(f.manager->lastSuccessfulSync());
    EXPECT_EQ(f.recorder->events().back(), "didSync");
    f.scheduler().advanceBy(3600);  // the tick exactly an hour after the success: not yet
    EXPECT_EQ(f.kitRequests(), 10u);
    f.scheduler().advanceBy(30);
    EXPECT_EQ(f.kitRequests(), 12u);
    std::lock_guard lk(mu);
    ASSERT_GE(results.size(), 5u) << "the stored handler runs at the end of every later sync";
    EXPECT_EQ(results[0], std::pair(2, std::size_t{0})) << "a failure, heard before the delegate";
    EXPECT_EQ(results.back().first, 0);
}

TEST(QZWManagerLifecycle, AuthorizationAndAvailabilityDecideRegistrationAndStop) {
    ManagerFixture f;
    LogLevelGuard debug(QZWLogLevelDebug);
    ConsoleCapture console;
    auto registrationLines = [&] {
        Lines out;
        for (const char* p :
             {"Zonewise[Debug] Monitoring", "Zonewise[Debug] Start ", "Zonewise[Info] Stopping "}) {
            for (auto& l : console.withPrefix(p)) out.push_back(std::move(l));
        }
        return out;
    };
    writeFile(f.vp.documents.file("zonewise-api-kits-17.data"), "");
    f.location().setAuthorizationStatus(2);  // denied
    f.create();
    EXPECT_FALSE(f.manager->kit()) << "an empty cache file holds no kit";
    EXPECT_TRUE(console.contains("Zonewise[Warning] Unable to load kit from cache file"));
    f.manager->start();
    f.scheduler().settle();
    EXPECT_EQ(f.recorder->events(), (Lines{"didFail Zonewise 523", "didSync"}));
    EXPECT_TRUE(f.calls().empty());

    // A grant alone registers nothing; the next kit build does.
    f.location().deliverAuthorizationChange(3);
    EXPECT_TRUE(f.calls().empty());
    console.clear();
    f.manager->sync();
    f.scheduler().settle();
    EXPECT_EQ(f.location().monitoredRegions().size(), 3u);
    EXPECT_TRUE(f.manager->isRangingRegion(ManagerFixture::door()));
    EXPECT_FALSE(f.manager->isRangingRegion(ManagerFixture::beaconRegion(1, 1, "elsewhere")));
    EXPECT_EQ(console.withPrefix("Zonewise[Debug] Checking ranging for ").size(), 3u)
        << "door, store; door";
    const std::string uuid = kBeaconUUID;
    EXPECT_EQ(registrationLines(), (Lines{"Zonewise[Debug] Monitoring Geofence Circle Car park",
                                          "Zonewise[Debug] Start Monitoring For UUID " + uuid,
                                          "Zonewise[Debug] Start Monitoring For UUID " + uuid,
                                          "Zonewise[Debug] Start Ranging For UUID " + uuid,
                                          "Zonewise[Debug] Start Ranging For UUID " + uuid}));

    // Stopping without authorization leaves the regions in place.
    f.location().setAuthorizationStatus(4);
    f.recorder->clear();
    f.manager->stop();
    EXPECT_EQ(f.recorder->events(), (Lines{"didFail Zonewise 523"}));
    EXPECT_EQ(f.location().monitoredRegions().size(), 3u);

    // Monitoring unavailable: 522, nothing registered. Not determined: "always" is asked for.
    auto caps = f.location().capabilities();
    caps.monitoringAvailable = false;
    f.location().setCapabilities(caps);
    f.location().setAuthorizationStatus(3);
    f.recorder->clear();
    f.manager->start();
    f.scheduler().settle();
    EXPECT_EQ(f.recorder->events(), (Lines{"didFail Zonewise 522", "didSync"}));
    caps.monitoringAvailable = true;
    f.location().setCapabilities(caps);
    f.location().setAuthorizationStatus(0);
    std::string analytics = f.vp.documents.file("ZonewiseAnalytics.sqlite");
    f.location().deliverEnter(ManagerFixture::door());
    f.scheduler().settle();
    ASSERT_EQ(queryRows(analytics, "select * from region_sessions").size(), 1u) << "logging";
    f.location().clearCalls();
    console.clear();
    f.manager->stop();
    EXPECT_EQ(f.calls(),
              (Lines{"requestAlwaysAuthorization", "stopMonitoringForRegion fence-1",
                     "stopMonitoringForRegion door", "stopMonitoringForRegion store",
                     "stopRangingBeaconsInRegion door", "stopRangingBeaconsInRegion store"}))
        << "stop clears every monitored region, then every ranged one";
    EXPECT_EQ(registrationLines(), (Lines{"Zonewise[Info] Stopping monitoring for fence-1",
                                          "Zonewise[Info] Stopping monitoring for door",
                                          "Zonewise[Info] Stopping monitoring for store",
                                          "Zonewise[Info] Stopping ranging for door",
                                          "Zonewise[Info] Stopping ranging for store"}));
    f.location().deliverExit(ManagerFixture::door());
    f.location().deliverEnter(ManagerFixture::door());
    f.scheduler().settle();
    EXPECT_EQ(queryRows(analytics, "select * from region_sessions where exited_at is null").size(),
              1u)
        << "stopped: analytics logging no longer records";

    // Stopped, a sync still replaces the kit but registers nothing, and no tick syncs again.
    f.location().setAuthorizationStatus(3);
    f.location().clearCalls();
    f.manager->sync();
    f.scheduler().settle();
    auto requests = f.kitRequests();
    f.scheduler().advanceBy(3700);
    EXPECT_EQ(f.kitRequests(), requests);
    EXPECT_TRUE(f.calls().empty());
}

TEST(QZWManagerLifecycle, HostRegionsAreOnlyForwardedAndASecondListenerHearsEverythingFirst) {
    // The shared log, and the callbacks it leaves out.
    struct Second : LocationEventLog {
        using LM = platform::LocationManager;
        void locationManagerDidFailWithError(LM*, const platform::Error& e) override {
            events.push_back("failed " + std::to_string(e.code));
        }
        std::optional<bool> locationManagerShouldDisplayHeadingCalibration(LM&) override {
            return true;
        }
        void locationManagerDidUpdateHeading(LM&, const platform::Heading& h) override {
            events.push_back("heading " + std::to_string(static_cast<int>(h.trueHeading)));
        }
        void locationManagerDidChangeAuthorizationStatus(LM&, int status) override {
            events.push_back("authorization " + std::to_string(status));
        }
        void locationManagerDidStartMonitoringForRegion(
            LM&, const std::shared_ptr<const platform::Region>& r) override {
            events.push_back("monitoring " + r->identifier());
        }
    };
    ManagerFixture f;
    f.start();
    f.recorder->clear();
    auto& lm = *f.manager->locationManager();
    EXPECT_EQ(f.manager->locationManagerShouldDisplayHeadingCalibration(lm), false)
        << "nobody answers: false";
    EXPECT_EQ(f.manager->getLat(), "0.000000");

    auto second = std::make_shared<Second>();
    f.manager->setLocationManagerDelegate(second);
    EXPECT_EQ(f.manager->locationManagerShouldDisplayHeadingCalibration(lm), true);
    auto fence = std::make_shared<const platform::CircularRegion>(1, 2, 3, "host-fence");
    f.location().deliverEnter(fence);
    f.location().deliverExit(fence);
    EXPECT_TRUE(f.recorder->events().empty())
        << "not a kit region: no delegate call, no notification";

    LogLevelGuard level(QZWLogLevelError);
    ConsoleCapture console;
    auto door = ManagerFixture::door();
    f.location().deliverRangingFailure(door, {"kCLErrorDomain", 16, "ranging unavailable"});
    f.location().deliverFailure({"kCLErrorDomain", 1, "denied"});
    f.manager->locationManagerDidUpdateHeading(lm, {0, 90});
    f.location().deliverAuthorizationChange(3);
    f.manager->locationManagerDidStartMonitoringForRegion(lm, door);
    f.location().deliverState(fence, 1);
    f.location().deliverMonitoringFailure(door, {"kCLErrorDomain", 5, "failed"});
    f.location().deliverLocations({{40.7128, -74.006}});
    EXPECT_EQ(second->events,
              (Lines{"enter host-fence", "exit host-fence", "ranging failed door kCLErrorDomain 16",
                     "failed 1", "heading 90", "authorization 3", "monitoring door",
                     "state host-fence 1", "monitoring failed door kCLErrorDomain 5", "location"}));
    EXPECT_TRUE(
        console.contains("Zonewise[Error] Ranging Beacons Failed with Error: Error "
                         "Domain=kCLErrorDomain Code=16 \"ranging unavailable\""));
    EXPECT_EQ(f.recorder->events(), (Lines{"didFail kCLErrorDomain 1"}));
    EXPECT_EQ(f.manager->getLat(), "40.712800");
    EXPECT_EQ(f.manager->getLng(), "-74.006000");
}

TEST(QZWManagerLifecycle, LargeKitsRegisterGenericRegionsAndEveryBuildTearsDownFirst) {
    ManagerFixture f(false);
    Json kit = sampleKit(f.server);
    for (int i = 0; i < 20; ++i) {
        kit["kit"]["ibeacons"].push_back(
            {{"uuid", i % 2 ? kBeaconUUID : "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5"},
             {"major", 2},
             {"minor", i},
             {"identifier", "b" + std::to_string(i)}});
    }
    kit["kit"].erase("status_token");  // a status URL without a token: no status manager
    f.serveKit(kit);
    LogLevelGuard level(QZWLogLevelDebug);
    ConsoleCapture console;
    f.start();
    EXPECT_FALSE(f.manager->statusManager());
    Lines first = {"startMonitoringForRegion fence-1",
                   "requestStateForRegion fence-1",
                   "startMonitoringForRegion zw-ibeacon-region-0",
                   "startMonitoringForRegion zw-ibeacon-region-1",
                   "startRangingBeaconsInRegion zw-ibeacon-region-0",
                   "startRangingBeaconsInRegion zw-ibeacon-region-1"};
    EXPECT_EQ(f.calls(), first);
    EXPECT_TRUE(console.contains("Zonewise[Debug] Monitoring Geofence Circle Car park"));
    EXPECT_TRUE(
        console.contains(std::string("Zonewise[Debug] Start Ranging For UUID ") + kBeaconUUID));

    // A ranging report in a generic region still finds each beacon's own entry.
    f.recorder->clear();
    auto generic = std::make_shared<const platform::BeaconRegion>(
        *platform::UUID::parse(kBeaconUUID), std::nullopt, std::nullopt, "zw-ibeacon-region-0");
    f.location().deliverRanging(generic, {ManagerFixture::beacon(1, 1)});
    EXPECT_EQ(f.recorder->events().front(), "didRange store: Door beacon");

    // A sync rebuilds everything, stopping what is registered first (the host's regions too).
    f.manager->locationManager()->startMonitoringForRegion(
        std::make_shared<const platform::CircularRegion>(0, 0, 10, "host-fence"));
    f.location().clearCalls();
    f.manager->sync();
    f.scheduler().settle();
    Lines rebuild = {"stopMonitoringForRegion fence-1",
                     "stopMonitoringForRegion zw-ibeacon-region-0",
                     "stopMonitoringForRegion zw-ibeacon-region-1",
                     "stopMonitoringForRegion host-fence",
                     "stopRangingBeaconsInRegion zw-ibeacon-region-0",
                     "stopRangingBeaconsInRegion zw-ibeacon-region-1"};
    rebuild.insert(rebuild.end(), first.begin(), first.end());
    EXPECT_EQ(f.calls(), rebuild);
}

// The shared configuration is made once per process, so the check runs in a fresh one where this
// creation is the first to ask for it: the declaration is checked before the configuration is
// read, and the library's own bundle may declare it.
TEST(QZWManagerLifecycle, MissingLocationUsageDeclarationStopsCreationBeforeTheConfigIsRead) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ConsoleCapture console;
            VirtualPlatform vp;  // neither usage key nor Zonewise.plist in its bundle
            std::string raised = "nothing";
            try {
                QZWManager::manager(vp.platform);
            } catch (const QZWException& e) {
                raised = e.name() + "|" + e.reason();
            }
            bool read = !console.withPrefix("Zonewise[Critical] ERROR: Missing Zonewise").empty();
            TempDir lib;
            writeFile(lib.file("Info.plist"),
                      platform::toXmlPropertyList({{"NSLocationWhenInUseUsageDescription", "x"}}));
            vp.platform->libraryBundle = platform::Bundle(lib.path());
            bool created = QZWManager::manager(vp.platform) != nullptr;
            std::fprintf(stderr, "{%s|%s|%s}\n", raised.c_str(), read ? "read" : "unread",
                         created ? "created" : "none");
            std::_Exit(0);
        },
        testing::ExitedWithCode(0),
        "\\{Missing info\\.plist key\\|You must add either the NSLocationAlwaysUsageDescription "
        "or NSLocationWhenInUseUsageDescription keys to your info\\.plist file\\.\\|unread\\|"
        "created\\}");
}

TEST(QZWManagerLifecycle, KitReplacedWhileTheHostThreadRangesAgainstIt) {
    ManagerFixture f;
    f.start();
    auto door = ManagerFixture::door();
    f.location().deliverEnter(door);
    f.recorder->clear();
    // Syncs complete on background contexts, rebuilding and re-registering, while reports arrive.
    for (int i = 0; i < 20; ++i) {
        f.manager->sync();
        f.location().deliverRanging(door, {ManagerFixture::beacon(1, 1)});
    }
    f.scheduler().settle();
    auto events = f.recorder->events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "didRange door: Door beacon"), 20);
    EXPECT_EQ(std::count(events.begin(), events.end(), "didSync"), 20);
    EXPECT_EQ(f.location().monitoredRegions().size(), 3u);
}
