// JSON values as the library reads them from the outside: guarded parsing, and the lenient
// conversions that the kit and feed formats rely on (a number read as a 32-bit integer, a missing
// value read as 0).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "platform/types.h"

namespace quenby::platform {

using Json = nlohmann::json;

// The deepest nesting accepted from outside. Deeper documents are refused before parsing: the
// JSON library copies, compares and prints recursively.
inline constexpr int kMaxJsonDepth = 512;

// The most memory a parsed document may take, estimated from its text before parsing: a
// document that would take more is refused, so one answer cannot take the process down. The
// JSON library spends 16 bytes on each value, about 64 more on each array or object and about 80
// more on each object member, so real kits and feeds cost about six times their compact text:
// the largest answer accepted (8 MiB, see the caps on answers in http.h) fits with room to
// spare, while a hostile answer of that size (a flat array of zeros, 4 million values) also
// fits, and anything denser or larger is refused. At most 6 million values.
inline constexpr std::size_t kMaxJsonMemory = std::size_t{96} << 20;

// Parses a JSON text. The top level must be an object or an array unless `allowFragments`.
// Nothing on failure (malformed, nested too deep, or over kMaxJsonMemory), with the reason in
// `error` when given.
std::optional<Json> parseJson(std::string_view text, std::string* error = nullptr,
                              bool allowFragments = false);
inline std::optional<Json> parseJson(const Bytes& b, std::string* error = nullptr,
                                     bool allowFragments = false) {
    return parseJson(std::string_view(reinterpret_cast<const char*>(b.data()), b.size()), error,
                     allowFragments);
}

// `s` itself when it is valid UTF-8, else with every invalid sequence replaced by U+FFFD, so
// that it can always be written out as JSON.
std::string validUtf8(std::string s);

// A boxed number as the JSON documents carry it: an integer or a floating-point value.
class Number {
  public:
    Number() : v_(std::int64_t{0}) {}
    Number(int v) : v_(std::int64_t{v}) {}
    Number(long v) : v_(std::int64_t{v}) {}
    Number(long long v) : v_(std::int64_t{v}) {}
    Number(unsigned v) : v_(std::int64_t{v}) {}
    Number(unsigned long v) : v_(std::uint64_t{v}) {}
    Number(unsigned long long v) : v_(std::uint64_t{v}) {}
    Number(double v) : v_(v) {}
    Number(float v) : v_(static_cast<double>(v)) {}

    // A JSON number (booleans are not numbers here); nothing for any other value.
    static std::optional<Number> fromJson(const Json& j);

    bool isInteger() const { return !std::holds_alternative<double>(v_); }
    // The value as a C int conversion would give it: fractions dropped, out-of-range values
    // saturated to 64 bits and then cut to the low 32 bits.
    std::int32_t intValue() const;
    std::int64_t longLongValue() const;
    double doubleValue() const;

    Json toJson() const;
    // The text form ("%@"): integers in decimal, other values in the shortest form that reads
    // back the same ("1.5", "2", "0.1").
    std::string description() const;

    // Numeric equality: 5 == 5.0.
    friend bool operator==(const Number& a, const Number& b);

  private:
    std::variant<std::int64_t, std::uint64_t, double> v_;
};

// The value as a 32-bit integer, as the kit format reads numbers: numbers by intValue(),
// strings by their leading decimal integer (saturated), booleans as 0 or 1, anything else
// (missing, null, arrays, objects) as 0.
std::int32_t jsonIntValue(const Json* j);
// The value as a floating-point number, read as leniently as jsonIntValue (strings by their
// leading decimal number, anything unreadable as 0).
double jsonDoubleValue(const Json* j);
// The value as a boolean: booleans themselves, numbers when not zero, text that starts (after
// blanks, a sign and zeros) with Y, y, T, t or a digit 1-9; anything else false.
bool jsonBoolValue(const Json* j);
// The string when `j` is one.
std::optional<std::string> jsonString(const Json* j);
// The member `key` of `j` when `j` is an object that has it; null otherwise.
const Json* jsonMember(const Json* j, const char* key);
// The text form of any value ("%@"): strings as they are, numbers by Number::description,
// booleans as 1 or 0, null as "<null>", and arrays and objects as compact JSON.
std::string describeJson(const Json& j);

}  // namespace quenby::platform
