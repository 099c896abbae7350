#include "proximity/QZWKit.h"

#include "analytics/QZWBeaconIndex.h"

using quenby::platform::Beacon;
using quenby::platform::BeaconRegion;
using quenby::platform::CircularRegion;
using quenby::platform::Json;
using quenby::platform::jsonDoubleValue;
using quenby::platform::jsonIntValue;
using quenby::platform::jsonMember;
using quenby::platform::jsonString;
using quenby::platform::Number;
using quenby::platform::UUID;

namespace {

// "major"/"minor" of an entry: the number, absent when missing, null or not a number.
std::optional<Number> entryNumber(const Json* dict, const char* key) {
    const Json* v = jsonMember(dict, key);
    return v ? Number::fromJson(*v) : std::nullopt;
}

std::optional<UUID> entryUUID(const Json* dict) {
    auto s = jsonString(jsonMember(dict, "uuid"));
    return s ? UUID::parse(*s) : std::nullopt;
}

std::uint16_t asUInt16(const Number& n) {
    return static_cast<std::uint16_t>(n.longLongValue());
}

std::optional<Number> numberOf(const std::optional<std::uint16_t>& v) {
    if (!v) return std::nullopt;
    return Number(static_cast<int>(*v));
}

// Equality of beacon identities: equal UUIDs, then the major only if the receiver has one, then
// the minor only if the receiver has one.
bool identityEqual(const std::optional<UUID>& uuid, const std::optional<Number>& major,
                   const std::optional<Number>& minor, bool hasMajor, bool hasMinor,
                   const std::optional<UUID>& otherUUID, const std::optional<Number>& otherMajor,
                   const std::optional<Number>& otherMinor) {
    if (!uuid || !otherUUID || *uuid != *otherUUID) return false;
    if (hasMajor && (!major || !otherMajor || !(*major == *otherMajor))) return false;
    if (hasMinor && (!minor || !otherMinor || !(*minor == *otherMinor))) return false;
    return true;
}

std::size_t identityHash(const std::optional<UUID>& uuid, const std::optional<Number>& major,
                         const std::optional<Number>& minor) {
    auto ma = static_cast<std::size_t>(major ? major->longLongValue() : 0);
    auto mi = static_cast<std::size_t>(minor ? minor->longLongValue() : 0);
    return (uuid ? uuid->hash() : 0) | (ma ^ ~mi);
}

std::string identityText(const char* cls, const std::optional<UUID>& uuid,
                         const std::optional<Number>& major, const std::optional<Number>& minor) {
    auto num = [](const std::optional<Number>& n) { return n ? n->description() : "(null)"; };
    return std::string("<") + cls + " uuid=" + (uuid ? uuid->uuidString() : "(null)") +
           " major=" + num(major) + " minor=" + num(minor) + ">";
}

}  // namespace

QZWRegion::QZWRegion(const Json* dict)
    : name_(jsonString(jsonMember(dict, "name"))),
      identifier_(jsonString(jsonMember(dict, "identifier"))),
      attributes_(Json::object()) {
    const Json* attrs = jsonMember(dict, "attributes");
    if (attrs && (attrs->is_object() || attrs->is_null())) attributes_ = *attrs;
}

QZWCircle::QZWCircle(const Json& dict) : QZWRegion(&dict) {
    radius_ = static_cast<float>(jsonDoubleValue(jsonMember(&dict, "radius")));
    const Json* center = jsonMember(&dict, "center");
    if (center && center->is_array()) {
        // Latitude first, then longitude.
        if (center->size() > 0) latitude_ = static_cast<float>(jsonDoubleValue(&(*center)[0]));
        if (center->size() > 1) longitude_ = static_cast<float>(jsonDoubleValue(&(*center)[1]));
    }
    region_ = std::make_shared<const CircularRegion>(
        static_cast<double>(latitude_), static_cast<double>(longitude_),
        static_cast<double>(radius_), identifier_.value_or(""));
}

std::string QZWCircle::description() const {
    return "<QZWCircle identifier=" + identifier_.value_or("(null)") + ">";
}

std::string QZWBeaconRegion::description() const {
    return identityText("QZWBeaconRegion", uuid_, major_, minor_);
}

std::string QZWBeacon::description() const {
    return identityText("QZWBeacon", uuid_, major_, minor_);
}

QZWBeaconRegion::QZWBeaconRegion(const Json& dict)
    : QZWRegion(&dict),
      uuid_(entryUUID(&dict)),
      major_(entryNumber(&dict, "major")),
      minor_(entryNumber(&dict, "minor")) {
    if (!uuid_) return;
    std::optional<std::uint16_t> major, minor;
    if (major_) {
        major = asUInt16(*major_);
        if (minor_) minor = asUInt16(*minor_);
    } else if (minor_) {
        return;  // a minor without a major names no platform region: never registered
    }
    region_ = std::make_shared<const BeaconRegion>(*uuid_, major, minor, identifier_.value_or(""),
                                                   BeaconRegion::Notify{true, true, true});
}

QZWBeaconRegion::QZWBeaconRegion(std::shared_ptr<const BeaconRegion> region, const Json* dict)
    : QZWRegion(dict),
      uuid_(entryUUID(dict)),
      major_(entryNumber(dict, "major")),
      minor_(entryNumber(dict, "minor")),
      region_(std::move(region)) {
    if (!region_) return;
    uuid_ = region_->proximityUUID();
    major_ = numberOf(region_->major());
    minor_ = numberOf(region_->minor());
}

bool QZWBeaconRegion::isEqual(const QZWRegion* other) const {
    auto* o = dynamic_cast<const QZWBeaconRegion*>(other);
    return o && isEqualToZWIBeaconRegion(*o);
}

bool QZWBeaconRegion::isEqualToZWIBeaconRegion(const QZWBeaconRegion& o) const {
    return identityEqual(uuid_, major_, minor_, hasMajor(), hasMinor(), o.uuid_, o.major_,
                         o.minor_);
}

std::size_t QZWBeaconRegion::hash() const {
    return identityHash(uuid_, major_, minor_);
}

QZWBeacon::QZWBeacon(const Json& dict)
    : QZWRegion(&dict),
      uuid_(entryUUID(&dict)),
      major_(entryNumber(&dict, "major")),
      minor_(entryNumber(&dict, "minor")),
      hasMajor_(major_.has_value()),
      hasMinor_(minor_.has_value()) {}

QZWBeacon::QZWBeacon(const Beacon& beacon, const Json* dict)
    : QZWRegion(dict),
      uuid_(beacon.proximityUUID),
      major_(Number(beacon.major)),
      minor_(Number(beacon.minor)),
      rssi_(Number(beacon.rssi)),
      hasMajor_(true),
      hasMinor_(true),
      accuracy_(beacon.accuracy),
      proximity_(beacon.proximity),
      beacon_(beacon) {}

bool QZWBeacon::isEqual(const QZWRegion* other) const {
    auto* o = dynamic_cast<const QZWBeacon*>(other);
    return o && isEqualToZWIBeacon(*o);
}

bool QZWBeacon::isEqualToZWIBeacon(const QZWBeacon& o) const {
    return identityEqual(uuid_, major_, minor_, hasMajor_, hasMinor_, o.uuid_, o.major_, o.minor_);
}

std::size_t QZWBeacon::hash() const {
    return identityHash(uuid_, major_, minor_);
}

QZWMap::QZWMap(const Json& dict) {
    const Json* overlays = jsonMember(&dict, "overlays");
    if (!overlays || !overlays->is_array()) return;
    for (const Json& o : *overlays) {
        // Polygons are part of the format but not watched; other types are skipped as well.
        if (jsonString(jsonMember(&o, "type")) == "circle") {
            overlays_.push_back(std::make_shared<const QZWCircle>(o));
        }
    }
}

QZWKit::QZWKit(const Json* dict) {
    if (!dict || !dict->is_object()) {
        index_ = std::make_unique<const QZWBeaconIndex>(json_);
        return;
    }
    // The format carries a 32-bit id: wider values keep their low 32 bits.
    id_ = jsonIntValue(jsonMember(dict, "id"));
    name_ = jsonString(jsonMember(dict, "name"));
    statusURL_ = jsonString(jsonMember(dict, "status_url"));
    statusToken_ = jsonString(jsonMember(dict, "status_token"));
    json_ = *dict;
    index_ = std::make_unique<const QZWBeaconIndex>(json_);
}

QZWKit::~QZWKit() = default;

std::shared_ptr<const QZWRegion> QZWKit::getRegionForIdentifier(
    const std::string& identifier) const {
    if (map_) {
        for (const auto& c : map_->overlays()) {
            if (c->identifier() == identifier) return c;
        }
    }
    for (const auto& r : beaconRegions_) {
        if (r->identifier() == identifier) return r;
    }
    return nullptr;
}

std::shared_ptr<const QZWBeaconRegion> QZWKit::getIBeaconRegionForCLBeaconRegion(
    const std::shared_ptr<const BeaconRegion>& region) const {
    // A region without a major (or minor) is looked up with 0, as the walk compares it.
    Json dict = index_->findAttrs(region->proximityUUID(), region->major().value_or(0),
                                  region->minor().value_or(0));
    return std::make_shared<const QZWBeaconRegion>(region, &dict);
}

std::shared_ptr<const QZWBeacon> QZWKit::getIBeaconForCLBeacon(const Beacon& beacon) const {
    Json dict = index_->findAttrs(beacon.proximityUUID, beacon.major, beacon.minor);
    return std::make_shared<const QZWBeacon>(beacon, &dict);
}

void QZWKit::enumerateIBeaconsUsingBlock(
    const std::function<void(const std::shared_ptr<const QZWBeacon>&, std::size_t, bool&)>& block)
    const {
    const Json* list = jsonMember(&json_, "ibeacons");
    if (!list || !list->is_array()) return;
    bool stop = false;
    for (std::size_t i = 0; i < list->size() && !stop; ++i) {
        const Json& entry = (*list)[i];
        if (!entry.is_object()) continue;
        block(std::make_shared<const QZWBeacon>(entry), i, stop);
    }
}
