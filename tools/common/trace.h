// A host tool's trace: one record per thing that happened, stamped with the seconds since the run
// began on the scheduler's clock (virtual in the simulator, real in the agent). Printed as JSON
// Lines (--json) or as a readable timeline.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "campaigns/LWCampaign.h"
#include "platform/location.h"
#include "platform/scheduler.h"
#include "platform/types.h"
#include "proximity/QZWKit.h"

namespace host {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

class Trace {
  public:
    // `retain`: keep every record for records() (a run of bounded length); a long-running host
    // only prints.
    Trace(std::shared_ptr<quenby::platform::Scheduler> scheduler, quenby::platform::Date start,
          bool json, bool retain = true);

    // Adds one record: {"t", "type", …fields}. Thread-safe; printed at once.
    void add(const std::string& type, const OrderedJson& fields);
    // A line of the readable timeline only (the document's location, a summary).
    void note(const std::string& text);
    // Records of one type, for the SVG and for summaries.
    std::vector<OrderedJson> records(const std::string& type) const;
    double now() const;

  private:
    std::string readable(const OrderedJson& r) const;

    std::shared_ptr<quenby::platform::Scheduler> scheduler_;
    quenby::platform::Date start_;
    bool json_, retain_;
    mutable std::mutex mu_;
    std::vector<OrderedJson> records_;  // guarded by mu_
};

// The trace's forms of the library's objects.
OrderedJson regionJson(const QZWRegion& r);
OrderedJson platformRegionJson(const quenby::platform::Region& r);
OrderedJson placeJson(const LWPlace& p);
OrderedJson campaignJson(const LWCampaign& c);
OrderedJson errorJson(const quenby::platform::Error& e);

}  // namespace host
