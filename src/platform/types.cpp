#include "platform/types.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/url.h"
#include "platform/uuid.h"

namespace quenby::platform {

std::string Error::toString() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + description + "\"";
}

void appendUTC(std::string& out, Date date, bool milliseconds) {
    double s = date.timeIntervalSince1970();
    if (std::isnan(s)) s = 0;
    s = std::clamp(s, -1e15, 1e15);
    double whole = std::floor(s);
    auto secs = static_cast<long long>(whole);
    long long days = secs >= 0 ? secs / 86400 : -((-secs + 86399) / 86400);
    long long sod = secs - days * 86400;
    // Civil date from days since 1970-01-01 (proleptic Gregorian), without the C library's
    // locale and time-zone machinery: an upload formats hundreds of thousands of these.
    long long z = days + 719468;
    long long era = (z >= 0 ? z : z - 146096) / 146097;
    long long doe = z - era * 146097;
    long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long mp = (5 * doy + 2) / 153;
    long long day = doy - (153 * mp + 2) / 5 + 1;
    long long month = mp < 10 ? mp + 3 : mp - 9;
    long long year = yoe + era * 400 + (month <= 2 ? 1 : 0);

    char buf[48];
    char* p = buf;
    auto digits = [&p](long long v, int width) {
        char tmp[24];
        int n = 0;
        do {
            tmp[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v > 0 || n < width);
        while (n > 0) *p++ = tmp[--n];
    };
    if (year < 0) {
        *p++ = '-';
        year = -year;
    }
    digits(year, 4);
    *p++ = '-';
    digits(month, 2);
    *p++ = '-';
    digits(day, 2);
    *p++ = 'T';
    digits(sod / 3600, 2);
    *p++ = ':';
    digits(sod / 60 % 60, 2);
    *p++ = ':';
    digits(sod % 60, 2);
    if (milliseconds) {
        *p++ = '.';
        digits(std::min(999LL, static_cast<long long>(std::floor((s - whole) * 1000))), 3);
    }
    *p++ = 'Z';
    out.append(buf, p);
}

std::string formatUTC(Date date, bool milliseconds) {
    std::string out;
    appendUTC(out, date, milliseconds);
    return out;
}

std::optional<Date> parseTimestamp(std::string_view t) {
    std::size_t i = 0;
    auto num = [&](int digits) -> std::optional<long long> {
        if (i + static_cast<std::size_t>(digits) > t.size()) return std::nullopt;
        long long v = 0;
        for (int k = 0; k < digits; ++k) {
            char c = t[i++];
            if (c < '0' || c > '9') return std::nullopt;
            v = v * 10 + (c - '0');
        }
        return v;
    };
    auto lit = [&](char c) { return i < t.size() && t[i++] == c; };
    auto year = num(4);
    if (!year || !lit('-')) return std::nullopt;
    auto month = num(2);
    if (!month || !lit('-')) return std::nullopt;
    auto day = num(2);
    if (!day || !lit('T')) return std::nullopt;
    auto hour = num(2);
    if (!hour || !lit(':')) return std::nullopt;
    auto minute = num(2);
    if (!minute || !lit(':')) return std::nullopt;
    auto second = num(2);
    if (!second || !lit('.')) return std::nullopt;
    double fraction = 0, scale = 0.1;
    std::size_t digits = 0;
    while (i < t.size() && t[i] >= '0' && t[i] <= '9' && digits < 9) {
        fraction += (t[i++] - '0') * scale;
        scale /= 10;
        ++digits;
    }
    if (digits == 0) return std::nullopt;
    long long offset = 0;
    if (i < t.size() && t[i] == 'Z') {
        ++i;
    } else if (i < t.size() && (t[i] == '+' || t[i] == '-')) {
        int sign = t[i++] == '-' ? -1 : 1;
        auto oh = num(2);
        if (i < t.size() && t[i] == ':') ++i;
        auto om = num(2);
        if (!oh || !om || *oh > 23 || *om > 59) return std::nullopt;
        offset = sign * (*oh * 3600 + *om * 60);
    } else {
        return std::nullopt;
    }
    if (i != t.size()) return std::nullopt;
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (*year % 4 == 0 && *year % 100 != 0) || *year % 400 == 0;
    if (*month < 1 || *month > 12 || *day < 1 ||
        *day > kDays[*month - 1] + (*month == 2 && leap ? 1 : 0) || *hour > 23 || *minute > 59 ||
        *second > 60) {
        return std::nullopt;
    }
    // Days from 1970-01-01 of a proleptic Gregorian date.
    long long y = *year - (*month <= 2 ? 1 : 0);
    long long era = (y >= 0 ? y : y - 399) / 400;
    long long yoe = y - era * 400;
    long long mp = (*month + 9) % 12;
    long long doy = (153 * mp + 2) / 5 + *day - 1;
    long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    long long days = era * 146097 + doe - 719468;
    double secs =
        static_cast<double>(days * 86400 + *hour * 3600 + *minute * 60 + *second - offset);
    return Date::fromSecondsSince1970(secs + fraction);
}

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
        int hi = hexDigitValue(text[i]), lo = hexDigitValue(text[i + 1]);
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
