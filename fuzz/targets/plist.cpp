// Property lists, XML and binary, as the bundle reader takes them; what reads must write out
// as XML and read back.
#include "platform/plist.h"
#include "fuzz_support.h"

using namespace quenby;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static bool quiet = (fuzz::silenceConsole(), true);
    (void)quiet;
    std::string why;
    auto value = platform::parsePropertyList(fuzz::bytes(data, size), &why);
    if (!value) return 0;
    std::string xml = platform::toXmlPropertyList(*value);
    platform::Bytes again(xml.begin(), xml.end());
    if (!platform::parsePropertyList(again, &why)) std::abort();
    return 0;
}
