// The campaign layer's configuration: the host's "Lurewave.plist" (host bundle first, then the
// library's own), and the configuration the server sends back with each campaign sync.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/json.h"
#include "platform/platform.h"

class LWConfig {
  public:
    using Json = quenby::platform::Json;

    explicit LWConfig(const quenby::platform::Platform& platform);

    std::optional<std::string> plistPath() const;
    // A missing or unreadable file leaves the dictionary empty; nothing is logged.
    void loadConfigFromPlist();

    Json dict() const;
    std::optional<std::string> LWKitURL() const { return string("LWKitURL"); }
    std::optional<std::string> LWAPIToken() const { return string("LWAPIToken"); }
    std::optional<std::string> ZWKitURL() const { return string("ZWKitURL"); }
    std::optional<std::string> ZWAPIToken() const { return string("ZWAPIToken"); }
    std::optional<std::string> ZWAnalyticsURL() const { return string("ZWAnalyticsURL"); }

    // The first kit's "configuration" from the last successful sync (null until one).
    Json synced() const;
    void setSynced(Json synced);

  private:
    std::optional<std::string> string(const char* key) const;

    quenby::platform::Bundle main_;
    std::optional<quenby::platform::Bundle> library_;
    mutable std::mutex mu_;
    Json dict_ = Json::object();  // guarded by mu_
    Json synced_;                 // guarded by mu_
};
