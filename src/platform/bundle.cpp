#include "platform/bundle.h"

#include "platform/files.h"
#include "platform/plist.h"

namespace quenby::platform {

std::optional<std::string> Bundle::pathForResource(std::string_view name,
                                                   std::string_view type) const {
    std::string file(name);
    if (!type.empty()) {
        file += '.';
        file += type;
    }
    // A resource name is a file of this directory, never a path out of it.
    if (file.find('/') != std::string::npos || file == "." || file == "..") return std::nullopt;
    std::string path = joinPath(dir_, file);
    if (!LocalFileSystem().fileExists(path)) return std::nullopt;
    return path;
}

nlohmann::json Bundle::infoDictionary() const {
    auto path = pathForResource("Info", "plist");
    if (!path) return nlohmann::json::object();
    auto value = readPropertyListFile(*path);
    if (!value || !value->is_object()) return nlohmann::json::object();
    return std::move(*value);
}

std::optional<nlohmann::json> Bundle::objectForInfoDictionaryKey(const std::string& key) const {
    auto info = infoDictionary();
    auto it = info.find(key);
    if (it == info.end()) return std::nullopt;
    return *it;
}

}  // namespace quenby::platform
