// The radio model shared by everything that turns distance into signal strength or back: the
// simulator's walk (distance -> RSSI) and the beacon monitor (RSSI -> accuracy).
//
// Log-distance path loss: RSSI(d) = P - 10 n log10(d), with P the beacon's measured power at 1 m
// (from its advertisement, typically -59 dBm), n = 2.0 (free space; indoors with people and
// shelves 2.5-3 is common, but 2.0 never overstates how far a beacon is) and d in metres, at
// least 0.1 m. Below -85 dBm a reading is treated as not heard. Proximity follows the phone
// platforms' bands: immediate under 0.5 m, near under 3 m, far beyond, unknown without a reading.
#pragma once

#include <cstdint>

namespace quenby::sensing {

struct RadioModel {
    static constexpr double kPathLossExponent = 2.0;
    static constexpr double kMinimumDistance = 0.1;  // metres
    static constexpr double kHearingDbm = -85.0;
    static constexpr double kImmediateBelow = 0.5;  // metres
    static constexpr double kNearBelow = 3.0;       // metres

    // Noise-free RSSI at `metres` from a beacon of `measuredPower` dBm at 1 m.
    static double rssiAt(double measuredPower, double metres);
    // The distance that `rssi` implies; negative (unknown) when the reading is 0 (no reading,
    // as the platforms report it) or the measured power is 0 (an uncalibrated frame).
    static double distanceFor(double measuredPower, double rssi);
    // 0 unknown (negative distance), 1 immediate, 2 near, 3 far.
    static std::int64_t proximityFor(double metres);
};

}  // namespace quenby::sensing
