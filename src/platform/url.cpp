#include "platform/url.h"

#include <curl/curl.h>

#include <memory>

#include "platform/files.h"

namespace quenby::platform {

namespace {

struct CurlUrlFree {
    void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::string getPart(CURLU* u, CURLUPart part) {
    char* v = nullptr;
    if (curl_url_get(u, part, &v, 0) != CURLUE_OK || !v) return {};
    std::string out(v);
    curl_free(v);
    return out;
}

bool validEscapes(std::string_view s) {
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '%') continue;
        if (i + 2 >= s.size() || hexDigitValue(s[i + 1]) < 0 || hexDigitValue(s[i + 2]) < 0)
            return false;
        i += 2;
    }
    return true;
}

std::string percentDecode(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && hexDigitValue(s[i + 1]) >= 0 &&
            hexDigitValue(s[i + 2]) >= 0) {
            out.push_back(
                static_cast<char>(hexDigitValue(s[i + 1]) * 16 + hexDigitValue(s[i + 2])));
            i += 2;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty() || text.size() > 65536) return std::nullopt;
    for (unsigned char c : text) {
        if (c <= 0x20 || c == 0x7F) return std::nullopt;  // blanks and controls are never valid
    }
    if (!validEscapes(text)) return std::nullopt;
    std::unique_ptr<CURLU, CurlUrlFree> h(curl_url());
    if (!h) return std::nullopt;
    std::string s(text);
    if (curl_url_set(h.get(), CURLUPART_URL, s.c_str(),
                     CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS) != CURLUE_OK) {
        return std::nullopt;
    }
    Url u;
    u.absolute_ = std::move(s);
    u.scheme_ = getPart(h.get(), CURLUPART_SCHEME);
    u.host_ = getPart(h.get(), CURLUPART_HOST);
    u.path_ = getPart(h.get(), CURLUPART_PATH);
    u.query_ = getPart(h.get(), CURLUPART_QUERY);
    return u;
}

std::optional<Url> Url::parseReference(std::string_view text) {
    if (auto absolute = parse(text)) return absolute;
    if (text.empty() || text.size() > 65536 || !validEscapes(text)) return std::nullopt;
    for (unsigned char c : text) {
        if (c <= 0x20 || c == 0x7F) return std::nullopt;
    }
    // A ':' before any '/', '?' or '#' would make the start a scheme, and absolute text that
    // parse refused stays refused.
    std::size_t colon = text.find(':');
    if (colon != std::string_view::npos && colon < text.find_first_of("/?#")) return std::nullopt;
    std::string_view rest = text.substr(0, text.find('#'));
    std::size_t q = rest.find('?');
    Url u;
    u.absolute_ = std::string(text);
    u.path_ = std::string(rest.substr(0, q));
    if (q != std::string_view::npos) u.query_ = std::string(rest.substr(q + 1));
    return u;
}

std::vector<std::string> Url::pathComponents() const {
    std::vector<std::string> out;
    if (path_.empty()) return out;
    std::size_t i = 0;
    if (path_.front() == '/') {
        out.emplace_back("/");
        i = 1;
    }
    while (i <= path_.size()) {
        std::size_t j = path_.find('/', i);
        if (j == std::string::npos) j = path_.size();
        if (j > i) out.push_back(percentDecode(std::string_view(path_).substr(i, j - i)));
        i = j + 1;
    }
    return out;
}

std::string Url::lastPathComponent() const {
    auto c = pathComponents();
    return c.empty() ? std::string() : c.back();
}

std::string cacheFileName(std::string_view prefix, const Url& url, std::string_view suffix) {
    std::string joined;
    bool first = true;
    for (const auto& c : url.pathComponents()) {
        if (c == "/") continue;
        if (!first) joined += '-';
        first = false;
        joined += safeFileNameComponent(c);
    }
    return boundedFileName(prefix, joined, suffix);
}

}  // namespace quenby::platform
