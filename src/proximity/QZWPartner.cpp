#include <mutex>

#include "proximity/QZWDevice.h"
#include "proximity/QZWPartner.h"

namespace {
std::mutex gPartnerMutex;
std::string gPartnerId;  // guarded by gPartnerMutex
}  // namespace

void QZWPartner::setIdentifier(const std::string& identifier) {
    std::lock_guard lk(gPartnerMutex);
    gPartnerId = identifier;
}

std::string QZWPartner::getIdentifier() const {
    std::lock_guard lk(gPartnerMutex);
    return gPartnerId;
}

std::optional<std::string> QZWDevice::getUUID() const {
    return device_ ? device_->identifierForVendorString() : std::nullopt;
}
