// A headless host application: it creates the library's manager, implements every callback of
// the delegate it owns, observes the notifications, sits in the application delegate slot under
// LWAppDelegate, and plays the device (location service, application, clock) step by step.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "common/recorders.h"
#include "common/trace.h"
#include "platform/platform.h"
#include "sim/scenario.h"
#include "sim/map.h"
#include "sim/report.h"
#include "sim/server.h"
#include "sim/walk.h"

class LWManager;
class LWAppDelegate;
class QZWManager;

namespace sim {

using host::campaignJson;
using host::errorJson;
using host::Json;
using host::OrderedJson;
using host::placeJson;
using host::platformRegionJson;
using host::regionJson;
using host::Trace;

struct RunOptions {
    bool json = false;
    bool verbose = false;  // every ranging report and document in full
    std::string name;      // the scenario as the user named it, for the report
    std::optional<std::string> documents;
    std::optional<std::string> svg;
    std::optional<std::string> report;  // a self-contained HTML page of the run
};

class Host {
  public:
    Host(Scenario scenario, RunOptions options);
    ~Host();
    // Runs the scenario; answers the exit status (0; 3 when creating the manager raised; 4 when
    // the map or the report could not be written).
    int run();

  private:
    void setUp();
    bool createManager();
    void execute(const Json& action);
    void call(const Json& action);
    std::shared_ptr<const quenby::platform::Region> region(const Json& r) const;
    std::shared_ptr<QZWManager> proximity() const;
    void result(const std::string& call, const OrderedJson& value);
    MapScene mapScene() const;
    // The map and the report, each named on the timeline once written.
    void writeOutputs();
    // The readable timeline's last lines: the campaigns found and what the server received.
    void summarize() const;

    Scenario scenario_;
    RunOptions options_;
    std::string documents_, bundle_;
    std::shared_ptr<quenby::platform::Platform> platform_;
    std::unique_ptr<RunDigest> digest_;  // before the trace that feeds it
    std::unique_ptr<Trace> trace_;
    std::unique_ptr<OperatorServer> server_;
    std::unique_ptr<host::Recorders> recorders_;
    host::Managers managers_;
    std::shared_ptr<Walk> walk_;
    bool failed_ = false;  // an output file could not be written
};

}  // namespace sim
