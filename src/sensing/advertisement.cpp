#include "sensing/advertisement.h"

namespace quenby::sensing {

namespace {
// Apple's type byte for a proximity beacon and the length of what follows it.
constexpr std::uint8_t kIBeaconType = 0x02;
constexpr std::uint8_t kIBeaconLength = 0x15;
constexpr std::size_t kFrameSize = 2 + kIBeaconLength;
}  // namespace

std::optional<IBeaconFrame> parseIBeaconFrame(const std::uint8_t* data, std::size_t size) {
    // A longer value is another Apple frame that merely starts alike; never read past `size`.
    if (data == nullptr || size != kFrameSize) return std::nullopt;
    if (data[0] != kIBeaconType || data[1] != kIBeaconLength) return std::nullopt;
    IBeaconFrame f;
    platform::UUID::Bytes16 bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = data[2 + i];
    f.uuid = platform::UUID(bytes);
    f.major = static_cast<std::uint16_t>((data[18] << 8) | data[19]);
    f.minor = static_cast<std::uint16_t>((data[20] << 8) | data[21]);
    f.measuredPower = static_cast<std::int8_t>(data[22]);
    return f;
}

}  // namespace quenby::sensing
