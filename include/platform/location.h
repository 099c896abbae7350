// The location service's records: the regions an application registers for monitoring and
// ranging, and the beacons that ranging reports. Immutable once made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/uuid.h"

namespace quenby::platform {

class Region {
  public:
    enum class Kind { Circular, Beacon };
    virtual ~Region() = default;
    virtual Kind kind() const = 0;
    const std::string& identifier() const { return identifier_; }

  protected:
    explicit Region(std::string identifier) : identifier_(std::move(identifier)) {}

  private:
    std::string identifier_;
};

// A circular geofence.
class CircularRegion final : public Region {
  public:
    CircularRegion(double latitude, double longitude, double radius, std::string identifier)
        : Region(std::move(identifier)),
          latitude_(latitude),
          longitude_(longitude),
          radius_(radius) {}
    Kind kind() const override { return Kind::Circular; }
    double latitude() const { return latitude_; }
    double longitude() const { return longitude_; }
    double radius() const { return radius_; }

  private:
    double latitude_, longitude_, radius_;
};

// When the location service reports a beacon region's events.
struct BeaconRegionNotify {
    bool onEntry = false, onExit = false, entryStateOnDisplay = false;
};

// An iBeacon region: a proximity UUID, optionally narrowed by major, then by minor.
class BeaconRegion final : public Region {
  public:
    using Notify = BeaconRegionNotify;
    BeaconRegion(UUID uuid, std::optional<std::uint16_t> major, std::optional<std::uint16_t> minor,
                 std::string identifier, Notify notify = {})
        : Region(std::move(identifier)),
          uuid_(uuid),
          major_(major),
          minor_(major ? minor : std::nullopt),
          notify_(notify) {}
    Kind kind() const override { return Kind::Beacon; }
    const UUID& proximityUUID() const { return uuid_; }
    const std::optional<std::uint16_t>& major() const { return major_; }
    const std::optional<std::uint16_t>& minor() const { return minor_; }
    bool notifyOnEntry() const { return notify_.onEntry; }
    bool notifyOnExit() const { return notify_.onExit; }
    bool notifyEntryStateOnDisplay() const { return notify_.entryStateOnDisplay; }

  private:
    UUID uuid_;
    std::optional<std::uint16_t> major_, minor_;
    Notify notify_;
};

// One beacon in a ranging report.
struct Beacon {
    UUID proximityUUID;
    int major = 0;
    int minor = 0;
    // 0 unknown, 1 immediate, 2 near, 3 far.
    std::int64_t proximity = 0;
    // Estimated distance in metres; negative when unknown.
    double accuracy = -1.0;
    long rssi = 0;
};

}  // namespace quenby::platform
