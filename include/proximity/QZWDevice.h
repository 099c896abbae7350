// The device's identifier for the vendor, as the application id sent to the servers.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/device.h"

class QZWDevice {
  public:
    explicit QZWDevice(std::shared_ptr<const quenby::platform::DeviceInfo> device)
        : device_(std::move(device)) {}
    // Upper-case UUID text; nothing when the platform has no identifier.
    std::optional<std::string> getUUID() const;

  private:
    std::shared_ptr<const quenby::platform::DeviceInfo> device_;
};
