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

#include "platform/clock.h"
#include "platform/location_manager.h"
#include "sensing/geofence_monitor.h"
#include "sensing/gpsd_report.h"
#include "support/daemons.h"
#include "support/gpsfake.h"
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

struct Recorder : LocationManagerDelegate {
    std::vector<Location> locations;
    std::vector<std::string> transitions;
    std::vector<Error> failures;

    void locationManagerDidUpdateLocations(LocationManager&,
                                           const std::vector<Location>& l) override {
        locations.insert(locations.end(), l.begin(), l.end());
    }
    void locationManagerDidEnterRegion(LocationManager&,
                                       const std::shared_ptr<const Region>& r) override {
        transitions.push_back("enter " + r->identifier());
    }
    void locationManagerDidExitRegion(LocationManager&,
                                      const std::shared_ptr<const Region>& r) override {
        transitions.push_back("exit " + r->identifier());
    }
    void locationManagerMonitoringDidFailForRegionWithError(LocationManager&,
                                                            const std::shared_ptr<const Region>&,
                                                            const Error& e) override {
        failures.push_back(e);
    }
};

class GpsdTest : public ::testing::Test {
  protected:
    quenby::test::ConsoleCapture console;  // first in, last out: the reader writes to it
    std::shared_ptr<Scheduler> scheduler = Scheduler::create(std::make_shared<SystemClock>());
    std::shared_ptr<LocationService> service = LocationService::create(scheduler);
    std::shared_ptr<LocationManager> manager = service->createLocationManager();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<GeofenceMonitor> monitor;
    std::unique_ptr<GpsdPositionSource> source;

    void SetUp() override {
        manager->setDelegate(recorder);
        manager->startMonitoringForRegion(
            std::make_shared<CircularRegion>(kLat, kLng, 50.0, "shop"));
        monitor = GeofenceMonitor::create(scheduler, service);
    }
    void TearDown() override { source.reset(); }

    void follow(int port, double maxBackoff = 5.0) {
        GpsdPositionSource::Options o;
        o.port = std::to_string(port);
        o.maxBackoff = maxBackoff;
        source = GpsdPositionSource::create(scheduler, monitor, o);
        ASSERT_TRUE(source);
    }
    // Waits for `pred`, running the host thread's work meanwhile.
    bool until(const std::function<bool()>& pred, double seconds = 15.0) {
        return waitFor(
            [&] {
                scheduler->settle();
                return pred();
            },
            seconds);
    }
    // What the test saw so far, for failure messages.
    // Replays `log` in a loop and follows it: lines gpsd misses at the start come round again,
    // and gpsd stays up after the log, so any failure is the log's own doing. Nothing (and
    // `why`) when gpsfake cannot run here.
    std::unique_ptr<GpsFake> followLoop(const std::vector<std::string>& log, std::string* why) {
        GpsFake::Options o;
        o.repeat = true;
        auto fake = GpsFake::start(log, why, o);
        if (fake) follow(fake->port());
        return fake;
    }

    ::testing::AssertionResult untilFirstTransition(quenby::testing::GpsFake& fake) {
        if (until([&] { return !recorder->transitions.empty(); }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << seen() << "\n" << fake.process().output();
    }

    std::string seen() const {
        std::string out =
            "locations " + std::to_string(recorder->locations.size()) + ", transitions [";
        for (const auto& t : recorder->transitions) out += t + ";";
        out += "], failures " + std::to_string(recorder->failures.size());
        if (source) {
            auto s = source->stats();
            out += ", fixes " + std::to_string(s.fixes) + ", connects " +
                   std::to_string(s.connects) + ", failed attempts " + std::to_string(s.failures);
        }
        for (const auto& l : console.lines()) out += "\n  " + l;
        return out;
    }
    std::vector<std::string> logLines(const std::string& what) const {
        std::vector<std::string> out;
        for (const auto& l : console.withPrefix("Lurewave: gpsd"))
            if (l.find(what) != std::string::npos) out.push_back(l);
        return out;
    }
};

std::vector<std::string> standingAt(double metres, int count, int from = kNoon) {
    std::vector<std::string> log;
    for (int i = 0; i < count; ++i)
        log.push_back(quenby::testing::nmeaGGA(north(metres), kLng, from + i));
    return log;
}

// A TCP listener on 127.0.0.1 whose clients hear whatever the test writes: gpsd's side of the
// protocol by hand.
class RawPeer {
  public:
    RawPeer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
            ::listen(listener_, 4) == 0 &&
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            port_ = ntohs(a.sin_port);
    }
    ~RawPeer() {
        for (int c : clients_) ::close(c);
        ::close(listener_);
    }
    int port() const { return port_; }
    // True once one more client has connected; it becomes the one send() writes to.
    bool accept() {
        int c = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (c < 0) return false;
        clients_.push_back(c);
        return true;
    }
    // Whatever fits the socket's buffer (plenty for a test); never blocks, never raises SIGPIPE.
    void send(const std::string& bytes) {
        [[maybe_unused]] auto n =
            ::send(clients_.back(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

  private:
    int listener_ = -1, port_ = 0;
    std::vector<int> clients_;
};

double elapsedSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

TEST_F(GpsdTest, AWalkThroughTheGeofenceEntersThenExits) {
    // From 200 m north, through the centre, back out to 200 m; with RMC beside GGA as a real
    // receiver sends them.
    std::vector<std::string> log;
    int t = kNoon;
    auto step = [&](double metres) {
        log.push_back(quenby::testing::nmeaGGA(north(metres), kLng, t));
        log.push_back(quenby::testing::nmeaRMC(north(metres), kLng, t));
        ++t;
    };
    for (double m = 200; m > -1; m -= 20) step(m);
    for (double m = 20; m < 201; m += 20) step(m);
    std::string why;
    GpsFake::Options o;
    o.repeat = true;  // lines gpsd misses at the start come round again
    auto fake = GpsFake::start(log, &why, o);
    if (!fake) GTEST_SKIP() << why;
    follow(fake->port());

    ASSERT_TRUE(until([&] { return recorder->transitions.size() >= 2; }))
        << seen() << "\n"
        << fake->process().output();
    EXPECT_EQ(recorder->transitions, (std::vector<std::string>{"enter shop", "exit shop"}));
    auto last = service->lastLocation();
    ASSERT_TRUE(last);
    EXPECT_NEAR(last->longitude, kLng, 1e-6);
    EXPECT_GT(source->stats().fixes, 10u);
    EXPECT_EQ(source->stats().connects, 1u);

    // Blocked in poll() on a live connection, the reader still stops at once.
    auto begin = std::chrono::steady_clock::now();
    source.reset();
    EXPECT_LT(elapsedSince(begin), 1.0);
}

TEST_F(GpsdTest, NoLocationBeforeTheReceiverHasAFix) {
    // A receiver that has not got a fix: GGA quality 0 and RMC status V, some still carrying a
    // stale position 5 km away, before it settles on the shop.
    std::vector<std::string> log;
    for (int i = 0; i < 10; ++i) {
        log.push_back(quenby::testing::nmeaGGA(north(5000), kLng, kNoon + i, 0));
        log.push_back(quenby::testing::nmeaRMC(north(5000), kLng, kNoon + i, false));
        log.push_back(quenby::testing::nmeaNoFix(kNoon + i));
    }
    for (const auto& s : standingAt(0, 10, kNoon + 10)) log.push_back(s);
    std::string why;
    auto fake = followLoop(log, &why);
    if (!fake) GTEST_SKIP() << why;
    ASSERT_TRUE(untilFirstTransition(*fake));
    EXPECT_EQ(recorder->transitions, std::vector<std::string>{"enter shop"});
    for (const auto& l : recorder->locations) EXPECT_NEAR(l.latitude, kLat, 1e-6);
}

TEST_F(GpsdTest, GarbageFromTheReceiverIsSurvived) {
    std::vector<std::string> log = standingAt(300, 5);
    for (int i = 0; i < 3; ++i)
        for (const auto& g : quenby::testing::nmeaGarbage()) log.push_back(g);
    for (const auto& s : standingAt(0, 5, kNoon + 5)) log.push_back(s);
    std::string why;
    auto fake = followLoop(log, &why);
    if (!fake) GTEST_SKIP() << why;
    ASSERT_TRUE(untilFirstTransition(*fake));
    EXPECT_EQ(recorder->transitions, std::vector<std::string>{"enter shop"});
    EXPECT_TRUE(recorder->failures.empty());
    EXPECT_TRUE(logLines("").empty());
}

// Absent, then there, then restarted: each outage is one failure and one log line, and each
// comes to an end with the first report of the next connection.
TEST_F(GpsdTest, AbsentAtStartThenPickedUpThenRestarted) {
    int port = freePort();
    follow(port);
    ASSERT_TRUE(until([&] { return source->stats().failures >= 4; })) << seen();
    ASSERT_EQ(recorder->failures.size(), 1u);
    EXPECT_EQ(recorder->failures[0].domain, "gpsd");
    auto down = logLines("unavailable");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_NE(down[0].find("127.0.0.1:" + std::to_string(port)), std::string::npos) << down[0];

    // Retries are two seconds apart by now and growing; the cap is five.
    GpsFake::Options o;
    o.port = port;
    o.repeat = true;
    std::string why;
    auto fake = GpsFake::start(standingAt(300, 20), &why, o);
    if (!fake) GTEST_SKIP() << why;
    auto up = std::chrono::steady_clock::now();
    ASSERT_TRUE(until([&] { return source->stats().connects == 1; }, 6.0)) << seen();
    EXPECT_LT(elapsedSince(up), 5.5);
    ASSERT_TRUE(until([&] { return !recorder->locations.empty(); })) << seen() << "\n"
                                                                     << fake->process().output();
    EXPECT_EQ(logLines("connected again").size(), 1u);

    fake->stop();
    ASSERT_TRUE(until([&] { return recorder->failures.size() == 2; })) << seen();
    EXPECT_EQ(logLines("gpsd closed the connection").size(), 1u);
    fake = GpsFake::start(standingAt(0, 20), &why, o);
    ASSERT_TRUE(fake) << why;
    ASSERT_TRUE(until([&] { return !recorder->transitions.empty(); })) << seen() << "\n"
                                                                       << fake->process().output();
    EXPECT_EQ(recorder->transitions, std::vector<std::string>{"enter shop"});
    EXPECT_EQ(recorder->failures.size(), 2u);
    EXPECT_EQ(logLines("unavailable").size(), 2u);
    EXPECT_EQ(logLines("connected again").size(), 2u);
    EXPECT_EQ(source->stats().connects, 2u);
}

TEST_F(GpsdTest, ReportsAreDecodedAsGpsdMeansThem) {
    RawPeer peer;
    follow(peer.port());
    ASSERT_TRUE(until([&] { return peer.accept(); })) << seen();
    auto tpv = [](int mode, double metres, const std::string& extra) {
        char buf[200];
        std::snprintf(buf, sizeof buf,
                      "{\"class\":\"TPV\",\"device\":\"/dev/ttyACM0\",\"mode\":%d,"
                      "\"lat\":%.9f,\"lon\":%.9f%s}\r\n",
                      mode, north(metres), kLng, extra.c_str());
        return std::string(buf);
    };
    peer.send(
        "{\"class\":\"VERSION\",\"release\":\"3.22\",\"proto_major\":3,"
        "\"proto_minor\":14}\r\n");
    peer.send(tpv(1, 0, ",\"eph\":5.0"));  // no fix: a stale position, ignored
    peer.send("{\"class\":\"TPV\",\"mode\":3,\"lon\":-0.12}\r\n");  // no latitude
    peer.send(tpv(2, 0, ",\"eph\":80.0"));                          // too coarse to decide
    peer.send(tpv(3, 0, ",\"epx\":10.0,\"epy\":70.0"));             // no eph: the larger of the two
    ASSERT_TRUE(until([&] { return recorder->locations.size() >= 2; })) << seen();
    EXPECT_EQ(recorder->transitions, std::vector<std::string>{});
    peer.send(tpv(3, 0, ",\"epx\":10.0,\"epy\":30.0"));
    ASSERT_TRUE(until([&] { return !recorder->transitions.empty(); })) << seen();
    // Reports of other classes after a fix repeat nothing.
    peer.send("{\"class\":\"SKY\",\"device\":\"/dev/ttyACM0\",\"hdop\":1.0}\r\n");
    peer.send("{\"class\":\"DEVICES\",\"devices\":[]}\r\n");
    peer.send(tpv(3, 500, ""));  // no estimate at all: trusted
    ASSERT_TRUE(until([&] { return recorder->transitions.size() >= 2; })) << seen();
    EXPECT_EQ(recorder->transitions, (std::vector<std::string>{"enter shop", "exit shop"}));
    EXPECT_EQ(recorder->locations.size(), 4u);
    EXPECT_EQ(source->stats().fixes, 4u);
    EXPECT_TRUE(recorder->failures.empty());

    // A gpsd gone quiet leaves the reader in poll() (never in a read), where it stops at once.
    auto begin = std::chrono::steady_clock::now();
    source.reset();
    EXPECT_LT(elapsedSince(begin), 1.0);
}

TEST_F(GpsdTest, APeerSendingGarbageIsAnOutageRetried) {
    RawPeer peer;
    // Lines libgps makes nothing of (the third one sends its decoder into a loop of minutes),
    // then one longer than any gpsd report.
    std::string junk =
        "HTTP/1.1 400 Bad Request\r\n{\"class\":\"NOPE\"}\n"
        "{\"cl{\"class\":\"TPV\",\"mode\":2,\"lat\":40.0,ass\":\"TPV\"lo{\"class\":\"TPV\","
        "\"mode\":2,n\":-7\n" +
        std::string(100000, 'x');
    follow(peer.port());
    ASSERT_TRUE(until([&] { return peer.accept(); })) << seen();
    peer.send(junk);
    ASSERT_TRUE(until([&] { return recorder->failures.size() == 1; })) << seen();
    // It comes back, and fails the same way, within the same outage.
    ASSERT_TRUE(until([&] { return peer.accept(); })) << seen();
    peer.send(junk);
    ASSERT_TRUE(until([&] { return source->stats().failures >= 2; })) << seen();
    EXPECT_EQ(source->stats().connects, 2u);
    EXPECT_EQ(recorder->failures.size(), 1u);
    auto down = logLines("unavailable");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_NE(down[0].find("unreadable"), std::string::npos) << down[0];
    EXPECT_TRUE(recorder->locations.empty());
}

TEST_F(GpsdTest, RetriesNeverWaitLongerThanTheCapAndTellTheOutageOnce) {
    follow(freePort(), 0.5);
    // 0.25 s, then 0.5 s apart: eight attempts take under four seconds.
    ASSERT_TRUE(until([&] { return source->stats().failures >= 8; }, 5.0)) << seen();
    EXPECT_EQ(recorder->failures.size(), 1u);
    EXPECT_EQ(logLines("").size(), 1u);
    EXPECT_EQ(source->stats().connects, 0u);
}

TEST_F(GpsdTest, RetriesBackOffAndTheDestructorDoesNotWaitThemOut) {
    follow(freePort(), 30.0);
    // Pauses of 0.25, 0.5, 1 and 2 s: each gap between failures is twice the one before. Gaps
    // rather than times since the start, so that a loaded machine's delays cancel out.
    std::vector<std::chrono::steady_clock::time_point> at;
    for (std::uint64_t n = 2; n <= 4; ++n) {
        ASSERT_TRUE(until([&] { return source->stats().failures >= n; })) << seen();
        at.push_back(std::chrono::steady_clock::now());
    }
    double first = std::chrono::duration<double>(at[1] - at[0]).count();
    double second = std::chrono::duration<double>(at[2] - at[1]).count();
    EXPECT_GT(second, 0.9);
    EXPECT_NEAR(second / first, 2.0, 0.4) << first << " s, then " << second << " s";
    // The reader is in its pause of two seconds.
    auto begin = std::chrono::steady_clock::now();
    source.reset();
    EXPECT_LT(elapsedSince(begin), 1.0);
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
