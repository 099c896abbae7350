// The one decision the gpsd reader makes on a decoded report: whether it is a usable fix, and
// which one. Kept apart from the reader's thread and socket so that it can be driven directly.
#pragma once

#include <gps.h>

#include <optional>
#include <string>

#include "sensing/geofence_monitor.h"

namespace quenby::sensing {

// A fix for a report of mode 2 or better with a position on the globe; the horizontal error is
// gpsd's eph, else the larger of epx/epy, else unknown (-1). Nothing for any other report.
std::optional<Fix> fixFromReport(const gps_data_t& data, platform::Date at);

// Decodes one report line (without its newline) into `data` as libgps would, when the line is a
// well-formed JSON object; false for any other line. libgps's own decoder can spin for minutes
// on a garbled line, so nothing else reaches it.
bool decodeReport(std::string line, gps_data_t& data);

}  // namespace quenby::sensing
