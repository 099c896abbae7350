// Small value types shared by every layer: bytes, dates, errors.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenby::platform {

using Bytes = std::vector<std::uint8_t>;

// 0-15 for a hexadecimal digit in either case, -1 for anything else.
constexpr int hexDigitValue(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

inline Bytes toBytes(std::string_view s) {
    return Bytes(s.begin(), s.end());
}
inline std::string toString(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

// An instant, held as seconds since 1970-01-01 00:00:00 UTC. That is the form every database
// column and timer of the library works in, so no conversion happens on the hot paths.
class Date {
  public:
    constexpr Date() = default;
    static constexpr Date fromSecondsSince1970(double s) { return Date(s); }
    // The platform's far ends of time: 0001-01-01 and 4001-01-01, both UTC.
    static constexpr Date distantPast() { return Date(-62135596800.0); }
    static constexpr Date distantFuture() { return Date(64092211200.0); }

    constexpr double timeIntervalSince1970() const { return s_; }
    // Seconds from `other` to this date: negative when this date is earlier.
    constexpr double timeIntervalSince(Date other) const { return s_ - other.s_; }
    constexpr Date addingTimeInterval(double seconds) const { return Date(s_ + seconds); }

    constexpr auto operator<=>(const Date&) const = default;

  private:
    constexpr explicit Date(double s) : s_(s) {}
    double s_ = 0.0;
};

// "yyyy-MM-dd'T'HH:mm:ss'Z'" (or with ".SSS" before the Z) in UTC: the fraction beyond the last
// digit shown is dropped, not rounded.
std::string formatUTC(Date d, bool milliseconds = false);
// The same text appended to `out`.
void appendUTC(std::string& out, Date d, bool milliseconds = false);

// Parses "yyyy-MM-dd'T'HH:mm:ss.SSS" followed by a zone: "Z", "+hhmm" or "+hh:mm" (or "-").
// The fraction may have 1 to 9 digits. Nothing for anything else, an impossible date included.
std::optional<Date> parseTimestamp(std::string_view text);

// A failure as a value: the layer's domain, a code and a human-readable description.
struct Error {
    std::string domain;
    long code = 0;
    std::string description;

    // The text form used in log lines, e.g. `Error Domain=Zonewise Code=204 "No Data"`.
    std::string toString() const;
    bool operator==(const Error&) const = default;
};

using Task = std::function<void()>;

}  // namespace quenby::platform
