// One ranging report of 30 beacons against a kit of 10,000 beacon entries: through the manager,
// from the location callback to the last database write; and the kit lookups of that report
// alone, through the kit's index and through the walk over every entry.
#include <benchmark/benchmark.h>

#include "analytics/QZWAPIBeaconFinder.h"
#include "platform/plist.h"
#include "proximity/QZWAPIDeserializer.h"
#include "proximity/QZWManager.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Json;

std::string benchServerUrl(const char* path);  // storage_bench.cpp

namespace {

const char* kUUIDs[] = {
    "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
    "B9407F30-F5F8-466E-AFF9-25556B57FE6D", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E"};

// 10,000 entries over four UUIDs, with UUID-level and major-level wildcards among them; the
// report's beacons (UUID 0, major 7, minors 0..29) are exact entries near the end.
Json bigKit() {
    Json list = Json::array();
    for (const char* u : kUUIDs)
        list.push_back({{"uuid", u}, {"major", nullptr}, {"minor", nullptr}, {"name", "all"}});
    for (int i = 0; list.size() < 9970; ++i) {
        Json e = {{"uuid", kUUIDs[i % 4]},
                  {"major", i % 50},
                  {"minor", i},
                  {"name", "b" + std::to_string(i)},
                  {"identifier", "id" + std::to_string(i)},
                  {"attributes", {{"lw_place_ids", "[1]"}}}};
        if (i % 97 == 0) e["minor"] = nullptr;
        list.push_back(e);
    }
    for (int m = 0; m < 30; ++m) {
        list.push_back({{"uuid", kUUIDs[0]},
                        {"major", 7},
                        {"minor", m},
                        {"name", "shelf " + std::to_string(m)},
                        {"identifier", "shelf" + std::to_string(m)},
                        {"attributes", {{"lw_place_ids", "[2]"}}}});
    }
    return {{"id", 1},
            {"name", "Big store"},
            {"status_url", benchServerUrl("/status")},
            {"status_token", "st"},
            {"ibeacons", list}};
}

std::vector<platform::Beacon> report() {
    std::vector<platform::Beacon> out;
    for (int m = 0; m < 30; ++m)
        out.push_back({*platform::UUID::parse(kUUIDs[0]), 7, m, 2, 1.5, -60});
    return out;
}

std::shared_ptr<const platform::BeaconRegion> generic() {
    return std::make_shared<const platform::BeaconRegion>(
        *platform::UUID::parse(kUUIDs[0]), std::nullopt, std::nullopt, "zw-ibeacon-region-0");
}

void BM_ManagerRangingReport(benchmark::State& state) {
    test::VirtualPlatform vp;
    vp.writeBundlePlist("Info.plist", {{"NSLocationAlwaysUsageDescription", "bench"}});
    auto& config = QZWConfiguration::sharedConfiguration(*vp.platform);
    config.configureWithDictionary({{"ZWKitURL", benchServerUrl("/kit")}, {"ZWAPIToken", "t"}});
    auto manager = QZWManager::manager(vp.platform);
    manager->start();
    vp.scheduler().settle();
    Json kit = bigKit();
    manager->buildKitFrom(&kit);  // the kit build: index, registration, status manager
    vp.scheduler().settle();
    auto region = generic();
    vp.platform->location->deliverEnter(region);  // opens the analytics session
    auto beacons = report();
    for (auto _ : state) vp.platform->location->deliverRanging(region, beacons);
    vp.scheduler().settle();
}

void BM_KitLookups(benchmark::State& state) {
    Json doc = bigKit();
    auto kit = QZWAPIDeserializer().buildKit(&doc);
    auto region = generic();
    auto beacons = report();
    const bool walk = state.range(0) != 0;
    for (auto _ : state) {
        if (walk) {
            benchmark::DoNotOptimize(
                QZWAPIBeaconFinder::findIBeaconRegionForCLBeaconRegionIn(region, kit->json()));
            for (const auto& b : beacons)
                benchmark::DoNotOptimize(
                    QZWAPIBeaconFinder::findIBeaconForCLBeaconIn(b, kit->json()));
        } else {
            benchmark::DoNotOptimize(kit->getIBeaconRegionForCLBeaconRegion(region));
            for (const auto& b : beacons) benchmark::DoNotOptimize(kit->getIBeaconForCLBeacon(b));
        }
    }
}

void BM_KitBuild(benchmark::State& state) {
    Json doc = bigKit();
    for (auto _ : state) benchmark::DoNotOptimize(QZWAPIDeserializer().buildKit(&doc));
}

}  // namespace

BENCHMARK(BM_ManagerRangingReport)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KitLookups)->Arg(0)->Arg(1)->ArgName("walk")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitBuild)->Unit(benchmark::kMillisecond);
