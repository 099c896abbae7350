// A kit document taken through everything the library does with a new kit: the model build, the
// region registration, the lookups of every ranging report and region event, and the place the
// campaign layer reads from each region.
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>

#include "campaigns/LWPlace.h"
#include "platform/json.h"
#include "platform/url.h"
#include "proximity/QZWAPIDeserializer.h"
#include "proximity/QZWKit.h"

namespace quenby::fuzz {

inline void useRegion(const QZWRegion& r) {
    (void)r.description();
    (void)LWPlace::initWithRegion(r)->description();
}

// The answer's "kit" member, as QZWManager::buildKitFrom takes it.
inline void useKitAnswer(const std::optional<platform::Json>& answer) {
    const platform::Json* dict = answer ? platform::jsonMember(&*answer, "kit") : nullptr;
    auto kit = QZWAPIDeserializer().buildKit(dict);
    if (!dict || !dict->is_object()) {
        // Nothing to read: the kit has no fields at all.
        if (kit->id() != 0 || kit->name() || !kit->beaconRegions().empty() || kit->map())
            std::abort();
        return;
    }
    if (kit->statusURL()) (void)platform::Url::parseReference(*kit->statusURL());
    if (kit->map()) {
        for (const auto& c : kit->map()->overlays()) {
            useRegion(*c);
            if (!c->region()) std::abort();  // every geofence is registered
            if (c->identifier()) (void)kit->getRegionForIdentifier(*c->identifier());
        }
    }
    const auto& regions = kit->beaconRegions();
    for (std::size_t i = 0; i < regions.size(); ++i) {
        const auto& r = *regions[i];
        useRegion(r);
        (void)r.hash();
        if (i > 0) (void)r.isEqual(regions[i - 1].get());
        if (r.region()) {
            // An entry event or a state answer for the registered region.
            auto found = kit->getIBeaconRegionForCLBeaconRegion(r.region());
            if (!found) std::abort();
            useRegion(*found);
        }
        if (r.identifier()) (void)kit->getRegionForIdentifier(*r.identifier());
    }
    // A ranging report holding every beacon of the kit, as the location service would read them.
    std::size_t n = 0;
    kit->enumerateIBeaconsUsingBlock(
        [&](const std::shared_ptr<const QZWBeacon>& b, std::size_t, bool& stop) {
            useRegion(*b);
            (void)b->hash();
            if (b->uuid()) {
                platform::Beacon live;
                live.proximityUUID = *b->uuid();
                live.major = b->major() ? b->major()->intValue() & 0xffff : 0;
                live.minor = b->minor() ? b->minor()->intValue() & 0xffff : 0;
                live.proximity = 2;
                live.accuracy = 1.5;
                live.rssi = -60;
                auto ranged = kit->getIBeaconForCLBeacon(live);
                if (!ranged) std::abort();
                useRegion(*ranged);
            }
            stop = ++n >= 256;  // a huge kit says nothing more after the first few hundred
        });
}

}  // namespace quenby::fuzz
