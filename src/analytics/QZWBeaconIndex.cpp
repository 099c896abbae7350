#include "analytics/QZWBeaconIndex.h"

#include "analytics/QZWAPIBeaconFinder.h"

using quenby::platform::Json;
using quenby::platform::jsonIntValue;
using quenby::platform::jsonMember;
using quenby::platform::jsonString;
using quenby::platform::UUID;

Json mergeBeaconLevels(const Json* uuidLevel, const Json* majorLevel, const Json* exact) {
    Json result = {{"name", ""}, {"identifier", ""}, {"attributes", Json::object()}};
    for (const Json* level : {uuidLevel, majorLevel, exact}) {
        if (!level) continue;
        const Json* attrs = jsonMember(level, "attributes");
        if (attrs && attrs->is_object()) {
            for (const auto& [k, v] : attrs->items()) result["attributes"][k] = v;
        }
        for (const char* key : {"name", "identifier"}) {
            const Json* v = jsonMember(level, key);
            result[key] = v ? *v : Json();
        }
    }
    return result;
}

QZWBeaconIndex::QZWBeaconIndex(const Json& kitJson) {
    const Json* list = jsonMember(&kitJson, "ibeacons");
    if (!list || !list->is_array()) return;
    for (const Json& entry : *list) {
        if (!entry.is_object()) continue;
        auto text = jsonString(jsonMember(&entry, "uuid"));
        auto uuid = text ? UUID::parse(*text) : std::nullopt;
        if (!uuid) continue;  // an entry without a UUID matches nothing
        Bucket& b = buckets_[*uuid];
        // Later entries overwrite earlier ones of the same level and key, as the walk does.
        if (QZWAPIBeaconFinder::isMajorWildCard(entry)) {
            b.uuidLevel = &entry;
        } else if (QZWAPIBeaconFinder::isMinorWildCard(entry)) {
            b.majorLevel[jsonIntValue(jsonMember(&entry, "major"))] = &entry;
        } else {
            b.exact[{jsonIntValue(jsonMember(&entry, "major")),
                     jsonIntValue(jsonMember(&entry, "minor"))}] = &entry;
        }
    }
}

Json QZWBeaconIndex::findAttrs(const UUID& uuid, std::int32_t major, std::int32_t minor) const {
    auto it = buckets_.find(uuid);
    if (it == buckets_.end()) return mergeBeaconLevels(nullptr, nullptr, nullptr);
    const Bucket& b = it->second;
    auto m = b.majorLevel.find(major);
    auto e = b.exact.find({major, minor});
    return mergeBeaconLevels(b.uuidLevel, m == b.majorLevel.end() ? nullptr : m->second,
                             e == b.exact.end() ? nullptr : e->second);
}
