#include "campaigns/LWImagePreloader.h"

#include <algorithm>

#include "platform/crypto.h"

namespace {

bool isQuote(char c) {
    return c == '"' || c == '\'';
}

}  // namespace

std::vector<LWImagePreloader::Match> LWImagePreloader::findImageSources(const std::string& h) {
    // A position q is a usable "src=" when a quote follows it, then at least one non-quote
    // character up to a closing quote, and then a '>' somewhere after. Whether q is usable does
    // not depend on where the tag starts, so it is worked out once per position.
    const std::size_t n = h.size();
    std::vector<std::size_t> nextQuote(n + 1, std::string::npos), nextGt(n + 1, std::string::npos);
    for (std::size_t i = n; i-- > 0;) {
        nextQuote[i] = isQuote(h[i]) ? i : nextQuote[i + 1];
        nextGt[i] = h[i] == '>' ? i : nextGt[i + 1];
    }
    struct Candidate {
        std::size_t at, valueStart, valueEnd, matchEnd;
    };
    std::vector<Candidate> usable;
    for (std::size_t q = h.find("src=", 0); q != std::string::npos; q = h.find("src=", q + 1)) {
        std::size_t open = q + 4;
        if (open >= n || !isQuote(h[open])) continue;
        std::size_t close = nextQuote[open + 1];
        if (close == std::string::npos || close == open + 1)
            continue;  // a value of one char or more
        std::size_t gt = nextGt[close + 1];
        if (gt == std::string::npos) continue;
        usable.push_back({q, open + 1, close, gt + 1});
    }

    std::vector<Match> out;
    std::size_t from = 0;
    while (true) {
        std::size_t s = h.find("<img", from);
        if (s == std::string::npos) break;
        // [^>]+ covers at least one character and stops before the tag's first '>'; greedy, it
        // settles on the last usable src= in that stretch.
        std::size_t lo = s + 5;
        std::size_t hi = nextGt[std::min(s + 4, n)];  // src= must start before this
        if (hi == std::string::npos) hi = n;
        auto it = std::upper_bound(usable.begin(), usable.end(), hi,
                                   [](std::size_t v, const Candidate& c) { return v <= c.at; });
        if (it != usable.begin() && std::prev(it)->at >= lo && std::prev(it)->at < hi) {
            const Candidate& c = *std::prev(it);
            out.push_back({c.valueStart, c.valueEnd - c.valueStart});
            from = c.matchEnd;  // matches never overlap
        } else {
            from = s + 1;
        }
    }
    return out;
}

std::string LWImagePreloader::htmlWithInlinedImages(quenby::platform::HttpClient& http,
                                                    const std::string& html,
                                                    double timeoutSeconds) {
    std::string result = html;
    long long offset = 0;  // how far earlier replacements moved the text
    for (const Match& m : findImageSources(html)) {
        std::string url = html.substr(m.start, m.length);
        if (url.rfind("http", 0) != 0) continue;  // https passes too; relative and data: URLs stay
        quenby::platform::HttpRequest req;
        req.url = url;
        req.timeoutSeconds = timeoutSeconds;
        req.maxResponseBytes = kMaxImageBytes;  // a larger image fails here and keeps its URL
        auto res = http.sendSync(req);
        // Only a transport failure keeps the URL: like every other layer, the status code is not
        // looked at, so whatever body an answer carries is embedded.
        if (res.error || res.body.size() > kMaxImageBytes) continue;
        std::string replacement =
            "data:image;charset=US-ASCII;base64," + quenby::platform::base64Encode(res.body);
        result.replace(static_cast<std::size_t>(static_cast<long long>(m.start) + offset), m.length,
                       replacement);
        offset += static_cast<long long>(replacement.size()) - static_cast<long long>(m.length);
    }
    return result;
}
