// A host process for the at-least-once test: records a visit and an event, then uploads. The test
// kills it while the upload's POST is in flight.
#include <cstdio>

#include "analytics/QZWAnalytics.h"
#include "analytics/analytics_fixture.h"
#include "proximity/QZWConfiguration.h"

using namespace quenby;

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    platform::Platform::Options o;
    o.documentsDirectory = argv[1];
    o.bundleDirectory = argv[1];
    o.clock = std::make_shared<platform::VirtualClock>(
        platform::Date::fromSecondsSince1970(test::kTestStart));
    o.device =
        std::make_shared<platform::FixedDeviceInfo>(platform::UUID::parse(test::kTestVendorId));
    auto p = platform::Platform::create(o);
    QZWConfiguration::sharedConfiguration(*p).configureWithDictionary(
        {{"ZWAnalyticsURL", argv[2]}});
    QZWAnalytics analytics(p);
    auto region = test::beaconRegion(1, 2);
    analytics.openSessionWithRegion(region.get());
    analytics.updateSessionWithRegionAndBeacons(region.get(), {test::beacon(1, 2)});
    analytics.closeSessionWithRegion(region.get());
    analytics.addEventWithDetails("lurewave_events", {{"event_type", "found"}});
    analytics.uploadAnalyticsToServer();
    std::puts("not killed");
    return 1;
}
