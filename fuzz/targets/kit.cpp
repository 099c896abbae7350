// The kit answer as the server sends it: written through to the cache file, parsed, and built
// into the kit the manager swaps in.
#include "fuzz_support.h"
#include "kit_use.h"
#include "proximity/QZWAPIRequest.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform();
    fp->files->clear();
    auto url = platform::Url::parse("https://kits.example.com/api/kits/42");
    QZWAPIRequest api(fp->platform, "zw-token");
    auto body = fuzz::bytes(data, size);
    bool called = false;
    api.processResponseDataErrorUrlHandler(
        body, std::nullopt, url,
        [&](std::optional<platform::Error> error, std::optional<platform::Json> answer) {
            called = true;
            // An empty answer is no answer: the (missing) cached copy stands in.
            if (body.empty() != error.has_value()) std::abort();
            fuzz::useKitAnswer(answer);
        });
    if (!called) std::abort();
    // Every non-empty answer is what the next start reads back.
    if (!body.empty() && api.readFromDisk(*url) != body) std::abort();
    return 0;
}
