#include "platform/crypto.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

namespace quenby::platform {

Sha1Digest sha1(const std::uint8_t* data, std::size_t size) {
    Sha1Digest d{};
    SHA1(data, size, d.data());
    return d;
}

std::string hexString(const std::uint8_t* data, std::size_t size) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(kHex[data[i] >> 4]);
        out.push_back(kHex[data[i] & 15]);
    }
    return out;
}

std::string base64Encode(const Bytes& b) {
    std::string out(4 * ((b.size() + 2) / 3), '\0');
    if (b.empty()) return out;
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), b.data(),
                            static_cast<int>(b.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '+' || c == '/' || (c == '=' && i + 2 >= text.size());
        if (!ok) return std::nullopt;
    }
    auto firstPad = text.find('=');
    if (firstPad != std::string_view::npos &&
        text.find_first_not_of('=', firstPad) != std::string_view::npos) {
        return std::nullopt;
    }
    Bytes out(3 * (text.size() / 4));
    if (text.empty()) return out;
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0) return std::nullopt;
    // EVP_DecodeBlock keeps the padding bytes as zeros; drop them.
    std::size_t pad = 0;
    if (text.size() >= 1 && text[text.size() - 1] == '=') ++pad;
    if (text.size() >= 2 && text[text.size() - 2] == '=') ++pad;
    out.resize(static_cast<std::size_t>(n) - pad);
    return out;
}

}  // namespace quenby::platform
