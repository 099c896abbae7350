// lurewave-sim from the outside: scenarios in, JSON Lines out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include <thread>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "support/test_server.h"
#include "support/test_support.h"

using nlohmann::json;
using quenby::test::TempDir;

namespace {

const char* kU = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

struct SimRun {
    int status = -1;
    std::vector<json> trace;
    std::string out, err;

    std::vector<json> of(const std::string& type) const {
        std::vector<json> r;
        for (const auto& l : trace) {
            if (l["type"] == type) r.push_back(l);
        }
        return r;
    }
    std::vector<json> where(const std::string& type, const std::string& key,
                            const json& value) const {
        std::vector<json> r;
        for (const auto& l : of(type)) {
            if (l.contains(key) && l[key] == value) r.push_back(l);
        }
        return r;
    }
};

SimRun run(const std::string& scenario, std::vector<std::string> args = {"--json"}) {
    TempDir dir;
    quenby::test::writeFile(dir.file("s.json"), scenario);
    std::string cmd = std::string(QUENBY_SIM_TOOL) + " run " + dir.file("s.json");
    for (const auto& a : args) cmd += " " + a;
    cmd += " > " + dir.file("out") + " 2> " + dir.file("err");
    SimRun r;
    int raw = std::system(cmd.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = quenby::test::readFile(dir.file("out")).value_or("");
    r.err = quenby::test::readFile(dir.file("err")).value_or("");
    if (std::find(args.begin(), args.end(), "--json") != args.end()) {
        std::size_t pos = 0;
        while (pos < r.out.size()) {
            std::size_t end = r.out.find('\n', pos);
            r.trace.push_back(json::parse(r.out.substr(pos, end - pos)));
            pos = end + 1;
        }
    }
    return r;
}

// A store with a door beacon (place 7), a checkout beacon (place 9) and a car park (place 7), and
// one campaign found at the door within 2 m and fulfilled at the checkout.
json store(json steps, json device = json::object(), std::string host = "campaigns") {
    json s = {
        {"start", "2026-03-01T09:00:00Z"},
        {"host", host},
        {"bundle",
         {{"Info.plist", {{"NSLocationAlwaysUsageDescription", "offers"}}},
          {"Lurewave.plist",
           {{"LWKitURL", "{server}/campaigns"},
            {"LWAPIToken", "lw"},
            {"ZWKitURL", "{server}/kit"},
            {"ZWAPIToken", "zw"},
            {"ZWAnalyticsURL", "{server}/analytics"}}},
          {"Zonewise.plist",
           {{"ZWKitURL", "{server}/kit"},
            {"ZWAPIToken", "zw"},
            {"ZWAnalyticsURL", "{server}/analytics"}}}}},
        {"server",
         {{"kit",
           {{"kit",
             {{"id", 17},
              {"status_url", "{server}/status"},
              {"status_token", "st"},
              {"map",
               {{"overlays",
                 {{{"type", "circle"},
                   {"identifier", "lot"},
                   {"name", "Car park"},
                   {"center", {40.0, -75.0}},
                   {"radius", 30},
                   {"attributes", {{"lw_place_ids", "[7]"}}}}}}}},
              {"ibeacons",
               {{{"uuid", kU},
                 {"major", 1},
                 {"minor", 1},
                 {"identifier", "door"},
                 {"name", "Door"},
                 {"attributes", {{"lw_place_ids", "[7]"}}}},
                {{"uuid", kU},
                 {"major", 1},
                 {"minor", 3},
                 {"identifier", "checkout"},
                 {"name", "Checkout"},
                 {"attributes", {{"lw_place_ids", "[9]"}}}}}}}}}},
          {"campaigns",
           {{"kits", {{{"id", 17}, {"configuration", {{"ios_tokens_url", "{server}/tokens"}}}}}},
            {"linked",
             {{"contents",
               {{{"id", 5}, {"alert_title", "20% off"}, {"alert_message", "Today only"}}}},
              {"campaigns",
               {{{"id", "c1"},
                 {"start_at", "2026-03-01T08:00:00.000+0000"},
                 {"end_at", "2026-03-02T08:00:00.000+0000"},
                 {"trigger_distance", 2.0},
                 {"links", {{"content", 5}, {"places", {7}}, {"fulfillment_places", {9}}}}}}}}}}}}},
        {"device", device},
        {"steps", steps}};
    return s;
}

json door() {
    return {{"uuid", kU}, {"major", 1}, {"minor", 1}, {"identifier", "door"}};
}
json beacon(int minor, double accuracy) {
    return {{"uuid", kU},     {"major", 1},           {"minor", minor},
            {"proximity", 2}, {"accuracy", accuracy}, {"rssi", -60}};
}

}  // namespace

TEST(LurewaveSim, CampaignHostActionsAndTraceLines) {
    json steps = json::array({
        {{"at", 0}, {"call", "start"}},
        {{"at", 1}, {"call", "setPartnerIdentifier"}, {"value", "p-1"}},
        {{"at", 1}, {"call", "logLevel"}, {"value", 7}},
        {{"at", 2}, {"enter", door()}},
        {{"at", 3}, {"range", door()}, {"beacons", {beacon(1, 2.5)}}},
        {{"at", 4}, {"range", door()}, {"beacons", {beacon(1, 1.5)}}},
        {{"at", 5}, {"call", "setCampaignViewed"}, {"campaign", "c1"}},
        {{"at", 5}, {"call", "setCampaignViewed"}, {"campaign", "nope"}},
        {{"at", 6},
         {"range", {{"uuid", kU}, {"major", 1}, {"minor", 3}}},
         {"beacons", {beacon(3, 4.0)}}},
        {{"at", 7},
         {"call", "setCampaignFulfilled"},
         {"campaign", "c1"},
         {"place", {{"id", 9}, {"name", "n"}, {"type", 0}}}},
        {{"at", 7},
         {"state", {{"identifier", "lot"}, {"center", {40.0, -75.0}}, {"radius", 30}}},
         {"value", 1}},
        {{"at", 8}, {"exit", door()}},
        {{"at", 9}, {"fail", {{"domain", "kCLErrorDomain"}, {"code", 1}}}},
        {{"at", 9},
         {"rangingFail", door()},
         {"error", {{"domain", "kCLErrorDomain"}, {"code", 16}}}},
        {{"at", 9},
         {"monitoringFail", door()},
         {"error", {{"domain", "kCLErrorDomain"}, {"code", 4}}}},
        {{"at", 10}, {"location", {40.5, -75.25}}},
        {{"at", 10}, {"call", "getLat"}},
        {{"at", 10}, {"call", "getLng"}},
        {{"at", 11}, {"call", "registerDeviceToken"}, {"hex", "0a1b2c"}},
        {{"at", 11}, {"deviceToken", "0a1b2c"}},
        {{"at", 12}, {"call", "deregisterDeviceToken"}},
        {{"at", 13}, {"call", "showCampaignAlert"}, {"campaign", "c1"}},
        {{"at", 13}, {"alertButton", 1}},
        {{"at", 14}, {"push", {{"aps", {{"content-available", 1}}}}}},
        {{"at", 15}, {"call", "remoteNotification"}, {"userInfo", json::object()}},
        {{"at", 16}, {"call", "syncWithCompletionHandler"}},
        {{"at", 17},
         {"call", "postEvent"},
         {"type", "custom"},
         {"details", {{"k", "{server}/a {server}/b"}}}},
        {{"at", 18}, {"call", "foundCampaigns"}},
        {{"at", 18}, {"call", "activeCampaigns"}},
        {{"at", 19}, {"applicationState", "background"}},
        {{"at", 19}, {"enter", door()}},
        {{"at", 20}, {"expireBackgroundTask", "Lurewave:ExtendedRanging"}},
        {{"at", 21}, {"call", "resignActive"}},
        {{"at", 22}, {"authorization", 2}},
        {{"at", 23}, {"pass", {{{"enter", door()}}, {{"enter", door()}}}}},
        {{"at", 24}, {"call", "sync"}},
        {{"at", 25}, {"call", "stop"}},
        {{"at", 26}, {"call", "destroy"}},
        {{"at", 27}, {"call", "create"}},
        {{"at", 28}, {"call", "foundCampaigns"}},
    });
    auto r = run(
        store(steps, {{"secondListener", true}, {"hostAppDelegate", {"legacy", "token"}}}).dump());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    for (const auto& l : r.trace) {
        ASSERT_TRUE(l.contains("t") && l.contains("type")) << l;
    }
    std::set<std::string> types;
    for (const auto& l : r.trace) types.insert(l["type"]);
    EXPECT_EQ(types, (std::set<std::string>{"app", "delegate", "forwarded", "location", "log",
                                            "notification", "result", "server"}));

    // Found at 1.5 m (not 2.5 m), viewed, fulfilled; the host schedules the notification. Without a
    // recurrence it is found again when the car park's state says inside (a geofence is near).
    auto found = r.where("delegate", "name", "lurewave:didFindCampaign:");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0]["t"], 4);
    EXPECT_EQ(found[1]["t"], 7);
    EXPECT_EQ(found[0]["campaign"]["foundAt"], json({{"id", 7}, {"name", "Door"}, {"type", 0}}));
    auto scheduled = r.where("app", "call", "scheduleLocalNotification");
    ASSERT_EQ(scheduled.size(), 2u);
    EXPECT_EQ(scheduled[0]["body"], "20%% off");
    EXPECT_EQ(scheduled[0]["userInfo"], json({{"campaignId", "c1"}}));
    auto viewed = r.where("result", "call", "setCampaignViewed");
    ASSERT_EQ(viewed.size(), 2u);
    EXPECT_EQ(viewed[0]["value"]["viewCount"], 1);
    EXPECT_TRUE(viewed[1]["value"].is_null()) << "no campaign of that id";
    EXPECT_TRUE(
        r.where("result", "call", "setCampaignFulfilled")[0]["value"]["fulfilled"].get<bool>())
        << "already fulfilled at the checkout";
    auto places = r.where("delegate", "name", "lurewave:didDetectPlace:onEvent:");
    EXPECT_EQ(places.front()["event"], 1);
    EXPECT_EQ(places.front()["place"]["id"], 7);

    // Background tasks, the alert and its completion, results of calls.
    auto begun = r.where("app", "call", "beginBackgroundTask");
    ASSERT_FALSE(begun.empty());
    EXPECT_EQ(begun[0]["name"], "Lurewave:ExtendedRanging");
    EXPECT_FALSE(r.where("app", "call", "endBackgroundTask").empty());
    auto alert = r.where("app", "call", "showAlert");
    ASSERT_EQ(alert.size(), 1u);
    EXPECT_EQ(alert[0]["buttons"], json({"Cancel", "View Details"}));
    EXPECT_EQ(r.where("result", "call", "alertCompletion")[0]["value"], "c1");
    EXPECT_EQ(r.where("result", "call", "getLat")[0]["value"], "40.500000");
    EXPECT_EQ(r.where("result", "call", "getLng")[0]["value"], "-75.250000");
    EXPECT_EQ(r.where("result", "call", "remoteNotification")[0]["value"], 0) << "a place 13 s ago";
    EXPECT_EQ(r.where("result", "call", "push")[0]["value"], 0);
    EXPECT_FALSE(r.where("result", "call", "syncWithCompletionHandler").empty());
    EXPECT_EQ(r.where("result", "call", "foundCampaigns")[0]["value"], json({"c1"}));
    EXPECT_EQ(r.where("result", "call", "activeCampaigns")[0]["value"], json({"c1"}));
    EXPECT_EQ(r.where("result", "call", "foundCampaigns")[1]["value"], json({"c1"}))
        << "restored by the manager created again";
    auto hosted = r.where("app", "call", "hostDelegate");
    std::vector<std::string> hostCalls;
    for (const auto& h : hosted) hostCalls.push_back(h["name"]);
    EXPECT_EQ(hostCalls, (std::vector<std::string>{"token", "legacy"}));

    // The proximity layer's notifications and the analytics event, and what reached the listener.
    auto events = r.where("notification", "name", "QZWManagerDidTriggerAnalyticsEvent");
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0]["userInfo"]["QZWAnalyticsEventType"], "lurewave_events");
    auto ranged = r.where("notification", "name", "QZWManagerDidRangeBeaconsInRegion");
    ASSERT_FALSE(ranged.empty());
    EXPECT_EQ(ranged[0]["userInfo"]["QZWEvent"], 4);
    EXPECT_EQ(ranged[0]["userInfo"]["QZWIBeacons"][0]["class"], "QZWBeacon");
    EXPECT_EQ(ranged[0]["userInfo"]["QZWIBeacons"][0]["accuracy"], 2.5);
    auto state = r.where("notification", "name", "QZWManagerDidDetermineStateForRegion");
    ASSERT_EQ(state.size(), 1u);
    EXPECT_EQ(state[0]["userInfo"]["QZWRegionState"], 1);
    EXPECT_EQ(state[0]["userInfo"]["QZWRegion"]["class"], "QZWCircle");
    auto enters = r.where("notification", "name", "QZWManagerDidEnterRegion");
    EXPECT_EQ(r.where("forwarded", "call", "locationManager:didEnterRegion:").size(), 4u);
    EXPECT_EQ(enters.size(), 3u) << "two entries in one pass make one notification";
    EXPECT_EQ(enters[0]["userInfo"]["QZWRegion"]["class"], "QZWBeaconRegion");
    EXPECT_EQ(r.where("forwarded", "call", "locationManager:didExitRegion:").size(), 1u);
    EXPECT_FALSE(
        r.where("forwarded", "call", "locationManager:didChangeAuthorizationStatus:").empty());
    EXPECT_FALSE(
        r.where("forwarded", "call", "locationManager:monitoringDidFailForRegion:withError:")
            .empty());
    EXPECT_FALSE(r.where("delegate", "name", "lurewave:didFailWithError:").empty());

    // The location manager calls, the console and the server.
    auto monitor = r.where("location", "call", "startMonitoringForRegion");
    ASSERT_FALSE(monitor.empty());
    EXPECT_EQ(monitor[0]["region"], json({{"class", "circle"},
                                          {"identifier", "lot"},
                                          {"latitude", 40.0},
                                          {"longitude", -75.0},
                                          {"radius", 30.0}}));
    EXPECT_FALSE(r.where("location", "call", "stopMonitoringForRegion").empty());
    EXPECT_FALSE(r.where("log", "line", "Lurewave: Sync completed.").empty());
    EXPECT_FALSE(
        r.where("log", "line", "Zonewise[Debug] Monitoring Geofence Circle Car park").empty());
    auto tokens = r.where("server", "path", "/tokens");
    ASSERT_EQ(tokens.size(), 2u);
    EXPECT_EQ(tokens[0]["method"], "POST");
    EXPECT_EQ(tokens[0]["body"], "{\"ios_token\":\"0a1b2c\"}");
    EXPECT_EQ(tokens[0]["headers"]["X-LW-FrameworkVersion"], "0.2.1");
    EXPECT_EQ(tokens[1]["method"], "DELETE");
    // Only the server's own Host header keeps the placeholder: each of a string's {server}s
    // is replaced.
    auto count = [&](const std::string& what) {
        std::size_t n = 0;
        for (auto p = r.out.find(what); p != std::string::npos; p = r.out.find(what, p + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("{server}"), count("\"Host\":\"{server}\""));
}

namespace {

// Start, a walk past the door beacon at `beaconAt` along `path` from second 1, a sync at 2.
json startWalkSync(const json& beaconAt, const json& path) {
    json beacon = {
        {"uuid", kU}, {"major", 1}, {"minor", 1}, {"at", beaconAt}, {"measuredPower", -59}};
    return json::array({
        {{"at", 0}, {"call", "start"}},
        {{"at", 1},
         {"walk", {{"origin", {40.0, -75.0}}, {"beacons", json::array({beacon})}, {"path", path}}}},
        {{"at", 2}, {"call", "sync"}},
    });
}

}  // namespace

TEST(LurewaveSim, ProximityHostWalkAndReadableTimeline) {
    // The sync registers again while walking: the walk answers the state request. The path starts
    // at 5 s, half a 10-second mark interval before 10 s.
    json steps = startWalkSync({40, 0}, {{-60, 0, 4}, {40, 0.5, 60}, {90, 0, 100}});
    json s = store(steps, json::object(), "proximity");
    std::string wide(130, 'P');  // wider than the map: the label goes in anyway
    s["server"]["kit"]["kit"]["map"]["overlays"][0]["name"] = wide;
    s["until"] = 200;
    TempDir docs;
    auto r = run(s.dump(), {"--json", "--documents", docs.path(), "--svg", docs.file("map.svg")});
    ASSERT_EQ(r.status, 0) << r.err;
    auto names = [&](const std::string& n) { return r.where("delegate", "name", n).size(); };
    EXPECT_EQ(names("zonewiseDidSync:"), 2u);
    EXPECT_EQ(names("zonewise:didEnter:"), 2u) << "the car park, then the door";
    EXPECT_EQ(names("zonewise:didExit:"), 2u);
    EXPECT_GT(names("zonewise:didRangeBeacons:inRegion:"), 20u);
    auto state = r.where("delegate", "name", "zonewise:didDetermineState:forRegion:");
    ASSERT_EQ(state.size(), 1u) << "the state request made during the walk is answered";
    EXPECT_EQ(state[0]["state"], 2) << "still outside the car park";
    auto range = r.where("delegate", "name", "zonewise:didRangeBeacons:inRegion:");
    double nearest = 99;
    for (const auto& l : range)
        nearest = std::min(nearest, l["beacons"][0]["accuracy"].get<double>());
    EXPECT_LT(nearest, 1.5) << "passing within half a metre";
    EXPECT_FALSE(r.where("server", "path", "/analytics").empty());
    EXPECT_FALSE(r.where("server", "path", "/status").empty());
    EXPECT_TRUE(quenby::test::readFile(docs.file("ZonewiseAnalytics.sqlite")));
    std::string map = quenby::test::readFile(docs.file("map.svg")).value_or("");
    EXPECT_NE(map.find("<polyline"), std::string::npos);
    EXPECT_NE(map.find(">" + wide + " · r 30 m</text>"), std::string::npos);
    std::size_t marks = 0;
    for (auto p = map.find("class=\"time\""); p != std::string::npos;
         p = map.find("class=\"time\"", p + 1))
        ++marks;
    EXPECT_EQ(marks, 11u) << "5, 10, 20 … 90 and 101 s";

    // The same run as a readable timeline ends with a summary.
    auto readable = run(s.dump(), {});
    EXPECT_EQ(readable.status, 0);
    EXPECT_NE(readable.out.find("zonewise:didEnter: door \"Door\""), std::string::npos);
    EXPECT_NE(readable.out.find("Summary"), std::string::npos);
}

TEST(LurewaveSim, DeviceWithoutRangingFailsEveryRangingRequestAndIsNeverRanged) {
    // The sync asks to range everything again while walking.
    json steps = startWalkSync({0, 0}, {{-30, 0, 0}, {0, 0, 30}, {30, 0, 60}});
    json s = store(steps, {{"rangingAvailable", false}, {"secondListener", true}}, "proximity");
    s["until"] = 100;
    auto r = run(s.dump());
    ASSERT_EQ(r.status, 0) << r.err;

    auto asked = r.where("location", "call", "startRangingBeaconsInRegion");
    auto failed =
        r.where("forwarded", "call", "locationManager:rangingBeaconsDidFailForRegion:withError:");
    ASSERT_GE(asked.size(), 4u) << "both beacon regions, at the start and on the sync";
    EXPECT_EQ(failed.size(), asked.size()) << "one failure for every request";
    std::multiset<std::string> askedIds, failedIds;
    for (const auto& l : asked) askedIds.insert(l["region"]["identifier"]);
    for (const auto& l : failed) failedIds.insert(l["region"]["identifier"]);
    EXPECT_EQ(failedIds, askedIds);
    EXPECT_EQ(asked[0]["region"], json({{"class", "beacon"},
                                        {"identifier", asked[0]["region"]["identifier"]},
                                        {"uuid", kU},
                                        {"major", 1},
                                        {"minor", asked[0]["region"]["minor"]}}));
    for (std::size_t i = 0; i < std::min(asked.size(), failed.size()); ++i)
        EXPECT_EQ(failed[i]["t"], asked[i]["t"]) << "answered at once, without virtual time";

    auto logged = std::count_if(r.trace.begin(), r.trace.end(), [](const json& l) {
        return l["type"] == "log" &&
               l["line"].get<std::string>().find(
                   "Ranging Beacons Failed with Error: Error Domain=kCLErrorDomain Code=16 ") !=
                   std::string::npos;
    });
    EXPECT_EQ(static_cast<std::size_t>(logged), asked.size());

    EXPECT_FALSE(r.where("delegate", "name", "zonewise:didEnter:").empty())
        << "beacon regions are still monitored";
    EXPECT_TRUE(r.where("delegate", "name", "zonewise:didRangeBeacons:inRegion:").empty());
    EXPECT_TRUE(r.where("notification", "name", "QZWManagerDidRangeBeaconsInRegion").empty());
    EXPECT_TRUE(r.where("forwarded", "call", "locationManager:didRangeBeacons:inRegion:").empty());
}

TEST(LurewaveSim, MissingLocationUsageEndsWithTheException) {
    json s = store(json::array({{{"at", 0}, {"call", "start"}}}));
    s["bundle"].erase("Info.plist");
    auto r = run(s.dump());
    EXPECT_EQ(r.status, 3);
    auto e = r.of("exception");
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]["name"], "Missing info.plist key");
    EXPECT_EQ(e[0]["reason"],
              "You must add either the NSLocationAlwaysUsageDescription or "
              "NSLocationWhenInUseUsageDescription keys to your info.plist file.");
}

TEST(LurewaveSim, MalformedScenariosAreRejectedBeforeAnythingRuns) {
    auto step = [](json s) {
        return json{{"steps", json::array({{{"at", 0}, {"call", "start"}}, s})}};
    };
    auto walk = [](json w) { return json{{"at", 5}, {"walk", w}}; };
    json at0 = json::array({0, 0}), path = json::array({json::array({0, 0, 0})});
    // Each message names what is wrong and where, and ends there.
    std::vector<std::pair<std::string, std::string>> cases = {
        {"{not json", "not JSON: "},
        {json{{"stpes", json::array()}}.dump(), "unknown key \"stpes\" in the scenario"},
        {json{{"device", {{"vendorId", "not-a-uuid"}}}}.dump(), "\"vendorId\" must be a UUID"},
        {json{{"device", {{"authorization", "3"}}}}.dump(), "\"authorization\" must be an integer"},
        {json{{"device", {{"monitoringAvailable", "yes"}}}}.dump(),
         "\"monitoringAvailable\" must be true or false"},
        {json{{"device", {{"applicationState", "asleep"}}}}.dump(),
         "\"applicationState\" must be active, inactive or background"},
        {step({{"at", 5}, {"jump", 1}}).dump(), "step 1 (at 5): unknown action \"jump\""},
        {step({{"at", 5}, {"call", "dance"}}).dump(), "step 1 (at 5): unknown call \"dance\""},
        {step({{"at", -1}, {"call", "stop"}}).dump(), "step 1 (at -1): time goes back"},
        {step({{"at", 5}, {"enter", {{"uuid", kU}, {"minor", 2}}}}).dump(),
         "step 1 (at 5): a beacon region with a minor needs a major"},
        {step({{"at", 5}, {"exit", {{"uuid", kU}, {"major", 70000}}}}).dump(),
         "step 1 (at 5): \"major\" must be from 0 to 65535"},
        {step({{"at", 5}, {"enter", {{"identifier", "f"}, {"radius", "far"}}}}).dump(),
         "step 1 (at 5): \"radius\" must be a number"},
        {step({{"at", 5}, {"state", {{"identifier", "f"}}}}).dump(),
         "step 1 (at 5): \"state\" needs \"value\""},
        {step({{"at", 5}, {"range", door()}, {"beacons", {{{"uuid", kU}}}}}).dump(),
         "step 1 (at 5): a beacon needs \"major\""},
        {step({{"at", 5},
               {"range", door()},
               {"beacons", {{{"uuid", kU}, {"major", 1}, {"minor", 1}, {"accuracy", "near"}}}}})
             .dump(),
         "step 1 (at 5): \"accuracy\" must be a number"},
        {step({{"at", 5}, {"call", "registerDeviceToken"}, {"hex", "abc"}}).dump(),
         "step 1 (at 5): a hex string needs an even number of digits"},
        {step({{"at", 5}, {"call", "setPartnerIdentifier"}, {"value", 5}}).dump(),
         "step 1 (at 5): \"value\" must be a string"},
        {step({{"at", 5},
               {"call", "setCampaignFulfilled"},
               {"campaign", "c1"},
               {"place", {{"id", 9}, {"name", 9}}}})
             .dump(),
         "step 1 (at 5): a place's \"name\" must be a string"},
        {step({{"at", 5}, {"call", "postEvent"}, {"type", "t"}, {"details", 1}}).dump(),
         "step 1 (at 5): \"details\" must be an object"},
        {step(walk({{"beacons", json::array()}, {"path", path}})).dump(),
         "step 1 (at 5): \"walk\" needs \"origin\""},
        {step(walk({{"origin", at0},
                    {"beacons", {{{"major", 1}, {"minor", 1}, {"at", at0}}}},
                    {"path", path}}))
             .dump(),
         "step 1 (at 5): a walk beacon needs \"uuid\""},
        {step({{"at", "5"}, {"call", "stop"}}).dump(),
         "step 1 (at \"5\"): \"at\" must be a number"},
        {json{{"host", "proximity"}, {"steps", {{{"at", 0}, {"call", "foundCampaigns"}}}}}.dump(),
         "step 0 (at 0): call \"foundCampaigns\" needs the campaigns host"},
    };
    for (const auto& [scenario, message] : cases) {
        auto r = run(scenario);
        EXPECT_EQ(r.status, 2) << scenario;
        EXPECT_TRUE(r.out.empty()) << "no trace for " << scenario;
        // The parser's own words after "not JSON: " are not the tool's.
        EXPECT_TRUE(message.ends_with(": ") ? r.err.find(message) != std::string::npos
                                            : r.err.ends_with(": " + message + "\n"))
            << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << "one message: " << r.err;
    }
}

TEST(LurewaveSim, ServeAnswersTheKitAndFeedAndPrintsEveryRequest) {
    TempDir dir;
    quenby::test::writeFile(dir.file("kit.json"), R"({"kit": {"id": 1}})");
    quenby::test::writeFile(dir.file("feed.json"), R"({"kits": [{"id": 1}]})");
    int port = quenby::test::refusedPort();
    std::string cmd = std::string(QUENBY_SIM_TOOL) + " serve --kit " + dir.file("kit.json") +
                      " --campaigns " + dir.file("feed.json") + " --port " + std::to_string(port) +
                      " > " + dir.file("out") + " 2>&1 & echo $!";
    FILE* p = popen(cmd.c_str(), "r");
    int pid = 0;
    ASSERT_EQ(fscanf(p, "%d", &pid), 1);
    pclose(p);
    httplib::Client client("127.0.0.1", port);
    // The server process is starting: retry the connection, not a wait on the library.
    auto kit = client.Get("/kit");
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!kit && std::chrono::steady_clock::now() < give_up) kit = client.Get("/kit");
    ASSERT_TRUE(kit);
    EXPECT_EQ(json::parse(kit->body), json({{"kit", {{"id", 1}}}}));
    EXPECT_EQ(json::parse(client.Get("/campaigns")->body), json({{"kits", {{{"id", 1}}}}}));
    EXPECT_EQ(client.Post("/analytics", "{\"a\":1}", "application/json")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Delete("/tokens")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Put("/places", "{}", "application/json")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Post("/status", "plain words", "text/plain")->body, "{\"ok\":true}");
    EXPECT_EQ(client.Get("/other")->status, 404);
    kill(pid, SIGTERM);
    for (int i = 0; i < 1000000 && kill(pid, 0) == 0; ++i) std::this_thread::yield();
    std::string out = quenby::test::readFile(dir.file("out")).value_or("");
    EXPECT_NE(out.find("POST /analytics"), std::string::npos) << out;
    EXPECT_NE(out.find("\"a\": 1"), std::string::npos) << out;
    EXPECT_NE(out.find("DELETE /tokens"), std::string::npos) << out;
    EXPECT_NE(out.find("\nplain words\n"), std::string::npos)
        << "a body that is not JSON as it came";
    EXPECT_NE(out.find("serving on http://127.0.0.1:" + std::to_string(port) +
                       ": GET /kit, GET /campaigns, POST and DELETE anywhere else\n"),
              std::string::npos);
    // Every request heads its own line, however the greeting and the first request interleave.
    for (const char* line : {"GET /kit", "GET /campaigns", "PUT /places", "POST /status"})
        EXPECT_NE(("\n" + out).find(std::string("\n") + line + "\n"), std::string::npos) << line;

    // A port another socket holds: the server says which, and does not start.
    int held = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(held, reinterpret_cast<sockaddr*>(&addr), len), 0);
    ::listen(held, 1);
    ::getsockname(held, reinterpret_cast<sockaddr*>(&addr), &len);
    std::string taken = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
    int raw = std::system(("timeout 30 " + std::string(QUENBY_SIM_TOOL) + " serve --kit " +
                           dir.file("kit.json") + " --campaigns " + dir.file("feed.json") +
                           " --port " + taken.substr(10) + " > " + dir.file("out") + " 2>&1")
                              .c_str());
    ::close(held);
    EXPECT_NE(raw, 0);
    out = quenby::test::readFile(dir.file("out")).value_or("");
    EXPECT_NE(out.find("cannot listen on " + taken + "\n"), std::string::npos) << out;
}

TEST(LurewaveSim, SameScenarioSameTraceByteForByte) {
    // A walk past the door, ranged every second: the sync timer's analytics upload and the
    // status watchdog come due on the same seconds (every 30) as a ranging pass and its upload.
    json walk = startWalkSync({40, 0}, {{-60, 0, 4}, {40, 0.5, 60}, {90, 0, 100}});
    json together = store(walk, json::object(), "proximity");
    together["until"] = 200;
    std::string example =
        quenby::test::readFile(std::string(QUENBY_SOURCE_DIR) + "/examples/shopper.json")
            .value_or("");
    ASSERT_FALSE(example.empty());
    for (const auto& scenario : {together.dump(), example}) {
        auto trace = [&] {
            auto r = run(scenario);
            EXPECT_EQ(r.status, 0) << r.err;
            return r;
        };
        auto first = trace();
        ASSERT_FALSE(first.where("server", "path", "/status").empty());
        ASSERT_FALSE(first.where("server", "path", "/analytics").empty());
        // The server's own port, new every run, is written as the scenario writes its address.
        EXPECT_EQ(first.of("server")[0]["headers"].value("Host", ""), "{server}");
        for (int i = 0; i < 4; ++i) {
            auto again = trace();
            if (again.out == first.out) continue;
            // Name the first line that differs, not two traces of thousands of lines.
            auto at = std::mismatch(first.out.begin(), first.out.end(), again.out.begin(),
                                    again.out.end());
            auto line = [](const std::string& s, std::string::const_iterator it) {
                auto from = s.rfind('\n', it - s.begin());
                from = from == std::string::npos ? 0 : from + 1;
                return s.substr(from, s.find('\n', from) - from);
            };
            FAIL() << "run " << i + 2 << " differs from the first at line "
                   << std::count(first.out.begin(), at.first, '\n') + 1 << ":\n  "
                   << line(first.out, at.first) << "\n  " << line(again.out, at.second);
        }
    }
}
