// Campaign records in their stored form (the keyed archive of a repository, or of one campaign):
// restored, used as detection uses them, and archived again. A record once restored must archive
// to the same bytes however often it goes round.
#include <vector>

#include "campaigns/LWCampaignRepository.h"
#include "fuzz_support.h"
#include "platform/archive.h"

using namespace quenby;

namespace {

void use(const std::shared_ptr<LWCampaign>& c) {
    (void)c->isActive();
    (void)c->isExpired();
    (void)c->canDetect();
    (void)c->triggerDistance();
    (void)c->buildLocalNotification();
    if (auto at = c->foundAt()) (void)at->description();
    if (auto content = c->content()) {
        (void)content->description();
        (void)content->hashValue();
    }
}

void roundTrip(const std::shared_ptr<platform::Platform>& p, const std::shared_ptr<LWCampaign>& c) {
    auto once = platform::archiveJson(c->archive());
    auto again = LWCampaign::fromArchive(p, c->archive());
    if (!again || platform::archiveJson(again->archive()) != once) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* fp = fuzz::quietPlatform();
    auto value = platform::unarchiveJson(fuzz::bytes(data, size));
    if (!value) return 0;
    if (auto c = LWCampaign::fromArchive(fp->platform, *value)) {
        use(c);
        roundTrip(fp->platform, c);
    }
    if (auto repo = LWCampaignRepository::fromArchive(fp->platform, *value)) {
        for (const auto& c : repo->getAllCampaigns()) {
            use(c);
            roundTrip(fp->platform, c);
        }
        auto restored = LWCampaignRepository::fromArchive(fp->platform, repo->archive());
        if (!restored || restored->getAllCampaigns().size() != repo->getAllCampaigns().size())
            std::abort();
        (void)repo->pruneAndReturnExpiredCampaigns();
    }
    return 0;
}
