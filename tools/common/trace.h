// A host tool's trace: one record per thing that happened, stamped with the seconds since the run
// began on the scheduler's clock (virtual in the simulator, real in the agent). Printed as JSON
// Lines (--json) or as a readable timeline.
#pragma once

#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "campaigns/LWCampaign.h"
#include "common/timeline.h"
#include "platform/location.h"
#include "platform/scheduler.h"
#include "platform/types.h"
#include "proximity/QZWKit.h"

namespace host {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

class Trace {
  public:
    enum class Form { Json, Timeline, Verbose };
    // Each record as it is added, in the order printed; called under the trace's lock.
    using Observer = std::function<void(const OrderedJson& record)>;

    // The trace keeps no record (a day of 1 Hz ranging past 30 beacons is nearly a gigabyte of
    // them): what a host reads back later it takes from the observer. `live`: a long-running host prints each
    // event as it comes and closes a folded ranging line at least every `maxFold` seconds; a run
    // of bounded length lets a fold run on past other lines.
    Trace(std::shared_ptr<quenby::platform::Scheduler> scheduler, quenby::platform::Date start,
          Form form, bool live = false, double maxFold = std::numeric_limits<double>::infinity(),
          Observer observer = nullptr);

    // Adds one record: {"t", "type", …fields}. Thread-safe; printed at once.
    void add(const std::string& type, const OrderedJson& fields);
    // A line of the readable timeline only (the document's location, a summary).
    void note(const std::string& text);
    // Prints a ranging run still being folded (at the end of a run).
    void flush();
    double now() const;

  private:
    static void print(const std::string& line);

    std::shared_ptr<quenby::platform::Scheduler> scheduler_;
    quenby::platform::Date start_;
    Form form_;
    Observer observer_;
    std::mutex mu_;
    Timeline timeline_;  // guarded by mu_
};

// The trace's forms of the library's objects.
OrderedJson regionJson(const QZWRegion& r);
OrderedJson platformRegionJson(const quenby::platform::Region& r);
OrderedJson placeJson(const LWPlace& p);
OrderedJson campaignJson(const LWCampaign& c);
OrderedJson errorJson(const quenby::platform::Error& e);

}  // namespace host
