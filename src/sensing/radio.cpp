#include "sensing/radio.h"

#include <algorithm>
#include <cmath>

namespace quenby::sensing {

double RadioModel::rssiAt(double measuredPower, double metres) {
    return measuredPower - 10.0 * kPathLossExponent * std::log10(std::max(metres, kMinimumDistance));
}

double RadioModel::distanceFor(double measuredPower, double rssi) {
    if (rssi == 0.0 || measuredPower == 0.0 || !std::isfinite(rssi)) return -1.0;
    return std::pow(10.0, (measuredPower - rssi) / (10.0 * kPathLossExponent));
}

std::int64_t RadioModel::proximityFor(double metres) {
    if (metres < 0) return 0;
    return metres < kImmediateBelow ? 1 : metres < kNearBelow ? 2 : 3;
}

}  // namespace quenby::sensing
