#include "analytics/QZWAPIAnalyticsUploader.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "analytics/QZWAnalytics.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWDevice.h"
#include "proximity/QZWLogger.h"
#include "proximity/QZWPartner.h"

using quenby::platform::Date;
using quenby::platform::Json;

namespace {

// Appends JSON to one string without a temporary string per value.
class JsonOut {
  public:
    explicit JsonOut(std::string& out) : out_(out) {}
    void value(const Json& v) {
        // The values of a large upload are almost all small integers and plain ASCII text.
        if (v.is_number_integer() && !v.is_number_unsigned()) {
            char buf[24];
            auto r = std::to_chars(buf, buf + sizeof buf, v.get<std::int64_t>());
            out_.append(buf, r.ptr);
            return;
        }
        if (v.is_string()) {
            const auto& s = v.get_ref<const std::string&>();
            bool plain = std::all_of(s.begin(), s.end(), [](char c) {
                return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
            });
            if (plain) {
                out_ += '"';
                out_ += s;
                out_ += '"';
                return;
            }
        }
        // The rest (reals, escaped text, event lists) is rare enough for the library's own
        // writer and its temporary string.
        out_ += v.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    // A key the code spells itself: nothing to escape.
    void key(const char* k) {
        out_ += '"';
        out_ += k;
        out_ += "\":";
    }
    // A key from the data.
    void escapedKey(const std::string& k) {
        value(Json(k));
        out_ += ':';
    }
    std::string& text() { return out_; }

  private:
    std::string& out_;
};

// Writes one object; a date member is left out when its column was NULL.
class ObjectWriter {
  public:
    explicit ObjectWriter(JsonOut& out) : out_(out) { out_.text() += '{'; }
    ObjectWriter& field(const char* key, const Json& v) {
        member(key);
        out_.value(v);
        return *this;
    }
    ObjectWriter& date(const char* key, const std::optional<Date>& d) {
        if (!d) return *this;
        member(key);
        out_.text() += '"';
        quenby::platform::appendUTC(out_.text(), *d);
        out_.text() += '"';
        return *this;
    }
    // Opens `"key":` for a value the caller writes.
    JsonOut& member(const char* key) {
        separator();
        out_.key(key);
        return out_;
    }
    JsonOut& escapedMember(const std::string& key) {
        separator();
        out_.escapedKey(key);
        return out_;
    }
    void close() { out_.text() += '}'; }

  private:
    void separator() {
        if (!first_) out_.text() += ',';
        first_ = false;
    }
    JsonOut& out_;
    bool first_ = true;
};

template <class Records, class Write>
void appendArray(JsonOut& out, const Records& records, Write write) {
    out.text() += '[';
    bool first = true;
    for (const auto& r : records) {
        if (!first) out.text() += ',';
        first = false;
        write(r);
    }
    out.text() += ']';
}

}  // namespace

QZWAPIAnalyticsUploader::QZWAPIAnalyticsUploader(
    std::shared_ptr<quenby::platform::Platform> platform)
    : platform_(std::move(platform)),
      api_(platform_, QZWConfiguration::sharedConfiguration(*platform_).apiToken()),
      url_(QZWConfiguration::sharedConfiguration(*platform_).analyticsURL()),
      kitUrl_(QZWConfiguration::sharedConfiguration(*platform_).url()) {}

bool QZWAPIAnalyticsUploader::uploadBeaconRegionsAndGeoRegionsAndEvents(
    const std::vector<QZWRegionSessionRecord>& regions,
    const std::vector<QZWGeoSessionRecord>& geos, const std::vector<QZWEventRecord>& events) {
    return uploadBody(buildBodyWithBeaconRegionsAndGeoRegionsAndEvents(regions, geos, events));
}

Json QZWAPIAnalyticsUploader::buildAnalyticsEvents(const std::vector<QZWEventRecord>& events) {
    Json out = Json::object();
    for (const auto& e : events) {
        Json entry = e.eventDetails.is_object() ? e.eventDetails : Json::object();
        if (e.triggeredAt) entry["triggered_at"] = QZWAnalytics::formatDate(*e.triggeredAt);
        std::string type = quenby::platform::describeJson(e.eventType);
        out[type].push_back(std::move(entry));
    }
    return out;
}

std::optional<std::string> QZWAPIAnalyticsUploader::getKitID() const {
    if (!kitUrl_) return std::nullopt;
    return kitUrl_->lastPathComponent();
}

std::string QZWAPIAnalyticsUploader::getPartnerId() const {
    return QZWPartner().getIdentifier();
}

std::string QZWAPIAnalyticsUploader::buildBodyWithBeaconRegionsAndGeoRegionsAndEvents(
    const std::vector<QZWRegionSessionRecord>& regions,
    const std::vector<QZWGeoSessionRecord>& geos, const std::vector<QZWEventRecord>& events) const {
    auto appId = QZWDevice(platform_->device).getUUID();
    std::string partner = getPartnerId();
    Json eventGroups = buildAnalyticsEvents(events);
    // Keys filled later win over event types of the same name.
    eventGroups.erase("zonewise_events");
    if (appId) eventGroups.erase("app_id");
    eventGroups.erase("partner_id");

    // Sized up front: growing a large text by doubling would copy it repeatedly and, for a moment,
    // hold it twice.
    std::size_t estimate = 1024;
    for (const auto& r : regions) estimate += 256 + 192 * r.beaconSessions.size();
    estimate += 256 * geos.size() + 256 * events.size();
    std::string text;
    text.reserve(estimate);
    JsonOut out(text);
    ObjectWriter top(out);
    for (const auto& [type, list] : eventGroups.items()) top.escapedMember(type).value(list);
    if (appId) top.field("app_id", *appId);
    top.field("partner_id", partner);

    JsonOut& z = top.member("zonewise_events");
    z.text() += '[';
    ObjectWriter zw(z);
    if (auto kit = getKitID()) zw.field("kit_id", *kit);
    appendArray(zw.member("region_sessions"), regions, [&](const QZWRegionSessionRecord& r) {
        ObjectWriter o(out);
        o.field("id", r.id).field("region_uuid", r.regionUuid);
        o.field("region_major", r.regionMajor).field("region_minor", r.regionMinor);
        o.date("entered_at", r.enteredAt).date("exited_at", r.exitedAt);
        appendArray(o.member("beacon_sessions"), r.beaconSessions,
                    [&](const QZWBeaconSessionRecord& b) {
                        ObjectWriter bo(out);
                        bo.field("beacon_uuid", b.beaconUuid).field("beacon_major", b.beaconMajor);
                        bo.field("beacon_minor", b.beaconMinor);
                        bo.date("first_detected_at", b.firstDetectedAt);
                        bo.date("last_detected_at", b.lastDetectedAt);
                        bo.close();
                    });
        o.close();
    });
    appendArray(zw.member("geo_region_sessions"), geos, [&](const QZWGeoSessionRecord& g) {
        ObjectWriter o(out);
        o.field("id", g.id).field("region_id", g.regionId).field("latitude", g.latitude);
        o.field("longitude", g.longitude).field("radius", g.radius);
        o.date("entered_at", g.enteredAt).date("exited_at", g.exitedAt);
        o.close();
    });
    zw.close();
    z.text() += ']';
    top.close();
    return text;
}

bool QZWAPIAnalyticsUploader::uploadBody(std::string body) {
    if (!url_) {
        QZWLogger::log(QZWLogLevelInfo, "No ZWAnalyticsURL set in Zonewise.plist, skipping upload");
        return false;
    }
    // A completed exchange counts as accepted, whatever the status: the rows are then stamped.
    return !api_.post(url_, std::move(body)).error;
}
