// Builds the analytics document from collected rows and posts it to the analytics endpoint.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analytics/QZWAnalyticsRecords.h"
#include "platform/platform.h"
#include "platform/url.h"
#include "proximity/QZWAPIRequest.h"

class QZWAPIAnalyticsUploader {
  public:
    using Json = quenby::platform::Json;

    // Token and endpoint come from the shared configuration as it is now.
    explicit QZWAPIAnalyticsUploader(std::shared_ptr<quenby::platform::Platform> platform);

    const std::optional<quenby::platform::Url>& url() const { return url_; }

    // True when the exchange completed, whatever the server answered.
    bool uploadBeaconRegionsAndGeoRegionsAndEvents(
        const std::vector<QZWRegionSessionRecord>& regions,
        const std::vector<QZWGeoSessionRecord>& geos, const std::vector<QZWEventRecord>& events);
    // The document as compact JSON text. Top level: one key per event type (an array of the
    // events' details, each with "triggered_at"), then "app_id" and "partner_id" when known,
    // then "zonewise_events": [{"kit_id", "region_sessions", "geo_region_sessions"}]. A later key
    // replaces an event type of the same name. Written straight from the records, without an
    // intermediate tree, so a large upload costs little more memory than its text.
    std::string buildBodyWithBeaconRegionsAndGeoRegionsAndEvents(
        const std::vector<QZWRegionSessionRecord>& regions,
        const std::vector<QZWGeoSessionRecord>& geos,
        const std::vector<QZWEventRecord>& events) const;
    // {event type: [details + "triggered_at", ...]} in collection order within a type.
    static Json buildAnalyticsEvents(const std::vector<QZWEventRecord>& events);
    // The last path component of the configured kit URL.
    std::optional<std::string> getKitID() const;
    std::string getPartnerId() const;
    bool uploadBody(std::string body);

  private:
    std::shared_ptr<quenby::platform::Platform> platform_;
    QZWAPIRequest api_;
    std::optional<quenby::platform::Url> url_;
    std::optional<quenby::platform::Url> kitUrl_;
};
