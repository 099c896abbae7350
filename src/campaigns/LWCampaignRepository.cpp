#include "campaigns/LWCampaignRepository.h"

#include "platform/crypto.h"

using quenby::platform::Date;
using quenby::platform::describeJson;
using quenby::platform::Json;
using quenby::platform::jsonMember;

std::shared_ptr<LWCampaignRepository> LWCampaignRepository::initWithConfig(
    std::shared_ptr<quenby::platform::Platform> platform, std::shared_ptr<LWConfig> config) {
    std::shared_ptr<LWCampaignRepository> r(new LWCampaignRepository(std::move(platform)));
    r->setConfig(std::move(config));
    return r;
}

std::shared_ptr<LWCampaignRepository> LWCampaignRepository::fromArchive(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& a) {
    if (!a.is_object()) return nullptr;
    std::shared_ptr<LWCampaignRepository> r(new LWCampaignRepository(platform));
    if (const Json* cache = jsonMember(&a, "campaign_cache"); cache && cache->is_array()) {
        for (const Json& c : *cache) {
            if (auto campaign = LWCampaign::fromArchive(platform, c)) r->cache_.push_back(campaign);
        }
    }
    // Written as "kitId", read as "kit_id": a restored repository has no kit id until it syncs.
    if (const Json* kit = jsonMember(&a, "kit_id")) r->kitId_ = *kit;
    r->registeredDeviceToken_ = quenby::platform::jsonString(jsonMember(&a, "device_token"));
    return r;
}

Json LWCampaignRepository::archive() const {
    std::lock_guard lk(mu_);
    Json cache = Json::array();
    for (const auto& c : cache_) cache.push_back(c->archive());
    Json a = {{"campaign_cache", std::move(cache)}, {"kitId", kitId_}};
    if (registeredDeviceToken_) a["device_token"] = *registeredDeviceToken_;
    return a;
}

void LWCampaignRepository::setConfig(std::shared_ptr<LWConfig> config) {
    auto api =
        std::make_shared<LWAPIRequest>(platform_, config ? config->LWAPIToken() : std::nullopt);
    std::lock_guard lk(mu_);
    config_ = std::move(config);
    apiRequest_ = std::move(api);
}

std::shared_ptr<LWConfig> LWCampaignRepository::config() const {
    std::lock_guard lk(mu_);
    return config_;
}

LWCampaignRepository::Campaigns LWCampaignRepository::getAllCampaigns() const {
    std::lock_guard lk(mu_);
    return cache_;
}

std::shared_ptr<LWCampaign> LWCampaignRepository::campaignWithId(const std::string& id) const {
    std::lock_guard lk(mu_);
    for (const auto& c : cache_) {
        if (c->id() == id) return c;
    }
    return nullptr;
}

void LWCampaignRepository::loadAllWithCompletion(
    std::function<void(std::optional<Error>)> completion) {
    std::shared_ptr<LWAPIRequest> api;
    std::optional<std::string> url;
    {
        std::lock_guard lk(mu_);
        api = apiRequest_;
        url = config_ ? config_->LWKitURL() : std::nullopt;
    }
    std::weak_ptr<LWCampaignRepository> weak = weak_from_this();
    api->getHandler(url, [weak, completion = std::move(completion)](std::optional<Error> error,
                                                                    std::optional<Json> feed) {
        auto self = weak.lock();
        if (!self) return;
        if (!error) {
            // A broken server must not wipe the campaigns: an answer that is no object, or whose
            // "kits" is there but holds no kit object, merges nothing. A feed without "kits" is
            // merged with no kit id and no server configuration.
            const Json* kits = feed ? jsonMember(&*feed, "kits") : nullptr;
            if (!feed || !feed->is_object()) {
                error =
                    Error{"Lurewave", kMalformedFeed, "Malformed campaign feed: not a JSON object"};
            } else if (kits && (!kits->is_array() || kits->empty() || !(*kits)[0].is_object())) {
                error = Error{"Lurewave", kMalformedFeed, "Malformed campaign feed: no kit"};
            } else {
                self->merge(*feed);
            }
        }
        if (completion) completion(std::move(error));
    });
}

void LWCampaignRepository::merge(const Json& feed) {
    const Json* kits = jsonMember(&feed, "kits");
    const Json* kit = kits ? &(*kits)[0] : nullptr;
    const Json* linked = jsonMember(&feed, "linked");
    LWCampaign::Contents contents;
    if (const Json* list = jsonMember(linked, "contents"); list && list->is_array()) {
        for (const Json& c : *list) {
            if (c.is_object()) contents.push_back(LWContent::initWithDictionary(platform_, c));
        }
    }
    std::shared_ptr<LWConfig> config;
    {
        std::lock_guard lk(mu_);
        const Json* id = jsonMember(kit, "id");
        kitId_ = id ? *id : Json();
        config = config_;
        // Campaigns the server no longer lists expire here and go with the prune that follows
        // every sync; those it lists get their real end back below.
        for (const auto& c : cache_) c->setEndAt(Date::distantPast());
    }
    if (config) {
        const Json* synced = jsonMember(kit, "configuration");
        config->setSynced(synced ? *synced : Json());
    }
    if (const Json* list = jsonMember(linked, "campaigns"); list && list->is_array()) {
        for (const Json& c : *list) {
            if (c.is_object()) createOrUpdateCampaignWithContents(c, contents);
        }
    }
    if (auto pending = deviceTokenToRegister()) registerDeviceToken(*pending);
}

void LWCampaignRepository::createOrUpdateCampaignWithContents(
    const Json& dict, const LWCampaign::Contents& contents) {
    const Json* id = jsonMember(&dict, "id");
    // Updated in place, so views, fulfilment, the place of the last find and recurrence survive.
    if (auto existing = campaignWithId(id ? describeJson(*id) : "(null)")) {
        existing->updateWithDictionaryContents(dict, contents);
        return;
    }
    auto campaign = LWCampaign::initWithDictionaryContents(platform_, dict, contents);
    std::lock_guard lk(mu_);
    cache_.push_back(std::move(campaign));
}

LWCampaignRepository::Campaigns LWCampaignRepository::pruneAndReturnExpiredCampaigns() {
    std::lock_guard lk(mu_);
    Campaigns expired, kept;
    for (const auto& c : cache_) (c->isExpired() ? expired : kept).push_back(c);
    cache_ = std::move(kept);
    return expired;
}

Json LWCampaignRepository::kitId() const {
    std::lock_guard lk(mu_);
    return kitId_;
}

std::optional<std::string> LWCampaignRepository::registeredDeviceToken() const {
    std::lock_guard lk(mu_);
    return registeredDeviceToken_;
}

std::optional<quenby::platform::Bytes> LWCampaignRepository::deviceTokenToRegister() const {
    std::lock_guard lk(mu_);
    return deviceTokenToRegister_;
}

std::optional<std::string> LWCampaignRepository::tokensUrl() const {
    auto c = config();
    if (!c) return std::nullopt;
    Json synced = c->synced();
    return quenby::platform::jsonString(jsonMember(&synced, "ios_tokens_url"));
}

void LWCampaignRepository::registerDeviceToken(const quenby::platform::Bytes& token) {
    auto url = tokensUrl();
    std::shared_ptr<LWAPIRequest> api;
    std::string text = quenby::platform::hexString(token.data(), token.size());
    {
        std::lock_guard lk(mu_);
        if (!url) {
            deviceTokenToRegister_ = token;  // the next sync may bring the URL
            return;
        }
        if (registeredDeviceToken_ == text) return;
        api = apiRequest_;
    }
    std::weak_ptr<LWCampaignRepository> weak = weak_from_this();
    api->postDataHandler(url, Json{{"ios_token", text}},
                         [weak, text](std::optional<Error> error, std::optional<Json>) {
                             auto self = weak.lock();
                             if (!self || error) return;  // kept: the next sync tries again
                             std::lock_guard lk(self->mu_);
                             self->registeredDeviceToken_ = text;
                             self->deviceTokenToRegister_.reset();
                         });
}

void LWCampaignRepository::deregisterDeviceToken() {
    auto url = tokensUrl();
    std::shared_ptr<LWAPIRequest> api;
    {
        std::lock_guard lk(mu_);
        if (!url || !registeredDeviceToken_) return;
        api = apiRequest_;
    }
    std::weak_ptr<LWCampaignRepository> weak = weak_from_this();
    api->deleteDataHandler(url, std::nullopt, [weak](std::optional<Error>, std::optional<Json>) {
        if (auto self = weak.lock()) {
            std::lock_guard lk(self->mu_);
            self->registeredDeviceToken_.reset();
        }
    });
}
