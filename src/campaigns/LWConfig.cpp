#include "campaigns/LWConfig.h"

#include "platform/plist.h"

LWConfig::LWConfig(const quenby::platform::Platform& platform)
    : main_(platform.mainBundle), library_(platform.libraryBundle) {
    loadConfigFromPlist();
}

std::optional<std::string> LWConfig::plistPath() const {
    if (auto p = main_.pathForResource("Lurewave", "plist")) return p;
    if (library_) return library_->pathForResource("Lurewave", "plist");
    return std::nullopt;
}

void LWConfig::loadConfigFromPlist() {
    auto path = plistPath();
    auto value = path ? quenby::platform::readPropertyListFile(*path) : std::nullopt;
    std::lock_guard lk(mu_);
    dict_ = value && value->is_object() ? std::move(*value) : Json::object();
}

LWConfig::Json LWConfig::dict() const {
    std::lock_guard lk(mu_);
    return dict_;
}

std::optional<std::string> LWConfig::string(const char* key) const {
    std::lock_guard lk(mu_);
    return quenby::platform::jsonString(quenby::platform::jsonMember(&dict_, key));
}

LWConfig::Json LWConfig::synced() const {
    std::lock_guard lk(mu_);
    return synced_;
}

void LWConfig::setSynced(Json synced) {
    std::lock_guard lk(mu_);
    synced_ = std::move(synced);
}
