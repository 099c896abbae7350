// iBeacon advertisements from BlueZ over D-Bus, fed to a BeaconRegionMonitor.
//
// Talks to org.bluez on the system bus (DBUS_SYSTEM_BUS_ADDRESS when set). Finds the adapter
// through ObjectManager.GetManagedObjects (the one named, else the first powered Adapter1), sets
// the discovery filter {Transport: "le", DuplicateData: true}, and runs discovery while the
// monitor wants scanning. Advertisements come from InterfacesAdded and PropertiesChanged of
// org.bluez.Device1: ManufacturerData entry 0x004C holding an iBeacon frame, and RSSI (which
// BlueZ often sends alone: the last frame of each device is kept). bluetoothd restarting, the
// adapter removed, powered off or refusing discovery reach the monitor as a scanner failure; the
// source recovers by itself when the adapter is back.
//
// The D-Bus connection and its event loop run on a thread of their own; decoded values reach
// the monitor on the host thread through the scheduler.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/scheduler.h"
#include "sensing/beacon_monitor.h"

namespace quenby::sensing {

class BluezBeaconSource {
  public:
    struct Options {
        std::optional<std::string> adapter;  // "hci0"; default: the first powered adapter
        // Seconds between attempts to find a usable adapter while there is none.
        double retryInterval = 2.0;
        // A bus to use instead of the system bus ("unix:path=..."), for hosts and tests that run
        // their own; changing the process environment is no way to pick a bus once threads run.
        std::optional<std::string> busAddress;
    };

    // Scanner failures handed to the monitor: this domain with one of the codes below, except a
    // refusal by BlueZ, which keeps BlueZ's error name as its domain ("org.bluez.Error.NotReady")
    // with the code DiscoveryRefused and BlueZ's message.
    static constexpr const char* kErrorDomain = "BlueZ";
    enum ErrorCode : long {
        NoAdapter = 1,         // the named adapter, or any powered one, is missing or powered off
        DaemonGone = 2,        // bluetoothd is not on the bus (or just left it)
        BusUnreachable = 3,    // the bus itself cannot be reached or was lost
        DiscoveryRefused = 4,  // SetDiscoveryFilter/StartDiscovery answered with an error
    };

    // Connects to the system bus and starts following the monitor's wish to scan (the source
    // takes the monitor's scanning observer). A bus that cannot be reached is reported to the
    // monitor as a scanner failure and retried. Host thread.
    static std::unique_ptr<BluezBeaconSource> create(std::shared_ptr<platform::Scheduler> scheduler,
                                                     std::shared_ptr<BeaconRegionMonitor> monitor,
                                                     Options options);
    // Stops discovery (when it started it), leaves the bus, and tells the monitor the scanner
    // stopped if it had told it that it started. Host thread.
    ~BluezBeaconSource();

    struct Stats {
        std::uint64_t advertisements = 0;   // iBeacon frames handed to the monitor
        std::uint64_t ignored = 0;          // device updates without a usable frame
        std::uint64_t discoveryStarts = 0;  // StartDiscovery calls BlueZ accepted
        std::uint64_t discoveryStops = 0;   // StopDiscovery calls made
    };
    Stats stats() const;

  private:
    struct Impl;
    explicit BluezBeaconSource(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
