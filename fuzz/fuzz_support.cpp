#include "fuzz_support.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "platform/clock.h"
#include "platform/device.h"
#include "platform/uuid.h"

namespace quenby::fuzz {

FuzzPlatform::FuzzPlatform(const std::map<std::string, std::string>& bundle) {
    std::string tmpl = (std::filesystem::temp_directory_path() / "quenby-fuzz-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    root = tmpl;
    // The platform itself is never destroyed (its threads and the library's statics would race
    // at exit); only its directory goes.
    static std::vector<std::string> roots;
    if (roots.empty()) {
        std::atexit([] {
            std::error_code ec;
            for (const auto& r : roots) std::filesystem::remove_all(r, ec);
        });
    }
    roots.push_back(root);
    std::filesystem::create_directories(root + "/bundle");
    for (const auto& [name, contents] : bundle) {
        std::ofstream(root + "/bundle/" + name, std::ios::binary) << contents;
    }
    platform::Platform::Options o;
    o.applicationId = "com.example.fuzz";
    o.bundleDirectory = root + "/bundle";
    o.documentsDirectory = root + "/documents";
    o.clock =
        std::make_shared<platform::VirtualClock>(platform::Date::fromSecondsSince1970(kFuzzStart));
    o.http = http;
    o.files = files;
    o.device = std::make_shared<platform::FixedDeviceInfo>(
        platform::UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"));
    platform = platform::Platform::create(o);
}

}  // namespace quenby::fuzz
