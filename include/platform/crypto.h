// Digests and encodings (OpenSSL).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace quenby::platform {

using Sha1Digest = std::array<std::uint8_t, 20>;

Sha1Digest sha1(const std::uint8_t* data, std::size_t size);
inline Sha1Digest sha1(const Bytes& b) {
    return sha1(b.data(), b.size());
}
inline Sha1Digest sha1(std::string_view s) {
    return sha1(reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
}
std::string hexString(const std::uint8_t* data, std::size_t size);

// Standard Base64 (RFC 4648 alphabet, padded, no line breaks).
std::string base64Encode(const Bytes& b);
// Answers nothing for text that is not padded standard Base64.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace quenby::platform
