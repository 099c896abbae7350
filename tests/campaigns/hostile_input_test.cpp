// Randomly damaged input from outside, from a fixed seed: kit answers, property lists, archives and
// state-file records. Whatever comes in, nothing crashes and every reader answers something.
#include <gtest/gtest.h>

#include <random>

#include "campaigns/LWCampaignRepository.h"
#include "campaigns/LWConfig.h"
#include "campaigns/LWManager.h"
#include "platform/archive.h"
#include "platform/plist.h"
#include "proximity/QZWAPIDeserializer.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWManager.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Bytes;
using platform::Json;

namespace {

// Replaces random nodes of `j` with values of other kinds.
void mutate(Json& j, std::mt19937& rng, int depth = 0) {
    static const Json kinds =
        Json::parse(R"([null, true, -1, 4294967297, 1e300, "", "x", [], {}, [1, "a", null]])");
    if (rng() % 6 == 0 || depth > 6) {
        j = kinds[rng() % kinds.size()];
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

void putBigEndian(Bytes& out, std::uint64_t v, int width) {
    for (int k = width - 1; k >= 0; --k) out.push_back(static_cast<std::uint8_t>(v >> (8 * k)));
}

// A binary property list of encoded `objects` (references four bytes wide), the first on top.
Bytes binaryPlist(const std::vector<Bytes>& objects) {
    Bytes out = platform::toBytes("bplist00");
    std::vector<std::uint64_t> offsets;
    for (const auto& o : objects) {
        offsets.push_back(out.size());
        out.insert(out.end(), o.begin(), o.end());
    }
    std::uint64_t table = out.size();
    for (auto off : offsets) putBigEndian(out, off, 8);
    out.insert(out.end(), {0, 0, 0, 0, 0, 0, 8, 4});
    for (std::uint64_t v : {std::uint64_t{objects.size()}, std::uint64_t{0}, table}) {
        putBigEndian(out, v, 8);
    }
    return out;
}

// Arrays each holding the next (`fanOut` times), the last one empty.
Bytes nestedBinary(int arrays, int fanOut = 1) {
    std::vector<Bytes> objects;
    for (int i = 1; i < arrays; ++i) {
        Bytes a{static_cast<std::uint8_t>(0xA0 | fanOut)};
        for (int k = 0; k < fanOut; ++k) putBigEndian(a, i, 4);
        objects.push_back(a);
    }
    objects.push_back({0xA0});
    return binaryPlist(objects);
}

// A one-entry dictionary with the UTF-16 string "a\0b" as its key or as its value.
Bytes nulBinary(bool inKey) {
    Bytes nul{0x63, 0, 'a', 0, 0, 0, 'b'}, plain{0x51, 'k'}, dict{0xD1};
    putBigEndian(dict, 1, 4);
    putBigEndian(dict, 2, 4);
    return binaryPlist({dict, inKey ? nul : plain, inKey ? plain : nul});
}

Bytes nestedXml(int arrays) {
    std::string s = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < arrays; ++i) s += "<array>";
    for (int i = 0; i < arrays; ++i) s += "</array>";
    return platform::toBytes(s + "</plist>");
}

Json sampleKit() {
    return Json::parse(R"({"id": 17, "name": "Store", "status_url": "http://127.0.0.1:1/status",
      "status_token": "st", "map": {"overlays": [{"type": "circle", "identifier": "f",
        "center": [40.0, -75.0], "radius": 30}]},
      "ibeacons": [{"uuid": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "major": 1, "minor": 1,
                    "identifier": "door", "attributes": {"lw_place_ids": "[7]"}},
                   {"uuid": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "major": null, "minor": null}]})");
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
    Bytes bin = platform::toBinaryPropertyList(dict);
    for (int i = 0; i < 1500; ++i) {
        (void)platform::parsePropertyList(flip(xml, rng));
        (void)platform::parsePropertyList(flip(bin, rng));
    }

    // Archives and the campaign records read from them.
    Json campaign = Json::parse(R"({"id": "c1", "start_at": 1.0, "end_at": 2e9, "places": [7],
      "found_at": {"id": 7, "name": "d", "type": 0}, "view_count": 2,
      "content": {"id": "5", "body": "b"}})");
    campaign["content"]["hash"] = Json::binary({1, 2});
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

// Lists that used to abort or overflow the stack inside libplist: each is refused with its reason,
// and a host given one as its configuration or information file sees an unreadable file.
TEST(HostileInput, DeepOrNulPropertyListsAreUnreadableFilesNeverCrashes) {
    const std::string deep = "property list nested too deeply",
                      nul = "property list string holds a NUL character";
    // One chain of 100,000 arrays that the top array enters every 400 links, the far end first:
    // no walk from one entry is deep, but each leads into the last.
    std::vector<Bytes> sharedChain{{0xAF, 0x10, 250}};
    for (int s = 249; s >= 0; --s) putBigEndian(sharedChain[0], 1 + 400 * s, 4);
    for (int i = 1; i < 100000; ++i) {
        sharedChain.push_back({0xA1});
        putBigEndian(sharedChain.back(), i + 1, 4);
    }
    sharedChain.push_back({0xA0});
    const std::vector<std::pair<std::string, Bytes>> hostile = {
        {deep, nestedBinary(100000)},
        {deep, nestedXml(200000)},
        {nul, nulBinary(false)},
        {nul, nulBinary(true)},
        {nul, platform::toBytes(std::string("<plist><array><string>a") + '\0' +
                                "b</string></array></plist>")},
        {nul, platform::toBytes(std::string("<plist><dict><key>a") + '\0' +
                                "b</key><true/></dict></plist>")},
        {"property list refers to itself", binaryPlist({{0xA1, 0, 0, 0, 1}, {0xA1, 0, 0, 0, 0}})},
        {deep, binaryPlist(sharedChain)},
        // 2^21 values from 21 objects, once each reference is copied apart.
        {"property list repeats its objects too often", nestedBinary(21, 2)},
    };
    for (const auto& [why, bytes] : hostile) {
        std::string err;
        EXPECT_FALSE(platform::parsePropertyList(bytes, &err));
        EXPECT_EQ(err, why);
    }
    // 513 arrays hold 512 levels below the top one: the most the reader takes.
    EXPECT_TRUE(platform::parsePropertyList(nestedBinary(513)));
    EXPECT_FALSE(platform::parsePropertyList(nestedBinary(514)));
    EXPECT_TRUE(platform::parsePropertyList(nestedBinary(12, 2))) << "sharing within bounds";

    for (std::size_t i = 0; i < 4; ++i) {
        test::VirtualPlatform vp;
        std::string text = platform::toString(hostile[i].second);
        for (const char* name : {"Info.plist", "Zonewise.plist", "Lurewave.plist"}) {
            test::writeFile(vp.bundle.file(name), text);
        }
        std::string err;
        EXPECT_FALSE(platform::readPropertyListFile(vp.bundle.file("Lurewave.plist"), &err));
        EXPECT_EQ(err, vp.bundle.file("Lurewave.plist") + ": " + hostile[i].first);
        EXPECT_TRUE(QZWConfiguration(vp.platform->mainBundle, std::nullopt).config().is_null());
        try {
            LWManager::managerWithDelegate(vp.platform, {});
            ADD_FAILURE() << "created without a readable location-usage declaration";
        } catch (const QZWException& e) {
            EXPECT_EQ(e.name(), "Missing info.plist key");
        }
        vp.writeBundlePlist("Info.plist", {{"NSLocationWhenInUseUsageDescription", "x"}});
        auto m = LWManager::managerWithDelegate(vp.platform, {});
        EXPECT_EQ(m->config()->dict(), Json::object());
    }
}
