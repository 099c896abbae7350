// The iBeacon frame as BlueZ hands over the manufacturer data under Apple's company id: a beacon
// exactly when the bytes are one, with its fields read big-endian.
#include "fuzz_support.h"
#include "sensing/advertisement.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size copy, so that any read past the frame is caught.
    std::vector<std::uint8_t> frame(data, data + size);
    auto f = sensing::parseIBeaconFrame(frame.data(), frame.size());
    bool isBeacon = size == 23 && data[0] == 0x02 && data[1] == 0x15;
    if (f.has_value() != isBeacon) std::abort();
    if (!f) return 0;
    if (f->major != ((data[18] << 8) | data[19]) || f->minor != ((data[20] << 8) | data[21]) ||
        f->measuredPower != static_cast<std::int8_t>(data[22]))
        std::abort();
    auto uuid = platform::UUID::parse(f->uuid.uuidString());
    if (!uuid || *uuid != f->uuid) std::abort();
    return 0;
}
