// Integers of the campaign layer (place ids, counts, recurrence seconds) are 64-bit: the server
// hands out place ids beyond 2^31, which the proximity layer's 32-bit reading would wrap.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "platform/json.h"

namespace lurewave {

// Numbers by their 64-bit value (fractions dropped, saturated), strings by their leading decimal
// integer (saturated), booleans as 0 or 1, anything else as 0.
inline std::int64_t jsonInt64Value(const quenby::platform::Json* j) {
    if (!j) return 0;
    if (auto n = quenby::platform::Number::fromJson(*j)) return n->longLongValue();
    if (j->is_boolean()) return j->get<bool>() ? 1 : 0;
    if (!j->is_string()) return 0;
    const auto& s = j->get_ref<const std::string&>();
    std::size_t i = s.find_first_not_of(" \t\r\n");
    if (i == std::string::npos) return 0;
    bool neg = false;
    if (s[i] == '+' || s[i] == '-') neg = s[i++] == '-';
    constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
    const std::uint64_t limit = neg ? kMax + 1 : kMax;
    std::uint64_t v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        auto digit = static_cast<std::uint64_t>(s[i] - '0');
        if (v > (limit - digit) / 10) {
            v = limit;
            break;
        }
        v = v * 10 + digit;
    }
    if (!neg) return static_cast<std::int64_t>(v);
    return v == kMax + 1 ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(v);
}

}  // namespace lurewave
