// A bluetoothd to test against: python-dbusmock's bluez5 template on a PrivateBus (playing the
// system bus), driven over D-Bus through sdbus-c++. Adapters and devices come and go, devices get
// real manufacturer data (a{qv}) and RSSI readings, and the daemon can crash and come back.
//
// The template announces new devices with a placeholder ManufacturerData type; the real type is
// set through the standard org.freedesktop.DBus.Properties.Set on the device object, which makes
// the mock emit PropertiesChanged as BlueZ would. RSSI changes likewise arrive alone.
//
// Test thread only. Every call is synchronous: when it returns, the mock has answered and any
// signal it emits is on the bus. A call BlueZ's mock refuses fails the current test (ADD_FAILURE)
// and answers false or an empty path.
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/daemons.h"

namespace quenby::testing {

// Apple's manufacturer data for an iBeacon: 0x02 0x15, the proximity UUID, big-endian major and
// minor, and the signed measured power at 1 m.
std::vector<std::uint8_t> iBeaconFrame(const std::array<std::uint8_t, 16>& uuid,
                                       std::uint16_t major, std::uint16_t minor,
                                       std::int8_t measuredPower);

class BluezMock {
  public:
    static constexpr std::uint16_t kApple = 0x004C;

    // Starts the mock on `bus`; nothing (and `whyNot`) when it does not come up.
    static std::unique_ptr<BluezMock> start(const PrivateBus& bus, std::string* whyNot);

    // Kills it at once (a crash: no InterfacesRemoved) and waits until org.bluez has no owner.
    void kill();
    // A new bluetoothd, with no adapters, as after a restart. Kills the running one first.
    bool restart(std::string* whyNot = nullptr);

    // Adapters, by name ("hci0").
    // Adds a powered adapter; its object path.
    std::string addAdapter(const std::string& name, const std::string& systemName = "my-computer");
    // Removes it (its devices stay, as the template leaves them).
    bool removeAdapter(const std::string& name);
    bool setPowered(const std::string& name, bool powered);
    // The adapter's Discovering property; nothing when the adapter cannot be asked.
    std::optional<bool> discovering(const std::string& name);
    // The last filter given to SetDiscoveryFilter; nothing before the first.
    std::optional<std::map<std::string, sdbus::Variant>> discoveryFilter(const std::string& name);
    // From now on StartDiscovery answers with the D-Bus error `errorName` and `message`.
    bool refuseDiscovery(const std::string& name, const std::string& errorName,
                         const std::string& message);
    // StartDiscovery works again (sets Discovering and announces it, like the template).
    bool acceptDiscovery(const std::string& name);

    static std::string adapterPath(const std::string& name) { return "/org/bluez/" + name; }
    static std::string devicePath(const std::string& adapter, const std::string& address);
    // Adds a device ("AA:BB:CC:DD:EE:FF") under `adapter`; its object path.
    std::string addDevice(const std::string& adapter, const std::string& address,
                          const std::string& alias);
    // Adapter1.RemoveDevice: the device goes with an InterfacesRemoved.
    bool removeDevice(const std::string& adapter, const std::string& address);
    // ManufacturerData with its real type, a{qv}: company id to a variant (normally ay).
    bool setManufacturerData(const std::string& devicePath,
                             const std::map<std::uint16_t, sdbus::Variant>& data);
    // ManufacturerData holding one iBeacon frame under Apple's company id.
    bool setIBeacon(const std::string& devicePath, const std::array<std::uint8_t, 16>& uuid,
                    std::uint16_t major, std::uint16_t minor, std::int8_t measuredPower);
    bool setRssi(const std::string& devicePath, std::int16_t rssi);
    // Any Device1 property to any value, wrong types included.
    bool setDeviceProperty(const std::string& devicePath, const std::string& property,
                           const sdbus::Variant& value);

  private:
    BluezMock(const PrivateBus& bus) : bus_(bus) {}
    bool setProperty(const std::string& path, const std::string& interface,
                     const std::string& property, const sdbus::Variant& value);
    std::optional<sdbus::Variant> getProperty(const std::string& path, const std::string& interface,
                                              const std::string& property);
    bool addAdapterMethod(const std::string& name, const std::string& method,
                          const std::string& code);

    const PrivateBus& bus_;
    std::unique_ptr<DbusMock> mock_;
    std::unique_ptr<sdbus::IConnection> connection_;
};

}  // namespace quenby::testing
