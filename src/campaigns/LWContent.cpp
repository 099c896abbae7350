#include "campaigns/LWContent.h"

#include "campaigns/LWImagePreloader.h"
#include "platform/archive.h"
#include "platform/crypto.h"

using quenby::platform::describeJson;
using quenby::platform::Json;
using quenby::platform::jsonMember;

namespace {
// The text form of a member: "(null)" when it is missing.
std::string text(const Json& dict, const char* key) {
    const Json* v = jsonMember(&dict, key);
    return v ? describeJson(*v) : std::string("(null)");
}
}  // namespace

std::shared_ptr<LWContent> LWContent::initWithDictionary(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& dict) {
    std::shared_ptr<LWContent> c(new LWContent(std::move(platform)));
    c->updateWithDictionary(dict);
    std::lock_guard lk(c->mu_);
    c->hash_ = hashForDictionary(dict);
    return c;
}

std::shared_ptr<LWContent> LWContent::initWithLegacyFields(
    std::shared_ptr<quenby::platform::Platform> platform, std::string body,
    std::string alertMessage, std::string alertTitle) {
    std::shared_ptr<LWContent> c(new LWContent(std::move(platform)));
    c->body_ = std::move(body);
    c->alertMessage_ = std::move(alertMessage);
    c->alertTitle_ = std::move(alertTitle);
    return c;
}

void LWContent::updateWithDictionary(const Json& dict) {
    const Json* attrs = jsonMember(&dict, "attributes");
    std::lock_guard lk(mu_);
    id_ = text(dict, "id");
    body_ = text(dict, "body");
    alertTitle_ = text(dict, "alert_title");
    alertMessage_ = text(dict, "alert_message");
    attributes_ = attrs ? *attrs : Json();
    preloaded_ = false;
}

std::string LWContent::id() const {
    std::lock_guard lk(mu_);
    return id_;
}

std::string LWContent::alertTitle() const {
    std::lock_guard lk(mu_);
    return alertTitle_;
}

std::string LWContent::alertMessage() const {
    std::lock_guard lk(mu_);
    return alertMessage_;
}

std::string LWContent::body() const {
    std::lock_guard lk(mu_);
    return body_;
}

Json LWContent::attributes() const {
    std::lock_guard lk(mu_);
    return attributes_;
}

LWContent::Bytes LWContent::hashValue() const {
    std::lock_guard lk(mu_);
    return hash_;
}

bool LWContent::isEqual(const LWContent& other) const {
    return id() == other.id();
}

LWContent::Bytes LWContent::hashForDictionary(const Json& dict) {
    // The archive sorts its keys, so equal dictionaries always give equal bytes.
    auto digest = quenby::platform::sha1(quenby::platform::archiveJson(dict));
    return Bytes(digest.begin(), digest.end());
}

bool LWContent::preloaded() const {
    std::lock_guard lk(mu_);
    return preloaded_;
}

void LWContent::startPreloadingImages() {
    std::string html;
    {
        std::lock_guard lk(mu_);
        if (preloaded_) return;
        preloaded_ = true;
        html = body_;
    }
    std::weak_ptr<LWContent> weak = weak_from_this();
    auto platform = platform_;
    platform_->scheduler->dispatchGlobal([weak, platform, html = std::move(html)] {
        std::string inlined = LWImagePreloader::htmlWithInlinedImages(*platform->http, html);
        if (auto self = weak.lock()) {
            std::lock_guard lk(self->mu_);
            self->body_ = std::move(inlined);
        }
    });
}

std::string LWContent::description() const {
    return "<LWContent: alertTitle=\"" + alertTitle() + "\">";
}

Json LWContent::archive() const {
    std::lock_guard lk(mu_);
    return {{"id", id_},
            {"body", body_},
            {"alert_title", alertTitle_},
            {"alert_message", alertMessage_},
            {"attributes", attributes_},
            {"hash", Json::binary(hash_)}};
}

std::shared_ptr<LWContent> LWContent::fromArchive(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& a) {
    if (!a.is_object()) return nullptr;
    std::shared_ptr<LWContent> c(new LWContent(std::move(platform)));
    auto str = [&](const char* key) {
        return quenby::platform::jsonString(jsonMember(&a, key)).value_or("(null)");
    };
    c->id_ = str("id");
    c->body_ = str("body");
    c->alertTitle_ = str("alert_title");
    c->alertMessage_ = str("alert_message");
    const Json* attrs = jsonMember(&a, "attributes");
    c->attributes_ = attrs ? *attrs : Json();
    const Json* hash = jsonMember(&a, "hash");
    if (hash && hash->is_binary())
        c->hash_ = Bytes(hash->get_binary().begin(), hash->get_binary().end());
    return c;
}
