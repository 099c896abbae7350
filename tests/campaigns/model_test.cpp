// Campaign content, image inlining, campaigns and places.
#include <gtest/gtest.h>

#include <chrono>

#include "campaigns/LWCampaign.h"
#include "campaigns/LWImagePreloader.h"
#include "platform/crypto.h"
#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::test;
using platform::Date;
using platform::Json;

namespace {

const char* kBefore = "2026-03-01T08:00:00.000+0000";  // an hour before the virtual start
const char* kAfter = "2026-03-01T10:00:00.000Z";

Json campaignJson(Json extra = Json::object(), const char* start = kBefore,
                  const char* end = kAfter) {
    Json c = {{"id", 42},
              {"start_at", start},
              {"end_at", end},
              {"links", {{"content", 5}, {"places", {7, "8"}}, {"fulfillment_places", {9}}}}};
    for (auto& [k, v] : extra.items()) c[k] = v;
    return c;
}

std::shared_ptr<LWContent> content(VirtualPlatform& vp, const char* title) {
    return LWContent::initWithDictionary(vp.platform, {{"id", 5}, {"alert_title", title}});
}

}  // namespace

TEST(LWImagePreloader, InlinesHttpImagesAtTheRightOffsetsAndLeavesTheRestAlone) {
    VirtualPlatform vp;
    TestServer server;
    server.on("GET", "/a.png", Reply{200, "AAA", "image/png"});
    // Exactly the largest image still inlined.
    server.on("GET", "/b.png",
              Reply{200, std::string(LWImagePreloader::kMaxImageBytes, 'b'), "image/png"});
    server.on("GET", "/huge.png", Reply{200, std::string(2 * 1048576, 'h'), "image/png"});
    server.on("GET", "/broken.png", Reply{500, "oops", "text/plain"});
    auto& http = *vp.platform->http;
    std::string a = server.url("/a.png"), big(LWImagePreloader::kMaxImageBytes, 'b');
    EXPECT_EQ(LWImagePreloader::htmlWithInlinedImages(http, "<p>no images</p>"),
              "<p>no images</p>");
    auto page = [&](const std::string& first, const std::string& quoted, const std::string& missing,
                    const std::string& broken) {
        return "<p><img class=\"x\" src=\"" + first + "\"></p><IMG src=\"" + a + "\"><img src='" +
               quoted + "' alt=x><img src=\"/rel.png\"><img src=\"HTTP://up/x\"><img src=\"" +
               "data:image;base64,AA==\"><img src=\"" + server.url("/huge.png") + "\"><img src=\"" +
               missing + "\"><img src=\"" + broken + "\">";
    };
    auto inlined = [](const std::string& body) {
        return "data:image;charset=US-ASCII;base64," +
               platform::base64Encode(platform::toBytes(body));
    };
    EXPECT_EQ(LWImagePreloader::htmlWithInlinedImages(
                  http, page(a, server.url("/b.png"), server.url("/missing.png"),
                             server.url("/broken.png"))),
              page(inlined("AAA"), inlined(big), inlined("not found"), inlined("oops")))
        << "upper-case tags, relative, data and over-1-MiB images keep their URL; "
           "the status code is not looked at, so 404 and 500 bodies are embedded";

    // The expression's own choices: the last src= before the tag's first '>', a value that may
    // hold '>', and no match without a closing '>'.
    auto values = [](const std::string& h) {
        std::vector<std::string> v;
        for (auto m : LWImagePreloader::findImageSources(h))
            v.push_back(h.substr(m.start, m.length));
        return v;
    };
    using Srcs = std::vector<std::string>;
    EXPECT_EQ(values("<img src='1' src=\"2\">"), Srcs{"2"});
    EXPECT_EQ(values("<img src='a>b'>"), Srcs{"a>b"});
    EXPECT_EQ(values("<img src='1'><img src='2'>"), (Srcs{"1", "2"}));
    for (const char* none :
         {"<img alt='a>b' src='x'>", "<img src=''>", "<imgsrc='x'>", "<img src='x'"})
        EXPECT_EQ(values(none), Srcs{}) << none;

    // A hostile body: one tag of a million characters, and many unclosed tags; no recursion.
    auto t0 = std::chrono::steady_clock::now();
    std::string hostile = "<img " + std::string(1000000, 'a') + " src='x'>";
    EXPECT_EQ(values(hostile).size(), 1u);
    std::string many;
    for (int i = 0; i < 100000; ++i) many += "<img src='";
    EXPECT_TRUE(values(many).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}

TEST(LWImagePreloader, AnImageThatHangsKeepsItsUrlAfterTheTimeOut) {
    VirtualPlatform vp;
    TestServer server;
    std::mutex mu;
    std::condition_variable cv;
    bool release = false;
    server.on("GET", "/slow.png", TestServer::Handler([&](const ReceivedRequest&) {
                  std::unique_lock lk(mu);
                  cv.wait(lk, [&] { return release; });
                  return Reply{200, "late", "image/png"};
              }));
    std::string html = "<img src=\"" + server.url("/slow.png") + "\">";
    EXPECT_EQ(LWImagePreloader::htmlWithInlinedImages(*vp.platform->http, html, 0.2), html);
    {
        std::lock_guard lk(mu);
        release = true;
    }
    cv.notify_all();
}

TEST(LWContent, FingerprintsTheWholeDictionaryAndComparesById) {
    VirtualPlatform vp;
    Json dict = {
        {"id", 5}, {"alert_title", "50% off"}, {"body", "<p>x</p>"}, {"attributes", {{"a", 1}}}};
    auto c = LWContent::initWithDictionary(vp.platform, dict);
    EXPECT_EQ(c->id(), "5");
    EXPECT_EQ(c->alertMessage(), "(null)") << "a missing key reads as the text (null)";
    EXPECT_EQ(c->hashValue().size(), 20u);
    Json other = dict;
    other["body"] = "<p>y</p>";
    auto d = LWContent::initWithDictionary(vp.platform, other);
    EXPECT_TRUE(c->isEqual(*d)) << "same id";
    EXPECT_NE(c->hashValue(), d->hashValue());
    EXPECT_EQ(c->description(), "<LWContent: alertTitle=\"50% off\">");
    auto back = LWContent::fromArchive(vp.platform, c->archive());
    EXPECT_EQ(back->archive(), c->archive());
    EXPECT_FALSE(back->preloaded());

    c->startPreloadingImages();
    EXPECT_TRUE(c->preloaded());
    vp.scheduler().settle();
    EXPECT_EQ(c->body(), "<p>x</p>");
}

TEST(LWCampaign, WindowRecurrenceAndTriggerDistance) {
    VirtualPlatform vp;
    auto make = [&](Json extra, const char* start = kBefore, const char* end = kAfter) {
        return LWCampaign::initWithDictionaryContents(vp.platform, campaignJson(extra, start, end),
                                                      {});
    };
    auto first = content(vp, "50% off");
    auto c = LWCampaign::initWithDictionaryContents(
        vp.platform, campaignJson({{"min_recur_secs", 600}, {"trigger_distance", 2.0}}), {first});
    EXPECT_EQ(c->id(), "42");
    EXPECT_EQ(c->content(), first);
    EXPECT_EQ(c->places(), Json({7, "8"}));
    EXPECT_EQ(c->triggerDistance(), 2.0);
    EXPECT_TRUE(c->isActive());
    EXPECT_FALSE(c->isExpired());

    // The window is strict at both ends.
    EXPECT_FALSE(make({}, "2026-03-01T09:00:00.000+0000")->isActive());
    auto endsNow = make({}, kBefore, "2026-03-01T04:00:00.000-0500");
    EXPECT_FALSE(endsNow->isActive());
    EXPECT_TRUE(endsNow->isExpired());
    EXPECT_FALSE(make({}, "yesterday")->isActive()) << "an unparsable date never becomes active";

    // Recurrence.
    EXPECT_TRUE(c->canDetect());
    c->detect();
    EXPECT_FALSE(c->canDetect());
    vp.scheduler().advanceBy(600);
    EXPECT_FALSE(c->canDetect()) << "exactly at the end of the wait: not yet";
    vp.scheduler().advanceBy(0.001);
    EXPECT_TRUE(c->canDetect());
    auto never = make({{"min_recur_secs", -1}}), always = make({});
    never->detect();
    always->detect();
    EXPECT_EQ(never->canDetectAfter(), Date::distantFuture());
    EXPECT_TRUE(always->canDetect());

    // Foreground-only campaigns need the application active.
    auto fg = make({{"foreground_only", "YES"}});
    EXPECT_TRUE(fg->isActive());
    vp.platform->application->setApplicationState(platform::ApplicationState::Background);
    EXPECT_FALSE(fg->isActive());
    EXPECT_TRUE(c->isActive()) << "the state is not consulted for other campaigns";

    // A re-sync: the same content keeps its object (and its images), a changed one replaces it,
    // a null trigger distance clears it, and what the device recorded stays.
    c->setViewCount(3);
    c->updateWithDictionaryContents(campaignJson({{"trigger_distance", nullptr}}),
                                    {content(vp, "50% off")});
    EXPECT_EQ(c->content(), first);
    EXPECT_FALSE(c->triggerDistance());
    EXPECT_EQ(c->viewCount(), 3);
    auto changed = content(vp, "60% off");
    c->updateWithDictionaryContents(campaignJson(), {changed});
    EXPECT_EQ(c->content(), changed);
    EXPECT_TRUE(changed->preloaded()) << "a new content starts its image preloading";

    auto n = c->buildLocalNotification();
    EXPECT_EQ(n.alertAction, "View Details");
    EXPECT_EQ(n.alertBody, "60%% off");
    EXPECT_EQ(n.userInfo, Json({{"campaignId", "42"}}));
    vp.scheduler().settle();
}

TEST(LWCampaign, ArchivesRoundTripAndTheOlderLayoutStillReads) {
    VirtualPlatform vp;
    auto c = LWCampaign::initWithDictionaryContents(
        vp.platform,
        campaignJson(
            {{"min_recur_secs", 60}, {"trigger_distance", 1.5}, {"foreground_only", true}}),
        {content(vp, "t")});
    c->detect();
    c->setViewCount(5000000002);
    c->setViewed(true);
    c->setFoundAt(LWPlace::initWithDict({{"id", 7}, {"name", "Door"}, {"type", 0}}));
    auto back = LWCampaign::fromArchive(vp.platform, c->archive());
    ASSERT_TRUE(back);
    EXPECT_EQ(back->archive(), c->archive());
    EXPECT_EQ(back->viewCount(), 5000000002) << "counts are 64-bit";
    EXPECT_TRUE(back->foregroundOnly());
    EXPECT_TRUE(back->isEqual(*c));
    EXPECT_EQ(back->foundAt()->description(), "<LWPlace id=7 name=\"Door\">");

    Json legacy = c->archive();
    legacy.update(
        {{"content", "<p>old body</p>"}, {"message", "old message"}, {"title", "old title"}});
    auto old = LWCampaign::fromArchive(vp.platform, legacy);
    ASSERT_TRUE(old && old->content());
    EXPECT_EQ(old->content()->body(), "<p>old body</p>");
    EXPECT_EQ(old->content()->alertTitle(), "old title");
    EXPECT_EQ(old->content()->alertMessage(), "old message");
    legacy.erase("message");
    legacy.erase("title");
    old = LWCampaign::fromArchive(vp.platform, legacy);
    EXPECT_EQ(old->content()->alertTitle() + old->content()->alertMessage(), "(null)(null)");
    EXPECT_FALSE(LWCampaign::fromArchive(vp.platform, Json::array()));
    EXPECT_FALSE(LWCampaign::fromArchive(vp.platform, {{"id", 1}}));

    EXPECT_EQ(LWCampaign::dateFromString("2026-03-01T09:00:00.250+01:30")->timeIntervalSince1970(),
              kTestStart - 5400 + 0.25);
    for (const char* bad :
         {"2026-02-30T09:00:00.000Z", "2026-03-01T09:00:00Z", "2026-03-01 09:00:00.000Z",
          "2026-03-01T09:00:00.000", "2026-03-01T24:00:00.000Z", ""}) {
        EXPECT_FALSE(LWCampaign::dateFromString(bad)) << bad;
    }
}

TEST(LWPlace, FromRegionsAndPlaceIds) {
    Json attrs = {{"lw_place_ids", "[7, 8]"}};
    QZWCircle fence(
        {{"type", "circle"}, {"identifier", "f"}, {"name", "Car park"}, {"attributes", attrs}});
    auto p = LWPlace::initWithRegion(fence);
    EXPECT_EQ(p->id(), 7);
    EXPECT_EQ(p->type(), 1);
    EXPECT_EQ(p->accuracy(), -1.0);
    Json entry = {{"attributes", attrs}};
    QZWBeacon beacon(platform::Beacon{*platform::UUID::parse(kTestVendorId), 1, 2, 1, 0.8, -55},
                     &entry);
    auto b = LWPlace::initWithRegion(beacon);
    EXPECT_EQ(b->type(), 0);
    EXPECT_EQ(b->accuracy(), 0.8);
    EXPECT_EQ(b->rssi(), platform::Number(-55));
    EXPECT_EQ(LWPlace::parsePlaceIds(std::nullopt), Json::array());
    EXPECT_EQ(LWPlace::parsePlaceIds("not json"), Json::array());
    EXPECT_EQ(LWPlace::parsePlaceIds("{\"a\":1}"), Json::array());
    EXPECT_EQ(LWPlace::parsePlaceIds("[\"7\"]"), Json::array({"7"}));
    QZWCircle big({{"type", "circle"}, {"attributes", {{"lw_place_ids", "[\"3000000000\"]"}}}});
    EXPECT_EQ(LWPlace::initWithRegion(big)->id(), 3000000000) << "a place id given as text";
    EXPECT_EQ(LWPlace::initWithDict({{"id", "-3000000000"}})->id(), -3000000000);
    QZWCircle none({{"type", "circle"}, {"attributes", {{"lw_place_ids", "[]"}}}});
    EXPECT_EQ(LWPlace::initWithRegion(none)->id(), 0);
}
