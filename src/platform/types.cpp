#include "platform/types.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "platform/url.h"
#include "platform/uuid.h"

namespace quenby::platform {

std::string Error::toString() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + description + "\"";
}

std::string formatUTC(Date date, bool milliseconds) {
    double s = date.timeIntervalSince1970();
    if (std::isnan(s)) s = 0;
    s = std::clamp(s, -1e15, 1e15);
    double whole = std::floor(s);
    auto t = static_cast<std::time_t>(whole);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[80];
    int n = std::snprintf(buf, sizeof buf, "%04lld-%02d-%02dT%02d:%02d:%02d",
                          static_cast<long long>(tm.tm_year) + 1900, tm.tm_mon + 1, tm.tm_mday,
                          tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (milliseconds) {
        int ms = std::min(999, static_cast<int>(std::floor((s - whole) * 1000)));
        std::snprintf(buf + n, sizeof buf - static_cast<std::size_t>(n), ".%03dZ", ms);
    } else {
        std::snprintf(buf + n, sizeof buf - static_cast<std::size_t>(n), "Z");
    }
    return buf;
}

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Bytes16 b{};
    std::size_t bi = 0;
    for (std::size_t i = 0; i < 36;) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int hi = hexValue(text[i]), lo = hexValue(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        b[bi++] = static_cast<std::uint8_t>(hi * 16 + lo);
        i += 2;
    }
    return UUID(b);
}

std::string UUID::uuidString() const {
    char out[37];
    std::snprintf(out, sizeof out,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes_[0],
                  bytes_[1], bytes_[2], bytes_[3], bytes_[4], bytes_[5], bytes_[6], bytes_[7],
                  bytes_[8], bytes_[9], bytes_[10], bytes_[11], bytes_[12], bytes_[13], bytes_[14],
                  bytes_[15]);
    return std::string(out, 36);
}

std::size_t UUID::hash() const {
    // FNV-1a over the 16 bytes.
    std::uint64_t h = 1469598103934665603ULL;
    for (auto c : bytes_) {
        h ^= c;
        h *= 1099511628211ULL;
    }
    return static_cast<std::size_t>(h);
}

}  // namespace quenby::platform
