// A bundle: a directory of resources, such as the host application's configuration files and
// its information dictionary ("Info.plist").
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quenby::platform {

class Bundle {
  public:
    explicit Bundle(std::string directory) : dir_(std::move(directory)) {}

    const std::string& directory() const { return dir_; }
    // The path of `name`.`type` in the bundle when that file exists.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;
    // The value under `key` in "Info.plist"; nothing when the file or the key is missing.
    std::optional<nlohmann::json> objectForInfoDictionaryKey(const std::string& key) const;
    // "Info.plist" as a dictionary; an empty one when the file is missing or unreadable.
    nlohmann::json infoDictionary() const;

  private:
    std::string dir_;
};

}  // namespace quenby::platform
