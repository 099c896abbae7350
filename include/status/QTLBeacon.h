// One beacon sighting handed to the status layer, and the device identifier it reports.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/device.h"
#include "platform/json.h"
#include "platform/location.h"

struct QTLBeacon {
    std::string uuid;  // upper-case UUID text
    quenby::platform::Number major;
    quenby::platform::Number minor;

    static QTLBeacon beaconWithUUID(std::string uuid, quenby::platform::Number major,
                                    quenby::platform::Number minor) {
        return {std::move(uuid), major, minor};
    }
    static QTLBeacon beaconWithCLBeacon(const quenby::platform::Beacon& b) {
        return {b.proximityUUID.uuidString(), quenby::platform::Number(b.major),
                quenby::platform::Number(b.minor)};
    }
};

class QTLDevice {
  public:
    explicit QTLDevice(std::shared_ptr<const quenby::platform::DeviceInfo> d)
        : device_(std::move(d)) {}
    // Nothing when the platform gives no identifier.
    std::optional<std::string> getUUID() const {
        return device_ ? device_->identifierForVendorString() : std::nullopt;
    }

  private:
    std::shared_ptr<const quenby::platform::DeviceInfo> device_;
};
