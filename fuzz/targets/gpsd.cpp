// A report line from gpsd as libgps decodes it, the reader's choice of fix, and the fix handed to
// the geofence monitor watching a store's car park.
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "sensing/geofence_monitor.h"
#include "sensing/gpsd_report.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform();
    static auto* monitor = [] {
        auto& p = *fp->platform;
        static auto manager = p.location->createLocationManager();
        manager->startMonitoringForRegion(
            std::make_shared<platform::CircularRegion>(40.0, -75.0, 30.0, "car-park"));
        return new std::shared_ptr<sensing::GeofenceMonitor>(
            sensing::GeofenceMonitor::create(p.scheduler, p.location));
    }();
    // One line as the reader cuts it from the socket.
    std::string line(reinterpret_cast<const char*>(data), size);
    if (line.find('\n') != std::string::npos) return 0;
    auto report = std::make_unique<gps_data_t>();
    std::memset(report.get(), 0, sizeof(gps_data_t));
    if (!sensing::decodeReport(std::move(line), *report)) return 0;
    auto fix = sensing::fixFromReport(*report, fp->platform->scheduler->now());
    if (!fix) return 0;
    if (!(std::fabs(fix->latitude) <= 90) || !(std::fabs(fix->longitude) <= 180)) std::abort();
    (*monitor)->fix(*fix);
    fp->platform->scheduler->settle();
    return 0;
}
