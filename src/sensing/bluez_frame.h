// The part of BlueZ's device updates that is plain decoding and bookkeeping, apart from the bus
// thread that receives them, so that it can be driven directly.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "sensing/advertisement.h"

namespace quenby::sensing {

// The iBeacon frame in a ManufacturerData value (a{qv}, company id to a byte array); nothing for
// anything else, whatever its D-Bus type.
std::optional<IBeaconFrame> frameFromManufacturerData(const sdbus::Variant& value);

// What bluetoothd has said of its devices, by object path: each device's last iBeacon frame and
// signal strength. BlueZ sends only what changed, so an advertisement is the device's latest
// frame heard with its latest strength. Kept small: thousands of unrelated devices may be around.
class BluezDevices {
  public:
    using Properties = std::map<std::string, sdbus::Variant>;

    struct Update {
        enum Kind {
            Unrelated,  // touches neither the frame nor the strength
            Recorded,   // remembered as the device's last known values, not heard now
            Ignored,    // malformed, or the device has no beacon frame or strength to go with it
            Heard,      // an advertisement: `frame` heard at `rssi`
        } kind = Unrelated;
        IBeaconFrame frame;
        int rssi = 0;
    };

    // Applies an update of a device's org.bluez.Device1 properties. Only an `announce`d update
    // (a signal, not a snapshot of what was known before) can be an advertisement.
    Update update(const std::string& path, const Properties& changed,
                  const std::vector<std::string>& invalidated, bool announce);
    void remove(const std::string& path) { devices_.erase(path); }
    // The devices under an adapter that went: bluetoothd need not announce them going with it.
    void removeUnder(const std::string& adapterPath);
    void clear() { devices_.clear(); }
    std::size_t size() const { return devices_.size(); }

  private:
    struct Device {
        std::optional<IBeaconFrame> frame;
        std::optional<std::int16_t> rssi;
    };
    std::unordered_map<std::string, Device> devices_;
};

}  // namespace quenby::sensing
