// What a Bluetooth scanner hands on: one iBeacon advertisement, decoded to plain values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/types.h"
#include "platform/uuid.h"

namespace quenby::sensing {

// Apple's company identifier, the key of an iBeacon frame in a device's manufacturer data.
inline constexpr std::uint16_t kAppleCompanyId = 0x004C;

struct IBeaconFrame {
    platform::UUID uuid;
    std::uint16_t major = 0, minor = 0;
    std::int8_t measuredPower = 0;  // dBm at 1 m
};

// Decodes the manufacturer-data value stored under kAppleCompanyId: 0x02 0x15, the 16-byte
// proximity UUID, big-endian major, big-endian minor, signed measured power. Anything else
// (another Apple frame type, a short or long frame) is no beacon.
std::optional<IBeaconFrame> parseIBeaconFrame(const std::uint8_t* data, std::size_t size);

struct Advertisement {
    platform::UUID uuid;
    std::uint16_t major = 0, minor = 0;
    std::int8_t measuredPower = 0;
    int rssi = 0;        // dBm as the adapter heard it
    platform::Date at;   // when it was heard, on the scheduler's clock
};

}  // namespace quenby::sensing
