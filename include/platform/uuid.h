// 128-bit identifiers in the canonical 8-4-4-4-12 text form.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenby::platform {

class UUID {
  public:
    using Bytes16 = std::array<std::uint8_t, 16>;

    constexpr UUID() = default;
    explicit constexpr UUID(const Bytes16& bytes) : bytes_(bytes) {}

    // Accepts exactly the canonical form (36 characters, hyphens at 8, 13, 18 and 23), hex
    // digits in either case. Anything else, braces and missing hyphens included, is rejected.
    static std::optional<UUID> parse(std::string_view text);

    // Upper-case canonical form.
    std::string uuidString() const;
    const Bytes16& bytes() const { return bytes_; }
    std::size_t hash() const;

    constexpr auto operator<=>(const UUID&) const = default;

  private:
    Bytes16 bytes_{};
};

}  // namespace quenby::platform

template <>
struct std::hash<quenby::platform::UUID> {
    std::size_t operator()(const quenby::platform::UUID& u) const noexcept { return u.hash(); }
};
