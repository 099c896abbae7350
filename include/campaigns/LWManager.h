// The object a host creates first: it owns the configuration, the campaign repository, the
// proximity manager and its listener; keeps the found campaigns and persists all state to the
// state file; records campaign analytics; answers remote notifications with a short sync-and-range
// burst; and passes push tokens on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "campaigns/LWCampaign.h"
#include "campaigns/LWPlace.h"
#include "platform/json.h"
#include "platform/notifications.h"
#include "platform/platform.h"

class LWAppDelegate;
class LWConfig;
class LWCampaignRepository;
class LWZonewiseDelegate;
class LWManager;
class QZWManager;

// Place event codes.
inline constexpr int LWPlaceEventRanged = 0;
inline constexpr int LWPlaceEventEntered = 1;
inline constexpr int LWPlaceEventExited = 2;
inline constexpr int LWPlaceEventInside = 3;
inline constexpr int LWPlaceEventOutside = 4;
inline constexpr int LWPlaceEventUnknown = 5;

// Campaign analytics types.
inline constexpr int LWAnalyticsTypeFound = 0;
inline constexpr int LWAnalyticsTypeViewed = 1;
inline constexpr int LWAnalyticsTypeFulfilled = 2;

// The host's listener. A campaign found is required; the rest are optional.
class LWManagerDelegate {
  public:
    virtual ~LWManagerDelegate() = default;
    virtual void lurewaveDidFindCampaign(LWManager&, const std::shared_ptr<LWCampaign>&) = 0;
    // A place event of a region that carries place ids; `event` is one of LWPlaceEvent….
    virtual void lurewaveDidDetectPlaceOnEvent(LWManager&, const std::shared_ptr<const LWPlace>&,
                                               int /*event*/) {}
    virtual void lurewaveDidSync(LWManager&) {}
    virtual void lurewaveDidFailWithError(LWManager&, const quenby::platform::Error&) {}
};

class LWManager : public std::enable_shared_from_this<LWManager> {
  public:
    using Json = quenby::platform::Json;
    using FetchCompletion = std::function<void(int result)>;

    // Loads the state file, then creates the proximity manager with the configuration's "ZWKitURL",
    // "ZWAPIToken" and, when present, "ZWAnalyticsURL". Throws QZWException "Missing info.plist
    // key" as the proximity manager does. The delegate is held weakly.
    static std::shared_ptr<LWManager> managerWithDelegate(
        std::shared_ptr<quenby::platform::Platform> platform, std::weak_ptr<LWManagerDelegate> d);
    ~LWManager();
    LWManager(const LWManager&) = delete;
    LWManager& operator=(const LWManager&) = delete;

    static std::string getVersion() { return "0.2.1"; }

    void start();
    void stop();
    void sync();
    // Syncs and blocks the calling thread until the campaign load that follows ends, at most
    // 30 seconds. `handler` stays installed and runs again after every later campaign load.
    void syncWithCompletionHandler(FetchCompletion handler);
    // Within six hours of a place detection: a blocking sync, then five seconds of background
    // time for ranging. Otherwise `handler` gets "no data" (1) at once.
    void handleRemoteNotificationFetchCompletionHandler(const Json& userInfo,
                                                        FetchCompletion handler);

    std::shared_ptr<LWCampaign> campaignWithId(const std::string& id) const;
    // Inserted first unless present (same id); the state is written either way.
    void addCampaign(const std::shared_ptr<LWCampaign>& campaign);
    void removeCampaign(const std::shared_ptr<LWCampaign>& campaign);
    void pruneExpiredCampaigns();
    std::shared_ptr<LWCampaign> campaignFromNotification(
        const quenby::platform::LocalNotification& notification) const;
    // The found campaigns, newest first.
    std::vector<std::shared_ptr<LWCampaign>> campaigns() const;
    std::vector<std::shared_ptr<LWCampaign>> foundCampaigns() const { return campaigns(); }
    // Every campaign of the repository, whether in its window or not.
    std::vector<std::shared_ptr<LWCampaign>> activeCampaigns() const;

    // Counted once per find: a campaign viewed since its last detection is not counted again.
    void setCampaignViewed(const std::shared_ptr<LWCampaign>& campaign);
    // Only a viewed campaign, once per find.
    void setCampaignFulfilledAtPlace(const std::shared_ptr<LWCampaign>& campaign,
                                     const std::shared_ptr<const LWPlace>& place);
    // "found", "viewed", "fulfilled"; nothing for any other type.
    static std::optional<std::string> nameForAnalyticsType(int type);
    // Posts "lurewave_events" with the kit id, the type's name, the campaign id and the place id.
    void recordAnalyticsForCampaignAtPlace(int type, const std::shared_ptr<LWCampaign>& campaign,
                                           const std::shared_ptr<const LWPlace>& place);
    void recordAnalyticsForCampaignAtPlaceId(int type, const std::shared_ptr<LWCampaign>& campaign,
                                             std::optional<std::int64_t> placeId);
    void recordAnalyticsForCampaign(int type, const std::shared_ptr<LWCampaign>& campaign);

    void registerDeviceToken(const quenby::platform::Bytes& token);
    void deregisterDeviceToken();
    void setPartnerIdentifier(const std::string& identifier);

    std::shared_ptr<LWManagerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<LWManagerDelegate> d);
    std::shared_ptr<LWConfig> config() const { return config_; }
    std::shared_ptr<LWCampaignRepository> campaignRepo() const;
    void setRepository(std::shared_ptr<LWCampaignRepository> repo);
    std::shared_ptr<QZWManager> zwManager() const;
    void setZWManager(std::shared_ptr<QZWManager> m);
    std::shared_ptr<LWZonewiseDelegate> getZonewiseDelegate() const { return zonewiseDelegate_; }
    // A place for the host to keep its application-delegate proxy; the manager never fills it.
    // The proxy holds the manager weakly, so keeping it here makes no cycle.
    std::shared_ptr<LWAppDelegate> lwAppDelegate() const;
    void setLwAppDelegate(std::shared_ptr<LWAppDelegate> proxy);
    const std::shared_ptr<quenby::platform::Platform>& platform() const { return platform_; }

    // The state file: documents directory + "/LurewaveState_<LWAPIToken>.plist", the token
    // escaped, and cut short with a digest when the name would pass the file system's limit.
    std::string plistPath() const;
    bool stateWasPersisted() const;
    void persistState();
    void loadState();
    void appWillResignActive(const quenby::platform::Notification& n);

  private:
    explicit LWManager(std::shared_ptr<quenby::platform::Platform> p) : platform_(std::move(p)) {}

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::shared_ptr<LWConfig> config_;
    std::shared_ptr<LWZonewiseDelegate> zonewiseDelegate_;
    quenby::platform::NotificationCenter::ObserverId resignObserver_ = 0;

    // Serialises state-file reads and writes, and guards the fields below. Recursive: a find
    // adds a campaign (and persists) from inside callbacks that may already hold it.
    mutable std::recursive_mutex mu_;
    std::weak_ptr<LWManagerDelegate> delegate_;           // guarded by mu_
    std::shared_ptr<LWCampaignRepository> campaignRepo_;  // guarded by mu_
    std::shared_ptr<QZWManager> zwManager_;               // guarded by mu_
    std::vector<std::shared_ptr<LWCampaign>> campaigns_;  // guarded by mu_
    std::shared_ptr<LWAppDelegate> lwAppDelegate_;        // guarded by mu_
};

// The library's version.
extern const double LurewaveVersionNumber;
extern const unsigned char LurewaveVersionString[];
