#include "analytics/QZWAPIBeaconFinder.h"

#include <gtest/gtest.h>

using quenby::platform::Beacon;
using quenby::platform::BeaconRegion;
using quenby::platform::Json;
using quenby::platform::Number;
using quenby::platform::UUID;

namespace {

const char* kU = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

Json entry(Json uuid, Json major, Json minor, Json attrs, const std::string& name) {
    return {{"uuid", uuid},
            {"major", major},
            {"minor", minor},
            {"name", name},
            {"identifier", "id-" + name},
            {"attributes", attrs}};
}

Json find(const Json& kit, int major, int minor, const char* uuid = kU) {
    return QZWAPIBeaconFinder::findAttrsForUUIDMajorMinorIn(*UUID::parse(uuid), Number(major),
                                                            Number(minor), kit);
}

}  // namespace

TEST(QZWAPIBeaconFinder, MergesLevelsFromLeastToMostSpecific) {
    Json kit = {
        {"ibeacons",
         {entry(kU, nullptr, nullptr, {{"a", 1}, {"b", 1}}, "uuid"),
          entry(kU, 5, nullptr, {{"b", 2}}, "major"), entry(kU, 5, 7, {{"c", 3}}, "exact"),
          entry("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", nullptr, nullptr, {{"z", 0}}, "other")}}};
    EXPECT_EQ(find(kit, 5, 7), Json({{"attributes", {{"a", 1}, {"b", 2}, {"c", 3}}},
                                     {"name", "exact"},
                                     {"identifier", "id-exact"}}));
    EXPECT_EQ(find(kit, 5, 8), Json({{"attributes", {{"a", 1}, {"b", 2}}},
                                     {"name", "major"},
                                     {"identifier", "id-major"}}));
    EXPECT_EQ(
        find(kit, 6, 7),
        Json({{"attributes", {{"a", 1}, {"b", 1}}}, {"name", "uuid"}, {"identifier", "id-uuid"}}));
    EXPECT_EQ(find(kit, 1, 1, "00000000-0000-0000-0000-000000000000"),
              Json({{"name", ""}, {"identifier", ""}, {"attributes", Json::object()}}));
    // A null member is a wild card; an entry without a UUID matches nothing.
    EXPECT_FALSE(QZWAPIBeaconFinder::hasMinor({{"minor", nullptr}}));
    EXPECT_TRUE(QZWAPIBeaconFinder::hasMinor({{"minor", 7}}));
    EXPECT_FALSE(QZWAPIBeaconFinder::uuidMatchesWithUUIDMajorMinor(
        {{"major", nullptr}, {"minor", nullptr}}, *UUID::parse(kU), 5, 7));
}

TEST(QZWAPIBeaconFinder, LevelRulesLastEntryWinsAndCaseInsensitiveUUIDs) {
    Json kit = {{"ibeacons",
                 {entry(kU, nullptr, 9, {{"w", "minor-without-major"}}, "wild"),
                  entry(kU, 5, 7, {{"v", 1}}, "first"),
                  entry("e621e1f8-c36c-495a-93fc-0c247a3e6e5f", 5, 7, {{"v", 2}}, "second")}}};
    Json r = find(kit, 5, 7);
    EXPECT_EQ(r["name"], "second") << "a later entry of the same level replaces an earlier one";
    EXPECT_EQ(r["attributes"], Json({{"w", "minor-without-major"}, {"v", 2}}))
        << "a null major with a set minor acts at UUID level";

    // A region without major is looked up with null major and minor, which compare as 0.
    Json zeros = {{"ibeacons",
                   {entry(kU, nullptr, nullptr, {{"l", "uuid"}}, "u"),
                    entry(kU, 0, nullptr, {{"l", "major0"}}, "m0"),
                    entry(kU, 0, 0, {{"l", "exact00"}}, "e00"), entry(kU, 3, nullptr, {}, "m3")}}};
    auto region = std::make_shared<const BeaconRegion>(*UUID::parse(kU), std::nullopt, std::nullopt,
                                                       "generic");
    auto found = QZWAPIBeaconFinder::findIBeaconRegionForCLBeaconRegionIn(region, zeros);
    EXPECT_EQ(found->attributes(), Json({{"l", "exact00"}}));
    EXPECT_EQ(found->identifier(), "id-e00");
    EXPECT_EQ(found->region(), region);
    EXPECT_FALSE(found->hasMajor()) << "identity comes from the platform region";
    EXPECT_EQ(found->uuid()->uuidString(), kU);

    // Entry numbers read as 32-bit integers; a missing major counts as 0.
    Json odd = {{"ibeacons",
                 {{{"uuid", kU}, {"minor", 4}, {"name", "missing-major"}},
                  entry(kU, 5.9, "7", {}, "lenient")}}};
    EXPECT_EQ(find(odd, 0, 4)["name"], "missing-major");
    EXPECT_EQ(find(odd, 5, 7)["name"], "lenient");

    auto b = QZWAPIBeaconFinder::findIBeaconForCLBeaconIn(
        Beacon{*UUID::parse(kU), 5, 7, 1, 0.4, -50},
        {{"ibeacons", {entry(kU, 5, 7, {{"x", 1}}, "e")}}});
    EXPECT_EQ(b->name(), "e");
    EXPECT_EQ(b->attributes(), Json({{"x", 1}}));
    EXPECT_EQ(b->accuracy(), 0.4) << "the live reading is kept";
}
