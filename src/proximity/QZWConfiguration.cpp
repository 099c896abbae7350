#include "proximity/QZWConfiguration.h"

#include "platform/platform.h"
#include "platform/plist.h"
#include "proximity/QZWLogger.h"

using quenby::platform::Bundle;
using quenby::platform::Json;
using quenby::platform::Url;

QZWConfiguration& QZWConfiguration::sharedConfiguration(const quenby::platform::Platform& p) {
    static QZWConfiguration* shared = new QZWConfiguration(p.mainBundle, p.libraryBundle);
    return *shared;
}

QZWConfiguration::QZWConfiguration(Bundle mainBundle, std::optional<Bundle> libraryBundle)
    : mainBundle_(std::move(mainBundle)), libraryBundle_(std::move(libraryBundle)) {
    loadConfigFromPlist();
}

std::optional<std::string> QZWConfiguration::plistPath() const {
    std::lock_guard lk(mu_);
    if (auto p = mainBundle_.pathForResource("Zonewise", "plist")) return p;
    if (libraryBundle_) return libraryBundle_->pathForResource("Zonewise", "plist");
    return std::nullopt;
}

void QZWConfiguration::loadConfigFromPlist() {
    auto path = plistPath();
    if (!path) QZWLogger::log(QZWLogLevelCritical, "ERROR: Missing Zonewise.plist file.");
    std::optional<Json> dict;
    if (path) dict = quenby::platform::readPropertyListFile(*path);
    std::lock_guard lk(mu_);
    config_ = dict && dict->is_object() ? std::move(*dict) : Json();
}

void QZWConfiguration::setBundles(Bundle mainBundle, std::optional<Bundle> libraryBundle) {
    std::lock_guard lk(mu_);
    mainBundle_ = std::move(mainBundle);
    libraryBundle_ = std::move(libraryBundle);
}

void QZWConfiguration::configureWithDictionary(const Json& dict) {
    Json fresh = Json::object();
    if (dict.is_object()) {
        for (const auto& [k, v] : dict.items()) fresh[k] = v;
    }
    std::lock_guard lk(mu_);
    config_ = std::move(fresh);
}

std::optional<std::string> QZWConfiguration::stringFor(const char* key) const {
    std::lock_guard lk(mu_);
    return quenby::platform::jsonString(quenby::platform::jsonMember(&config_, key));
}

void QZWConfiguration::setString(const char* key, const std::optional<std::string>& value) {
    std::lock_guard lk(mu_);
    if (!config_.is_object()) config_ = Json::object();
    if (value) {
        config_[key] = *value;
    } else {
        config_.erase(key);
    }
}

std::optional<Url> QZWConfiguration::urlFor(const char* key) const {
    auto s = stringFor(key);
    return s ? Url::parse(*s) : std::nullopt;
}

void QZWConfiguration::setUrlFor(const char* key, const std::optional<Url>& url) {
    setString(key, url ? std::optional(url->absoluteString()) : std::nullopt);
}

std::optional<Url> QZWConfiguration::url() const {
    return urlFor("ZWKitURL");
}
void QZWConfiguration::setUrl(const std::optional<Url>& url) {
    setUrlFor("ZWKitURL", url);
}

std::optional<std::string> QZWConfiguration::apiToken() const {
    return stringFor("ZWAPIToken");
}

void QZWConfiguration::setApiToken(const std::optional<std::string>& t) {
    setString("ZWAPIToken", t);
}

std::optional<Url> QZWConfiguration::analyticsURL() const {
    return urlFor("ZWAnalyticsURL");
}
void QZWConfiguration::setAnalyticsURL(const std::optional<Url>& url) {
    setUrlFor("ZWAnalyticsURL", url);
}

std::optional<std::string> QZWConfiguration::mapName() const {
    return stringFor("ZWMapName");
}

void QZWConfiguration::setMapName(const std::optional<std::string>& n) {
    setString("ZWMapName", n);
}

Json QZWConfiguration::config() const {
    std::lock_guard lk(mu_);
    return config_;
}

void QZWConfiguration::setConfig(Json config) {
    std::lock_guard lk(mu_);
    config_ = std::move(config);
}
