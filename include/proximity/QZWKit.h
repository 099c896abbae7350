// The kit: the operator's beacons and geofences as one host application watches them. Model
// objects are immutable once built and are shared between threads as shared_ptr<const T>.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/json.h"
#include "platform/location.h"
#include "platform/uuid.h"

class QZWRegion {
  public:
    enum class Kind { Circle, BeaconRegion, Beacon };

    virtual ~QZWRegion() = default;
    QZWRegion(const QZWRegion&) = delete;
    QZWRegion& operator=(const QZWRegion&) = delete;

    virtual Kind kind() const = 0;
    // Display name ("name"); may be absent.
    const std::optional<std::string>& name() const { return name_; }
    // Kit-wide identifier ("identifier"): the platform region identifier and the lookup key.
    const std::optional<std::string>& identifier() const { return identifier_; }
    // "attributes": an object; empty when the key is missing, null when the kit gave null.
    const quenby::platform::Json& attributes() const { return attributes_; }

    // Circles are equal only to themselves; beacon regions and beacons compare their identity.
    virtual bool isEqual(const QZWRegion* other) const { return other == this; }
    // "<QZWCircle identifier=fence-1>", "<QZWBeacon uuid=… major=1 minor=2>" and the like.
    virtual std::string description() const = 0;

  protected:
    // Fills name, identifier and attributes from an entry of the kit (null: none of them).
    explicit QZWRegion(const quenby::platform::Json* dict);

    std::optional<std::string> name_;
    std::optional<std::string> identifier_;
    quenby::platform::Json attributes_;
};

// A circular geofence. Centre and radius are single-precision, as the kit format defines them.
class QZWCircle final : public QZWRegion {
  public:
    explicit QZWCircle(const quenby::platform::Json& dict);
    Kind kind() const override { return Kind::Circle; }
    std::string description() const override;

    float latitude() const { return latitude_; }
    float longitude() const { return longitude_; }
    float radius() const { return radius_; }
    // The platform region: centre and radius widened to double, the identifier ("" if absent).
    const std::shared_ptr<const quenby::platform::CircularRegion>& region() const {
        return region_;
    }

  private:
    float latitude_ = 0, longitude_ = 0, radius_ = 0;
    std::shared_ptr<const quenby::platform::CircularRegion> region_;
};

// One iBeacon entry as something to monitor and range.
class QZWBeaconRegion final : public QZWRegion {
  public:
    // From a kit entry.
    explicit QZWBeaconRegion(const quenby::platform::Json& dict);
    // From a platform region and the entry found for it (or none): the identity is the region's.
    QZWBeaconRegion(std::shared_ptr<const quenby::platform::BeaconRegion> region,
                    const quenby::platform::Json* dict);
    Kind kind() const override { return Kind::BeaconRegion; }
    std::string description() const override;

    const std::optional<quenby::platform::UUID>& uuid() const { return uuid_; }
    const std::optional<quenby::platform::Number>& major() const { return major_; }
    const std::optional<quenby::platform::Number>& minor() const { return minor_; }
    bool hasMajor() const { return major_.has_value(); }
    bool hasMinor() const { return minor_.has_value(); }
    // The platform region to register; absent when the UUID is, or for a minor without a major
    // (such an entry is never registered).
    const std::shared_ptr<const quenby::platform::BeaconRegion>& region() const { return region_; }

    bool isEqual(const QZWRegion* other) const override;
    // Asymmetric on purpose: a region without major (or minor) equals every more specific region
    // of its UUID, not the reverse.
    bool isEqualToZWIBeaconRegion(const QZWBeaconRegion& other) const;
    std::size_t hash() const;

  private:
    std::optional<quenby::platform::UUID> uuid_;
    std::optional<quenby::platform::Number> major_, minor_;
    std::shared_ptr<const quenby::platform::BeaconRegion> region_;
};

// One ranged beacon as reported to the host: the kit's entry merged with the live reading.
class QZWBeacon final : public QZWRegion {
  public:
    // From a kit entry alone.
    explicit QZWBeacon(const quenby::platform::Json& dict);
    // From a live reading and the entry found for it (or none).
    QZWBeacon(const quenby::platform::Beacon& beacon, const quenby::platform::Json* dict);
    Kind kind() const override { return Kind::Beacon; }
    std::string description() const override;

    const std::optional<quenby::platform::UUID>& uuid() const { return uuid_; }
    const std::optional<quenby::platform::Number>& major() const { return major_; }
    const std::optional<quenby::platform::Number>& minor() const { return minor_; }
    const std::optional<quenby::platform::Number>& rssi() const { return rssi_; }
    double accuracy() const { return accuracy_; }
    std::int64_t proximity() const { return proximity_; }
    const std::optional<quenby::platform::Beacon>& beacon() const { return beacon_; }

    bool isEqual(const QZWRegion* other) const override;
    bool isEqualToZWIBeacon(const QZWBeacon& other) const;
    std::size_t hash() const;

  private:
    std::optional<quenby::platform::UUID> uuid_;
    std::optional<quenby::platform::Number> major_, minor_, rssi_;
    bool hasMajor_ = false, hasMinor_ = false;
    double accuracy_ = 0;
    std::int64_t proximity_ = 0;
    std::optional<quenby::platform::Beacon> beacon_;
};

// The geofences of a kit, in the order of its "overlays" (only circles are kept).
class QZWMap {
  public:
    explicit QZWMap(const quenby::platform::Json& dict);
    const std::vector<std::shared_ptr<const QZWCircle>>& overlays() const { return overlays_; }

  private:
    std::vector<std::shared_ptr<const QZWCircle>> overlays_;
};

class QZWBeaconIndex;

class QZWKit {
  public:
    // Reads "id", "name", "status_url" and "status_token" and keeps the whole object; map and
    // beacon regions are set by the deserializer. A null dictionary makes a kit with no fields.
    explicit QZWKit(const quenby::platform::Json* dict);
    ~QZWKit();
    QZWKit(const QZWKit&) = delete;
    QZWKit& operator=(const QZWKit&) = delete;

    std::int64_t id() const { return id_; }
    const std::optional<std::string>& name() const { return name_; }
    // Part of the model, never filled from the document.
    const std::optional<std::string>& url() const { return url_; }
    const std::optional<std::string>& statusURL() const { return statusURL_; }
    const std::optional<std::string>& statusToken() const { return statusToken_; }
    const std::vector<std::shared_ptr<const QZWBeaconRegion>>& beaconRegions() const {
        return beaconRegions_;
    }
    const std::shared_ptr<const QZWMap>& map() const { return map_; }
    // The kit's whole JSON object as received (null for a kit built from nothing).
    const quenby::platform::Json& json() const { return json_; }

    void setMap(std::shared_ptr<const QZWMap> map) { map_ = std::move(map); }
    void setBeaconRegions(std::vector<std::shared_ptr<const QZWBeaconRegion>> r) {
        beaconRegions_ = std::move(r);
    }

    // The first geofence, then the first beacon region, whose identifier equals `identifier`.
    std::shared_ptr<const QZWRegion> getRegionForIdentifier(const std::string& identifier) const;
    // The kit's entry for a platform region, merged over its wildcard levels. Never null.
    std::shared_ptr<const QZWBeaconRegion> getIBeaconRegionForCLBeaconRegion(
        const std::shared_ptr<const quenby::platform::BeaconRegion>& region) const;
    // The kit's entry for a ranged beacon with the live reading. Never null.
    std::shared_ptr<const QZWBeacon> getIBeaconForCLBeacon(
        const quenby::platform::Beacon& beacon) const;
    // Every "ibeacons" entry in order, as a beacon built from the entry alone.
    void enumerateIBeaconsUsingBlock(
        const std::function<void(const std::shared_ptr<const QZWBeacon>& beacon, std::size_t index,
                                 bool& stop)>& block) const;

  private:
    std::int64_t id_ = 0;
    std::optional<std::string> name_, url_, statusURL_, statusToken_;
    std::vector<std::shared_ptr<const QZWBeaconRegion>> beaconRegions_;
    std::shared_ptr<const QZWMap> map_;
    quenby::platform::Json json_;
    // The "ibeacons" entries of json_, indexed once when the kit is built.
    std::unique_ptr<const QZWBeaconIndex> index_;
};
