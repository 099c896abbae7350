// Turns the kit document into the kit model. A kit of more than 20 beacon entries is collapsed to
// one generic region per distinct UUID, since the platform lets an application monitor only a
// handful of regions.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/json.h"
#include "proximity/QZWKit.h"

class QZWAPIDeserializer {
  public:
    using Json = quenby::platform::Json;

    // `beaconRegionsSupported` is false on a platform without beacon monitoring.
    explicit QZWAPIDeserializer(bool beaconRegionsSupported = true)
        : beaconRegionsSupported_(beaconRegionsSupported) {}

    // A null (or non-object) dictionary makes a kit with no fields.
    std::shared_ptr<const QZWKit> buildKit(const Json* dict) const;
    // Null for anything but an object.
    std::shared_ptr<const QZWMap> buildMap(const Json* dict) const;
    std::vector<std::shared_ptr<const QZWBeaconRegion>> buildBeaconRegions(const Json* list) const;
    // The distinct "uuid" strings, in order of first appearance.
    static std::vector<std::string> uniqueIBeaconRegionsFrom(const Json& list);

    static constexpr std::size_t kMaxIndividualRegions = 20;

  private:
    bool beaconRegionsSupported_;
};
