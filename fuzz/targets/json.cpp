// The JSON reader every layer uses on answers from outside: guarded by its depth limit, and what
// it accepts must print and read back unchanged; the lenient readers on every value it holds.
#include <vector>

#include "fuzz_support.h"
#include "platform/json.h"

using namespace quenby;

namespace {

int depth(const platform::Json& j) {
    int d = 0;
    if (j.is_structured()) {
        for (const auto& e : j) d = std::max(d, depth(e));
        ++d;
    }
    return d;
}

void readLeniently(const platform::Json& j, int budget) {
    (void)platform::jsonIntValue(&j);
    (void)platform::jsonDoubleValue(&j);
    (void)platform::jsonBoolValue(&j);
    (void)platform::jsonString(&j);
    if (auto n = platform::Number::fromJson(j)) {
        (void)n->intValue();
        (void)n->longLongValue();
        (void)n->description();
    }
    if (budget <= 0 || !j.is_structured()) return;
    for (const auto& e : j) readLeniently(e, budget - 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    for (bool fragments : {false, true}) {
        std::string why;
        auto j = platform::parseJson(text, &why, fragments);
        if (!j) continue;
        if (!fragments && !j->is_structured()) std::abort();
        if (depth(*j) > platform::kMaxJsonDepth) std::abort();
        auto back = platform::parseJson(j->dump(), nullptr, true);
        if (!back || *back != *j) std::abort();
        (void)platform::describeJson(*j);
        readLeniently(*j, 8);
    }
    // Whatever the bytes, the repaired text is valid UTF-8: printing it as JSON never throws.
    platform::Json s = platform::validUtf8(std::string(text));
    (void)s.dump();
    return 0;
}
