#include "campaigns/LWManager.h"

#include <algorithm>
#include <condition_variable>

#include "campaigns/LWCampaignRepository.h"
#include "campaigns/LWConfig.h"
#include "campaigns/LWZonewiseDelegate.h"
#include "platform/archive.h"
#include "platform/console.h"
#include "platform/files.h"
#include "proximity/QZWAnalyticsEvent.h"
#include "proximity/QZWManager.h"

using quenby::platform::Json;

const double LurewaveVersionNumber = 0.2;
const unsigned char LurewaveVersionString[] = "@(#)PROGRAM:Lurewave  PROJECT:Lurewave-0.2.1\n";

namespace {
constexpr double kSyncWait = 30.0;
constexpr double kPushRangingTime = 5.0;
}  // namespace

// ---------------------------------------------------------------------------------------------
// Creation

std::shared_ptr<LWManager> LWManager::managerWithDelegate(
    std::shared_ptr<quenby::platform::Platform> platform, std::weak_ptr<LWManagerDelegate> d) {
    std::shared_ptr<LWManager> m(new LWManager(platform));
    m->config_ = std::make_shared<LWConfig>(*platform);
    m->loadState();
    m->setDelegate(std::move(d));
    m->zonewiseDelegate_ = std::make_shared<LWZonewiseDelegate>(m, m->campaignRepo(), platform);
    Json proximity = Json::object();
    if (auto kit = m->config_->ZWKitURL()) proximity["ZWKitURL"] = *kit;
    if (auto token = m->config_->ZWAPIToken()) proximity["ZWAPIToken"] = *token;
    if (auto analytics = m->config_->ZWAnalyticsURL()) proximity["ZWAnalyticsURL"] = *analytics;
    m->setZWManager(
        QZWManager::managerWithDelegateAndConfig(platform, m->zonewiseDelegate_, proximity));
    std::weak_ptr<LWManager> weak = m;
    m->resignObserver_ = quenby::platform::NotificationCenter::defaultCenter().addObserver(
        quenby::platform::kApplicationWillResignActiveNotification, platform->application.get(),
        [weak](const quenby::platform::Notification& n) {
            if (auto self = weak.lock()) self->appWillResignActive(n);
        });
    return m;
}

LWManager::~LWManager() {
    quenby::platform::NotificationCenter::defaultCenter().removeObserver(resignObserver_);
}

// ---------------------------------------------------------------------------------------------
// Forwarding to the proximity manager

void LWManager::start() {
    if (auto z = zwManager()) z->start();
}

void LWManager::stop() {
    if (auto z = zwManager()) z->stop();
}

void LWManager::sync() {
    if (auto z = zwManager()) z->sync();
}

void LWManager::setPartnerIdentifier(const std::string& identifier) {
    if (auto z = zwManager()) z->setPartnerIdentifier(identifier);
}

void LWManager::syncWithCompletionHandler(FetchCompletion handler) {
    struct Wait {
        std::mutex mu;
        std::condition_variable cv;
        bool waiting = true;
    };
    auto wait = std::make_shared<Wait>();
    std::unique_lock lk(wait->mu);
    // Whoever completes the sync calls the handler, possibly after this wait has given up; the
    // handler stays installed for every later campaign load.
    zonewiseDelegate_->setCompletionHandler([handler, wait](int result) {
        if (handler) handler(result);
        std::lock_guard g(wait->mu);
        wait->waiting = false;
        wait->cv.notify_all();
    });
    sync();
    auto deadline = platform_->scheduler->now().addingTimeInterval(kSyncWait);
    platform_->scheduler->waitUntil(lk, wait->cv, deadline, [&] { return !wait->waiting; });
}

void LWManager::handleRemoteNotificationFetchCompletionHandler(const Json&,
                                                               FetchCompletion handler) {
    quenby::platform::consoleWrite("Lurewave: handling remote notification.");
    if (!zonewiseDelegate_->placeDetectedInLast6Hours()) {
        if (handler) handler(quenby::platform::kFetchResultNoData);
        return;
    }
    syncWithCompletionHandler(handler);
    auto app = platform_->application;
    auto task = std::make_shared<std::atomic<quenby::platform::BackgroundTaskIdentifier>>(
        quenby::platform::kInvalidBackgroundTask);
    auto id = app->beginBackgroundTaskWithName("", [app, task] {
        app->endBackgroundTask(task->exchange(quenby::platform::kInvalidBackgroundTask));
    });
    if (id == quenby::platform::kInvalidBackgroundTask) {
        quenby::platform::consoleWrite(
            "Lurewave: not able to start background ranging for remote notification.");
        return;
    }
    task->store(id);
    // Five seconds of background time let ranging run once more after a push.
    platform_->scheduler->postToMainAfter(kPushRangingTime, [app, task] {
        auto running = task->exchange(quenby::platform::kInvalidBackgroundTask);
        if (running != quenby::platform::kInvalidBackgroundTask) app->endBackgroundTask(running);
    });
}

// ---------------------------------------------------------------------------------------------
// Found campaigns

std::shared_ptr<LWCampaign> LWManager::campaignWithId(const std::string& id) const {
    auto repo = campaignRepo();
    return repo ? repo->campaignWithId(id) : nullptr;
}

void LWManager::addCampaign(const std::shared_ptr<LWCampaign>& campaign) {
    std::lock_guard lk(mu_);
    bool present = std::any_of(campaigns_.begin(), campaigns_.end(),
                               [&](const auto& c) { return c->isEqual(*campaign); });
    if (!present) campaigns_.insert(campaigns_.begin(), campaign);
    persistState();
}

void LWManager::removeCampaign(const std::shared_ptr<LWCampaign>& campaign) {
    std::lock_guard lk(mu_);
    std::erase_if(campaigns_, [&](const auto& c) { return c->isEqual(*campaign); });
    persistState();
}

void LWManager::pruneExpiredCampaigns() {
    std::lock_guard lk(mu_);
    auto expired = campaignRepo_->pruneAndReturnExpiredCampaigns();
    std::erase_if(campaigns_, [&](const auto& c) {
        return std::any_of(expired.begin(), expired.end(),
                           [&](const auto& e) { return e->isEqual(*c); });
    });
    persistState();
}

std::shared_ptr<LWCampaign> LWManager::campaignFromNotification(
    const quenby::platform::LocalNotification& n) const {
    auto id = quenby::platform::jsonString(quenby::platform::jsonMember(&n.userInfo, "campaignId"));
    return id ? campaignWithId(*id) : nullptr;
}

std::vector<std::shared_ptr<LWCampaign>> LWManager::campaigns() const {
    std::lock_guard lk(mu_);
    return campaigns_;
}

std::vector<std::shared_ptr<LWCampaign>> LWManager::activeCampaigns() const {
    auto repo = campaignRepo();
    return repo ? repo->getAllCampaigns() : std::vector<std::shared_ptr<LWCampaign>>{};
}

// ---------------------------------------------------------------------------------------------
// Views, fulfilment, analytics

void LWManager::setCampaignViewed(const std::shared_ptr<LWCampaign>& campaign) {
    if (!campaign || campaign->viewed()) return;
    campaign->setViewed(true);
    campaign->setViewCount(campaign->viewCount() + 1);
    recordAnalyticsForCampaign(LWAnalyticsTypeViewed, campaign);
}

void LWManager::setCampaignFulfilledAtPlace(const std::shared_ptr<LWCampaign>& campaign,
                                            const std::shared_ptr<const LWPlace>& place) {
    if (!campaign || campaign->viewCount() <= 0 || campaign->fulfilled()) return;
    campaign->setFulfilled(true);
    recordAnalyticsForCampaignAtPlace(LWAnalyticsTypeFulfilled, campaign, place);
}

std::optional<std::string> LWManager::nameForAnalyticsType(int type) {
    switch (type) {
        case LWAnalyticsTypeFound:
            return "found";
        case LWAnalyticsTypeViewed:
            return "viewed";
        case LWAnalyticsTypeFulfilled:
            return "fulfilled";
        default:
            return std::nullopt;
    }
}

void LWManager::recordAnalyticsForCampaignAtPlace(int type, const std::shared_ptr<LWCampaign>& c,
                                                  const std::shared_ptr<const LWPlace>& place) {
    recordAnalyticsForCampaignAtPlaceId(type, c, place ? std::optional(place->id()) : std::nullopt);
}

void LWManager::recordAnalyticsForCampaignAtPlaceId(int type, const std::shared_ptr<LWCampaign>& c,
                                                    std::optional<std::int64_t> placeId) {
    Json details = Json::object();
    auto repo = campaignRepo();
    Json kit = repo ? repo->kitId() : Json();
    if (!kit.is_null()) details["kit_id"] = kit;  // absent until the repository has synced
    if (auto name = nameForAnalyticsType(type)) details["event_type"] = *name;
    details["campaign_id"] = c->id();
    if (placeId) details["place_id"] = std::to_string(*placeId);
    QZWAnalyticsEvent::postEventWithDetails("lurewave_events", details);
}

void LWManager::recordAnalyticsForCampaign(int type, const std::shared_ptr<LWCampaign>& c) {
    if (auto place = c->foundAt()) {
        recordAnalyticsForCampaignAtPlace(type, c, place);
    } else {
        recordAnalyticsForCampaignAtPlaceId(type, c, std::nullopt);
    }
}

void LWManager::registerDeviceToken(const quenby::platform::Bytes& token) {
    if (auto repo = campaignRepo()) repo->registerDeviceToken(token);
}

void LWManager::deregisterDeviceToken() {
    if (auto repo = campaignRepo()) repo->deregisterDeviceToken();
}

// ---------------------------------------------------------------------------------------------
// Accessors

std::shared_ptr<LWManagerDelegate> LWManager::delegate() const {
    std::lock_guard lk(mu_);
    return delegate_.lock();
}

void LWManager::setDelegate(std::weak_ptr<LWManagerDelegate> d) {
    std::lock_guard lk(mu_);
    delegate_ = std::move(d);
}

std::shared_ptr<LWCampaignRepository> LWManager::campaignRepo() const {
    std::lock_guard lk(mu_);
    return campaignRepo_;
}

void LWManager::setRepository(std::shared_ptr<LWCampaignRepository> repo) {
    {
        std::lock_guard lk(mu_);
        campaignRepo_ = repo;
    }
    if (zonewiseDelegate_) zonewiseDelegate_->setCampaignRepo(repo);
}

std::shared_ptr<QZWManager> LWManager::zwManager() const {
    std::lock_guard lk(mu_);
    return zwManager_;
}

std::shared_ptr<LWAppDelegate> LWManager::lwAppDelegate() const {
    std::lock_guard lk(mu_);
    return lwAppDelegate_;
}

void LWManager::setLwAppDelegate(std::shared_ptr<LWAppDelegate> proxy) {
    std::lock_guard lk(mu_);
    lwAppDelegate_ = std::move(proxy);
}

void LWManager::setZWManager(std::shared_ptr<QZWManager> m) {
    std::lock_guard lk(mu_);
    zwManager_ = std::move(m);
}

// ---------------------------------------------------------------------------------------------
// State file

std::string LWManager::plistPath() const {
    // The token names the file; a token never names a file outside the documents directory,
    // and one too long for a file name still names a file of its own, the same at every start.
    std::string token = config_->LWAPIToken().value_or("(null)");
    return platform_->documentsDirectory + "/" +
           quenby::platform::boundedFileName(
               "LurewaveState_", quenby::platform::safeFileNameComponent(token), ".plist");
}

bool LWManager::stateWasPersisted() const {
    return platform_->files->fileExists(plistPath());
}

void LWManager::persistState() {
    std::lock_guard lk(mu_);
    Json ids = Json::array();
    for (const auto& c : campaigns_) ids.push_back(c->id());
    Json state = {{"campaign_repo", campaignRepo_->archive()}, {"campaign_ids", std::move(ids)}};
    Json synced = config_->synced();
    if (!synced.is_null()) state["configuration"] = std::move(synced);
    // Written beside and renamed over the old file: a process killed mid-write leaves the
    // previous state whole.
    if (auto err =
            platform_->files->writeFile(plistPath(), quenby::platform::archiveJson(state), true)) {
        quenby::platform::consoleWrite("Error Writing Lurewave state file: " + err->toString());
    }
}

void LWManager::loadState() {
    std::lock_guard lk(mu_);
    std::string path = plistPath();
    std::optional<Json> state;
    // A missing or unreadable file is no error: the layer starts empty, without a word.
    if (platform_->files->fileExists(path)) {
        if (auto bytes = platform_->files->readFile(path)) {
            state = quenby::platform::unarchiveJson(*bytes);
        }
        if (state && !state->is_object()) state.reset();
    }
    std::shared_ptr<LWCampaignRepository> repo;
    if (state) {
        if (const Json* r = quenby::platform::jsonMember(&*state, "campaign_repo")) {
            repo = LWCampaignRepository::fromArchive(platform_, *r);
        }
    }
    if (!repo) {
        campaignRepo_ = LWCampaignRepository::initWithConfig(platform_, config_);
        campaigns_.clear();
        return;
    }
    repo->setConfig(config_);
    campaignRepo_ = repo;
    std::vector<std::shared_ptr<LWCampaign>> found;
    if (const Json* ids = quenby::platform::jsonMember(&*state, "campaign_ids");
        ids && ids->is_array()) {
        for (const Json& id : *ids) {
            if (!id.is_string()) continue;
            if (auto c = repo->campaignWithId(id.get<std::string>())) found.push_back(c);
        }
    }
    // The prune runs before the list is installed, so the file it writes holds no found ids and
    // no server configuration until the next write. Kept as it has always been.
    campaigns_.clear();
    pruneExpiredCampaigns();
    campaigns_ = std::move(found);
    if (const Json* configuration = quenby::platform::jsonMember(&*state, "configuration")) {
        config_->setSynced(*configuration);
    }
}

void LWManager::appWillResignActive(const quenby::platform::Notification&) {
    persistState();
}
