// Rows of the analytics database as they travel to the server: collected, written into the
// upload document, then handed back to stamp them uploaded. Column values are kept as the
// database returns them (numbers, text, or null).
#pragma once

#include <optional>
#include <vector>

#include "platform/json.h"
#include "platform/types.h"

struct QZWBeaconSessionRecord {
    quenby::platform::Json beaconUuid, beaconMajor, beaconMinor;
    std::optional<quenby::platform::Date> firstDetectedAt, lastDetectedAt;
};

struct QZWRegionSessionRecord {
    quenby::platform::Json id, regionUuid, regionMajor, regionMinor;
    std::optional<quenby::platform::Date> enteredAt, exitedAt;
    std::vector<QZWBeaconSessionRecord> beaconSessions;
};

struct QZWGeoSessionRecord {
    quenby::platform::Json id, regionId, latitude, longitude, radius;
    std::optional<quenby::platform::Date> enteredAt, exitedAt;
};

struct QZWEventRecord {
    quenby::platform::Json id, eventType;
    quenby::platform::Json eventDetails;  // the unarchived dictionary
    std::optional<quenby::platform::Date> triggeredAt;
};
