// The readable timeline: one line per trace record, except that ranging is folded. Ranging arrives
// every second for every region in range, each time as a delegate callback, a notification and the
// campaign layer's place event, so a shopper standing at a shelf would otherwise bury the few lines
// that tell the story (enter, find, view, fulfil) under hundreds of near-identical ones. A region's
// reports fold into one "ranging" line, printed where they began, until the region goes quiet for
// kQuietGap seconds.
#pragma once

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace host {

using OrderedJson = nlohmann::ordered_json;

// One line of the timeline: a single record (count 1), or `count` identical ranging records from
// `from` to `to`.
struct TimelineEntry {
    double from = 0, to = 0;
    int count = 1;
    std::string type;     // the records' type: delegate, notification, server, log, …
    std::string text;     // what happened, without the time and the type
    std::string details;  // a received document, pretty-printed (empty for other records)
    std::optional<double> nearest;  // folded ranging: the smallest accuracy reported, metres
};

class Timeline {
  public:
    using Sink = std::function<void(const TimelineEntry&)>;

    static constexpr double kQuietGap = 10.0;  // as long as a beacon region takes to be left

    // `fold`: fold ranging (the default timeline); without it every record is its own entry
    // (--verbose). `live`: a host printing as things happen closes its folds before any other line
    // and after `maxSpan` seconds, so that nothing waits behind a beacon that stays in range.
    Timeline(bool fold, Sink sink, bool live = false,
             double maxSpan = std::numeric_limits<double>::infinity());

    void add(const OrderedJson& record);
    // Closes every open fold, oldest first (before a note, and at the end of a run).
    void flush();

    // The folded timeline of a whole run at once.
    static std::vector<TimelineEntry> of(const std::vector<OrderedJson>& records);
    // The entry as a printed line; `verbose` adds a received document in full below it.
    static std::string format(const TimelineEntry& e, bool verbose);
    // A received document in one line: what it carries, not its bytes.
    static std::string summarizeDocument(const std::string& body);

  private:
    // A line waiting to be printed: a finished entry, or a region's ranging still being folded.
    struct Slot {
        TimelineEntry entry;
        bool open = false;
        std::string subject;             // the region (or place) the fold is about
        std::vector<OrderedJson> alone;  // its records while they all share one instant
        std::vector<TimelineEntry> before;  // a closed single instant's other lines
    };
    void close(Slot& s);
    void drain();

    bool fold_, live_;
    Sink sink_;
    double maxSpan_;
    std::vector<Slot> queue_;  // in the order the lines began
};

}  // namespace host
