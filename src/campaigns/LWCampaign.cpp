#include "campaigns/LWCampaign.h"

#include <algorithm>

#include "campaigns/LWInteger.h"

using quenby::platform::Date;
using quenby::platform::describeJson;
using quenby::platform::Json;
using quenby::platform::jsonMember;

namespace {

std::optional<Date> dateMember(const Json& dict, const char* key) {
    auto s = quenby::platform::jsonString(jsonMember(&dict, key));
    return s ? LWCampaign::dateFromString(*s) : std::nullopt;
}

Json member(const Json* dict, const char* key) {
    const Json* v = jsonMember(dict, key);
    return v ? *v : Json();
}

std::optional<Date> archivedDate(const Json& a, const char* key) {
    const Json* v = jsonMember(&a, key);
    if (!v || !v->is_number()) return std::nullopt;
    return Date::fromSecondsSince1970(v->get<double>());
}

}  // namespace

std::shared_ptr<LWCampaign> LWCampaign::initWithDictionaryContents(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& dict,
    const Contents& contents) {
    std::shared_ptr<LWCampaign> c(new LWCampaign(std::move(platform)));
    c->updateWithDictionaryContents(dict, contents);
    std::lock_guard lk(c->mu_);
    c->viewCount_ = 0;
    c->viewed_ = false;
    c->fulfilled_ = false;
    return c;
}

void LWCampaign::updateWithDictionaryContents(const Json& dict, const Contents& contents) {
    const Json* links = jsonMember(&dict, "links");
    const Json* contentId = jsonMember(links, "content");
    std::string wanted = contentId ? describeJson(*contentId) : "(null)";
    std::shared_ptr<LWContent> found;
    for (const auto& c : contents) {
        if (c && c->id() == wanted) {
            found = c;
            break;
        }
    }
    bool replace = false;
    {
        std::lock_guard lk(mu_);
        const Json* id = jsonMember(&dict, "id");
        id_ = id ? describeJson(*id) : "(null)";
        startAt_ = dateMember(dict, "start_at");
        endAt_ = dateMember(dict, "end_at");
        minRecurSecs_ = member(&dict, "min_recur_secs");
        foregroundOnly_ = quenby::platform::jsonBoolValue(jsonMember(&dict, "foreground_only"));
        places_ = member(links, "places");
        fulfillmentPlaces_ = member(links, "fulfillment_places");
        triggerDistance_ = member(&dict, "trigger_distance");
        // An unchanged content is kept, so the images it already inlined survive the sync.
        if (found && (!content_ || found->hashValue() != content_->hashValue())) {
            content_ = found;
            replace = true;
        }
    }
    if (replace) found->startPreloadingImages();
}

std::optional<Date> LWCampaign::dateFromString(const std::string& text) {
    return quenby::platform::parseTimestamp(text);
}

bool LWCampaign::isActive() const {
    Date n = now();
    bool foregroundOnly;
    {
        std::lock_guard lk(mu_);
        if (!startAt_ || !endAt_ || !(n > *startAt_) || !(n < *endAt_)) return false;
        foregroundOnly = foregroundOnly_;
    }
    return !foregroundOnly ||
           platform_->application->applicationState() == quenby::platform::ApplicationState::Active;
}

bool LWCampaign::isExpired() const {
    Date n = now();
    std::lock_guard lk(mu_);
    return !endAt_ || !(n < *endAt_);
}

bool LWCampaign::canDetect() const {
    Date n = now();
    std::lock_guard lk(mu_);
    return !canDetectAfter_ || n > *canDetectAfter_;
}

void LWCampaign::detect() {
    Date n = now();
    std::lock_guard lk(mu_);
    if (minRecurSecs_.is_null()) return;  // may be detected again at once
    if (lurewave::jsonInt64Value(&minRecurSecs_) == -1) {
        canDetectAfter_ = Date::distantFuture();
    } else {
        canDetectAfter_ = n.addingTimeInterval(quenby::platform::jsonDoubleValue(&minRecurSecs_));
    }
}

quenby::platform::LocalNotification LWCampaign::buildLocalNotification() const {
    quenby::platform::LocalNotification n;
    n.alertAction = "View Details";
    std::string title = content() ? content()->alertTitle() : std::string("(null)");
    // The platform reads the body as a format string.
    for (char ch : title) {
        n.alertBody += ch;
        if (ch == '%') n.alertBody += '%';
    }
    n.userInfo = {{"campaignId", id()}};
    n.soundName = "default";
    return n;
}

std::string LWCampaign::description() const {
    return "<LWCampaign: id=" + id() + ">";
}

Json LWCampaign::archive() const {
    std::lock_guard lk(mu_);
    Json a = {{"id", id_},
              {"places", places_},
              {"fulfillment_places", fulfillmentPlaces_},
              {"min_recur_secs", minRecurSecs_},
              {"view_count", viewCount_},
              {"viewed", viewed_ ? 1 : 0},
              {"fulfilled", fulfilled_ ? 1 : 0},
              {"foreground_only", foregroundOnly_ ? 1 : 0}};
    if (content_) a["content"] = content_->archive();
    if (startAt_) a["start_at"] = startAt_->timeIntervalSince1970();
    if (endAt_) a["end_at"] = endAt_->timeIntervalSince1970();
    if (canDetectAfter_) a["can_detect_after"] = canDetectAfter_->timeIntervalSince1970();
    if (foundAt_) a["found_at"] = foundAt_->archive();
    if (!triggerDistance_.is_null()) a["trigger_distance"] = triggerDistance_;
    return a;
}

std::shared_ptr<LWCampaign> LWCampaign::fromArchive(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& a) {
    if (!a.is_object() || !jsonMember(&a, "id") || !jsonMember(&a, "id")->is_string())
        return nullptr;
    std::shared_ptr<LWCampaign> c(new LWCampaign(platform));
    c->id_ = a["id"].get<std::string>();
    const Json* content = jsonMember(&a, "content");
    if (content && content->is_string()) {
        auto str = [&](const char* key) {
            return quenby::platform::jsonString(jsonMember(&a, key)).value_or("(null)");
        };
        c->content_ = LWContent::initWithLegacyFields(platform, content->get<std::string>(),
                                                      str("message"), str("title"));
    } else if (content) {
        c->content_ = LWContent::fromArchive(platform, *content);
    }
    c->startAt_ = archivedDate(a, "start_at");
    c->endAt_ = archivedDate(a, "end_at");
    c->canDetectAfter_ = archivedDate(a, "can_detect_after");
    c->places_ = member(&a, "places");
    c->fulfillmentPlaces_ = member(&a, "fulfillment_places");
    c->minRecurSecs_ = member(&a, "min_recur_secs");
    c->triggerDistance_ = member(&a, "trigger_distance");
    if (const Json* found = jsonMember(&a, "found_at"); found && found->is_object()) {
        c->foundAt_ = LWPlace::initWithDict(*found);
    }
    c->viewCount_ = lurewave::jsonInt64Value(jsonMember(&a, "view_count"));
    c->viewed_ = quenby::platform::jsonBoolValue(jsonMember(&a, "viewed"));
    c->fulfilled_ = quenby::platform::jsonBoolValue(jsonMember(&a, "fulfilled"));
    c->foregroundOnly_ = quenby::platform::jsonBoolValue(jsonMember(&a, "foreground_only"));
    return c;
}

std::string LWCampaign::id() const {
    std::lock_guard lk(mu_);
    return id_;
}

std::shared_ptr<LWContent> LWCampaign::content() const {
    std::lock_guard lk(mu_);
    return content_;
}

std::optional<Date> LWCampaign::startAt() const {
    std::lock_guard lk(mu_);
    return startAt_;
}

std::optional<Date> LWCampaign::endAt() const {
    std::lock_guard lk(mu_);
    return endAt_;
}

void LWCampaign::setEndAt(std::optional<Date> d) {
    std::lock_guard lk(mu_);
    endAt_ = d;
}

Json LWCampaign::places() const {
    std::lock_guard lk(mu_);
    return places_;
}

Json LWCampaign::fulfillmentPlaces() const {
    std::lock_guard lk(mu_);
    return fulfillmentPlaces_;
}

Json LWCampaign::minRecurSecs() const {
    std::lock_guard lk(mu_);
    return minRecurSecs_;
}

std::optional<double> LWCampaign::triggerDistance() const {
    std::lock_guard lk(mu_);
    if (triggerDistance_.is_number() || triggerDistance_.is_string()) {
        return quenby::platform::jsonDoubleValue(&triggerDistance_);
    }
    return std::nullopt;
}

std::shared_ptr<const LWPlace> LWCampaign::foundAt() const {
    std::lock_guard lk(mu_);
    return foundAt_;
}

void LWCampaign::setFoundAt(std::shared_ptr<const LWPlace> p) {
    std::lock_guard lk(mu_);
    foundAt_ = std::move(p);
}

bool LWCampaign::viewed() const {
    std::lock_guard lk(mu_);
    return viewed_;
}

void LWCampaign::setViewed(bool v) {
    std::lock_guard lk(mu_);
    viewed_ = v;
}

std::int64_t LWCampaign::viewCount() const {
    std::lock_guard lk(mu_);
    return viewCount_;
}

void LWCampaign::setViewCount(std::int64_t n) {
    std::lock_guard lk(mu_);
    viewCount_ = n;
}

bool LWCampaign::fulfilled() const {
    std::lock_guard lk(mu_);
    return fulfilled_;
}

void LWCampaign::setFulfilled(bool f) {
    std::lock_guard lk(mu_);
    fulfilled_ = f;
}

bool LWCampaign::foregroundOnly() const {
    std::lock_guard lk(mu_);
    return foregroundOnly_;
}

std::optional<Date> LWCampaign::canDetectAfter() const {
    std::lock_guard lk(mu_);
    return canDetectAfter_;
}
