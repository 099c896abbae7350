// Posts a batch of beacon sessions to the status endpoint as one "beacon_status_events" document.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/url.h"
#include "status/QTLAPIRequest.h"
#include "status/QTLStatusDatabase.h"

class QTLStatusUploader {
  public:
    using Json = quenby::platform::Json;

    QTLStatusUploader(std::shared_ptr<quenby::platform::Platform> platform,
                      std::optional<quenby::platform::Url> url, std::optional<std::string> token);

    const std::optional<quenby::platform::Url>& url() const { return url_; }
    // Logs "No QTLStatusURL set, skipping upload" when there is none.
    bool haveURL() const;
    // Synchronous. Nothing is sent (and nothing is an error) without a URL or sessions; otherwise
    // the transport error, if any.
    std::optional<quenby::platform::Error> sendEvents(const std::vector<QTLBeaconSession>& s) const;
    void asyncSendEvents(const std::vector<QTLBeaconSession>& s, QTLAPIRequest::Handler h) const;
    std::string jsonForEvents(const std::vector<QTLBeaconSession>& s) const;
    Json buildBodyWithEvents(const std::vector<QTLBeaconSession>& s) const;
    Json buildSessionEvents(const std::vector<QTLBeaconSession>& s) const;
    // "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC, whole seconds.
    static std::string lastSeenFormat(quenby::platform::Date d);

  private:
    std::shared_ptr<quenby::platform::Platform> platform_;
    QTLAPIRequest api_;
    std::optional<quenby::platform::Url> url_;
};
