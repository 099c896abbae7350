// The campaign state file (LurewaveState_<token>.plist) as a manager finds it: loaded, pruned and
// written back, then loaded again from what was written.
#include "campaigns/LWCampaignRepository.h"
#include "campaigns/LWManager.h"
#include "fuzz_support.h"

using namespace quenby;

namespace {

const char* kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>NSLocationAlwaysUsageDescription</key><string>offers nearby</string>
</dict></plist>
)";
const char* kLurewavePlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>LWAPIToken</key><string>lw-token</string>
</dict></plist>
)";

struct Host : LWManagerDelegate {
    void lurewaveDidFindCampaign(LWManager&, const std::shared_ptr<LWCampaign>&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform(std::map<std::string, std::string>{
        {"Info.plist", kInfoPlist}, {"Lurewave.plist", kLurewavePlist}});
    static auto* host = new std::shared_ptr<Host>(std::make_shared<Host>());
    static auto* manager =
        new std::shared_ptr<LWManager>(LWManager::managerWithDelegate(fp->platform, *host));
    LWManager& m = **manager;

    fp->files->clear();
    fp->files->writeFile(m.plistPath(), fuzz::bytes(data, size), true);
    m.loadState();
    for (const auto& c : m.campaigns()) {
        // A found campaign may have expired since: the prune does not reach the found list.
        (void)m.campaignWithId(c->id());
        (void)c->isActive();
        (void)c->buildLocalNotification();
    }
    (void)m.activeCampaigns();
    (void)m.campaignRepo()->registeredDeviceToken();
    // The manager writes what it holds; reading that back must give the same campaigns.
    m.persistState();
    auto ids = [&] {
        std::vector<std::string> out;
        for (const auto& c : m.campaignRepo()->getAllCampaigns()) out.push_back(c->id());
        return out;
    };
    auto before = ids();
    m.loadState();
    if (ids() != before) std::abort();
    fp->platform->scheduler->settle();
    return 0;
}
