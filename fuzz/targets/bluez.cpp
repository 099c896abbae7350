// A device's ManufacturerData as BlueZ may send it over D-Bus: the expected a{qv}, other
// signatures, other companies, and Apple values of any type. Only an Apple byte array holding an
// iBeacon frame is a beacon.
#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "sensing/bluez_frame.h"

using namespace quenby;

namespace {

// Input bytes as a value: a first byte picks the outer signature, then entries of
// (company id: 2 bytes, value type: 1 byte, length: 1 byte, bytes).
struct Reader {
    const std::uint8_t* p;
    std::size_t n;
    bool take(std::size_t k, const std::uint8_t*& out) {
        if (n < k) return false;
        out = p;
        p += k;
        n -= k;
        return true;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    Reader in{data + 1, size - 1};
    std::map<std::uint16_t, sdbus::Variant> entries;
    std::optional<std::vector<std::uint8_t>> apple;  // the Apple byte array, when one is given
    bool appleIsBytes = false;
    const std::uint8_t* h;
    while (in.take(4, h)) {
        std::uint16_t company = static_cast<std::uint16_t>(h[0] << 8 | h[1]);
        const std::uint8_t* body;
        std::size_t length = std::min<std::size_t>(h[3], in.n);
        if (!in.take(length, body)) break;
        std::vector<std::uint8_t> bytes(body, body + length);
        switch (h[2] % 4) {
            case 0:
                entries[company] = sdbus::Variant(bytes);
                break;
            case 1: {
                // D-Bus carries only valid UTF-8 without NUL as a string.
                std::string hex;
                for (auto b : bytes)
                    hex += "0123456789abcdef"[b >> 4], hex += "0123456789abcdef"[b & 15];
                entries[company] = sdbus::Variant(hex);
                break;
            }
            case 2:
                entries[company] = sdbus::Variant(static_cast<std::uint32_t>(bytes.size()));
                break;
            default:
                entries[company] =
                    sdbus::Variant(std::vector<std::int16_t>(bytes.begin(), bytes.end()));
                break;
        }
        if (company == sensing::kAppleCompanyId) {
            appleIsBytes = h[2] % 4 == 0;
            apple = bytes;
        }
    }
    sdbus::Variant value;
    switch (data[0] % 3) {
        case 0:
            value = sdbus::Variant(entries);
            break;
        case 1: {
            std::map<std::string, sdbus::Variant> named;
            for (auto& [k, v] : entries) named[std::to_string(k)] = v;
            value = sdbus::Variant(named);
            break;
        }
        default:
            value = sdbus::Variant(std::vector<std::uint8_t>(data, data + size));
            break;
    }
    auto frame = sensing::frameFromManufacturerData(value);
    bool expected = data[0] % 3 == 0 && apple && appleIsBytes &&
                    sensing::parseIBeaconFrame(apple->data(), apple->size()).has_value();
    if (frame.has_value() != expected) std::abort();
    return 0;
}
