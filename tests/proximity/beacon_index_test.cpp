// The kit's index answers exactly what the walk over every entry answers.
#include <gtest/gtest.h>

#include <random>

#include "analytics/QZWAPIBeaconFinder.h"
#include "analytics/QZWBeaconIndex.h"

using quenby::platform::Json;
using quenby::platform::Number;
using quenby::platform::UUID;

TEST(QZWBeaconIndex, AgreesWithTheWalkOnRandomKits) {
    const std::vector<std::string> uuids = {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                                            "e621e1f8-c36c-495a-93fc-0c247a3e6e5f",
                                            "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", "not-a-uuid"};
    for (unsigned seed = 1; seed <= 200; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
        // Small value ranges so levels collide and later entries must win; every spelling of a
        // number the format allows: null, missing, integer, float, numeric text.
        auto number = [&](Json& entry, const char* key) {
            int kind = pick(6);
            if (kind == 0) entry[key] = nullptr;
            if (kind == 2) entry[key] = pick(3) + 0.5;
            if (kind == 3) entry[key] = std::to_string(pick(3));
            if (kind > 3) entry[key] = pick(3);
        };
        Json list = Json::array();
        for (int i = pick(40); i > 0; --i) {
            Json e = {{"uuid", uuids[pick(4)]},
                      {"name", "n" + std::to_string(i)},
                      {"identifier", "i" + std::to_string(i)},
                      {"attributes", {{"k" + std::to_string(pick(3)), i}}}};
            number(e, "major");
            number(e, "minor");
            if (pick(10) == 0) e["attributes"] = nullptr;
            if (pick(15) == 0) e = "not an entry";
            list.push_back(e);
        }
        Json kit = {{"ibeacons", list}};
        QZWBeaconIndex index(kit);
        for (int q = 0; q < 30; ++q) {
            UUID u = *UUID::parse(uuids[pick(3)]);
            int major = pick(4), minor = pick(4);
            EXPECT_EQ(index.findAttrs(u, major, minor),
                      QZWAPIBeaconFinder::findAttrsForUUIDMajorMinorIn(u, Number(major),
                                                                       Number(minor), kit))
                << "seed " << seed << " query " << major << "/" << minor;
        }
    }
}
