// The image matcher that inlines a campaign body's remote images: it claims to find exactly what
// the expression <img[^>]+src=["']([^"']+)["'][^>]*> finds, so short bodies are checked against
// std::regex, and every body is rewritten with canned downloads.
#include <regex>
#include <vector>

#include "campaigns/LWImagePreloader.h"
#include "fuzz_support.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* http = new fuzz::CannedHttpClient();
    std::string html = fuzz::text(data, size);
    auto found = LWImagePreloader::findImageSources(html);
    std::size_t end = 0;
    for (const auto& m : found) {
        if (m.length == 0 || m.start < end || m.start + m.length > html.size()) std::abort();
        end = m.start + m.length;
    }
    // Backtracking makes the reference slow on long texts; the matcher's logic shows in short ones.
    if (html.size() <= 96) {
        static const std::regex re("<img[^>]+src=[\"']([^\"']+)[\"'][^>]*>");
        std::vector<LWImagePreloader::Match> expected;
        for (auto it = std::sregex_iterator(html.begin(), html.end(), re);
             it != std::sregex_iterator(); ++it) {
            expected.push_back({static_cast<std::size_t>(it->position(1)),
                                static_cast<std::size_t>(it->length(1))});
        }
        if (expected.size() != found.size()) std::abort();
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (expected[i].start != found[i].start || expected[i].length != found[i].length)
                std::abort();
        }
    }
    std::string out = LWImagePreloader::htmlWithInlinedImages(*http, html);
    std::size_t downloads = 0;
    for (const auto& m : found) downloads += html.compare(m.start, 4, "http") == 0 ? 1 : 0;
    if (downloads == 0 && out != html) std::abort();
    return 0;
}
