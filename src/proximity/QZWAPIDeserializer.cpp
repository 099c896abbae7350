#include "proximity/QZWAPIDeserializer.h"

#include <fmt/format.h>

#include <unordered_set>

#include "proximity/QZWLogger.h"

using quenby::platform::jsonMember;
using quenby::platform::jsonString;

std::shared_ptr<const QZWKit> QZWAPIDeserializer::buildKit(const Json* dict) const {
    auto kit = std::make_shared<QZWKit>(dict);
    kit->setMap(buildMap(jsonMember(dict, "map")));
    kit->setBeaconRegions(buildBeaconRegions(jsonMember(dict, "ibeacons")));
    return kit;
}

std::shared_ptr<const QZWMap> QZWAPIDeserializer::buildMap(const Json* dict) const {
    if (!dict || !dict->is_object()) return nullptr;
    return std::make_shared<const QZWMap>(*dict);
}

std::vector<std::shared_ptr<const QZWBeaconRegion>> QZWAPIDeserializer::buildBeaconRegions(
    const Json* list) const {
    std::vector<std::shared_ptr<const QZWBeaconRegion>> out;
    if (!beaconRegionsSupported_) {
        QZWLogger::log(QZWLogLevelAlert, "Beacons are not supported on iOS 6.x");
        return out;
    }
    if (!list || !list->is_array()) return out;
    std::size_t entries = 0;
    for (const Json& e : *list) entries += e.is_object() ? 1 : 0;
    if (entries <= kMaxIndividualRegions) {
        for (const Json& e : *list) {
            if (e.is_object()) out.push_back(std::make_shared<const QZWBeaconRegion>(e));
        }
        return out;
    }
    QZWLogger::log(QZWLogLevelDebug,
                   "More than 20 regions found, registering generic UUID level regions");
    auto uuids = uniqueIBeaconRegionsFrom(*list);
    out.reserve(uuids.size());
    for (std::size_t i = 0; i < uuids.size(); ++i) {
        Json entry = {{"identifier", fmt::format("zw-ibeacon-region-{}", i)},
                      {"uuid", uuids[i]},
                      {"major", nullptr},
                      {"minor", nullptr},
                      {"attributes", nullptr}};
        out.push_back(std::make_shared<const QZWBeaconRegion>(entry));
    }
    return out;
}

std::vector<std::string> QZWAPIDeserializer::uniqueIBeaconRegionsFrom(const Json& list) {
    std::vector<std::string> out;
    if (!list.is_array()) return out;
    std::unordered_set<std::string> seen;
    for (const Json& e : list) {
        auto uuid = jsonString(jsonMember(&e, "uuid"));
        if (uuid && seen.insert(*uuid).second) out.push_back(std::move(*uuid));
    }
    return out;
}
