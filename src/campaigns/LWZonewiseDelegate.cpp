#include "campaigns/LWZonewiseDelegate.h"

#include "campaigns/LWCampaignRepository.h"
#include "campaigns/LWManager.h"
#include "platform/console.h"

using quenby::platform::Json;
using quenby::platform::jsonMember;

namespace {
// Does `ids` share a place identifier (compared as JSON values) with `campaignPlaces`?
bool anyIn(const Json& ids, const Json& campaignPlaces) {
    if (!campaignPlaces.is_array()) return false;
    for (const auto& id : ids) {
        for (const auto& p : campaignPlaces) {
            if (id == p) return true;
        }
    }
    return false;
}

Json placeIdsOf(const QZWRegion& region) {
    return LWPlace::parsePlaceIds(
        quenby::platform::jsonString(jsonMember(&region.attributes(), "lw_place_ids")));
}
}  // namespace

LWZonewiseDelegate::LWZonewiseDelegate(std::weak_ptr<LWManager> manager,
                                       std::weak_ptr<LWCampaignRepository> repo,
                                       std::shared_ptr<quenby::platform::Platform> platform)
    : platform_(std::move(platform)),
      manager_(std::move(manager)),
      campaignRepo_(std::move(repo)) {}

void LWZonewiseDelegate::setCampaignRepo(std::weak_ptr<LWCampaignRepository> repo) {
    std::lock_guard lk(mu_);
    campaignRepo_ = std::move(repo);
}

void LWZonewiseDelegate::setCompletionHandler(std::function<void(int)> handler) {
    std::lock_guard lk(mu_);
    completionHandler_ = std::move(handler);
}

void LWZonewiseDelegate::callCompletionHandler(int result) {
    std::function<void(int)> handler;
    {
        std::lock_guard lk(mu_);
        handler = completionHandler_;
    }
    if (handler) handler(result);
}

// ---------------------------------------------------------------------------------------------
// Proximity callbacks

void LWZonewiseDelegate::zonewiseDidEnter(QZWManager&, const std::shared_ptr<const QZWRegion>& r) {
    checkForCampaignsInRegion(*r);
    callDidDetectPlaceOnEvent(*r, LWPlaceEventEntered);
}

void LWZonewiseDelegate::zonewiseDidExit(QZWManager&, const std::shared_ptr<const QZWRegion>& r) {
    callDidDetectPlaceOnEvent(*r, LWPlaceEventExited);  // exits never find or fulfil
}

void LWZonewiseDelegate::zonewiseDidRangeBeaconsInRegion(
    QZWManager&, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons,
    const std::shared_ptr<const QZWBeaconRegion>&) {
    for (const auto& b : beacons) {
        // A beacon of unknown proximity or without a distance estimate tells nothing.
        if (b->proximity() == 0 || !(b->accuracy() > 0.0)) continue;
        checkForCampaignsInRegion(*b);
        callDidDetectPlaceOnEvent(*b, LWPlaceEventRanged);
    }
}

void LWZonewiseDelegate::zonewiseDidDetermineStateForRegion(
    QZWManager&, std::int64_t state, const std::shared_ptr<const QZWRegion>& r) {
    if (state == 1) {
        checkForCampaignsInRegion(*r);
        callDidDetectPlaceOnEvent(*r, LWPlaceEventInside);
    } else {
        callDidDetectPlaceOnEvent(*r, state == 2 ? LWPlaceEventOutside : LWPlaceEventUnknown);
    }
}

void LWZonewiseDelegate::zonewiseDidFailWithError(QZWManager&,
                                                  const quenby::platform::Error& error) {
    std::shared_ptr<LWManager> manager;
    {
        std::lock_guard lk(mu_);
        manager = manager_.lock();
    }
    if (manager) {
        if (auto d = manager->delegate()) d->lurewaveDidFailWithError(*manager, error);
    }
    // A proximity failure does not fail a pending background fetch.
    callCompletionHandler(quenby::platform::kFetchResultNewData);
}

void LWZonewiseDelegate::zonewiseDidSync(QZWManager&) {
    std::shared_ptr<LWCampaignRepository> repo;
    {
        std::lock_guard lk(mu_);
        repo = campaignRepo_.lock();
    }
    if (!repo) return;
    std::weak_ptr<LWZonewiseDelegate> weak = weak_from_this();
    repo->loadAllWithCompletion([weak](std::optional<quenby::platform::Error> error) {
        auto self = weak.lock();
        if (!self) return;
        std::shared_ptr<LWManager> manager;
        {
            std::lock_guard lk(self->mu_);
            manager = self->manager_.lock();
        }
        if (manager) manager->pruneExpiredCampaigns();
        auto d = manager ? manager->delegate() : nullptr;
        if (error) {
            if (d) d->lurewaveDidFailWithError(*manager, *error);
            quenby::platform::consoleWrite("Lurewave: Sync failed.  " + error->toString());
            self->callCompletionHandler(quenby::platform::kFetchResultFailed);
        } else {
            if (d) d->lurewaveDidSync(*manager);
            quenby::platform::consoleWrite("Lurewave: Sync completed.");
            self->callCompletionHandler(quenby::platform::kFetchResultNewData);
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Places and campaigns

void LWZonewiseDelegate::callDidDetectPlaceOnEvent(const QZWRegion& region, int event) {
    // Regions without places are not places.
    if (!region.attributes().is_object() || !region.attributes().contains("lw_place_ids")) return;
    std::shared_ptr<LWManager> manager;
    {
        std::lock_guard lk(mu_);
        manager = manager_.lock();
    }
    if (manager) {
        if (auto d = manager->delegate()) {
            d->lurewaveDidDetectPlaceOnEvent(*manager, LWPlace::initWithRegion(region), event);
        }
    }
    if (event == LWPlaceEventRanged || event == LWPlaceEventEntered ||
        event == LWPlaceEventInside) {
        std::lock_guard lk(mu_);
        lastPlaceDetectedAtDate_ = platform_->scheduler->now();
    }
}

std::optional<quenby::platform::Date> LWZonewiseDelegate::lastPlaceDetectedAtDate() const {
    std::lock_guard lk(mu_);
    return lastPlaceDetectedAtDate_;
}

bool LWZonewiseDelegate::placeDetectedInLast6Hours() const {
    auto last = lastPlaceDetectedAtDate();
    return last && last->timeIntervalSince(platform_->scheduler->now()) > kPlaceWindow;
}

bool LWZonewiseDelegate::isRegionConnectedToCampaign(const QZWRegion& region,
                                                     const LWCampaign& campaign) const {
    return anyIn(placeIdsOf(region), campaign.places());
}

bool LWZonewiseDelegate::isRegionConnectedToCampaignFulfillment(const QZWRegion& region,
                                                                const LWCampaign& campaign) const {
    return anyIn(placeIdsOf(region), campaign.fulfillmentPlaces());
}

bool LWZonewiseDelegate::isRegionWithinTriggerDistanceForCampaign(const QZWRegion& region,
                                                                  const LWCampaign& c) {
    auto distance = c.triggerDistance();
    if (!distance || region.kind() == QZWRegion::Kind::Circle) return true;
    auto* beacon = dynamic_cast<const QZWBeacon*>(&region);
    // An entered beacon region is never near enough: only a ranged beacon tells the distance.
    bool within = beacon && *distance >= beacon->accuracy();
    if (!within && !c.foregroundOnly()) startExtendedRanging();
    return within;
}

void LWZonewiseDelegate::checkForCampaignsInRegion(const QZWRegion& region) {
    std::shared_ptr<LWManager> manager;
    std::shared_ptr<LWCampaignRepository> repo;
    {
        std::lock_guard lk(mu_);
        manager = manager_.lock();
        repo = campaignRepo_.lock();
    }
    if (!manager || !repo) return;
    for (const auto& campaign : repo->getAllCampaigns()) {
        if (!campaign->isActive()) continue;  // neither found nor fulfilled
        if (campaign->canDetect() && isRegionConnectedToCampaign(region, *campaign) &&
            isRegionWithinTriggerDistanceForCampaign(region, *campaign)) {
            campaign->detect();
            // A new find restarts the view and fulfilment cycle; the view count stays.
            campaign->setViewed(false);
            campaign->setFulfilled(false);
            campaign->setFoundAt(LWPlace::initWithRegion(region));
            manager->addCampaign(campaign);
            if (auto d = manager->delegate()) d->lurewaveDidFindCampaign(*manager, campaign);
            manager->recordAnalyticsForCampaignAtPlace(LWAnalyticsTypeFound, campaign,
                                                       campaign->foundAt());
            stopExtendedRanging();
        }
        if (campaign->viewCount() > 0 && !campaign->fulfilled() &&
            isRegionConnectedToCampaignFulfillment(region, *campaign)) {
            manager->setCampaignFulfilledAtPlace(campaign, LWPlace::initWithRegion(region));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Extended ranging

void LWZonewiseDelegate::startExtendedRanging() {
    {
        std::lock_guard lk(mu_);
        if (extendedRangingTask_ != quenby::platform::kInvalidBackgroundTask) return;
    }
    std::weak_ptr<LWZonewiseDelegate> weak = weak_from_this();
    auto task =
        platform_->application->beginBackgroundTaskWithName(kExtendedRangingTaskName, [weak] {
            if (auto self = weak.lock()) self->stopExtendedRanging();
        });
    std::lock_guard lk(mu_);
    extendedRangingTask_ = task;
}

void LWZonewiseDelegate::stopExtendedRanging() {
    quenby::platform::BackgroundTaskIdentifier task;
    {
        std::lock_guard lk(mu_);
        task = std::exchange(extendedRangingTask_, quenby::platform::kInvalidBackgroundTask);
    }
    if (task != quenby::platform::kInvalidBackgroundTask)
        platform_->application->endBackgroundTask(task);
}

quenby::platform::BackgroundTaskIdentifier LWZonewiseDelegate::extendedRangingTask() const {
    std::lock_guard lk(mu_);
    return extendedRangingTask_;
}
