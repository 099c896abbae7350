// Region semantics of a phone's location service, computed from raw advertisements.
//
// The monitor follows the beacon regions the library registers with the LocationService
// (monitored and ranged), takes the advertisements a scanner hears, and delivers through the
// service, on the host thread, what a phone would:
//  - enter when a monitored region's first matching advertisement arrives, exit once
//    `exitTimeout` seconds pass without one; each once per transition;
//  - state answers to requestStateForRegion: inside, outside, or unknown while the scanner has
//    not yet run a full window (exitTimeout seconds) and the region has not been heard;
//  - a ranging report every second for each ranged region (empty when nothing is heard), with
//    the beacons heard in the last `rangingMemory` seconds, RSSI smoothed over the readings of
//    the last `smoothingWindow` seconds (trimmed mean: with 5 or more readings the highest and
//    lowest 10 % are dropped), accuracy from the shared RadioModel, sorted nearest first and
//    unknown accuracy last;
//  - monitoring and ranging failures for every registered region when the scanner fails.
// No I/O: the scanner (BlueZ, a test) feeds it, and it runs on the scheduler's clock.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/location_manager.h"
#include "platform/scheduler.h"
#include "sensing/advertisement.h"

namespace quenby::sensing {

class BeaconRegionMonitor : public std::enable_shared_from_this<BeaconRegionMonitor> {
  public:
    struct Options {
        double exitTimeout = 10.0;      // seconds without an advertisement before exit
        double rangingMemory = 5.0;     // seconds a beacon stays in ranging reports
        double smoothingWindow = 5.0;   // seconds of readings averaged into one RSSI
        double rangingInterval = 1.0;   // seconds between ranging reports
    };

    // Starts following the service's regions at once. Host thread.
    static std::shared_ptr<BeaconRegionMonitor> create(
        std::shared_ptr<platform::Scheduler> scheduler,
        std::shared_ptr<platform::LocationService> location, Options options);
    static std::shared_ptr<BeaconRegionMonitor> create(
        std::shared_ptr<platform::Scheduler> scheduler,
        std::shared_ptr<platform::LocationService> location) {
        return create(std::move(scheduler), std::move(location), Options{});
    }
    ~BeaconRegionMonitor();
    BeaconRegionMonitor(const BeaconRegionMonitor&) = delete;
    BeaconRegionMonitor& operator=(const BeaconRegionMonitor&) = delete;

    // One advertisement heard. Host thread.
    void advertisement(const Advertisement& a);

    // True while at least one beacon region is monitored or ranged: the scanner should run.
    bool wantsScanning() const;
    // Called on the host thread whenever wantsScanning() changes.
    void setScanningObserver(std::function<void(bool wanted)> observer);

    // The scanner began hearing (now) or stopped. Stopping with an error delivers a monitoring
    // failure for every monitored beacon region and a ranging failure for every ranged one,
    // once per outage; until the scanner runs again, no transitions and no ranging reports.
    // Host thread.
    void scannerStarted();
    void scannerStopped(const std::optional<platform::Error>& error);

    // Stops following the service and cancels every timer. Host thread.
    void shutdown();

  private:
    struct Impl;
    BeaconRegionMonitor(std::shared_ptr<platform::Scheduler> scheduler,
                        std::shared_ptr<platform::LocationService> location, Options options);
    void attach();
    std::unique_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
