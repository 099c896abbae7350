// The run report: one self-contained HTML page (no network, no scripts, fonts or styles from
// elsewhere) with a summary, the map, each campaign's story, the folded timeline and every document
// the embedded server received.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "sim/map.h"

namespace sim {

struct RunReport {
    std::string scenario;  // as the user named it
    std::string started;   // the run's first instant, ISO 8601
    double duration = 0;   // seconds of virtual time
    std::vector<nlohmann::ordered_json> records;  // the whole trace
    std::optional<MapScene> map;                  // none without a walk
};

// What happened where: a marker for every enter, exit, find, view and fulfil in the trace, placed
// where `positionAt` says the device was at the record's time.
std::vector<MapScene::Marker> eventMarkers(
    const std::vector<nlohmann::ordered_json>& records,
    const std::function<std::pair<double, double>(double t)>& positionAt);

std::string renderReport(const RunReport& report);

}  // namespace sim
