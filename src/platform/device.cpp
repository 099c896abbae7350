#include "platform/device.h"

#include <random>

#include "platform/crypto.h"
#include "platform/files.h"

namespace quenby::platform {

namespace {

std::optional<std::string> readMachineId() {
    LocalFileSystem fs;
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        if (auto b = fs.readFile(path)) {
            std::string s = toString(*b);
            while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
            if (!s.empty()) return s;
        }
    }
    return std::nullopt;
}

UUID fromDigestBytes(const std::uint8_t* d) {
    UUID::Bytes16 b{};
    std::copy(d, d + 16, b.begin());
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x50);  // version 5
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return UUID(b);
}

}  // namespace

UUID LinuxDeviceInfo::derive(const std::string& machineId, const std::string& applicationId) {
    auto d = sha1("com.quenby.identifierForVendor\n" + machineId + "\n" + applicationId);
    return fromDigestBytes(d.data());
}

LinuxDeviceInfo::LinuxDeviceInfo(std::string applicationId, std::string fallbackFile) {
    if (auto mid = readMachineId()) {
        id_ = derive(*mid, applicationId);
        return;
    }
    LocalFileSystem fs;
    if (auto b = fs.readFile(fallbackFile)) {
        if (auto u = UUID::parse(toString(*b))) {
            id_ = *u;
            return;
        }
    }
    std::random_device rd;
    std::uint8_t raw[16];
    for (auto& x : raw) x = static_cast<std::uint8_t>(rd());
    UUID u = fromDigestBytes(raw);
    fs.writeFile(fallbackFile, toBytes(u.uuidString()), true);
    id_ = u;
}

}  // namespace quenby::platform
