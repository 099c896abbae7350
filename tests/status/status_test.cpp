// Beacon status: sightings in "Tallyline.sqlite", the batch document, and the watchdog and
// coalesced uploads on virtual time.
#include <gtest/gtest.h>

#include <condition_variable>

#include "status/QTLEventTrackingQueue.h"
#include "status/QTLStatusDatabase.h"
#include "status/QTLStatusManager.h"
#include "status/QTLStatusUploader.h"
#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;
using platform::Number;

namespace {

const char* kU = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
QTLBeacon b(int major, int minor) {
    return QTLBeacon::beaconWithUUID(kU, major, minor);
}

std::string dbPath(VirtualPlatform& vp) {
    return vp.documents.file("Tallyline.sqlite");
}

Json config(const std::string& url) {
    return {{"url", url}, {"token", "st"}};
}

}  // namespace

TEST(QTLStatusDatabase, SightingsInsertThenMoveTheLastSeenAndAStampedRowIsNeverDueAgain) {
    VirtualPlatform vp;
    QTLStatusDatabase db(*vp.platform);
    auto first = db.rangedBeacon(b(1, 2));
    ASSERT_TRUE(first);
    vp.scheduler().advanceBy(5.25);
    auto second = db.rangedBeacon(b(1, 2));
    EXPECT_EQ(second->firstDetectedAt->timeIntervalSince1970(), kTestStart);
    EXPECT_EQ(second->lastDetectedAt->timeIntervalSince1970(), kTestStart + 5.25);
    EXPECT_EQ(second->beaconSessionId, first->beaconSessionId);
    db.rangedBeacon(b(1, 3));  // another minor: another row
    auto rows = queryRows(dbPath(vp), "select * from beacon_sessions order by id");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0]["beacon_uuid"], kU);
    EXPECT_TRUE(rows[0]["uuid"].is_null());

    auto due = db.beaconSessionsToBeUploaded();
    EXPECT_EQ(due.size(), 2u);
    db.markBeaconSessionsAsUploaded(due);
    vp.scheduler().advanceBy(60);
    db.rangedBeacon(b(1, 2));
    EXPECT_TRUE(db.beaconSessionsToBeUploaded().empty())
        << "the stored text is no date to datetime(), so a stamped row is never due again";

    QTLStatusDatabase again(*vp.platform);
    EXPECT_EQ(queryRows(dbPath(vp), "select * from schema_version").size(), 1u);
    EXPECT_EQ(QTLStatusDatabase::formatDate(platform::Date::fromSecondsSince1970(1416018456.7891)),
              "2014-11-15T02:27:36.789Z");
    EXPECT_FALSE(
        QTLStatusDatabase::initWithInMemoryDatabase(*vp.platform)->sessionForBeacon(b(1, 2)))
        << "the in-memory store starts empty";

    // The debugging dump: the query, the column names, one line a row, newest first.
    testing::internal::CaptureStdout();
    again.dumpDatabaseToConsole();
    std::string dump = testing::internal::GetCapturedStdout();
    EXPECT_EQ(dump.substr(0, dump.find("\n| 2 | ")),
              "select * from beacon_sessions order by id desc\n| id | first_detected_at | "
              "last_detected_at | beacon_major | beacon_minor | beacon_uuid | uuid | uploaded_at | "
              " | ");
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 4);
}

TEST(QTLStatusUploader, PostsTheBatchDocumentWithTheLayersHeaders) {
    VirtualPlatform vp;
    TestServer server;
    server.on("POST", "/sdk/v1/events", Reply{422, "{\"error\":1}"});
    QTLStatusDatabase db(*vp.platform);
    vp.scheduler().advanceBy(0.9);  // a fraction that must not show
    db.rangedBeacon(b(1, 2));
    QTLStatusUploader up(vp.platform, platform::Url::parse(server.url("/sdk/v1/events")), "st");
    EXPECT_FALSE(up.sendEvents({})) << "an empty batch sends nothing";
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(up.sendEvents(db.beaconSessionsToBeUploaded())) << "any status is a success";
    auto got = server.requests();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].body,
              std::string("{\"app_id\":\"") + kTestVendorId +
                  "\",\"beacon_status_events\":[{\"last_seen\":\"2026-03-01T09:00:00Z\","
                  "\"major\":1,\"minor\":2,\"uuid\":\"" +
                  kU + "\"}]}")
        << "compact, keys in order";
    EXPECT_EQ(got[0].header("AUTHORIZATION"), "Token token=\"st\"");
    EXPECT_EQ(got[0].header("X-TL-AppID"), kTestVendorId);
    EXPECT_EQ(got[0].header("X-TL-FrameworkVersion"), "1");
    EXPECT_EQ(got[0].header("Accept"), "application/json");
    EXPECT_EQ(got[0].header("Content-Type"), "application/json");

    VirtualPlatform anonymous("");
    QTLStatusUploader anon(anonymous.platform, platform::Url::parse(server.url("/sdk/v1/events")),
                           "st");
    EXPECT_FALSE(anon.buildBodyWithEvents({}).contains("app_id"));
    anon.sendEvents(db.beaconSessionsToBeUploaded());
    EXPECT_FALSE(server.requests().back().hasHeader("X-TL-AppID"));

    // The asynchronous form sends the same document (twice, as every asynchronous request).
    std::optional<Json> answer;
    up.asyncSendEvents(db.beaconSessionsToBeUploaded(),
                       [&](std::optional<platform::Error>, std::optional<Json> j) { answer = j; });
    vp.scheduler().settle();
    ASSERT_EQ(server.requests().size(), 4u);
    EXPECT_EQ(server.requests().back().body, got[0].body);
    EXPECT_EQ(answer, Json({{"error", 1}}));
}

TEST(QTLAPIRequest, AsynchronousRequestsGoTwiceAndKeepAnAtomicCopyOfTheAnswer) {
    VirtualPlatform vp;
    TestServer server;
    // A path whose cache file name is 250 bytes: legal, so written like any other.
    std::string events = "/sdk/v1/" + std::string(228, 'e');
    server.on("GET", events, Reply{200, "{\"ok\":true}"});
    QTLAPIRequest api(vp.platform, "st");
    auto url = platform::Url::parse(server.url(events));
    std::string cacheName = "tallyline-sdk-v1-" + std::string(228, 'e') + ".data";
    EXPECT_EQ(api.fileNameFrom(*url), cacheName);
    std::optional<Json> got;
    std::optional<platform::Error> err;
    auto handler = [&](std::optional<platform::Error> e, std::optional<Json> j) {
        err = std::move(e);
        got = std::move(j);
    };
    api.get(url, handler);
    vp.scheduler().settle();
    EXPECT_EQ(server.requests().size(), 2u);
    EXPECT_FALSE(err);
    EXPECT_EQ(got, Json({{"ok", true}}));
    EXPECT_EQ(readFile(vp.documents.file(cacheName)), "{\"ok\":true}");

    server.on("POST", events, Reply{200, ""});
    api.post(url, "{}", handler);
    vp.scheduler().settle();
    EXPECT_EQ(server.requests().size(), 4u);
    EXPECT_EQ(err, (platform::Error{"Tallyline", 204, "No Data"}));
    EXPECT_EQ(got, Json({{"ok", true}})) << "the cached copy stands in";

    // A relative reference reaches no server: the transport's error, at once.
    got.reset();
    api.post(platform::Url::parseReference("status.example.com/sdk/v1/events"), "{}", handler);
    vp.scheduler().settle();
    EXPECT_EQ(server.requests().size(), 4u);
    EXPECT_EQ(err, (platform::Error{"curl", 3, "URL using bad/illegal format or missing URL"}));
    EXPECT_FALSE(got) << "nothing was ever answered from there";
}

TEST(QTLStatusManager, WatchdogUploadsWhenStrictlyMoreThanTheThresholdHasPassed) {
    VirtualPlatform vp;
    TestServer server;
    server.on("POST", "/events", Reply{200, "{}"});
    auto m = QTLStatusManager::initWithConfig(vp.platform, config(server.url("/events")));
    vp.scheduler().settle();
    auto lastUpload = [&] {
        return m->eventTracker().lastSuccessfulUpload()->timeIntervalSince1970();
    };
    EXPECT_EQ(lastUpload(), kTestStart)
        << "the first tick comes at once, and an empty pass counts as a success";
    EXPECT_TRUE(server.requests().empty());

    vp.scheduler().advanceBy(10);
    m->rangedBeacon(b(1, 2));
    vp.scheduler().advanceBy(20);  // tick at exactly the threshold: not yet
    EXPECT_FALSE(m->isTimeToUpload());
    EXPECT_TRUE(server.requests().empty());
    vp.scheduler().advanceBy(30);  // tick at 60
    auto got = server.requestsTo("/events");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(Json::parse(got[0].body)["beacon_status_events"][0]["last_seen"],
              "2026-03-01T09:00:10Z");
    EXPECT_EQ(lastUpload(), kTestStart + 60);
    EXPECT_EQ(got[0].header("AUTHORIZATION"), "Token token=\"st\"") << "the configuration's token";
    EXPECT_EQ(
        queryRows(dbPath(vp), "select * from beacon_sessions where uploaded_at is null").size(),
        0u);

    // A sighting once the threshold has passed uploads at once, not at the next tick.
    vp.scheduler().advanceBy(45);
    m->rangedBeacon(b(1, 3));
    vp.scheduler().settle();
    ASSERT_EQ(server.requestsTo("/events").size(), 2u);
    EXPECT_EQ(lastUpload(), kTestStart + 105);

    // Stopped, the ticks upload nothing; started again, they do.
    m->stopTimedUpload();
    vp.scheduler().advanceBy(1);
    QTLStatusDatabase(*vp.platform).rangedBeacon(b(1, 4));
    vp.scheduler().advanceBy(300);
    EXPECT_EQ(server.requestsTo("/events").size(), 2u);
    m->startUploadWatchdog();
    vp.scheduler().settle();
    EXPECT_EQ(server.requestsTo("/events").size(), 3u);

    // Once the manager is gone its ticks do nothing.
    std::weak_ptr<QTLStatusManager> weak = m;
    m.reset();
    EXPECT_TRUE(weak.expired());
    vp.scheduler().advanceBy(300);
}

TEST(QTLEventTrackingQueue, RequestsWhileAPassWaitsCoalesceAndAFailedPassKeepsEverythingDue) {
    VirtualPlatform vp;
    ConsoleCapture console;
    auto down = "http://127.0.0.1:" + std::to_string(refusedPort()) + "/events";
    auto q = QTLEventTrackingQueue::initWithConfig(vp.platform, config(down));
    QTLStatusDatabase(*vp.platform).rangedBeacon(b(1, 2));

    std::mutex mu;
    std::condition_variable cv;
    bool open = false;
    q->queue()->async([&] {
        std::unique_lock lk(mu);
        cv.wait(lk, [&] { return open; });
    });
    for (int i = 0; i < 5; ++i) q->uploadEvents();
    {
        std::lock_guard lk(mu);
        open = true;
    }
    cv.notify_all();
    vp.scheduler().settle();
    EXPECT_EQ(console.withPrefix("Failed uploading events: Error Domain=curl Code=7").size(), 1u)
        << "five requests while the queue was held: one pass";
    EXPECT_FALSE(q->lastSuccessfulUpload());
    EXPECT_EQ(q->db().beaconSessionsToBeUploaded().size(), 1u);

    // A text without a scheme is still a URL (a relative reference): it cannot be reached, so the
    // pass fails like any transport failure and nothing is stamped without an exchange.
    console.clear();
    auto relative = QTLEventTrackingQueue::initWithConfig(
        vp.platform, config("status.example.com/sdk/v1/events"));
    relative->uploadEvents();
    vp.scheduler().settle();
    EXPECT_FALSE(console.contains("No QTLStatusURL set, skipping upload"));
    EXPECT_TRUE(
        console.contains("Failed uploading events: Error Domain=curl Code=3 \"URL using "
                         "bad/illegal format or missing URL\""));
    EXPECT_FALSE(relative->lastSuccessfulUpload());
    EXPECT_EQ(relative->db().beaconSessionsToBeUploaded().size(), 1u);

    // A URL that does not parse: the pass says so, counts as a success and marks what was due.
    auto broken = QTLEventTrackingQueue::initWithConfig(vp.platform, config("not a url"));
    broken->uploadEvents();
    vp.scheduler().settle();
    EXPECT_TRUE(console.contains("No QTLStatusURL set, skipping upload"));
    EXPECT_TRUE(broken->lastSuccessfulUpload());
    EXPECT_TRUE(broken->db().beaconSessionsToBeUploaded().empty());
}
