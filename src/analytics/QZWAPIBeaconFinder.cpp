#include "analytics/QZWAPIBeaconFinder.h"

#include "analytics/QZWBeaconIndex.h"

using quenby::platform::Json;
using quenby::platform::jsonIntValue;
using quenby::platform::jsonMember;
using quenby::platform::jsonString;

namespace {

bool isNullMember(const Json& entry, const char* key) {
    const Json* v = jsonMember(&entry, key);
    return v && v->is_null();
}

std::int32_t intOf(const QZWAPIBeaconFinder::OptNumber& n) {
    return n ? n->intValue() : 0;
}

}  // namespace

bool QZWAPIBeaconFinder::hasMajor(const Json& entry) {
    return !isNullMember(entry, "major");
}
bool QZWAPIBeaconFinder::isMajorWildCard(const Json& entry) {
    return isNullMember(entry, "major");
}
bool QZWAPIBeaconFinder::hasMinor(const Json& entry) {
    return !isNullMember(entry, "minor");
}
bool QZWAPIBeaconFinder::isMinorWildCard(const Json& entry) {
    return isNullMember(entry, "minor");
}

bool QZWAPIBeaconFinder::uuidMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                                       const OptNumber& major,
                                                       const OptNumber& minor) {
    auto text = jsonString(jsonMember(&entry, "uuid"));
    if (!text) return false;
    auto entryUUID = UUID::parse(*text);
    return entryUUID && *entryUUID == uuid &&
           majorMatchesWithUUIDMajorMinorAllowWildCard(entry, uuid, major, minor, true);
}

bool QZWAPIBeaconFinder::majorMatchesWithUUIDMajorMinorAllowWildCard(const Json& entry,
                                                                     const UUID& uuid,
                                                                     const OptNumber& major,
                                                                     const OptNumber& minor,
                                                                     bool allowWildCard) {
    if (isMajorWildCard(entry)) return allowWildCard;
    if (jsonIntValue(jsonMember(&entry, "major")) != intOf(major)) return false;
    // Once the major is equal, a minor wildcard always passes, whatever the caller allowed.
    return minorMatchesWithUUIDMajorMinorAllowWildCard(entry, uuid, major, minor, true);
}

bool QZWAPIBeaconFinder::majorMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                                        const OptNumber& major,
                                                        const OptNumber& minor) {
    return majorMatchesWithUUIDMajorMinorAllowWildCard(entry, uuid, major, minor, false);
}

bool QZWAPIBeaconFinder::minorMatchesWithUUIDMajorMinorAllowWildCard(const Json& entry, const UUID&,
                                                                     const OptNumber&,
                                                                     const OptNumber& minor,
                                                                     bool allowWildCard) {
    if (isMinorWildCard(entry)) return allowWildCard;
    return jsonIntValue(jsonMember(&entry, "minor")) == intOf(minor);
}

bool QZWAPIBeaconFinder::minorMatchesWithUUIDMajorMinor(const Json& entry, const UUID& uuid,
                                                        const OptNumber& major,
                                                        const OptNumber& minor) {
    return minorMatchesWithUUIDMajorMinorAllowWildCard(entry, uuid, major, minor, false);
}

Json QZWAPIBeaconFinder::findAttrsForUUIDMajorMinorIn(const UUID& uuid, const OptNumber& major,
                                                      const OptNumber& minor, const Json& kitJson) {
    const Json* uuidLevel = nullptr;
    const Json* majorLevel = nullptr;
    const Json* exact = nullptr;
    const Json* list = jsonMember(&kitJson, "ibeacons");
    if (list && list->is_array()) {
        for (const Json& entry : *list) {
            if (!entry.is_object()) continue;
            if (!uuidMatchesWithUUIDMajorMinor(entry, uuid, major, minor)) continue;
            if (!majorMatchesWithUUIDMajorMinor(entry, uuid, major, minor)) {
                uuidLevel = &entry;
            } else if (!minorMatchesWithUUIDMajorMinor(entry, uuid, major, minor)) {
                majorLevel = &entry;
            } else {
                exact = &entry;
            }
        }
    }
    return mergeBeaconLevels(uuidLevel, majorLevel, exact);
}

std::shared_ptr<const QZWBeaconRegion> QZWAPIBeaconFinder::findIBeaconRegionForCLBeaconRegionIn(
    const std::shared_ptr<const quenby::platform::BeaconRegion>& region, const Json& kitJson) {
    OptNumber major, minor;
    if (region->major()) major = Number(static_cast<int>(*region->major()));
    if (region->minor()) minor = Number(static_cast<int>(*region->minor()));
    Json dict = findAttrsForUUIDMajorMinorIn(region->proximityUUID(), major, minor, kitJson);
    return std::make_shared<const QZWBeaconRegion>(region, &dict);
}

std::shared_ptr<const QZWBeacon> QZWAPIBeaconFinder::findIBeaconForCLBeaconIn(
    const quenby::platform::Beacon& beacon, const Json& kitJson) {
    Json dict = findAttrsForUUIDMajorMinorIn(beacon.proximityUUID, Number(beacon.major),
                                             Number(beacon.minor), kitJson);
    return std::make_shared<const QZWBeacon>(beacon, &dict);
}
