#include "status/QTLStatusUploader.h"

#include "platform/console.h"

QTLStatusUploader::QTLStatusUploader(std::shared_ptr<quenby::platform::Platform> platform,
                                     std::optional<quenby::platform::Url> url,
                                     std::optional<std::string> token)
    : platform_(platform), api_(std::move(platform), std::move(token)), url_(std::move(url)) {}

bool QTLStatusUploader::haveURL() const {
    if (!url_) quenby::platform::consoleWrite("No QTLStatusURL set, skipping upload");
    return url_.has_value();
}

std::optional<quenby::platform::Error> QTLStatusUploader::sendEvents(
    const std::vector<QTLBeaconSession>& s) const {
    if (!haveURL() || s.empty()) return std::nullopt;
    return api_.postSync(url_, jsonForEvents(s));
}

void QTLStatusUploader::asyncSendEvents(const std::vector<QTLBeaconSession>& s,
                                        QTLAPIRequest::Handler h) const {
    if (!haveURL() || s.empty()) return;
    api_.post(url_, jsonForEvents(s), std::move(h));
}

std::string QTLStatusUploader::jsonForEvents(const std::vector<QTLBeaconSession>& s) const {
    return buildBodyWithEvents(s).dump(-1, ' ', false, Json::error_handler_t::replace);
}

QTLStatusUploader::Json QTLStatusUploader::buildBodyWithEvents(
    const std::vector<QTLBeaconSession>& s) const {
    Json body = buildSessionEvents(s);
    if (auto appId = QTLDevice(platform_->device).getUUID()) body["app_id"] = *appId;
    return body;
}

QTLStatusUploader::Json QTLStatusUploader::buildSessionEvents(
    const std::vector<QTLBeaconSession>& s) const {
    Json events = Json::array();
    for (const auto& session : s) {
        Json e = {{"uuid", session.uuid}, {"major", session.major}, {"minor", session.minor}};
        if (session.lastDetectedAt) e["last_seen"] = lastSeenFormat(*session.lastDetectedAt);
        events.push_back(std::move(e));
    }
    return {{"beacon_status_events", std::move(events)}};
}

std::string QTLStatusUploader::lastSeenFormat(quenby::platform::Date d) {
    return quenby::platform::formatUTC(d);
}
