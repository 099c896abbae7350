// The campaign feed as the server answers it: merged into the repository twice (the first sync
// creates, the second updates in place), its contents' images preloaded, every campaign asked
// what detection asks, and the repository archived and restored as the state file does.
#include "campaigns/LWCampaignRepository.h"
#include "fuzz_support.h"
#include "platform/archive.h"

using namespace quenby;

namespace {
constexpr const char* kFeedUrl = "https://campaigns.example.com/api/feed";
const char* kLurewavePlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>LWKitURL</key><string>https://campaigns.example.com/api/feed</string>
<key>LWAPIToken</key><string>lw-token</string>
</dict></plist>
)";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp =
        fuzz::quietPlatform(std::map<std::string, std::string>{{"Lurewave.plist", kLurewavePlist}});
    static auto config = std::make_shared<LWConfig>(*fp->platform);
    config->setSynced(platform::Json());
    auto feed = fuzz::bytes(data, size);
    fp->http->answer = [&feed](const platform::HttpRequest& r) {
        platform::HttpResponse res;
        if (r.url == kFeedUrl) {
            res.statusCode = 200;
            res.body = feed;
        } else if (r.url.rfind("http", 0) == 0) {
            res.statusCode = 200;
            res.body = {'G', 'I', 'F', '8', '9', 'a'};
        } else {
            res.error = platform::Error{"curl", 3, "URL using bad/illegal format"};
        }
        return res;
    };

    auto repo = LWCampaignRepository::initWithConfig(fp->platform, config);
    repo->registerDeviceToken({0xde, 0xad, 0xbe, 0xef});  // waits for a sync that names the URL
    for (int sync = 0; sync < 2; ++sync) {
        repo->loadAllWithCompletion([](std::optional<platform::Error>) {});
        fp->http->deliver();
        fp->platform->scheduler->settle();  // the image preloads
        fp->http->deliver();
    }
    for (const auto& c : repo->getAllCampaigns()) {
        (void)c->isActive();
        (void)c->canDetect();
        (void)c->triggerDistance();
        (void)c->buildLocalNotification();
        (void)c->description();
        if (auto content = c->content()) (void)content->description();
        c->detect();
        (void)c->canDetectAfter();
        if (repo->campaignWithId(c->id()) == nullptr) std::abort();
    }
    platform::Json archived = repo->archive();
    auto restored = LWCampaignRepository::fromArchive(fp->platform, archived);
    if (!restored || restored->getAllCampaigns().size() != repo->getAllCampaigns().size())
        std::abort();
    auto bytes = platform::archiveJson(archived);
    auto back = platform::unarchiveJson(bytes);
    if (!back || *back != archived) std::abort();
    (void)repo->pruneAndReturnExpiredCampaigns();
    fp->http->answer = nullptr;
    return 0;
}
