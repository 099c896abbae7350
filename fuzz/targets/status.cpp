// The status service's answers (status and beacon-status) and the cache file each one leaves:
// written through, read back when a later exchange fails.
#include "fuzz_support.h"
#include "status/QTLAPIRequest.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform();
    fp->files->clear();
    auto body = fuzz::bytes(data, size);
    QTLAPIRequest api(fp->platform, "status-token");
    for (const char* where : {"https://status.example.com/api/v1/status",
                              "https://status.example.com/api/v1/beacon_status?kit=1"}) {
        auto url = platform::Url::parseReference(where);
        std::optional<platform::Json> answered;
        bool ok = false;
        api.processResponseData(
            body, std::nullopt, url,
            [&](std::optional<platform::Error> e, std::optional<platform::Json> j) {
                ok = !e;
                answered = std::move(j);
            });
        if (ok == body.empty()) std::abort();
        if (answered) (void)platform::describeJson(*answered);

        // The exchange after it fails: the file copy must read as the answer did.
        std::optional<platform::Json> fromCache;
        bool failed = false;
        api.processResponseData(
            {}, platform::Error{"curl", 28, "Timeout was reached"}, url,
            [&](std::optional<platform::Error> e, std::optional<platform::Json> j) {
                failed = e.has_value();
                fromCache = std::move(j);
            });
        if (!failed) std::abort();
        if (answered.has_value() != fromCache.has_value()) std::abort();
        if (answered &&
            answered->dump(-1, ' ', false, platform::Json::error_handler_t::replace) !=
                fromCache->dump(-1, ' ', false, platform::Json::error_handler_t::replace))
            std::abort();
    }
    return 0;
}
