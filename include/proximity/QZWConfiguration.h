// The proximity layer's settings from "Zonewise.plist": kit URL, API token, analytics URL and an
// optional map name. One shared instance per process.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/bundle.h"
#include "platform/json.h"
#include "platform/url.h"

namespace quenby::platform {
struct Platform;
}

class QZWConfiguration {
  public:
    using Json = quenby::platform::Json;
    using Url = quenby::platform::Url;

    // The process's one configuration. The first call makes it from the bundles of `platform`
    // ("Zonewise.plist" of the host's bundle, else of the library's own); later calls answer the
    // same instance whatever platform they name. Thread-safe.
    static QZWConfiguration& sharedConfiguration(const quenby::platform::Platform& platform);

    QZWConfiguration(quenby::platform::Bundle mainBundle,
                     std::optional<quenby::platform::Bundle> libraryBundle);
    QZWConfiguration(const QZWConfiguration&) = delete;
    QZWConfiguration& operator=(const QZWConfiguration&) = delete;

    // Where "Zonewise.plist" is read from; nothing when neither bundle has one.
    std::optional<std::string> plistPath() const;
    // Reads the file again: a missing or unreadable file leaves every setting absent (and a
    // missing one is logged as critical).
    void loadConfigFromPlist();
    void configureFromPlistFile() { loadConfigFromPlist(); }
    // Points the configuration at other bundles; takes effect on the next load.
    void setBundles(quenby::platform::Bundle mainBundle,
                    std::optional<quenby::platform::Bundle> libraryBundle);

    // Replaces every setting with the entries of `dict`: nothing of the file is kept.
    void configureWithDictionary(const Json& dict);

    std::optional<Url> url() const;
    void setUrl(const std::optional<Url>& url);
    std::optional<std::string> apiToken() const;
    void setApiToken(const std::optional<std::string>& token);
    std::optional<Url> analyticsURL() const;
    void setAnalyticsURL(const std::optional<Url>& url);
    std::optional<std::string> mapName() const;
    void setMapName(const std::optional<std::string>& name);

    // The settings dictionary; null when none was read.
    Json config() const;
    void setConfig(Json config);

  private:
    std::optional<std::string> stringFor(const char* key) const;
    void setString(const char* key, const std::optional<std::string>& value);
    std::optional<Url> urlFor(const char* key) const;
    void setUrlFor(const char* key, const std::optional<Url>& url);

    mutable std::mutex mu_;
    quenby::platform::Bundle mainBundle_;                    // guarded by mu_
    std::optional<quenby::platform::Bundle> libraryBundle_;  // guarded by mu_
    Json config_;                                            // guarded by mu_
};
