// What an application hears from the location service, one line per callback, so that a test
// compares whole sequences: "location", "enter ID", "exit ID", "state ID N",
// "monitoring failed ID DOMAIN CODE", "ranging failed ID DOMAIN CODE" and
// "range ID [ MAJOR.MINOR RSSI ACCURACY PROXIMITY … ]".
#pragma once

#include <fmt/format.h>

#include <string>
#include <vector>

#include "platform/location_manager.h"

namespace quenby::test {

class LocationEventLog : public platform::LocationManagerDelegate {
  public:
    std::vector<std::string> events;

    // Everything but location updates, which many cases do not care about.
    std::vector<std::string> transitions() const {
        std::vector<std::string> out;
        for (const auto& e : events) {
            if (e != "location") out.push_back(e);
        }
        return out;
    }

    void locationManagerDidUpdateLocations(platform::LocationManager&,
                                           const std::vector<platform::Location>&) override {
        events.push_back("location");
    }
    void locationManagerDidEnterRegion(platform::LocationManager&,
                                       const std::shared_ptr<const platform::Region>& r) override {
        events.push_back("enter " + r->identifier());
    }
    void locationManagerDidExitRegion(platform::LocationManager&,
                                      const std::shared_ptr<const platform::Region>& r) override {
        events.push_back("exit " + r->identifier());
    }
    void locationManagerDidDetermineStateForRegion(
        platform::LocationManager&, std::int64_t state,
        const std::shared_ptr<const platform::Region>& r) override {
        events.push_back(fmt::format("state {} {}", r->identifier(), state));
    }
    void locationManagerMonitoringDidFailForRegionWithError(
        platform::LocationManager&, const std::shared_ptr<const platform::Region>& r,
        const platform::Error& e) override {
        events.push_back(
            fmt::format("monitoring failed {} {} {}", r->identifier(), e.domain, e.code));
    }
    void locationManagerRangingBeaconsDidFailForRegionWithError(
        platform::LocationManager&, const std::shared_ptr<const platform::BeaconRegion>& r,
        const platform::Error& e) override {
        events.push_back(fmt::format("ranging failed {} {} {}", r->identifier(), e.domain, e.code));
    }
    void locationManagerDidRangeBeaconsInRegion(
        platform::LocationManager&, const std::vector<platform::Beacon>& bs,
        const std::shared_ptr<const platform::BeaconRegion>& r) override {
        std::string line = "range " + r->identifier() + " [";
        for (const auto& b : bs) {
            line +=
                fmt::format(" {}.{} {} {} {}", b.major, b.minor, b.rssi, b.accuracy, b.proximity);
        }
        events.push_back(line + " ]");
    }
};

}  // namespace quenby::test
