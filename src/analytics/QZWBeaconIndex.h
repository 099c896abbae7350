// The kit's "ibeacons" entries indexed once per kit build, so that matching a ranged beacon costs a
// few hash lookups instead of a walk (with a UUID parse) over every entry. It answers exactly what
// QZWAPIBeaconFinder's walk answers, including which of several entries of one level wins (the last
// in array order).
#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>

#include "platform/json.h"
#include "platform/uuid.h"

class QZWBeaconIndex {
  public:
    using Json = quenby::platform::Json;

    // `kitJson` must outlive the index and stay unchanged: the index points into it.
    explicit QZWBeaconIndex(const Json& kitJson);

    // {"name", "identifier", "attributes"} as findAttrsForUUIDMajorMinorIn gives it; majors and
    // minors as 32-bit integers (absent: 0).
    Json findAttrs(const quenby::platform::UUID& uuid, std::int32_t major,
                   std::int32_t minor) const;

  private:
    struct PairHash {
        std::size_t operator()(const std::pair<std::int32_t, std::int32_t>& p) const {
            return std::hash<std::int64_t>()((std::int64_t{p.first} << 32) ^
                                             static_cast<std::uint32_t>(p.second));
        }
    };
    struct Bucket {
        const Json* uuidLevel = nullptr;  // the last entry with a null major
        std::unordered_map<std::int32_t, const Json*> majorLevel;  // by major: last, null minor
        std::unordered_map<std::pair<std::int32_t, std::int32_t>, const Json*, PairHash> exact;
    };
    std::unordered_map<quenby::platform::UUID, Bucket> buckets_;
};

// The answer from the matching entry of each level, merged least specific first.
quenby::platform::Json mergeBeaconLevels(const quenby::platform::Json* uuidLevel,
                                         const quenby::platform::Json* majorLevel,
                                         const quenby::platform::Json* exact);
