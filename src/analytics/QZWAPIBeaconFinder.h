// Matches a beacon or beacon region reported by the platform to the kit's "ibeacons" entries,
// over three levels: UUID (null major), major (null minor) and exact. Attributes of every level
// that matches are merged, the most specific last, so specific entries override general ones.
#pragma once

#include <memory>
#include <optional>

#include "platform/json.h"
#include "platform/location.h"
#include "proximity/QZWKit.h"

class QZWAPIBeaconFinder {
  public:
    using Json = quenby::platform::Json;
    using Number = quenby::platform::Number;
    using UUID = quenby::platform::UUID;
    using OptNumber = std::optional<Number>;

    // "major" is present and not null (a missing key counts as given: it reads as 0).
    static bool hasMajor(const Json& entry);
    // "major" is JSON null: the entry stands for every major.
    static bool isMajorWildCard(const Json& entry);
    static bool hasMinor(const Json& entry);
    static bool isMinorWildCard(const Json& entry);

    // Entry UUID equal (as UUID values) and majorMatches with wildcards allowed. Majors and
    // minors compare as 32-bit integers; an absent number compares as 0.
    static bool uuidMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                              const OptNumber& major, const OptNumber& minor);
    static bool majorMatchesWithUUIDMajorMinorAllowWildCard(const Json& entry, const UUID& uuid,
                                                            const OptNumber& major,
                                                            const OptNumber& minor,
                                                            bool allowWildCard);
    static bool majorMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                               const OptNumber& major, const OptNumber& minor);
    static bool minorMatchesWithUUIDMajorMinorAllowWildCard(const Json& entry, const UUID& uuid,
                                                            const OptNumber& major,
                                                            const OptNumber& minor,
                                                            bool allowWildCard);
    static bool minorMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                               const OptNumber& major, const OptNumber& minor);

    // {"name", "identifier", "attributes"}: "" and {} when nothing matches.
    static Json findAttrsForUUIDMajorMinorIn(const UUID& uuid, const OptNumber& major,
                                             const OptNumber& minor, const Json& kitJson);
    static std::shared_ptr<const QZWBeaconRegion> findIBeaconRegionForCLBeaconRegionIn(
        const std::shared_ptr<const quenby::platform::BeaconRegion>& region, const Json& kitJson);
    static std::shared_ptr<const QZWBeacon> findIBeaconForCLBeaconIn(
        const quenby::platform::Beacon& beacon, const Json& kitJson);
};
