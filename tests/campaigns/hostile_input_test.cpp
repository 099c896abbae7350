// Randomly damaged input from outside, from a fixed seed: kit answers, property lists, archives and
// state-file records. Whatever comes in, nothing crashes and every reader answers something.
#include <gtest/gtest.h>

#include <random>

#include "campaigns/LWCampaignRepository.h"
#include "platform/archive.h"
#include "platform/plist.h"
#include "proximity/QZWAPIDeserializer.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Bytes;
using platform::Json;

namespace {

// Replaces random nodes of `j` with values of other kinds.
void mutate(Json& j, std::mt19937& rng, int depth = 0) {
    static const Json kinds[] = {nullptr,
                                 true,
                                 -1,
                                 4294967297LL,
                                 1e300,
                                 "",
                                 "x",
                                 Json::array(),
                                 Json::object(),
                                 Json::array({1, "a", nullptr})};
    if (rng() % 6 == 0 || depth > 6) {
        j = kinds[rng() % std::size(kinds)];
        return;
    }
    if (j.is_object()) {
        std::vector<std::string> keys;
        for (auto& [k, v] : j.items()) keys.push_back(k);
        for (const auto& k : keys) {
            if (rng() % 8 == 0) {
                j.erase(k);
            } else {
                mutate(j[k], rng, depth + 1);
            }
        }
    } else if (j.is_array()) {
        for (auto& v : j) mutate(v, rng, depth + 1);
    }
}

Bytes flip(Bytes b, std::mt19937& rng) {
    if (b.empty()) return b;
    for (int i = static_cast<int>(rng() % 8); i >= 0; --i)
        b[rng() % b.size()] = static_cast<std::uint8_t>(rng());
    if (rng() % 3 == 0) b.resize(rng() % b.size());
    return b;
}

Json sampleKit() {
    return {{"id", 17},
            {"name", "Store"},
            {"status_url", "http://127.0.0.1:1/status"},
            {"status_token", "st"},
            {"map",
             {{"overlays",
               {{{"type", "circle"},
                 {"identifier", "f"},
                 {"center", {40.0, -75.0}},
                 {"radius", 30}}}}}},
            {"ibeacons",
             {{{"uuid", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
               {"major", 1},
               {"minor", 1},
               {"identifier", "door"},
               {"attributes", {{"lw_place_ids", "[7]"}}}},
              {{"uuid", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
               {"major", nullptr},
               {"minor", nullptr}}}}};
}

}  // namespace

TEST(HostileInput, DamagedKitsPlistsAndArchivesNeverCrashTheReaders) {
    test::LogLevelGuard quiet(-1);
    test::ConsoleCapture console;
    test::VirtualPlatform vp;
    std::mt19937 rng(7);
    platform::Beacon beacon{
        *platform::UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"), 1, 1, 2, 0.5, -60};
    auto region =
        std::make_shared<const platform::BeaconRegion>(beacon.proximityUUID, 1, std::nullopt, "r");

    // Kit documents: structurally damaged, then byte-damaged text.
    for (int i = 0; i < 1500; ++i) {
        Json kit = sampleKit();
        mutate(kit, rng);
        std::string text = Json{{"kit", kit}}.dump(-1, ' ', false, Json::error_handler_t::replace);
        auto parsed = platform::parseJson(flip(platform::toBytes(text), rng));
        const Json* fromText = parsed ? platform::jsonMember(&*parsed, "kit") : nullptr;
        for (const Json* doc : {static_cast<const Json*>(&kit), fromText}) {
            auto k = QZWAPIDeserializer().buildKit(doc);
            k->getIBeaconForCLBeacon(beacon);
            k->getIBeaconRegionForCLBeaconRegion(region);
            k->getRegionForIdentifier("door");
            for (const auto& r : k->beaconRegions()) (void)r->region();
        }
    }

    // Property lists, XML and binary.
    Json dict = {{"ZWKitURL", "http://h/k"}, {"List", {1, "two", {{"three", 3.5}}}}, {"On", true}};
    Bytes xml = platform::toBytes(platform::toXmlPropertyList(dict));
    for (int i = 0; i < 1500; ++i) (void)platform::parsePropertyList(flip(xml, rng));

    // Archives and the campaign records read from them.
    Json campaign = {{"id", "c1"},
                     {"start_at", 1.0},
                     {"end_at", 2e9},
                     {"places", {7}},
                     {"content", {{"id", "5"}, {"body", "b"}, {"hash", Json::binary({1, 2})}}},
                     {"found_at", {{"id", 7}, {"name", "d"}, {"type", 0}}},
                     {"view_count", 2}};
    Json repo = {{"campaign_cache", {campaign, campaign}}, {"kitId", 17}, {"device_token", "ab"}};
    Bytes archived = platform::archiveJson({{"campaign_repo", repo}, {"campaign_ids", {"c1"}}});
    int readable = 0;
    for (int i = 0; i < 1500; ++i) {
        Json damaged = repo;
        mutate(damaged, rng);
        if (auto r = LWCampaignRepository::fromArchive(vp.platform, damaged)) r->getAllCampaigns();
        auto state = platform::unarchiveJson(flip(archived, rng));
        if (!state) continue;
        ++readable;
        if (auto r = LWCampaignRepository::fromArchive(vp.platform,
                                                       (*state).value("campaign_repo", Json()))) {
            for (const auto& c : r->getAllCampaigns()) {
                c->isActive();
                c->buildLocalNotification();
                c->archive();
            }
        }
    }
    EXPECT_GT(readable, 0) << "some damage leaves a readable archive, and those are read too";
}
