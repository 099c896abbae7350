// The part of a BlueZ device update that is plain decoding, apart from the bus thread that
// receives it, so that it can be driven directly.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <optional>

#include "sensing/advertisement.h"

namespace quenby::sensing {

// The iBeacon frame in a ManufacturerData value (a{qv}, company id to a byte array); nothing for
// anything else, whatever its D-Bus type.
std::optional<IBeaconFrame> frameFromManufacturerData(const sdbus::Variant& value);

}  // namespace quenby::sensing
