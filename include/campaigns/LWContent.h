// A campaign's content as the campaign server sent it: alert title and message, an HTML body and
// free-form attributes, with a fingerprint of the whole source dictionary that tells whether a
// later sync brought the same content. Its body can be rewritten so that remote images are
// embedded in it (see LWImagePreloader). Thread-safe: the body is rewritten on a background
// queue while other threads read it.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/json.h"
#include "platform/platform.h"
#include "platform/types.h"

class LWContent : public std::enable_shared_from_this<LWContent> {
  public:
    using Json = quenby::platform::Json;
    using Bytes = quenby::platform::Bytes;

    // From an element of the feed's "contents" array: updateWithDictionary, then the fingerprint.
    static std::shared_ptr<LWContent> initWithDictionary(
        std::shared_ptr<quenby::platform::Platform> platform, const Json& dict);
    // A content of the older state-file layout: the body, alert message and title only.
    static std::shared_ptr<LWContent> initWithLegacyFields(
        std::shared_ptr<quenby::platform::Platform> platform, std::string body,
        std::string alertMessage, std::string alertTitle);

    // Sets id, body, alertTitle and alertMessage to the text form ("%@") of "id", "body",
    // "alert_title" and "alert_message" (a missing key reads "(null)"), attributes to
    // "attributes" as it is (null when missing), and clears the preloaded flag. The fingerprint
    // stays as it was.
    void updateWithDictionary(const Json& dict);

    std::string id() const;
    std::string alertTitle() const;
    std::string alertMessage() const;
    std::string body() const;
    Json attributes() const;
    // SHA-1 of the source dictionary's deterministic archive: 20 bytes (empty for legacy content).
    Bytes hashValue() const;

    // Same id, nothing else compared.
    bool isEqual(const LWContent& other) const;
    static Bytes hashForDictionary(const Json& dict);

    // Once per update: marks the content preloaded and, on the global queue, replaces the body
    // with LWImagePreloader::htmlWithInlinedImages of it. Returns at once.
    void startPreloadingImages();
    bool preloaded() const;

    // <LWContent: alertTitle="…">
    std::string description() const;

    // Keyed archive: "id", "body", "alert_title", "alert_message", "attributes", "hash".
    Json archive() const;
    // Nothing when `archive` is not an archived content. A decoded content is not preloaded.
    static std::shared_ptr<LWContent> fromArchive(
        std::shared_ptr<quenby::platform::Platform> platform, const Json& archive);

  private:
    explicit LWContent(std::shared_ptr<quenby::platform::Platform> p) : platform_(std::move(p)) {}

    std::shared_ptr<quenby::platform::Platform> platform_;
    mutable std::mutex mu_;
    std::string id_, alertTitle_, alertMessage_, body_;  // guarded by mu_
    Json attributes_;                                    // guarded by mu_
    Bytes hash_;                                         // guarded by mu_
    bool preloaded_ = false;                             // guarded by mu_
};
