// The run report: one self-contained HTML page (no network, no scripts, fonts or styles from
// elsewhere) with a summary, the map, each campaign's story, the folded timeline and every document
// the embedded server received.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/timeline.h"
#include "sim/map.h"

namespace sim {

// What the summary, the map and the report read of a run's trace, taken from each record as it is
// added. A day of ranging at 1 Hz is hundreds of thousands of records: only the counts, the
// events worth a marker or a story, the folded timeline and the documents received stay, and the
// last three only for the outputs that show them. Thread-safe.
class RunDigest {
  public:
    // `markers`: where each enter, exit, find, view and fulfil happened (a map); `report`: what
    // the run report shows besides.
    RunDigest(bool markers, bool report);

    void add(const nlohmann::ordered_json& record);

    // Requests the embedded server received, by "METHOD target".
    std::map<std::string, int> received() const;
    // A marker for every enter, exit, find, view and fulfil, placed where `positionAt` says the
    // device was at the record's time.
    std::vector<MapScene::Marker> markers(
        const std::function<std::pair<double, double>(double t)>& positionAt) const;
    // The report's page for a run of `duration` seconds of virtual time from `started`.
    std::string renderReport(const std::string& scenario, const std::string& started,
                             double duration, const std::optional<MapScene>& map);

  private:
    // An enter or exit, labelled at once, or a campaign event (no label yet: it names its place,
    // and a later record may be the first to tell the place's name).
    struct Event {
        double t;
        std::optional<MapScene::Mark> mark;  // none: a campaign event the map does not show
        std::string label;
        std::string campaign, type, place;
        bool hasPlace = false;
    };
    struct Document {
        double t;
        std::string method, path, body;
    };
    std::string placeLabel(const std::string& id) const;

    bool markers_, report_;
    mutable std::mutex mu_;
    std::size_t records_ = 0;
    std::map<std::string, int> received_;
    std::map<std::string, std::string> places_;  // names as the trace tells them, by place id
    std::vector<Event> events_;
    std::map<std::string, int> counts_;
    std::vector<host::TimelineEntry> timeline_;
    host::Timeline folder_;
    std::vector<Document> documents_;
};

}  // namespace sim
