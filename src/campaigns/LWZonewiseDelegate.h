// The campaign layer's listener on the proximity manager: every region or beacon callback becomes
// campaign decisions (found, fulfilled), place events for the host, the time of the last place
// detection, and extended ranging while a beacon must come nearer. It also finishes the campaign
// load that follows each proximity sync.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "campaigns/LWCampaign.h"
#include "platform/application.h"
#include "proximity/QZWManager.h"

class LWManager;
class LWCampaignRepository;

class LWZonewiseDelegate : public QZWManagerDelegate,
                           public std::enable_shared_from_this<LWZonewiseDelegate> {
  public:
    static constexpr const char* kExtendedRangingTaskName = "Lurewave:ExtendedRanging";
    static constexpr double kPlaceWindow = -21600.0;  // six hours, as an interval since now

    LWZonewiseDelegate(std::weak_ptr<LWManager> manager, std::weak_ptr<LWCampaignRepository> repo,
                       std::shared_ptr<quenby::platform::Platform> platform);

    void zonewiseDidSync(QZWManager&) override;
    void zonewiseDidEnter(QZWManager&, const std::shared_ptr<const QZWRegion>& region) override;
    void zonewiseDidExit(QZWManager&, const std::shared_ptr<const QZWRegion>& region) override;
    void zonewiseDidDetermineStateForRegion(
        QZWManager&, std::int64_t state, const std::shared_ptr<const QZWRegion>& region) override;
    void zonewiseDidRangeBeaconsInRegion(
        QZWManager&, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons,
        const std::shared_ptr<const QZWBeaconRegion>& region) override;
    void zonewiseDidFailWithError(QZWManager&, const quenby::platform::Error& error) override;

    void setCompletionHandler(std::function<void(int)> handler);
    // Runs the handler, which stays in place.
    void callCompletionHandler(int result);
    void callDidDetectPlaceOnEvent(const QZWRegion& region, int event);
    bool placeDetectedInLast6Hours() const;
    std::optional<quenby::platform::Date> lastPlaceDetectedAtDate() const;

    void checkForCampaignsInRegion(const QZWRegion& region);
    bool isRegionConnectedToCampaign(const QZWRegion& region, const LWCampaign& campaign) const;
    // True without a trigger distance or for a geofence; otherwise only a ranged beacon at most
    // that far. Starts extended ranging when a campaign that is not foreground-only is not near.
    bool isRegionWithinTriggerDistanceForCampaign(const QZWRegion& region, const LWCampaign& c);
    bool isRegionConnectedToCampaignFulfillment(const QZWRegion& region,
                                                const LWCampaign& campaign) const;

    // One background task at a time, ended on a find or when the host's time runs out.
    void startExtendedRanging();
    void stopExtendedRanging();
    quenby::platform::BackgroundTaskIdentifier extendedRangingTask() const;

    void setCampaignRepo(std::weak_ptr<LWCampaignRepository> repo);

  private:
    std::shared_ptr<quenby::platform::Platform> platform_;
    mutable std::mutex mu_;
    std::weak_ptr<LWManager> manager_;                               // guarded by mu_
    std::weak_ptr<LWCampaignRepository> campaignRepo_;               // guarded by mu_
    std::function<void(int)> completionHandler_;                     // guarded by mu_
    std::optional<quenby::platform::Date> lastPlaceDetectedAtDate_;  // guarded by mu_
    quenby::platform::BackgroundTaskIdentifier extendedRangingTask_ =
        quenby::platform::kInvalidBackgroundTask;  // guarded by mu_
};
