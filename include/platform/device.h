// The device identifier for the vendor: one UUID per device and application vendor, sent to the
// operator's servers as the application id.
#pragma once

#include <optional>
#include <string>

#include "platform/uuid.h"

namespace quenby::platform {

class DeviceInfo {
  public:
    DeviceInfo() = default;
    DeviceInfo(const DeviceInfo&) = delete;
    DeviceInfo& operator=(const DeviceInfo&) = delete;
    virtual ~DeviceInfo() = default;
    // Nothing when the platform cannot give one. Any thread.
    virtual std::optional<UUID> identifierForVendor() const = 0;
    // The same as upper-case UUID text, as it is sent to the servers.
    std::optional<std::string> identifierForVendorString() const {
        auto id = identifierForVendor();
        return id ? std::optional(id->uuidString()) : std::nullopt;
    }
};

// A given identifier (or none): tests and the simulator.
class FixedDeviceInfo final : public DeviceInfo {
  public:
    explicit FixedDeviceInfo(std::optional<UUID> id) : id_(id) {}
    std::optional<UUID> identifierForVendor() const override { return id_; }

  private:
    std::optional<UUID> id_;
};

// Linux: a name-based UUID (version 5 layout) from the machine id and the application id, so it is
// stable per machine and application and does not reveal the machine id itself. Without a machine
// id, a random identifier is kept in `fallbackFile`.
class LinuxDeviceInfo final : public DeviceInfo {
  public:
    LinuxDeviceInfo(std::string applicationId, std::string fallbackFile);
    std::optional<UUID> identifierForVendor() const override { return id_; }

    // The derivation, exposed for tests.
    static UUID derive(const std::string& machineId, const std::string& applicationId);

  private:
    std::optional<UUID> id_;
};

}  // namespace quenby::platform
