// Every campaign known to the device, in the order first received: fetched from the campaign feed
// and merged, looked up by id, pruned when expired; and the device's push token registration.
// Thread-safe: syncs complete on a request's background context.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "campaigns/LWAPIRequest.h"
#include "campaigns/LWCampaign.h"
#include "campaigns/LWConfig.h"

class LWCampaignRepository : public std::enable_shared_from_this<LWCampaignRepository> {
  public:
    using Json = quenby::platform::Json;
    using Error = quenby::platform::Error;
    using Campaigns = std::vector<std::shared_ptr<LWCampaign>>;

    static constexpr long kMalformedFeed = 422;

    static std::shared_ptr<LWCampaignRepository> initWithConfig(
        std::shared_ptr<quenby::platform::Platform> platform, std::shared_ptr<LWConfig> config);
    // From a repository archive ("campaign_cache", "kit_id", "device_token"); nothing when it is
    // not one. The configuration is set afterwards.
    static std::shared_ptr<LWCampaignRepository> fromArchive(
        std::shared_ptr<quenby::platform::Platform> platform, const Json& archive);
    // Keyed archive: "campaign_cache", "kitId", "device_token" (when registered).
    Json archive() const;

    void setConfig(std::shared_ptr<LWConfig> config);
    std::shared_ptr<LWConfig> config() const;

    Campaigns getAllCampaigns() const;
    std::shared_ptr<LWCampaign> campaignWithId(const std::string& id) const;
    // Fetches the feed and merges it; `completion` gets the error, if any, on a background
    // context. An answer that is not an object, or has no kit, fails with domain "Lurewave" and
    // changes nothing.
    void loadAllWithCompletion(std::function<void(std::optional<Error>)> completion);
    void createOrUpdateCampaignWithContents(const Json& dict, const LWCampaign::Contents& contents);
    Campaigns pruneAndReturnExpiredCampaigns();

    // The id of the first kit of the last successful sync, as the feed gives it (null before).
    Json kitId() const;
    std::optional<std::string> registeredDeviceToken() const;
    std::optional<quenby::platform::Bytes> deviceTokenToRegister() const;
    // POSTs {"ios_token": lower-case hex} to the server's "ios_tokens_url" once it is known (a
    // token given earlier waits for the sync that brings it); the same token again sends nothing.
    void registerDeviceToken(const quenby::platform::Bytes& token);
    // DELETE at the same URL when a token is registered; forgotten whatever the outcome.
    void deregisterDeviceToken();

  private:
    explicit LWCampaignRepository(std::shared_ptr<quenby::platform::Platform> p)
        : platform_(std::move(p)) {}
    void merge(const Json& feed);
    std::optional<std::string> tokensUrl() const;

    std::shared_ptr<quenby::platform::Platform> platform_;
    mutable std::mutex mu_;
    std::shared_ptr<LWConfig> config_;                              // guarded by mu_
    std::shared_ptr<LWAPIRequest> apiRequest_;                      // guarded by mu_
    Campaigns cache_;                                               // guarded by mu_
    Json kitId_;                                                    // guarded by mu_
    std::optional<std::string> registeredDeviceToken_;              // guarded by mu_
    std::optional<quenby::platform::Bytes> deviceTokenToRegister_;  // guarded by mu_
};
