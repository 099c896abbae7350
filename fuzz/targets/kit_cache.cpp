// The kit cache file as the manager finds it at start, and as a failed sync hands it over.
#include "fuzz_support.h"
#include "kit_use.h"
#include "proximity/QZWAPIRequest.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform();
    fp->files->clear();
    auto url = platform::Url::parse("https://kits.example.com/api/kits/42");
    QZWAPIRequest api(fp->platform, "zw-token");
    fp->files->writeFile(api.pathToFileForURL(*url), fuzz::bytes(data, size), true);

    // At start: QZWManager::buildKitFromCacheForURL.
    auto cached = api.readFromDisk(*url);
    if (cached.has_value() != (size > 0)) std::abort();
    if (cached) fuzz::useKitAnswer(QZWAPIRequest::parseResponse(cached));

    // A sync that failed in transport: the cached copy comes with the error.
    bool called = false;
    api.processResponseDataErrorUrlHandler(
        {}, platform::Error{"curl", 7, "Couldn't connect to server"}, url,
        [&](std::optional<platform::Error> error, std::optional<platform::Json> answer) {
            called = true;
            if (!error || error->code != 7) std::abort();
            fuzz::useKitAnswer(answer);
        });
    if (!called) std::abort();
    return 0;
}
