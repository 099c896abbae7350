// One campaign: content to show when the device is detected at one of its places, inside its time
// window, no more often than its recurrence allows, and near enough. Thread-safe: syncs update it
// on a request's background context while the host thread detects and views it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "campaigns/LWContent.h"
#include "campaigns/LWPlace.h"
#include "platform/application.h"
#include "platform/json.h"
#include "platform/platform.h"

class LWCampaign : public std::enable_shared_from_this<LWCampaign> {
  public:
    using Json = quenby::platform::Json;
    using Date = quenby::platform::Date;
    using Contents = std::vector<std::shared_ptr<LWContent>>;

    // From an element of the feed's "campaigns": every server field (updateWithDictionary), then
    // viewCount 0, not viewed, not fulfilled.
    static std::shared_ptr<LWCampaign> initWithDictionaryContents(
        std::shared_ptr<quenby::platform::Platform> platform, const Json& dict,
        const Contents& contents);
    // Re-reads the server's fields; what the device recorded (views, fulfilment, the place of the
    // last find, recurrence) is kept. A content with another fingerprint replaces the held one and
    // starts its image preloading; an unchanged one is kept with its preloaded images.
    void updateWithDictionaryContents(const Json& dict, const Contents& contents);
    // "yyyy-MM-dd'T'HH:mm:ss.SSSZ"; nothing for any other text.
    static std::optional<Date> dateFromString(const std::string& text);

    // now is after the start and before the end (and, for a foreground-only campaign, the
    // application is active). A campaign with a missing or unparsable date is never active.
    bool isActive() const;
    // now is not before the end (or the end is missing).
    bool isExpired() const;
    bool canDetect() const;
    // Records a detection for recurrence: min_recur_secs -1 blocks for ever, absent never blocks.
    void detect();

    // Same id, nothing else compared.
    bool isEqual(const LWCampaign& other) const { return id() == other.id(); }
    quenby::platform::LocalNotification buildLocalNotification() const;
    // <LWCampaign: id=…>
    std::string description() const;

    // Keyed archive of every field but the alert delegate.
    Json archive() const;
    // Nothing when `archive` is not an archived campaign. A "content" that is plain text (the
    // older layout) becomes a content of that body, with "message" and "title" as its alert.
    static std::shared_ptr<LWCampaign> fromArchive(
        std::shared_ptr<quenby::platform::Platform> platform, const Json& archive);

    std::string id() const;
    std::shared_ptr<LWContent> content() const;
    std::optional<Date> startAt() const;
    std::optional<Date> endAt() const;
    void setEndAt(std::optional<Date> d);
    // Place identifiers as the feed gives them (compared as JSON values); null when missing.
    Json places() const;
    Json fulfillmentPlaces() const;
    // As the feed gives it; null when absent.
    Json minRecurSecs() const;
    std::optional<double> triggerDistance() const;
    std::shared_ptr<const LWPlace> foundAt() const;
    void setFoundAt(std::shared_ptr<const LWPlace> p);
    bool viewed() const;
    void setViewed(bool v);
    std::int64_t viewCount() const;
    void setViewCount(std::int64_t n);
    bool fulfilled() const;
    void setFulfilled(bool f);
    bool foregroundOnly() const;
    std::optional<Date> canDetectAfter() const;

  private:
    explicit LWCampaign(std::shared_ptr<quenby::platform::Platform> p) : platform_(std::move(p)) {}
    Date now() const { return platform_->scheduler->now(); }

    std::shared_ptr<quenby::platform::Platform> platform_;
    mutable std::mutex mu_;
    std::string id_;                           // guarded by mu_
    std::shared_ptr<LWContent> content_;       // guarded by mu_
    std::optional<Date> startAt_, endAt_;      // guarded by mu_
    Json places_, fulfillmentPlaces_;          // guarded by mu_
    Json minRecurSecs_;                        // guarded by mu_
    Json triggerDistance_;                     // guarded by mu_: a number or null
    std::shared_ptr<const LWPlace> foundAt_;   // guarded by mu_
    bool viewed_ = false, fulfilled_ = false;  // guarded by mu_
    std::int64_t viewCount_ = 0;               // guarded by mu_
    bool foregroundOnly_ = false;              // guarded by mu_
    std::optional<Date> canDetectAfter_;       // guarded by mu_
};
