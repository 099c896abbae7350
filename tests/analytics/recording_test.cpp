#include <gtest/gtest.h>

#include <regex>

#include "analytics/analytics_fixture.h"
#include "platform/archive.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;

TEST(QZWAnalyticsDatabase, SchemaIsTheBatchAndTheVersionIsRecordedOnce) {
    // The on-disk format, written out here rather than taken from the code under test.
    const std::string schema =
        "create table if not exists schema_version (version integer);"
        "create table if not exists region_sessions (id integer primary key autoincrement,"
        "entered_at text,exited_at text,region_major integer,region_minor integer,region_uuid "
        "text,uuid text,uploaded_at text);"
        "create table if not exists beacon_sessions (id integer primary key autoincrement,"
        "first_detected_at text,last_detected_at text,beacon_major integer,beacon_minor "
        "integer,beacon_uuid text,uuid text,uploaded_at text,region_session_id integer);"
        "create table if not exists events (id integer primary key autoincrement,event_type "
        "text,event_details blob,uploaded_at text,triggered_at text,uuid text);"
        "create table if not exists geo_region_sessions (id integer primary key "
        "autoincrement,entered_at text,exited_at text,latitude real,longitude real,radius "
        "real,uuid text,region_id text,uploaded_at text);";
    EXPECT_EQ(std::string(QZWAnalyticsDatabase::kSchema), schema) << "run as one batch";
    AnalyticsFixture f;
    std::string stored;
    for (const auto& r : f.rows("select sql from sqlite_master where type = 'table' and name not "
                                "like 'sqlite_%' order by rowid")) {
        stored += r["sql"].get<std::string>() + ";";
    }
    EXPECT_EQ(stored, std::regex_replace(schema, std::regex("create table if not exists "),
                                         "CREATE TABLE "));
    f.analytics.reset();
    QZWAnalytics again(f.vp.platform);
    QZWAnalytics andAgain(f.vp.platform);
    EXPECT_EQ(f.rows("select version from schema_version"), (std::vector<Json>{{{"version", 1}}}));

    auto memory = QZWAnalyticsDatabase::initWithInMemoryDatabase(*f.vp.platform);
    EXPECT_FALSE(memory->databasePath());
    memory->inTransaction([](platform::Database& db, bool&) {
        db.executeUpdate("insert into events (event_type) values ('x')");
    });
    auto fresh = QZWAnalyticsDatabase::initWithInMemoryDatabase(*f.vp.platform);
    int count = -1;
    fresh->inTransaction([&](platform::Database& db, bool&) {
        auto rs = db.executeQuery("select count(*) from events");
        if (rs && rs->next()) count = rs->intForColumnIndex(0);
    });
    EXPECT_EQ(count, 0) << "nothing survives an in-memory database";

    // No connection at all: the schema batch has nothing to run on, which is its failure too.
    ConsoleCapture console;
    VirtualPlatform nowhere;
    nowhere.platform->documentsDirectory = nowhere.documents.file("no/such/dir");
    QZWAnalyticsDatabase unopened(*nowhere.platform);
    EXPECT_FALSE(unopened.databaseQueue());
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{"Could not create database queue for path " +
                                            nowhere.documents.file("no/such/dir") +
                                            "/ZonewiseAnalytics.sqlite",
                                        "Woah, SQL failed!"}));
}

TEST(QZWAnalytics, EnterRangeTwiceExitMakesOneClosedSessionWithOneBeaconRow) {
    AnalyticsFixture f;
    auto region = beaconRegion(1, 2);
    f.analytics->openSessionWithRegion(region.get());
    f.vp.scheduler().advanceBy(5);
    f.analytics->updateSessionWithRegionAndBeacons(region.get(), {beacon(1, 2)});
    f.vp.scheduler().advanceBy(1.5);
    f.analytics->updateSessionWithRegionAndBeacons(region.get(), {beacon(1, 2), beacon(1, 3)});
    f.vp.scheduler().advanceBy(10);
    f.analytics->closeSessionWithRegion(region.get());

    auto sessions = f.rows("select * from region_sessions");
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0]["region_uuid"], kUUID);
    EXPECT_EQ(sessions[0]["region_major"], 1);
    EXPECT_EQ(sessions[0]["region_minor"], 2);
    EXPECT_DOUBLE_EQ(std::stod(sessions[0]["entered_at"].get<std::string>()), f.at(0));
    EXPECT_DOUBLE_EQ(std::stod(sessions[0]["exited_at"].get<std::string>()), f.at(16.5));
    EXPECT_TRUE(sessions[0]["uploaded_at"].is_null());
    EXPECT_TRUE(sessions[0]["uuid"].is_null());

    auto beacons = f.rows("select * from beacon_sessions order by id");
    ASSERT_EQ(beacons.size(), 2u);
    EXPECT_EQ(beacons[0]["region_session_id"], sessions[0]["id"]);
    EXPECT_EQ(beacons[0]["beacon_minor"], 2);
    EXPECT_DOUBLE_EQ(std::stod(beacons[0]["first_detected_at"].get<std::string>()), f.at(5));
    EXPECT_DOUBLE_EQ(std::stod(beacons[0]["last_detected_at"].get<std::string>()), f.at(6.5));
    EXPECT_TRUE(beacons[1]["last_detected_at"].is_null()) << "seen once: no last sighting";
}

TEST(QZWAnalytics, SessionMatchingRulesAndTheirKeptQuirks) {
    AnalyticsFixture f;
    // Enter twice, exit once: the newer closes, the older stays open for ever.
    auto exact = beaconRegion(1, 2);
    f.analytics->openSessionWithRegion(exact.get());
    f.vp.scheduler().advanceBy(1);
    f.analytics->openSessionWithRegion(exact.get());
    f.analytics->closeSessionWithRegion(exact.get());
    auto rows = f.rows("select id, exited_at from region_sessions order by id");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(rows[0]["exited_at"].is_null());
    EXPECT_FALSE(rows[1]["exited_at"].is_null());

    // Exit or ranging without an open session changes nothing.
    auto other = beaconRegion(9, 9);
    f.analytics->closeSessionWithRegion(other.get());
    f.analytics->updateSessionWithRegionAndBeacons(other.get(), {beacon(9, 9)});
    f.analytics->updateSessionWithRegionAndBeacons(exact.get(), {});
    EXPECT_EQ(f.rows("select * from region_sessions").size(), 2u);
    EXPECT_TRUE(f.rows("select * from beacon_sessions").empty());

    // A major-only region matches only a session stored with a NULL minor.
    auto majorOnly = beaconRegion(1, nullptr);
    f.analytics->closeSessionWithRegion(majorOnly.get());
    EXPECT_TRUE(f.rows("select * from region_sessions where id = 1 and exited_at is null").size());
    f.analytics->openSessionWithRegion(majorOnly.get());
    f.analytics->closeSessionWithRegion(majorOnly.get());
    EXPECT_EQ(f.rows("select * from region_sessions where region_minor is null and exited_at is "
                     "not null")
                  .size(),
              1u);

    // A minor without a major is stored with its minor and looked up as UUID-only: never closed.
    auto minorOnly = beaconRegion(nullptr, 4);
    f.analytics->openSessionWithRegion(minorOnly.get());
    f.analytics->closeSessionWithRegion(minorOnly.get());
    auto stuck = f.rows("select * from region_sessions where region_major is null");
    ASSERT_EQ(stuck.size(), 1u);
    EXPECT_EQ(stuck[0]["region_minor"], 4);
    EXPECT_TRUE(stuck[0]["exited_at"].is_null());

    // Geofences close only on bit-equal centre and radius.
    f.analytics->openSessionWithRegion(circle(40.1, -75.3, 25.7).get());
    f.analytics->closeSessionWithRegion(circle(40.1, -75.3, 25.8).get());
    EXPECT_TRUE(f.rows("select exited_at from geo_region_sessions")[0]["exited_at"].is_null());
    f.analytics->closeSessionWithRegion(circle(40.1, -75.3, 25.7, "other-id").get());
    auto geo = f.rows("select * from geo_region_sessions")[0];
    EXPECT_FALSE(geo["exited_at"].is_null());
    EXPECT_EQ(geo["latitude"], static_cast<double>(40.1f)) << "the float, widened";
    EXPECT_EQ(geo["region_id"], "fence-1");

    f.analytics->openSessionWithRegion(nullptr);
    EXPECT_EQ(f.rows("select * from geo_region_sessions").size(), 1u);
}

TEST(QZWAnalytics, EventDetailsRoundTripLosslesslyAndDatesFormatWithoutFraction) {
    AnalyticsFixture f;
    Json details = {
        {"kit_id", 17},
        {"campaign_id", "c-1"},
        {"nested", {{"list", {1, 2.5, "three", nullptr, true}}, {"empty", Json::object()}}},
        {"unicode", "Zürich ☕"},
        {"big", 9007199254740993LL}};
    f.analytics->addEventWithDetails("lurewave_events", details);
    auto rows = f.rows("select * from events");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["event_type"], "lurewave_events");
    EXPECT_DOUBLE_EQ(std::stod(rows[0]["triggered_at"].get<std::string>()), f.at(0));
    auto blob = rows[0]["event_details"].get_binary();
    EXPECT_EQ(platform::unarchiveJson(platform::Bytes(blob.begin(), blob.end())), details);
    auto events = f.analytics->eventsToBeUploaded();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eventDetails, details);

    EXPECT_EQ(QZWAnalytics::formatDate(platform::Date::fromSecondsSince1970(1416056709.7)),
              "2014-11-15T13:05:09Z");
    EXPECT_EQ(QZWAnalytics::formatDate(platform::Date::fromSecondsSince1970(-0.5)),
              "1969-12-31T23:59:59Z");
}

// The depth limit is checked with the other readers' in the platform tests.
TEST(Archive, DamagedBlobsAreRefusedWithAReasonAndEveryKindRoundTrips) {
    std::string why;
    EXPECT_FALSE(platform::unarchiveJson({0xBF, 0x61}, &why)) << "truncated";
    EXPECT_FALSE(why.empty());
    Json rich = {{"a", {1, -2, 3.5, "x", nullptr, true, {{"b", Json::array({Json::object()})}}}},
                 {"bin", Json::binary({1, 2, 3})},
                 {"u", 18446744073709551615ull}};
    EXPECT_EQ(platform::unarchiveJson(platform::archiveJson(rich)), rich);
    EXPECT_EQ(platform::unarchiveJson(platform::archiveJson(Json::array())), Json::array());
}
