// Where (and how near) a campaign was detected: a kit region's place id, name and kind, with the
// beacon's reading when a ranged beacon was the trigger. Immutable.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/json.h"
#include "proximity/QZWKit.h"

class LWPlace {
  public:
    using Json = quenby::platform::Json;

    // From a kit region (beacon region, geofence circle or ranged beacon): the name, the first of
    // its "lw_place_ids" (0 when there is none), type 0 for beacons and 1 for geofences, and for a
    // ranged beacon its proximity, accuracy and rssi (otherwise 0 and -1.0).
    static std::shared_ptr<const LWPlace> initWithRegion(const QZWRegion& region);
    // From {"id", "name", "type"}.
    static std::shared_ptr<const LWPlace> initWithDict(const Json& dict);
    // The place identifiers in a region's "lw_place_ids" text: a JSON array; anything else (no
    // text, not JSON, not an array) gives an empty array.
    static Json parsePlaceIds(const std::optional<std::string>& text);

    const std::optional<std::string>& name() const { return name_; }
    std::int64_t id() const { return id_; }
    std::int64_t type() const { return type_; }
    std::int64_t proximity() const { return proximity_; }
    double accuracy() const { return accuracy_; }
    const std::optional<quenby::platform::Number>& rssi() const { return rssi_; }

    // Keyed archive: "id", "name", "type" (the reading is not kept).
    Json archive() const;
    // <LWPlace id=7 name="Door">
    std::string description() const;

  private:
    LWPlace() = default;
    std::optional<std::string> name_;
    std::int64_t id_ = 0, type_ = 0, proximity_ = 0;
    double accuracy_ = -1.0;
    std::optional<quenby::platform::Number> rssi_;
};
