// The kit model and the deserializer, including documents from a broken or hostile server.
#include <gtest/gtest.h>

#include "platform/json.h"
#include "proximity/QZWAPIDeserializer.h"
#include "proximity/QZWKit.h"
#include "proximity/QZWLogger.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Json;
using platform::Number;
using platform::UUID;
using Lines = std::vector<std::string>;

namespace {

const char* kU = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const char* kV = "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5";

std::shared_ptr<const QZWKit> build(const Json& kit) {
    return QZWAPIDeserializer().buildKit(&kit);
}

Json beaconEntry(const std::string& uuid, Json major, Json minor, const std::string& id) {
    return {{"uuid", uuid},     {"major", major},    {"minor", minor},
            {"identifier", id}, {"name", "n-" + id}, {"attributes", {{"k", id}}}};
}

// "id UMm major/minor": which of uuid, major and minor the entry has, then the platform region
// it registers ("*" for an absent number, "-" for no region at all).
Lines regionsOf(const QZWKit& kit) {
    Lines out;
    auto n = [](const std::optional<std::uint16_t>& v) { return v ? std::to_string(*v) : "*"; };
    for (const auto& r : kit.beaconRegions()) {
        const auto& p = r->region();
        out.push_back(r->identifier().value_or("?") + " " + (r->uuid() ? "U" : "") +
                      (r->hasMajor() ? "M" : "") + (r->hasMinor() ? "m" : "") + " " +
                      (p ? n(p->major()) + "/" + n(p->minor()) : "-"));
    }
    return out;
}

// "latitude/longitude rRADIUS" of every circle.
Lines circlesOf(const QZWKit& kit) {
    Lines out;
    for (const auto& c : kit.map()->overlays()) {
        out.push_back(fmt::format("{}/{} r{}", c->latitude(), c->longitude(), c->radius()));
    }
    return out;
}

}  // namespace

TEST(QZWKit, BuildsCirclesAndBeaconRegionsFromTheDocument) {
    test::LogLevelGuard quiet(QZWLogLevelError);
    Json doc = Json::parse(R"({"id": 17, "name": "Store", "status_url": "http://s/sdk/v1/events",
      "status_token": "st", "map": {"overlays": [
        {"type": "polygon", "identifier": "poly"},
        {"type": "circle", "identifier": "fence-1", "name": "Entrance", "radius": 25.5,
         "center": [40.0, -75.0], "attributes": {"lw_place_ids": "[1]"}},
        {"type": "square", "identifier": "sq"},
        {"type": "circle", "identifier": "shared", "center": [1, 2]}]}})");
    doc["ibeacons"] = {beaconEntry(kU, 1, 2, "b-exact"), beaconEntry(kU, 1, nullptr, "b-major"),
                       beaconEntry(kU, nullptr, nullptr, "b-uuid"),
                       beaconEntry(kU, nullptr, 4, "b-minor"), beaconEntry(kV, 9, 9, "shared")};
    auto kit = build(doc);
    EXPECT_EQ(kit->id(), 17);
    EXPECT_EQ(kit->name(), "Store");
    EXPECT_EQ(kit->statusURL(), "http://s/sdk/v1/events");
    EXPECT_EQ(kit->statusToken(), "st");
    EXPECT_FALSE(kit->url());
    EXPECT_EQ(kit->json(), doc);

    ASSERT_TRUE(kit->map());
    EXPECT_EQ(circlesOf(*kit), (Lines{"40/-75 r25.5", "1/2 r0"}))
        << "polygons and unknown types yield nothing; the centre is latitude first";
    const auto& fence = kit->map()->overlays()[0];
    EXPECT_EQ(fence->identifier(), "fence-1");
    EXPECT_EQ(fence->attributes(), Json({{"lw_place_ids", "[1]"}}));
    EXPECT_EQ(kit->map()->overlays()[1]->attributes(), Json::object());
    ASSERT_TRUE(fence->region());
    EXPECT_EQ(fence->region()->identifier(), "fence-1");
    EXPECT_EQ(fence->region()->latitude(), 40.0);
    EXPECT_EQ(fence->region()->radius(), 25.5);

    EXPECT_EQ(regionsOf(*kit), (Lines{"b-exact UMm 1/2", "b-major UM 1/*", "b-uuid U */*",
                                      "b-minor Um -", "shared UMm 9/9"}))
        << "a minor without a major is never registered";
    auto exact = kit->beaconRegions()[0]->region();
    EXPECT_TRUE(exact->notifyOnEntry() && exact->notifyOnExit() &&
                exact->notifyEntryStateOnDisplay());

    // Circles shadow beacon regions of the same identifier.
    EXPECT_EQ(kit->getRegionForIdentifier("shared")->kind(), QZWRegion::Kind::Circle);
    EXPECT_EQ(kit->getRegionForIdentifier("b-major"), kit->beaconRegions()[1]);
    EXPECT_EQ(kit->getRegionForIdentifier("B-MAJOR"), nullptr) << "identifiers are case-sensitive";

    Lines seen;
    for (std::size_t last : {99, 1}) {
        kit->enumerateIBeaconsUsingBlock([&](const auto& b, std::size_t i, bool& stop) {
            seen.push_back(std::to_string(i) + ":" + b->identifier().value_or("?"));
            stop = i == last;
        });
    }
    EXPECT_EQ(seen, (Lines{"0:b-exact", "1:b-major", "2:b-uuid", "3:b-minor", "4:shared",
                           "0:b-exact", "1:b-major"}));
    EXPECT_EQ(fence->description(), "<QZWCircle identifier=fence-1>");
    EXPECT_EQ(QZWCircle(Json{{"type", "circle"}}).description(), "<QZWCircle identifier=(null)>");

    // A registered region without a minor stands for minor 0 when the kit is asked about it.
    auto zero =
        build({{"ibeacons", {beaconEntry(kU, 1, 0, "zero"), beaconEntry(kU, 1, 1, "one")}}});
    auto asked = zero->getIBeaconRegionForCLBeaconRegion(
        std::make_shared<const platform::BeaconRegion>(*UUID::parse(kU), 1, std::nullopt, "r"));
    EXPECT_EQ(asked->name(), "n-zero");
}

TEST(QZWKit, MoreThanTwentyEntriesCollapseToOneGenericRegionPerDistinctUUID) {
    test::LogLevelGuard debug(QZWLogLevelDebug);
    test::ConsoleCapture console;
    Json twenty = Json::array();
    for (int i = 0; i < 20; ++i) twenty.push_back(beaconEntry(kU, i, 1, "e" + std::to_string(i)));
    auto kit20 = build({{"ibeacons", twenty}});
    ASSERT_EQ(kit20->beaconRegions().size(), 20u);
    EXPECT_EQ(kit20->beaconRegions()[19]->identifier(), "e19");
    EXPECT_TRUE(console.lines().empty());

    Json many = twenty;
    many.push_back(beaconEntry(kV, 1, 1, "v"));
    many.push_back(beaconEntry(kU, 2, 2, "again"));
    many.push_back({{"identifier", "no-uuid"}});
    auto kit = build({{"ibeacons", many}});
    EXPECT_EQ(console.lines(), (Lines{"Zonewise[Debug] More than 20 regions found, registering "
                                      "generic UUID level regions"}));
    EXPECT_EQ(regionsOf(*kit), (Lines{"zw-ibeacon-region-0 U */*", "zw-ibeacon-region-1 U */*"}))
        << "a generic region monitors every beacon of its UUID";
    EXPECT_EQ(kit->beaconRegions()[0]->uuid()->uuidString(), kU) << "first appearance first";
    EXPECT_EQ(kit->beaconRegions()[1]->uuid()->uuidString(), kV);
    EXPECT_TRUE(kit->beaconRegions()[0]->attributes().is_null());
    EXPECT_TRUE(kit->beaconRegions()[1]->attributes().is_null());

    // 21 entries of one UUID: one region. The entries themselves stay in the document.
    Json same = Json::array();
    for (int i = 0; i < 21; ++i) same.push_back(beaconEntry(kU, i, i, "s" + std::to_string(i)));
    auto one = build({{"ibeacons", same}});
    EXPECT_EQ(one->beaconRegions().size(), 1u);
    EXPECT_EQ(one->json()["ibeacons"].size(), 21u);
}

TEST(QZWKit, RegionEqualityIsAsymmetricAndHashOrsTheUUIDHash) {
    auto lower = std::make_shared<QZWBeaconRegion>(
        beaconEntry("e621e1f8-c36c-495a-93fc-0c247a3e6e5f", nullptr, nullptr, "u"));
    auto major = std::make_shared<QZWBeaconRegion>(beaconEntry(kU, 5, nullptr, "m"));
    auto exact = std::make_shared<QZWBeaconRegion>(beaconEntry(kU, 5, 7, "e"));
    auto exact2 = std::make_shared<QZWBeaconRegion>(beaconEntry(kU, 5.0, 7, "e2"));
    auto other = std::make_shared<QZWBeaconRegion>(beaconEntry(kV, 5, 7, "o"));
    EXPECT_TRUE(lower->isEqual(exact.get())) << "UUID-only equals the more specific region";
    EXPECT_FALSE(exact->isEqual(lower.get())) << "but not the reverse";
    EXPECT_TRUE(major->isEqual(exact.get()));
    EXPECT_FALSE(exact->isEqual(major.get()));
    EXPECT_TRUE(exact->isEqual(exact2.get())) << "majors compare numerically";
    EXPECT_FALSE(exact->isEqual(other.get()));
    EXPECT_FALSE(exact->isEqual(nullptr));
    QZWBeacon beacon(beaconEntry(kU, 5, 7, "b"));
    EXPECT_FALSE(exact->isEqual(&beacon)) << "only the same class compares";

    std::size_t uHash = UUID::parse(kU)->hash(), vHash = UUID::parse(kV)->hash(), none = ~0ul;
    EXPECT_EQ(exact->hash(), uHash | (std::size_t{5} ^ ~std::size_t{7}));
    EXPECT_EQ(lower->hash(), uHash | (std::size_t{0} ^ none));
    EXPECT_EQ(QZWBeaconRegion(beaconEntry(kV, 4, nullptr, "x")).hash(), vHash | (4 ^ none));
    EXPECT_EQ(QZWBeaconRegion(beaconEntry(kV, nullptr, 4, "x")).hash(), vHash | ~std::size_t{4});
    // Without a UUID nothing masks the low bits: a missing major or minor counts as 0.
    EXPECT_EQ(QZWBeaconRegion(Json{{"major", 4}}).hash(), ~std::size_t{4});
    EXPECT_EQ(QZWBeaconRegion(Json{{"minor", 4}}).hash(), ~std::size_t{4});
    EXPECT_EQ(exact->description(),
              std::string("<QZWBeaconRegion uuid=") + kU + " major=5 minor=7>");
    EXPECT_EQ(lower->description(),
              std::string("<QZWBeaconRegion uuid=") + kU + " major=(null) minor=(null)>");

    QZWBeacon ranged(platform::Beacon{*UUID::parse(kU), 5, 7, 2, 1.2, -63}, nullptr);
    EXPECT_TRUE(ranged.isEqual(&beacon));
    EXPECT_EQ(ranged.description(), std::string("<QZWBeacon uuid=") + kU + " major=5 minor=7>");
    EXPECT_EQ(ranged.rssi(), Number(-63));
    EXPECT_EQ(ranged.accuracy(), 1.2);
    EXPECT_EQ(ranged.proximity(), 2);
    EXPECT_FALSE(ranged.name());
    EXPECT_EQ(ranged.attributes(), Json::object());
}

TEST(QZWKit, KitIdKeepsTheLowThirtyTwoBitsSignExtended) {
    EXPECT_EQ(build({{"id", 2147483647}})->id(), 2147483647);
    EXPECT_EQ(build({{"id", 2147483648LL}})->id(), -2147483648LL);
    EXPECT_EQ(build({{"id", 4294967297LL}})->id(), 1);
    EXPECT_EQ(build({{"id", 3000000000ULL}})->id(), -1294967296LL);
    EXPECT_EQ(build({{"id", 17.9}})->id(), 17);
    EXPECT_EQ(build({{"id", "42abc"}})->id(), 42);
    EXPECT_EQ(build({{"id", 1e300}})->id(), -1) << "saturated to 64 bits, then cut";
}

TEST(QZWKit, MalformedDocumentsYieldFewerFieldsAndNeverCrash) {
    test::LogLevelGuard quiet(QZWLogLevelError);
    EXPECT_EQ(QZWAPIDeserializer().buildKit(nullptr)->beaconRegions().size(), 0u);
    auto empty = build(Json());
    EXPECT_EQ(empty->id(), 0);
    EXPECT_FALSE(empty->name());
    EXPECT_FALSE(empty->map());
    EXPECT_TRUE(empty->json().is_null());
    EXPECT_EQ(empty->getRegionForIdentifier("x"), nullptr);

    std::vector<Json> hostile = {
        Json::array({1, 2}),
        {{"id", {1}}, {"name", 5}, {"status_url", Json::object()}, {"map", nullptr}},
        {{"map", Json::array()}, {"ibeacons", Json::object()}},
        {{"map", {{"overlays", "x"}}}, {"ibeacons", "x"}},
        {{"map", {{"overlays", {1, "circle", nullptr, Json::array()}}}}},
        Json::parse(R"({"map": {"overlays": [
          {"type": "circle", "center": "x", "radius": "12.5", "identifier": 3},
          {"type": "circle", "center": [1], "radius": null},
          {"type": "circle", "center": ["4", true, 3], "attributes": [1, 2]}]}})"),
        {{"ibeacons",
          {1,
           "x",
           nullptr,
           Json::array(),
           Json::object(),
           {{"uuid", 5}, {"major", "5"}, {"minor", {1}}},
           {{"uuid", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}"}, {"major", 1}},
           {{"uuid", "E621E1F8C36C495A93FC0C247A3E6E5F"}},
           {{"uuid", kU}, {"major", -1}, {"minor", 70000}, {"attributes", nullptr}},
           {{"uuid", kU}, {"major", 1e300}, {"minor", -1e300}}}}},
    };
    for (const Json& doc : hostile) {
        auto kit = build(doc);
        kit->getRegionForIdentifier("x");
        kit->enumerateIBeaconsUsingBlock([](const auto&, std::size_t, bool&) {});
        kit->getIBeaconForCLBeacon({*UUID::parse(kU), 1, 2, 1, 0.5, -60});
        for (const auto& r : kit->beaconRegions()) (void)r->region();
    }

    auto circles = build(hostile[5]);
    EXPECT_EQ(circlesOf(*circles), (Lines{"0/0 r12.5", "1/0 r0", "4/1 r0"}))
        << "numeric text reads as its number";
    EXPECT_FALSE(circles->map()->overlays()[0]->identifier());
    EXPECT_EQ(circles->map()->overlays()[0]->region()->identifier(), "");
    EXPECT_EQ(circles->map()->overlays()[2]->attributes(), Json::object());

    // Only object entries are entries; wrong types are absent; neither braces nor a UUID without
    // hyphens are the canonical form; numbers are cut to 16 bits as the platform takes them.
    auto beacons = build(hostile[6]);
    EXPECT_EQ(regionsOf(*beacons),
              (Lines{"?  -", "?  -", "? M -", "?  -", "? UMm 65535/4464", "? UMm 65535/0"}));
    EXPECT_TRUE(beacons->beaconRegions()[4]->attributes().is_null()) << "a JSON null is kept";
}

TEST(QZWAPIDeserializer, PlatformWithoutBeaconSupportRegistersNoBeaconRegions) {
    test::LogLevelGuard quiet(QZWLogLevelError);
    test::ConsoleCapture console;
    Json list = {beaconEntry(kU, 1, 1, "a")};
    EXPECT_TRUE(QZWAPIDeserializer(false).buildBeaconRegions(&list).empty());
    EXPECT_EQ(console.lines(), (Lines{"Zonewise[Alert] Beacons are not supported on iOS 6.x"}));
}
