// GpsdPositionSource against a real gpsd fed by gpsfake, driving the real GeofenceMonitor; what
// the application would see is recorded by a location manager delegate. The scheduler runs on the
// system clock and the test thread is its host thread: every wait pumps it with settle().
#include "sensing/gpsd_position_source.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <numbers>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "platform/clock.h"
#include "platform/location_manager.h"
#include "sensing/geofence_monitor.h"
#include "sensing/gpsd_report.h"
#include "support/daemons.h"
#include "support/gpsfake.h"
#include "support/location_events.h"
#include "support/test_support.h"

using namespace quenby::platform;
using namespace quenby::sensing;
using quenby::testing::freePort;
using quenby::testing::GpsFake;
using quenby::testing::waitFor;

namespace {

constexpr double kLat = 51.5, kLng = -0.12;
constexpr double kMetresPerDegree = 6371008.8 * std::numbers::pi / 180.0;
constexpr int kNoon = 12 * 3600;

double north(double metres) {
    return kLat + metres / kMetresPerDegree;
}

double elapsedSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Every callback as a line ("enter shop", "monitoring failed shop gpsd -6"), and the locations.
struct Recorder : quenby::test::LocationEventLog {
    std::vector<Location> locations;
    void locationManagerDidUpdateLocations(LocationManager& m,
                                           const std::vector<Location>& l) override {
        LocationEventLog::locationManagerDidUpdateLocations(m, l);
        locations.insert(locations.end(), l.begin(), l.end());
    }
};
using Strings = std::vector<std::string>;

class GpsdTest : public ::testing::Test {
  protected:
    quenby::test::ConsoleCapture console;  // first in, last out: the reader writes to it
    std::shared_ptr<Scheduler> scheduler = Scheduler::create(std::make_shared<SystemClock>());
    std::shared_ptr<LocationService> service = LocationService::create(scheduler);
    std::shared_ptr<LocationManager> manager = service->createLocationManager();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<GeofenceMonitor> monitor;
    std::unique_ptr<GpsFake> fake;
    std::unique_ptr<GpsdPositionSource> source;

    void SetUp() override {
        manager->setDelegate(recorder);
        manager->startMonitoringForRegion(
            std::make_shared<CircularRegion>(kLat, kLng, 50.0, "shop"));
        monitor = GeofenceMonitor::create(scheduler, service);
    }

    void follow(int port, double maxBackoff = 5.0) {
        GpsdPositionSource::Options o;
        o.port = std::to_string(port);
        o.maxBackoff = maxBackoff;
        source = GpsdPositionSource::create(scheduler, monitor, o);
        ASSERT_TRUE(source);
    }
    // gpsd replaying `log` in a loop on `port` (0: any): lines it misses at the start come round
    // again, and it stays up after the log, so any failure is the log's own doing.
    bool replay(const std::vector<std::string>& log, std::string* why, int port = 0) {
        GpsFake::Options o;
        o.repeat = true;
        o.port = port;
        fake = GpsFake::start(log, why, o);
        return fake != nullptr;
    }
    // Waits for `pred`, running the host thread's work meanwhile; on a timeout, what was seen.
    ::testing::AssertionResult until(const std::function<bool()>& pred, double seconds = 15.0) {
        if (waitFor([&] { return scheduler->settle(), pred(); }, seconds))
            return ::testing::AssertionSuccess();
        auto s = source ? source->stats() : GpsdPositionSource::Stats{};
        auto r = ::testing::AssertionFailure() << fmt::format(
                     "{} locations, [{}]; {} fixes, {} connects, {} attempts failed",
                     recorder->locations.size(), fmt::join(recorder->transitions(), "; "), s.fixes,
                     s.connects, s.failures);
        for (const auto& l : console.lines()) r << "\n  " << l;
        if (fake) r << "\n" << fake->process().output();
        return r;
    }
    // How long the source takes to stop.
    double stopSource() {
        auto begin = std::chrono::steady_clock::now();
        source.reset();
        return elapsedSince(begin);
    }
    std::vector<std::string> logLines(const std::string& what) const {
        std::vector<std::string> out;
        for (const auto& l : console.withPrefix("Lurewave: gpsd"))
            if (l.find(what) != std::string::npos) out.push_back(l);
        return out;
    }
};

Strings standingAt(double metres, int count, int from = kNoon) {
    std::vector<std::string> log;
    for (int i = 0; i < count; ++i)
        log.push_back(quenby::testing::nmeaGGA(north(metres), kLng, from + i));
    return log;
}

// A TCP listener on 127.0.0.1 whose clients hear whatever the test writes: gpsd's side of the
// protocol by hand.
struct RawPeer {
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), port = 0;
    std::vector<int> clients;
    RawPeer() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&a), len) == 0 &&
            ::listen(listener, 4) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~RawPeer() {
        for (int c : clients) ::close(c);
        ::close(listener);
    }
    // True once one more client has connected; it becomes the one send() writes to.
    bool accept() {
        int c = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0) clients.push_back(c);
        return c >= 0;
    }
    // Whatever fits the socket's buffer (plenty for a test); never blocks, never raises SIGPIPE.
    void send(const std::string& b) {
        [[maybe_unused]] auto n =
            ::send(clients.back(), b.data(), b.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
};

TEST_F(GpsdTest, AWalkThroughTheGeofenceEntersThenExitsAndNothingElseIsAPlace) {
    // A receiver without a fix yet (GGA quality 0 and RMC status V, some still carrying a stale
    // position 5 km away), then the garbage of a broken cable, then the walk: from 200 m north,
    // through the centre, back out to 200 m, with RMC beside GGA as a real receiver sends them.
    std::vector<std::string> log;
    for (int i = 0; i < 5; ++i) {
        log.push_back(quenby::testing::nmeaGGA(north(5000), kLng, kNoon + i, 0));
        log.push_back(quenby::testing::nmeaRMC(north(5000), kLng, kNoon + i, false));
        log.push_back(quenby::testing::nmeaNoFix(kNoon + i));
    }
    for (int i = 0; i < 3; ++i)
        for (const auto& g : quenby::testing::nmeaGarbage()) log.push_back(g);
    for (int i = 0; i <= 20; ++i) {
        double lat = north(std::abs(200 - 20 * i));
        log.push_back(quenby::testing::nmeaGGA(lat, kLng, kNoon + 5 + i));
        log.push_back(quenby::testing::nmeaRMC(lat, kLng, kNoon + 5 + i));
    }
    std::string why;
    if (!replay(log, &why)) GTEST_SKIP() << why;
    follow(fake->port());
    ASSERT_TRUE(until([&] { return recorder->transitions().size() >= 2; }, 25.0));
    EXPECT_EQ(recorder->transitions(), (Strings{"enter shop", "exit shop"}));
    for (const auto& l : recorder->locations) {
        EXPECT_LT(l.latitude, north(201));
        EXPECT_NEAR(l.longitude, kLng, 1e-6);
    }
    EXPECT_GT(source->stats().fixes, 10u);
    EXPECT_EQ(source->stats().connects, 1u);
    EXPECT_TRUE(logLines("").empty());

    // Blocked in poll() on a live connection, the reader still stops at once.
    EXPECT_LT(stopSource(), 1.0);
}

// Absent, then there, then restarted: each outage is one failure and one log line, and each
// comes to an end with the first report of the next connection.
TEST_F(GpsdTest, AbsentAtStartThenPickedUpThenRestarted) {
    int port = freePort();
    follow(port);
    ASSERT_TRUE(until([&] { return source->stats().failures >= 4; }));
    EXPECT_EQ(recorder->transitions(), Strings{"monitoring failed shop gpsd -6"});
    auto down = logLines("unavailable");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_NE(down[0].find("127.0.0.1:" + std::to_string(port)), std::string::npos) << down[0];

    // Retries are two seconds apart by now and growing; the cap is five.
    std::string why;
    if (!replay(standingAt(300, 20), &why, port)) GTEST_SKIP() << why;
    auto up = std::chrono::steady_clock::now();
    ASSERT_TRUE(until([&] { return source->stats().connects == 1; }, 6.0));
    EXPECT_LT(elapsedSince(up), 5.5);
    ASSERT_TRUE(until([&] { return !recorder->locations.empty(); }));
    EXPECT_EQ(logLines("connected again").size(), 1u);

    fake->stop();
    ASSERT_TRUE(until([&] { return recorder->transitions().size() == 2; }));
    EXPECT_EQ(logLines("gpsd closed the connection").size(), 1u);
    ASSERT_TRUE(replay(standingAt(0, 20), &why, port)) << why;
    ASSERT_TRUE(until([&] { return recorder->transitions().size() == 3; }));
    EXPECT_EQ(recorder->transitions(), (Strings{"monitoring failed shop gpsd -6",
                                                "monitoring failed shop gpsd 1", "enter shop"}));
    EXPECT_EQ(logLines("unavailable").size(), 2u);
    EXPECT_EQ(logLines("connected again").size(), 2u);
    EXPECT_EQ(source->stats().connects, 2u);
}

TEST_F(GpsdTest, ReportsAreDecodedAsGpsdMeansThemAndGarbageIsAnOutageRetried) {
    RawPeer peer;
    follow(peer.port);
    ASSERT_TRUE(until([&] { return peer.accept(); }));
    auto line = [](const std::string& json) { return json + "\r\n"; };
    auto tpv = [&](const std::string& fields) {
        return line(R"({"class":"TPV","device":"/dev/ttyACM0",)" + fields + "}");
    };
    // None of these is a place: a fix of mode 1 (a stale position), one without a latitude, one
    // too coarse to decide by, and one with no eph where the larger of epx and epy is too coarse.
    peer.send(line(R"({"class":"VERSION","release":"3.22","proto_major":3,"proto_minor":14})") +
              tpv(R"("mode":1,"lat":51.5,"lon":-0.12,"eph":5.0)") + tpv(R"("mode":3,"lon":-0.12)") +
              tpv(R"("mode":2,"lat":51.5,"lon":-0.12,"eph":80.0)") +
              tpv(R"("mode":3,"lat":51.5,"lon":-0.12,"epx":10.0,"epy":70.0)"));
    ASSERT_TRUE(until([&] { return recorder->locations.size() >= 2; }));
    EXPECT_EQ(recorder->transitions(), Strings{});
    peer.send(tpv(R"("mode":3,"lat":51.5,"lon":-0.12,"epx":10.0,"epy":30.0)"));
    ASSERT_TRUE(until([&] { return !recorder->transitions().empty(); }));
    // Reports of other classes after a fix repeat nothing; 500 m off with no estimate at all is
    // trusted.
    peer.send(line(R"({"class":"SKY","device":"/dev/ttyACM0","hdop":1.0})") +
              line(R"({"class":"DEVICES","devices":[]})") +
              tpv(R"("mode":3,"lat":51.5045,"lon":-0.12)"));
    ASSERT_TRUE(until([&] { return recorder->transitions().size() >= 2; }));
    EXPECT_EQ(recorder->transitions(), (Strings{"enter shop", "exit shop"}));
    EXPECT_EQ(recorder->locations.size(), 4u);
    EXPECT_EQ(source->stats().fixes, 4u);

    // Lines libgps makes nothing of (the third one sends its decoder into a loop of minutes),
    // then one longer than any gpsd report: an outage, and the same again on the next connection
    // is still that outage.
    std::string junk =
        "HTTP/1.1 400 Bad Request\r\n{\"class\":\"NOPE\"}\n"
        "{\"cl{\"class\":\"TPV\",\"mode\":2,\"lat\":40.0,ass\":\"TPV\"lo{\"class\":\"TPV\","
        "\"mode\":2,n\":-7\n" +
        std::string(100000, 'x');
    for (std::uint64_t n = 1; n <= 2; ++n) {
        peer.send(junk);
        ASSERT_TRUE(until([&] { return source->stats().failures == n; }));
        ASSERT_TRUE(until([&] { return peer.accept(); }));
    }
    EXPECT_EQ(source->stats().connects, 3u);
    EXPECT_EQ(recorder->transitions(),
              (Strings{"enter shop", "exit shop", "monitoring failed shop gpsd 2"}));
    auto down = logLines("unavailable");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_NE(down[0].find("unreadable"), std::string::npos) << down[0];
    EXPECT_EQ(recorder->locations.size(), 4u);

    // A gpsd gone quiet leaves the reader in poll() (never in a read), where it stops at once.
    EXPECT_LT(stopSource(), 1.0);
}

TEST_F(GpsdTest, RetriesBackOffToTheCapTellTheOutageOnceAndDoNotHoldTheDestructor) {
    follow(freePort(), 2.0);
    // Pauses of 0.25, 0.5, 1, then the cap's 2 and 2 s: each gap between failures twice the one
    // before, until the cap. Gaps rather than times since the start, so that a loaded machine's
    // delays cancel out.
    std::vector<double> at;
    auto start = std::chrono::steady_clock::now();
    for (std::uint64_t n = 2; n <= 6; ++n) {
        ASSERT_TRUE(until([&] { return source->stats().failures >= n; }));
        at.push_back(elapsedSince(start));
    }
    EXPECT_GT(at[2] - at[1], 0.9);
    EXPECT_NEAR((at[2] - at[1]) / (at[1] - at[0]), 2.0, 0.4) << ::testing::PrintToString(at);
    EXPECT_NEAR((at[4] - at[3]) / (at[3] - at[2]), 1.0, 0.4) << ::testing::PrintToString(at);
    EXPECT_EQ(recorder->transitions(), Strings{"monitoring failed shop gpsd -6"});
    EXPECT_EQ(logLines("").size(), 1u);
    EXPECT_EQ(source->stats().connects, 0u);
    // The reader is in a pause of two seconds.
    EXPECT_LT(stopSource(), 1.0);
}

// The globe's edges, as gpsd reports them: a fix on the antimeridian or at a pole is a place.
TEST(GpsdReport, AFixAnywhereOnTheGlobeAndNowhereElse) {
    auto fixAt = [](const std::string& lat, const std::string& lon) {
        gps_data_t data{};
        if (!decodeReport(R"({"class":"TPV","mode":3,"lat":)" + lat + R"(,"lon":)" + lon + "}",
                          data))
            return std::optional<Fix>();
        return fixFromReport(data, Date::fromSecondsSince1970(0));
    };
    for (auto [lat, lon] : {std::pair{"90", "180"}, {"-90", "-180"}, {"89.99", "179.5"}}) {
        auto fix = fixAt(lat, lon);
        ASSERT_TRUE(fix) << lat << " " << lon;
        EXPECT_EQ(fix->latitude, std::stod(lat));
        EXPECT_EQ(fix->longitude, std::stod(lon));
    }
    for (auto [lat, lon] :
         {std::pair{"90.001", "0"}, {"-90.001", "0"}, {"0", "180.001"}, {"0", "-180.001"}})
        EXPECT_FALSE(fixAt(lat, lon)) << lat << " " << lon;
}

}  // namespace
