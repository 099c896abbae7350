// What the BlueZ source's bus thread makes of bluetoothd's device signals: snapshots,
// InterfacesAdded, PropertiesChanged with invalidations, devices and whole adapters removed, with
// ManufacturerData and RSSI of any D-Bus type. Each update is checked against a plain model of
// what BlueZ's partial updates mean: a device's latest iBeacon frame heard at its latest strength,
// heard only from a signal that sends one of the two, and only an Apple byte array holding an
// iBeacon frame is a beacon.
#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "sensing/bluez_frame.h"

using namespace quenby;
using sensing::BluezDevices;
using sensing::IBeaconFrame;

namespace {

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
    std::uint8_t byte() {
        const std::uint8_t* b;
        return take(1, b) ? *b : 0;
    }
};

// A ManufacturerData value: a byte picks the outer signature and the number of entries, then
// entries of (company id: 2 bytes, value type: 1 byte, length: 1 byte, bytes). Returns the value
// and the frame it must decode to.
std::pair<sdbus::Variant, std::optional<IBeaconFrame>> manufacturerData(Reader& in) {
    std::uint8_t shape = in.byte();
    std::map<std::uint16_t, sdbus::Variant> entries;
    std::optional<std::vector<std::uint8_t>> apple;  // the Apple byte array, when one is given
    const std::uint8_t* h;
    for (int i = 0; i < shape / 3 % 4 && in.take(4, h); ++i) {
        auto company = static_cast<std::uint16_t>(h[0] << 8 | h[1]);
        const std::uint8_t* body;
        std::size_t length = std::min<std::size_t>(h[3], in.n);
        in.take(length, body);
        std::vector<std::uint8_t> bytes(body, body + length);
        bool isBytes = false;
        switch (h[2] % 4) {
            case 0:
                entries[company] = sdbus::Variant(bytes);
                isBytes = true;
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
        if (company == sensing::kAppleCompanyId)
            apple = isBytes ? std::optional(bytes) : std::nullopt;
    }
    switch (shape % 3) {
        case 0: {
            std::optional<IBeaconFrame> frame;
            if (apple) frame = sensing::parseIBeaconFrame(apple->data(), apple->size());
            return {sdbus::Variant(entries), frame};
        }
        case 1: {
            std::map<std::string, sdbus::Variant> named;
            for (auto& [k, v] : entries) named[std::to_string(k)] = v;
            return {sdbus::Variant(named), std::nullopt};
        }
        default:
            return {sdbus::Variant(apple.value_or(std::vector<std::uint8_t>{})), std::nullopt};
    }
}

// An RSSI value, as the int16 BlueZ sends or as another type.
std::pair<sdbus::Variant, std::optional<std::int16_t>> rssi(Reader& in) {
    std::uint8_t type = in.byte();
    std::uint8_t high = in.byte(), low = in.byte();
    auto v = static_cast<std::int16_t>(high << 8 | low);
    switch (type % 4) {
        case 0:
            return {sdbus::Variant(v), v};
        case 1:
            return {sdbus::Variant(static_cast<std::int32_t>(v)), std::nullopt};
        case 2:
            return {sdbus::Variant(static_cast<std::uint16_t>(v)), std::nullopt};
        default:
            return {sdbus::Variant(std::to_string(v)), std::nullopt};
    }
}

bool same(const IBeaconFrame& a, const IBeaconFrame& b) {
    return a.uuid == b.uuid && a.major == b.major && a.minor == b.minor &&
           a.measuredPower == b.measuredPower;
}

// Adapters whose names share a prefix: removing hci1 must leave hci10's devices.
const char* const kAdapters[] = {"/org/bluez/hci0", "/org/bluez/hci1", "/org/bluez/hci10"};

struct Known {
    std::optional<IBeaconFrame> frame;
    std::optional<std::int16_t> rssi;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader in{data, size};
    BluezDevices devices;
    std::map<std::string, Known> model;
    const std::uint8_t* op;
    while (in.take(2, op)) {
        std::string adapter = kAdapters[op[1] % 3];
        std::string path = adapter + "/dev_" + std::to_string(op[1] / 3 % 3);
        switch (op[0] % 5) {
            case 3:  // InterfacesRemoved with org.bluez.Device1
                devices.remove(path);
                model.erase(path);
                break;
            case 4:  // InterfacesRemoved with org.bluez.Adapter1
                devices.removeUnder(adapter);
                for (auto it = model.begin(); it != model.end();)
                    it = it->first.rfind(adapter + "/", 0) == 0 ? model.erase(it) : std::next(it);
                break;
            default: {
                // 0: a GetManagedObjects snapshot, 1: InterfacesAdded, 2: PropertiesChanged.
                bool snapshot = op[0] % 5 == 0;
                std::uint8_t flags = in.byte();
                BluezDevices::Properties changed;
                std::vector<std::string> invalidated;
                std::optional<std::optional<IBeaconFrame>> frameSent;
                std::optional<std::optional<std::int16_t>> rssiSent;
                if (flags & 1) {
                    auto [value, frame] = manufacturerData(in);
                    changed["ManufacturerData"] = value;
                    frameSent = frame;
                }
                if (flags & 2) {
                    auto [value, strength] = rssi(in);
                    changed["RSSI"] = value;
                    rssiSent = strength;
                }
                if (flags & 4) changed["Name"] = sdbus::Variant(std::string("Beacon"));
                bool signal = op[0] % 5 == 2;
                bool frameGone = signal && (flags & 8), rssiGone = signal && (flags & 16);
                if (frameGone) invalidated.push_back("ManufacturerData");
                if (rssiGone) invalidated.push_back("RSSI");
                if (signal && (flags & 32)) invalidated.push_back("Alias");

                if (snapshot) {
                    devices.clear();
                    model.clear();
                }
                auto u = devices.update(path, changed, invalidated, !snapshot);

                using Kind = BluezDevices::Update::Kind;
                Kind expected = Kind::Unrelated;
                if (frameSent || rssiSent || frameGone || rssiGone) {
                    Known& k = model[path];
                    if (frameSent)
                        k.frame = *frameSent;
                    else if (frameGone)
                        k.frame.reset();
                    bool malformed = rssiSent && !*rssiSent;
                    if (rssiSent && *rssiSent)
                        k.rssi = *rssiSent;
                    else if (!rssiSent && rssiGone)
                        k.rssi.reset();
                    if (snapshot) {
                        expected = Kind::Recorded;
                    } else if (malformed || !k.frame || !k.rssi) {
                        expected = Kind::Ignored;
                    } else {
                        expected = Kind::Heard;
                        if (!same(u.frame, *k.frame) || u.rssi != *k.rssi) std::abort();
                    }
                }
                if (u.kind != expected) std::abort();
                break;
            }
        }
        if (devices.size() != model.size()) std::abort();
    }
    return 0;
}
