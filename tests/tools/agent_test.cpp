// lurewave-agent end to end: a private bus with BlueZ and a notification server (python-dbusmock),
// a real gpsd replaying a walk (gpsfake), and the operator dev server of lurewave-sim. Every wait
// has a deadline; every process started here is stopped by its owner.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <regex>
#include <sstream>

#include "support/bluez_mock.h"
#include "support/daemons.h"
#include "support/gpsfake.h"
#include "support/test_support.h"

using nlohmann::json;
using quenby::testing::BluezMock;
using quenby::testing::Child;
using quenby::testing::DbusMock;
using quenby::testing::PrivateBus;
using quenby::testing::TempDir;
using quenby::testing::waitFor;

namespace {

const std::string kExamples = QUENBY_SOURCE_DIR "/examples/agent";

std::string withPort(std::string text, int port) {
    return std::regex_replace(text, std::regex("127\\.0\\.0\\.1:8080"),
                              "127.0.0.1:" + std::to_string(port));
}

std::string example(const std::string& name) {
    auto text = quenby::test::readFile(kExamples + "/" + name);
    EXPECT_TRUE(text) << name;
    return text.value_or("");
}

// Whether a whole trace line so far has every field of `wantText`, a JSON object keyed by JSON
// pointer.
bool saw(const Child& agent, const std::string& wantText) {
    json want = json::parse(wantText);
    std::string out = agent.output();
    std::istringstream in(out.substr(0, out.rfind('\n') + 1));  // not a line still being written
    for (std::string line; std::getline(in, line);) {
        json l = json::parse(line, nullptr, false);
        bool all = l.is_object();
        for (const auto& [k, v] : want.items())
            all = all && l.contains(json::json_pointer(k)) && l[json::json_pointer(k)] == v;
        if (all) return true;
    }
    return false;
}

std::string place(int id, int event) {
    return R"({"/type": "delegate", "/name": "lurewave:didDetectPlace:onEvent:", "/place/id": )" +
           std::to_string(id) + ", \"/event\": " + std::to_string(event) + "}";
}

std::unique_ptr<Child> agent(const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& env = {}) {
    std::vector<std::string> argv{QUENBY_AGENT_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    return Child::spawn(argv, env);
}

}  // namespace

TEST(LurewaveAgent, BadArgumentsUnreadableBundleAndMissingUsageKeyEachExitWithOneClearMessage) {
    TempDir dir;
    // No bus and no gpsd: the desktop falls back to the console, nothing else is needed.
    std::map<std::string, std::string> env{
        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir.file("no-bus")},
        {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir.file("no-bus")}};
    std::filesystem::create_directories(dir.file("empty"));
    std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases{
        {{"--bundle"}, 2, "--bundle"},
        {{"--bundle", kExamples, "--exit-timeout", "-1"}, 2, "exit-timeout"},
        {{"--bundle", kExamples, "--gpsd", "host:port"}, 2, "--gpsd wants HOST:PORT"},
        {{"--bundle", dir.file("missing")}, 2, "cannot read the bundle directory"},
        {{"--bundle", dir.file("empty"), "--documents", dir.file("docs"), "--no-bluetooth",
          "--no-gps"},
         3,
         "Missing info.plist key"},
    };
    for (const auto& [args, want, message] : cases) {
        auto a = agent(args, env);
        ASSERT_TRUE(a);
        auto status = a->wait(20);
        ASSERT_TRUE(status) << args[0];
        EXPECT_EQ(*status, want) << a->output();
        EXPECT_NE(a->output().find(message), std::string::npos) << a->output();
    }
}

TEST(LurewaveAgent, WalksIntoTheStoreFindsTheCampaignNotifiesUploadsAndStopsCleanly) {
    std::string why;
    auto bus = PrivateBus::start(&why);
    if (!bus) GTEST_SKIP() << "no private D-Bus here: " << why;
    auto bluez = BluezMock::start(*bus, &why);
    ASSERT_TRUE(bluez) << why;
    ASSERT_FALSE(bluez->addAdapter("hci0").empty());
    std::string coffee = bluez->addDevice("hci0", "C0:FF:EE:00:00:02", "coffee shelf");
    auto notifications = DbusMock::start(*bus, /*systemBus=*/false, "notification_daemon",
                                         "org.freedesktop.Notifications", &why);
    ASSERT_TRUE(notifications) << why;

    TempDir dir;
    std::filesystem::create_directories(dir.file("bundle"));
    int port = quenby::testing::freePort();
    quenby::test::writeFile(dir.file("kit.json"), withPort(example("kit.json"), port));
    quenby::test::writeFile(dir.file("campaigns.json"), withPort(example("campaigns.json"), port));
    for (const char* plist : {"Info.plist", "Lurewave.plist", "Zonewise.plist"})
        quenby::test::writeFile(dir.file("bundle/") + plist, withPort(example(plist), port));
    auto server =
        Child::spawn({QUENBY_SIM_TOOL, "serve", "--kit", dir.file("kit.json"), "--campaigns",
                      dir.file("campaigns.json"), "--port", std::to_string(port)});
    ASSERT_TRUE(server);
    ASSERT_TRUE(waitFor([&] { return server->output().find("serving on") != std::string::npos; }))
        << server->output();

    // The walk: from 120 m south of the car park's centre up to it, then standing there.
    std::vector<std::string> walk;
    for (int i = 0; i < 900; ++i) {
        double south = std::max(0.0, 120.0 - 10.0 * i);
        walk.push_back(quenby::testing::nmeaGGA(40.0 - south / 111320.0, -75.0, 36000 + i));
    }
    auto gps = quenby::testing::GpsFake::start(walk, &why);
    ASSERT_TRUE(gps) << why;

    std::map<std::string, std::string> env{{"DBUS_SYSTEM_BUS_ADDRESS", bus->address()},
                                           {"DBUS_SESSION_BUS_ADDRESS", bus->address()}};
    auto a = agent({"--bundle", dir.file("bundle"), "--documents", dir.file("docs"), "--json",
                    "--gpsd", "127.0.0.1:" + std::to_string(gps->port()), "--exit-timeout", "3"},
                   env);
    ASSERT_TRUE(a);

    // The geofence first: the car park is place 1, entered.
    ASSERT_TRUE(waitFor([&] { return saw(*a, place(1, 1)); }, 30)) << a->output();
    // Ranging runs once the kit's beacon regions are registered; then the coffee shelf's beacon
    // is heard 0.6 m away, inside the campaign's 2 m trigger distance.
    ASSERT_TRUE(waitFor([&] {
        return saw(*a, R"({"/type": "location", "/call": "startRangingBeaconsInRegion"})");
    }));
    std::array<std::uint8_t, 16> uuid{0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A,
                                      0x93, 0xFC, 0x0C, 0x24, 0x7A, 0x3E, 0x6E, 0x5F};
    ASSERT_TRUE(bluez->setIBeacon(coffee, uuid, 1, 2, -59));
    int rssi = -55;
    auto found = [&] {
        // A beacon advertises all the time: keep its readings coming.
        bluez->setRssi(coffee, static_cast<std::int16_t>(rssi));
        rssi = rssi == -55 ? -54 : -55;
        return saw(*a, R"({"/type": "delegate", "/name": "lurewave:didFindCampaign:",
                           "/campaign/id": "coffee-20"})");
    };
    ASSERT_TRUE(waitFor(found, 30)) << a->output();
    // The host shows it: a desktop notification.
    ASSERT_TRUE(waitFor([&] {
        auto calls =
            bus->send({"--dest=org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                       "org.freedesktop.DBus.Mock.GetCalls"});
        return calls && calls->find("Notify") != std::string::npos;
    }));
    // Walking away from the shelf: silent for --exit-timeout (3 s, not the default 10), the
    // coffee shelf's region is left.
    ASSERT_TRUE(waitFor([&] { return saw(*a, place(2, 2)); }, 7)) << a->output();
    // Analytics on the next 30-second tick, beacon sightings on the status watchdog.
    ASSERT_TRUE(waitFor(
        [&] {
            std::string out = server->output();
            return out.find("POST /analytics") != std::string::npos &&
                   out.find("\"beacon_status_events\"") != std::string::npos;
        },
        75))
        << server->output();

    a->signal(SIGTERM);
    auto status = a->wait(20);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0) << a->output();
    // It stopped as a host application does: the kit's regions were cleared.
    EXPECT_TRUE(saw(*a, R"({"/type": "location", "/call": "stopMonitoringForRegion",
                            "/region/identifier": "car-park"})"));
    using quenby::test::queryRows;
    std::string analytics = dir.file("docs/ZonewiseAnalytics.sqlite");
    std::string tallyline = dir.file("docs/Tallyline.sqlite");
    for (const auto& db : {analytics, tallyline})
        EXPECT_EQ(queryRows(db, "pragma integrity_check"),
                  (std::vector<json>{{{"integrity_check", "ok"}}}))
            << db;
    EXPECT_GE(queryRows(analytics, "select count(*) as n from region_sessions").at(0)["n"], 1);
    EXPECT_GE(
        queryRows(tallyline, "select count(*) as n from beacon_sessions where beacon_minor = 2")
            .at(0)["n"],
        1);
}
