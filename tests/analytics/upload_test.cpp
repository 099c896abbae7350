// The upload cycle against a real HTTP server on 127.0.0.1.
#include <gtest/gtest.h>

#include "analytics/QZWAPIAnalyticsUploader.h"
#include "analytics/analytics_fixture.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWLogger.h"
#include "proximity/QZWPartner.h"
#include "support/test_server.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;

namespace {

struct UploadFixture : AnalyticsFixture {
    TestServer server;
    UploadFixture() {
        server.on("POST", "/analytics", Reply{200, "{}"});
        configure(server.url("/analytics"));
        QZWPartner().setIdentifier("partner-7");
    }
    void configure(std::optional<std::string> analyticsUrl) {
        Json cfg = {{"ZWKitURL", "https://api.example.com/api/kits/17"}, {"ZWAPIToken", "tok"}};
        if (analyticsUrl) cfg["ZWAnalyticsURL"] = *analyticsUrl;
        QZWConfiguration::sharedConfiguration(*vp.platform).configureWithDictionary(cfg);
    }
    std::vector<Json> posted() const {
        std::vector<Json> out;
        for (const auto& r : server.requestsTo("/analytics")) out.push_back(Json::parse(r.body));
        return out;
    }
    // A closed beacon session with two beacons, a closed geofence visit, an open session and
    // three events.
    void recordWalk() {
        auto region = beaconRegion(1, 2);
        analytics->openSessionWithRegion(region.get());
        vp.scheduler().advanceBy(2);
        analytics->updateSessionWithRegionAndBeacons(region.get(), {beacon(1, 2), beacon(1, 5)});
        vp.scheduler().advanceBy(1);
        analytics->updateSessionWithRegionAndBeacons(region.get(), {beacon(1, 2)});
        analytics->closeSessionWithRegion(region.get());
        analytics->openSessionWithRegion(beaconRegion(3, nullptr).get());  // still open
        analytics->openSessionWithRegion(circle(40.0, -75.0, 30).get());
        vp.scheduler().advanceBy(60);
        analytics->closeSessionWithRegion(circle(40.0, -75.0, 30).get());
        analytics->addEventWithDetails("lurewave_events",
                                       {{"event_type", "found"}, {"campaign_id", "c1"}});
        analytics->addEventWithDetails("lurewave_events",
                                       {{"event_type", "viewed"}, {"triggered_at", "x"}});
        // Event types that name the document's own keys are overwritten by them.
        analytics->addEventWithDetails("app_id", {{"shadowed", true}});
        analytics->addEventWithDetails("partner_id", {{"shadowed", true}});
        analytics->addEventWithDetails("zonewise_events", {{"shadowed", true}});
    }
};

}  // namespace

TEST(QZWAnalyticsUpload, SendsOneDocumentWithTheLayersHeadersThenStampsTheRows) {
    UploadFixture f;
    f.recordWalk();
    f.analytics->uploadAnalyticsToServer();
    auto requests = f.server.requestsTo("/analytics");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].header("AUTHORIZATION"), "Token token=\"tok\"");
    EXPECT_EQ(requests[0].header("X-ZW-AppID"), kTestVendorId);
    EXPECT_EQ(requests[0].header("X-ZW-FrameworkVersion"), "1.0.3");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].header("Accept"), "application/json");

    // A parser keeps the last of two equal keys, so a shadowed event type shows only in the text.
    for (const char* key : {"\"app_id\":", "\"partner_id\":", "\"zonewise_events\":"}) {
        const std::string& body = requests[0].body;
        std::size_t n = 0;
        for (auto p = body.find(key); p != std::string::npos; p = body.find(key, p + 1)) ++n;
        EXPECT_EQ(n, 1u) << key << " is sent once";
    }
    Json doc = Json::parse(requests[0].body);
    Json expected = Json::parse(R"({"partner_id": "partner-7",
      "lurewave_events": [
        {"event_type": "found", "campaign_id": "c1", "triggered_at": "2026-03-01T09:01:03Z"},
        {"event_type": "viewed", "triggered_at": "2026-03-01T09:01:03Z"}],
      "zonewise_events": [{"kit_id": "17",
        "region_sessions": [{"id": 1, "region_major": 1, "region_minor": 2,
          "entered_at": "2026-03-01T09:00:00Z", "exited_at": "2026-03-01T09:00:03Z",
          "beacon_sessions": [{"beacon_major": 1, "beacon_minor": 2,
              "first_detected_at": "2026-03-01T09:00:02Z", "last_detected_at": "2026-03-01T09:00:03Z"},
            {"beacon_major": 1, "beacon_minor": 5, "first_detected_at": "2026-03-01T09:00:02Z"}]}],
        "geo_region_sessions": [{"id": 1, "region_id": "fence-1", "latitude": 40.0,
          "longitude": -75.0, "radius": 30.0, "entered_at": "2026-03-01T09:00:03Z",
          "exited_at": "2026-03-01T09:01:03Z"}]}]})");
    expected["app_id"] = kTestVendorId;
    auto& session = expected["zonewise_events"][0]["region_sessions"][0];
    session["region_uuid"] = kUUID;
    for (auto& b : session["beacon_sessions"]) b["beacon_uuid"] = kUUID;
    EXPECT_EQ(doc, expected);

    EXPECT_EQ(f.rows("select * from region_sessions where uploaded_at is not null").size(), 1u);
    EXPECT_EQ(f.rows("select * from geo_region_sessions where uploaded_at is not null").size(), 1u);
    EXPECT_EQ(f.rows("select * from events where uploaded_at is not null").size(), 5u);
    EXPECT_TRUE(f.rows("select * from beacon_sessions where uploaded_at is not null").empty())
        << "beacon rows travel with their session and are never stamped";

    f.analytics->uploadAnalyticsToServer();
    EXPECT_EQ(f.server.requestsTo("/analytics").size(), 1u) << "nothing new: no request at all";

    // The open session goes once it is closed; a session without beacons has an empty list, and
    // each of several sessions carries only its own beacon rows.
    for (int major : {4, 5}) {
        auto r = beaconRegion(major, nullptr);
        f.analytics->openSessionWithRegion(r.get());
        f.analytics->updateSessionWithRegionAndBeacons(r.get(), {beacon(major, 1)});
        f.analytics->closeSessionWithRegion(r.get());
    }
    f.analytics->closeSessionWithRegion(beaconRegion(3, nullptr).get());
    f.analytics->uploadAnalyticsToServer();
    auto second = f.posted().back();
    auto sessions = second["zonewise_events"][0]["region_sessions"];
    ASSERT_EQ(sessions.size(), 3u);
    EXPECT_EQ(sessions[0]["region_major"], 3);
    EXPECT_EQ(sessions[0]["region_minor"], Json());
    EXPECT_EQ(sessions[0]["beacon_sessions"], Json::array());
    for (int i : {1, 2}) {
        ASSERT_EQ(sessions[i]["beacon_sessions"].size(), 1u);
        EXPECT_EQ(sessions[i]["beacon_sessions"][0]["beacon_major"], sessions[i]["region_major"]);
    }
    EXPECT_EQ(second["zonewise_events"][0]["geo_region_sessions"], Json::array());

    // A region of a UUID alone closes too; text that needs escaping is escaped, and only that.
    auto any = beaconRegion(nullptr, nullptr);
    f.analytics->openSessionWithRegion(any.get());
    f.analytics->closeSessionWithRegion(any.get());
    QZWPartner().setIdentifier("a\"b\\c \xc3\xa9");
    test::LogLevelGuard info(QZWLogLevelInfo);
    ConsoleCapture console;
    f.analytics->openSessionWithRegion(circle(40, -75, 30).get());
    f.analytics->closeSessionWithRegion(circle(40, -75, 30).get());
    f.analytics->uploadAnalyticsToServer();
    std::string body = f.server.requestsTo("/analytics").back().body;
    EXPECT_NE(body.find("\"partner_id\":\"a\\\"b\\\\c \xc3\xa9\""), std::string::npos) << body;
    auto third = Json::parse(body)["zonewise_events"][0];
    ASSERT_EQ(third["region_sessions"].size(), 1u);
    EXPECT_EQ(third["region_sessions"][0]["region_major"], Json());
    EXPECT_TRUE(console.contains("Zonewise[Info] Posted geo sessions to analytics server"));
    EXPECT_TRUE(console.contains("Zonewise[Info] Posted beacon sessions to analytics server"));
}

TEST(QZWAnalyticsUpload, StampsOnlyAfterACompletedExchangeAndSendsEverythingAgainAfterAFailure) {
    UploadFixture f;
    test::LogLevelGuard info(QZWLogLevelInfo);
    test::ConsoleCapture console;
    f.recordWalk();

    // No endpoint configured: said so, nothing sent, nothing stamped.
    f.configure(std::nullopt);
    f.analytics->uploadAnalyticsToServer();
    EXPECT_TRUE(console.contains(
        "Zonewise[Info] No ZWAnalyticsURL set in Zonewise.plist, skipping upload"));
    // Nobody listening: nothing stamped either.
    f.configure("http://127.0.0.1:" + std::to_string(refusedPort()) + "/analytics");
    f.analytics->uploadAnalyticsToServer();
    EXPECT_TRUE(f.rows("select * from events where uploaded_at is not null").empty());
    EXPECT_TRUE(f.rows("select * from region_sessions where uploaded_at is not null").empty());

    // A newer event joins; the next reachable cycle sends everything, and an error status
    // counts as accepted.
    f.analytics->addEventWithDetails("other", {{"n", 1}});
    f.server.on("POST", "/analytics", Reply{500, "<html>boom</html>", "text/html"});
    f.configure(f.server.url("/analytics"));
    console.clear();
    f.analytics->uploadAnalyticsToServer();
    auto docs = f.posted();
    ASSERT_EQ(docs.size(), 1u);
    EXPECT_EQ(docs[0]["lurewave_events"].size(), 2u);
    EXPECT_EQ(docs[0]["other"].size(), 1u);
    EXPECT_EQ(docs[0]["zonewise_events"][0]["region_sessions"].size(), 1u);
    EXPECT_EQ(f.rows("select * from events where uploaded_at is null").size(), 0u);
    EXPECT_EQ(console.withPrefix("Zonewise[Info] Posted events to analytics server").size(), 6u);
    EXPECT_EQ(console.withPrefix("Zonewise[Info] Posted beacon sessions").size(), 1u);
    EXPECT_EQ(console.withPrefix("Zonewise[Info] Posted geo sessions").size(), 1u);
}

TEST(QZWAnalyticsUpload, OnlyEventsStillCarryTheZonewiseEntryAndKitIdNeedsAKitUrl) {
    UploadFixture f;
    QZWConfiguration::sharedConfiguration(*f.vp.platform)
        .configureWithDictionary({{"ZWAnalyticsURL", f.server.url("/analytics")}});
    f.analytics->addEventWithDetails("t", Json::object());
    f.analytics->uploadAnalyticsToServer();
    auto doc = f.posted().at(0);
    EXPECT_EQ(doc["zonewise_events"], Json::array({{{"region_sessions", Json::array()},
                                                    {"geo_region_sessions", Json::array()}}}));
    EXPECT_EQ(doc["t"], Json::array({{{"triggered_at", "2026-03-01T09:00:00Z"}}}));
    EXPECT_EQ(f.server.requestsTo("/analytics")[0].header("AUTHORIZATION"),
              "Token token=\"(null)\"");
}
