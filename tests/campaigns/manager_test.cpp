// The campaign layer end to end, through LWManager.
#include <gtest/gtest.h>

#include <filesystem>

#include "campaigns/campaign_fixture.h"
#include "platform/plist.h"

using namespace quenby;
using namespace quenby::test;
using platform::Json;
using Events = std::vector<std::string>;
using Found = std::vector<std::shared_ptr<LWCampaign>>;

TEST(LWManagerWalk, FoundAtItsTriggerDistanceViewedFulfilledRecordedUploadedAndRestored) {
    CampaignFixture f;
    f.startAndSync();
    ASSERT_EQ(f.manager->activeCampaigns().size(), 1u);
    auto c1 = f.manager->campaignWithId("c1");
    ASSERT_TRUE(c1);
    EXPECT_FALSE(c1->fulfilled() || c1->viewed() || c1->viewCount()) << "a new campaign is fresh";

    // Entering the door's region is no distance: extended ranging starts, nothing is found.
    auto door = CampaignFixture::region(1, "door");
    f.location().deliverEnter(door);
    EXPECT_EQ(f.app().runningBackgroundTasks(), Events{"Lurewave:ExtendedRanging"});
    f.range(1, 2.01);  // beyond a trigger distance of 2.0
    f.location().deliverRanging(door,
                                {CampaignFixture::beacon(1, 0.0), CampaignFixture::beacon(1, 2.0)});
    EXPECT_EQ(f.host->events(),
              (Events{"didSync", "place 7 1", "place 7 0", "found c1", "place 7 0"}))
        << "a beacon with no distance estimate is ignored";
    EXPECT_TRUE(f.app().runningBackgroundTasks().empty()) << "ended on the find";
    EXPECT_EQ(f.manager->foundCampaigns(), Found{c1});
    f.range(2, 1.0);
    EXPECT_FALSE(c1->fulfilled()) << "not before the user has viewed it";

    // Viewed by the user, then fulfilled at the checkout; a second find waits for the recurrence.
    f.vp.scheduler().performPass([&] { f.manager->setCampaignViewed(c1); });
    f.vp.scheduler().performPass([&] { f.manager->setCampaignViewed(c1); });  // counted once
    f.range(2, 1.0);
    f.range(1, 1.0);
    auto seen = f.host->events();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "found c1"), 1);
    EXPECT_TRUE(c1->fulfilled());
    EXPECT_EQ(c1->viewCount(), 1);
    auto events = f.analyticsEvents();
    ASSERT_EQ(events.size(), 3u);
    Json found = {
        {"kit_id", 17}, {"event_type", "found"}, {"campaign_id", "c1"}, {"place_id", "7"}};
    EXPECT_EQ(events[0], found);
    found["event_type"] = "viewed";  // at the place of the find
    EXPECT_EQ(events[1], found);
    EXPECT_EQ(events[2], Json({{"kit_id", 17},
                               {"event_type", "fulfilled"},
                               {"campaign_id", "c1"},
                               {"place_id", "9"}}));
    f.vp.scheduler().advanceBy(30);
    auto uploads = f.server.requestsTo("/analytics");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(Json::parse(uploads[0].body)["lurewave_events"].size(), 3u);

    // The host goes to the background (the state is written), and a second manager on the same
    // documents restores the found campaign and its history.
    f.app().deliverWillResignActive();
    f.restart();
    ASSERT_EQ(f.manager->foundCampaigns().size(), 1u);
    auto restored = f.manager->foundCampaigns()[0];
    EXPECT_EQ(restored->viewCount(), 1);
    EXPECT_TRUE(restored->fulfilled());
    EXPECT_EQ(restored->foundAt()->id(), 7);
    EXPECT_FALSE(restored->canDetect()) << "the recurrence survives a restart";
    EXPECT_TRUE(f.manager->campaignRepo()->kitId().is_null()) << "kept as kitId, read as kit_id";
    EXPECT_EQ((*f.state())["campaign_ids"], Json::array()) << "until the next write";
    EXPECT_FALSE(f.state()->contains("configuration"));

    // The server drops the campaign: the sync expires it, the prune removes it everywhere.
    f.serveFeed({});
    f.sync();
    EXPECT_TRUE(f.manager->foundCampaigns().empty());
    EXPECT_TRUE(f.manager->activeCampaigns().empty());
}

TEST(LWManagerWalk, AForegroundOnlyCampaignAtAPlaceIdBeyond32Bits) {
    CampaignFixture f;
    auto kit = f.kit();
    kit["kit"]["ibeacons"][0]["attributes"]["lw_place_ids"] = "[3000000000]";
    f.server.on("GET", "/kit", Reply{200, kit.dump()});
    // 2^32 - 1 seconds: cut to 32 bits it would read as -1, "never again".
    Json far = {{"content", 5}, {"places", {3000000000LL}}, {"fulfillment_places", {9}}};
    f.serveFeed(
        {CampaignFixture::campaign(
             "c1", {{"min_recur_secs", 4294967295LL}, {"foreground_only", true}, {"links", far}}),
         CampaignFixture::campaign(
             "c2", {{"trigger_distance", nullptr}, {"links", {{"content", 5}, {"places", {9}}}}})});
    f.startAndSync();
    f.location().deliverEnter(CampaignFixture::region(1, "door"));
    EXPECT_TRUE(f.app().runningBackgroundTasks().empty())
        << "a foreground-only campaign never ranges in the background";
    double now = f.vp.scheduler().now().timeIntervalSince1970();
    f.range(1, 1.0);
    EXPECT_EQ(f.host->events(),
              (Events{"didSync", "place 3000000000 1", "found c1", "place 3000000000 0"}));
    auto c1 = f.manager->campaignWithId("c1"), c2 = f.manager->campaignWithId("c2");
    ASSERT_TRUE(c1 && c1->foundAt() && c2 && c1->canDetectAfter());
    EXPECT_EQ(c1->foundAt()->id(), 3000000000);
    EXPECT_DOUBLE_EQ(c1->canDetectAfter()->timeIntervalSince1970(), now + 4294967295.0);

    // Viewed, then in the background: c1 is inactive and its fulfilment place fulfils nothing,
    // while c2 is found there and goes first in the found list.
    f.vp.scheduler().performPass([&] { f.manager->setCampaignViewed(c1); });
    f.app().setApplicationState(platform::ApplicationState::Background);
    f.range(2, 1.0);
    EXPECT_FALSE(c1->fulfilled()) << "an inactive campaign is not fulfilled";
    EXPECT_EQ(f.manager->foundCampaigns(), (Found{c2, c1})) << "newest first";
    f.app().setApplicationState(platform::ApplicationState::Active);
    f.range(2, 1.0);
    EXPECT_TRUE(c1->fulfilled());
    auto events = f.analyticsEvents();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0]["place_id"], "3000000000");
    EXPECT_EQ(events[1]["place_id"], "3000000000") << "viewed, at the place of the find";
    EXPECT_EQ(events[3]["event_type"], "fulfilled");

    f.manager->removeCampaign(c2);
    EXPECT_EQ(f.manager->foundCampaigns(), Found{c1});
    EXPECT_EQ((*f.state())["campaign_ids"], Json::array({"c1"}));
    f.restart();
    ASSERT_EQ(f.manager->foundCampaigns().size(), 1u);
    auto restored = f.manager->foundCampaigns()[0];
    EXPECT_EQ(restored->foundAt()->id(), 3000000000);
    EXPECT_EQ(restored->minRecurSecs(), 4294967295LL);
    EXPECT_DOUBLE_EQ(restored->canDetectAfter()->timeIntervalSince1970(), now + 4294967295.0);
}

TEST(LWManagerPush, TokenWaitsForTheTokenUrlIsRetriedAfterAFailureAndIsSentOnce) {
    CampaignFixture f;
    f.create();
    platform::Bytes token{0x0a, 0x1b, 0x2c, 0xff};
    f.manager->registerDeviceToken(token);
    f.settle();
    EXPECT_EQ(f.requests("/tokens"), 0u) << "no token URL before the first sync";
    // The first POST fails (an empty answer is the error 204): the token keeps waiting.
    f.server.on("POST", "/tokens", Reply{200, ""});
    f.manager->start();
    f.settle();
    EXPECT_EQ(f.requests("/tokens"), 1u);
    EXPECT_FALSE(f.manager->campaignRepo()->registeredDeviceToken());
    EXPECT_EQ(f.manager->campaignRepo()->deviceTokenToRegister(), token);
    f.server.on("POST", "/tokens", Reply{200, "{\"ok\":true}"});
    f.sync();
    auto posts = f.server.requestsTo("/tokens");
    ASSERT_EQ(posts.size(), 2u) << "the next sync sends it again";
    EXPECT_EQ(f.manager->campaignRepo()->registeredDeviceToken(), "0a1b2cff");
    EXPECT_FALSE(f.manager->campaignRepo()->deviceTokenToRegister());
    EXPECT_EQ(posts[1].method, "POST");
    EXPECT_EQ(Json::parse(posts[1].body), Json({{"ios_token", "0a1b2cff"}}));
    EXPECT_EQ(posts[1].header("AUTHORIZATION"), "Token token=\"lw-token\"");
    EXPECT_EQ(posts[1].header("X-LW-FrameworkVersion"), "0.2.1");
    EXPECT_EQ(posts[1].header("X-LW-AppID"), kTestVendorId);
    // The server's view of the headers is sorted; their order is checked where it is made.
    platform::HttpRequest probe;
    LWAPIRequest(f.vp.platform, "lw-token").setHeaders(probe);
    Events order;
    for (const auto& [k, v] : probe.headers) order.push_back(k);
    EXPECT_EQ(order,
              (Events{"AUTHORIZATION", "X-LW-FrameworkVersion", "X-LW-AppID", "Content-Type"}));
    EXPECT_STREQ(reinterpret_cast<const char*>(LurewaveVersionString),
                 "@(#)PROGRAM:Lurewave  PROJECT:Lurewave-0.2.1\n");
    f.manager->registerDeviceToken(token);
    f.settle();
    EXPECT_EQ(f.requests("/tokens"), 2u);

    // Transport failures reach the completion as they are; no URL at all is curl's own error.
    Events errors;
    LWAPIRequest api(f.vp.platform, "lw-token");
    auto keep = [&](std::optional<platform::Error> e, std::optional<Json>) {
        if (e) errors.push_back(e->domain + " " + std::to_string(e->code));
    };
    api.getHandler("http://127.0.0.1:" + std::to_string(refusedPort()) + "/x", keep);
    f.settle();
    api.getHandler(std::nullopt, keep);
    f.settle();
    EXPECT_EQ(errors, (Events{"curl 7", "curl 3"}));

    // A failed DELETE forgets the token all the same.
    f.server.on("DELETE", "/tokens", Reply{200, ""});
    f.manager->deregisterDeviceToken();
    f.settle();
    EXPECT_EQ(f.server.requests().back().method, "DELETE");
    EXPECT_FALSE(f.manager->campaignRepo()->registeredDeviceToken());
}

TEST(LWManagerPush, RemoteNotificationsSyncWithinSixHoursOfAPlaceAndNotAfter) {
    CampaignFixture f;
    f.startAndSync();
    std::vector<int> results;
    auto push = [&] {
        f.manager->handleRemoteNotificationFetchCompletionHandler(
            {}, [&](int r) { results.push_back(r); });
    };
    auto pushTaskRuns = [&] {
        auto running = f.app().runningBackgroundTasks();
        return std::find(running.begin(), running.end(), "") != running.end();
    };
    push();
    EXPECT_EQ(results, std::vector<int>{1}) << "no place detected yet: no data, no request";

    auto door = CampaignFixture::region(1, "door");
    f.location().deliverEnter(door);
    f.vp.scheduler().advanceBy(5 * 3600 + 59 * 60);
    auto campaigns = f.requests("/campaigns"), kits = f.requests("/kit");
    push();
    EXPECT_EQ(results, (std::vector<int>{1, 0}));
    EXPECT_EQ(f.requests("/campaigns"), campaigns + 1);
    EXPECT_EQ(f.requests("/kit"), kits + 2);
    EXPECT_TRUE(pushTaskRuns());
    f.vp.scheduler().advanceBy(5);
    EXPECT_FALSE(pushTaskRuns()) << "ended after 5 s";
    push();
    f.app().expireBackgroundTask("");
    EXPECT_FALSE(pushTaskRuns()) << "ended on expiry";

    // Exactly six hours after the last detection is outside the window; exits and the outside
    // and unknown states are place events but no detections.
    f.manager->getZonewiseDelegate()->setCompletionHandler(nullptr);
    f.location().deliverEnter(door);
    f.vp.scheduler().advanceBy(6 * 3600);
    f.host->clear();
    f.location().deliverExit(door);
    f.location().deliverState(door, 2);
    f.location().deliverState(door, 0);
    EXPECT_EQ(f.host->events(), (Events{"place 7 2", "place 7 4", "place 7 5"}));
    results.clear();
    campaigns = f.requests("/campaigns");
    push();
    EXPECT_EQ(results, std::vector<int>{1});
    EXPECT_EQ(f.requests("/campaigns"), campaigns);

    // Inside counts; without background time the push still syncs, and says why it cannot range.
    f.location().deliverState(door, 1);
    EXPECT_EQ(f.host->events().back(), "place 7 3");
    f.app().setBackgroundTimeAvailable(false);
    ConsoleCapture console;
    push();
    EXPECT_EQ(results, (std::vector<int>{1, 0}));
    EXPECT_EQ(console.lines(),
              (Events{"Lurewave: handling remote notification.", "Lurewave: Sync completed.",
                      "Lurewave: not able to start background ranging for remote notification."}));
}

TEST(LWManagerFeed, ABrokenFeedFailsTheSyncAndChangesNothing) {
    CampaignFixture f;
    f.startAndSync();
    f.range(1, 1.0);
    ASSERT_EQ(f.manager->foundCampaigns().size(), 1u);
    auto before = f.vp.platform->files->readFile(f.statePath());
    ConsoleCapture console;
    std::vector<int> results;
    for (const std::string& body :
         Events{"[1, 2]", "{\"kits\": []}", "{\"kits\": [3]}", "\"text\"", "<html>down</html>",
                "{\"kits\": \"" + std::string(4 << 20, 'x') + "\"}"}) {
        f.host->clear();
        f.server.on("GET", "/campaigns", Reply{200, body});
        f.manager->syncWithCompletionHandler([&](int r) { results.push_back(r); });
        f.settle();
        std::string what = body.substr(0, 40);
        EXPECT_EQ(f.host->events(), Events{"didFail Lurewave 422"}) << what;
        EXPECT_EQ(f.manager->activeCampaigns().size(), 1u) << what;
        EXPECT_EQ(f.manager->foundCampaigns().size(), 1u) << what;
        EXPECT_EQ(f.vp.platform->files->readFile(f.statePath()), before) << what;
    }
    EXPECT_EQ(console.withPrefix("Lurewave: Sync failed.  Error Domain=Lurewave Code=422").size(),
              6u);
    EXPECT_EQ(results, std::vector<int>(6, 2)) << "a failed sync is a failed fetch";

    // An object without "kits" is merged all the same, with no kit id and no server
    // configuration.
    f.host->clear();
    auto noKits = f.feed({CampaignFixture::campaign("c1")});
    noKits.erase("kits");
    f.server.on("GET", "/campaigns", Reply{200, noKits.dump()});
    f.sync();
    EXPECT_EQ(f.host->events(), Events{"didSync"});
    EXPECT_EQ(results.back(), 0) << "the handler stays installed; new data";
    EXPECT_EQ(f.manager->activeCampaigns().size(), 1u);
    EXPECT_EQ(f.manager->foundCampaigns().size(), 1u);
    EXPECT_TRUE(f.manager->campaignRepo()->kitId().is_null());
    EXPECT_TRUE(f.manager->config()->synced().is_null());

    // A feed without "linked" carries no campaigns: every cached one expires.
    f.server.on("GET", "/campaigns", Reply{200, "{\"kits\": [{\"id\": 17}]}"});
    f.sync();
    EXPECT_TRUE(f.manager->activeCampaigns().empty());
    EXPECT_TRUE(f.manager->foundCampaigns().empty());

    // A failed kit sync loads no campaigns and deliberately does not fail the fetch.
    f.host->clear();
    results.clear();
    f.server.on("GET", "/kit", Reply{200, ""});
    f.sync();
    EXPECT_EQ(f.host->events(), Events{"didFail Zonewise 204"});
    EXPECT_EQ(results, std::vector<int>{0});
}

TEST(LWManagerState, UnreadableStateFilesStartEmptyAndWritesAreAtomic) {
    CampaignFixture f;
    f.startAndSync();
    f.range(1, 1.0);
    auto good = *f.vp.platform->files->readFile(f.statePath());
    f.manager.reset();
    f.settle();

    ConsoleCapture console;
    platform::Bytes truncated(good.begin(), good.begin() + static_cast<long>(good.size() / 2));
    for (const platform::Bytes& bad :
         {truncated, platform::toBytes("<?xml version=\"1.0\"?><plist/>"),
          platform::archiveJson(Json::array({1, 2}))}) {
        f.vp.platform->files->writeFile(f.statePath(), bad, false);
        f.create();
        EXPECT_TRUE(f.manager->foundCampaigns().empty());
        EXPECT_TRUE(f.manager->activeCampaigns().empty());
        EXPECT_EQ(f.vp.platform->files->readFile(f.statePath()), bad) << "nothing is written";
        f.manager.reset();
    }
    EXPECT_TRUE(console.withPrefix("Lurewave").empty()) << "an unreadable file is no error";

    f.vp.platform->files->writeFile(f.statePath(), good, false);
    f.create();
    EXPECT_EQ(f.manager->foundCampaigns().size(), 1u);
    f.app().deliverWillResignActive();  // writes the state
    for (const auto& e : std::filesystem::directory_iterator(f.vp.documents.path())) {
        EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos)
            << "no temporary file left behind";
    }
    EXPECT_EQ((*f.state())["campaign_ids"], Json::array({"c1"}));
    auto kept = (*platform::unarchiveJson(good))["configuration"];
    EXPECT_FALSE(kept.is_null());
    EXPECT_EQ((*f.state())["configuration"], kept) << "the server configuration was read back";

    // A state that cannot be written says why.
    f.manager.reset();
    std::filesystem::remove(f.statePath());
    std::filesystem::create_directory(f.statePath());
    f.create();
    console.clear();
    f.app().deliverWillResignActive();
    EXPECT_EQ(console.withPrefix("Error Writing Lurewave state file: ").size(), 1u);
}

TEST(LWManagerState, TheStateOfATokenOfAnyLengthSurvivesARestart) {
    // 220 characters keep their own (escaped) file name; 300 would pass NAME_MAX.
    for (std::string token : {std::string(217, 't') + "a/b", std::string(300, 't')}) {
        CampaignFixture f;
        auto lurewave = *platform::readPropertyListFile(f.vp.bundle.file("Lurewave.plist"));
        lurewave["LWAPIToken"] = token;
        f.vp.writeBundlePlist("Lurewave.plist", lurewave);
        f.startAndSync();
        f.range(1, 1.0);
        ASSERT_EQ(f.manager->foundCampaigns().size(), 1u) << token.size();
        f.restart();
        EXPECT_EQ(f.manager->foundCampaigns().size(), 1u) << token.size();
        if (token.size() == 220) {
            EXPECT_TRUE(std::filesystem::exists(
                f.vp.documents.file("LurewaveState_" + std::string(217, 't') + "a%2Fb.plist")));
        }
    }
}
