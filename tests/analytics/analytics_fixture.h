// Shared set-up of the analytics tests: a platform on virtual time, the kit regions a walk uses,
// and the recorded rows read back from the file.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "analytics/QZWAnalytics.h"
#include "platform/json.h"
#include "proximity/QZWKit.h"
#include "support/test_support.h"

namespace quenby::test {

inline constexpr const char* kUUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

inline std::shared_ptr<const QZWBeaconRegion> beaconRegion(platform::Json major,
                                                           platform::Json minor) {
    return std::make_shared<const QZWBeaconRegion>(
        platform::Json{{"uuid", kUUID}, {"major", major}, {"minor", minor}, {"identifier", "r"}});
}

inline std::shared_ptr<const QZWCircle> circle(double lat, double lng, double radius,
                                               const std::string& id = "fence-1") {
    return std::make_shared<const QZWCircle>(platform::Json{
        {"type", "circle"}, {"identifier", id}, {"center", {lat, lng}}, {"radius", radius}});
}

inline std::shared_ptr<const QZWBeacon> beacon(int major, int minor) {
    return std::make_shared<const QZWBeacon>(
        platform::Beacon{*platform::UUID::parse(kUUID), major, minor, 2, 1.2, -60}, nullptr);
}

struct AnalyticsFixture {
    VirtualPlatform vp;
    std::unique_ptr<QZWAnalytics> analytics = std::make_unique<QZWAnalytics>(vp.platform);
    std::string dbPath() const { return vp.documents.file("ZonewiseAnalytics.sqlite"); }
    std::vector<platform::Json> rows(const std::string& sql) const {
        return queryRows(dbPath(), sql);
    }
    double at(double secondsFromStart) const { return kTestStart + secondsFromStart; }
};

}  // namespace quenby::test
