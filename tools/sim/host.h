// A headless host application: it creates the library's manager, implements every callback of
// the delegate it owns, observes the notifications, sits in the application delegate slot under
// LWAppDelegate, and plays the device (location service, application, clock) step by step.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/platform.h"
#include "sim/scenario.h"
#include "sim/server.h"
#include "sim/trace.h"
#include "sim/walk.h"

class LWManager;
class LWAppDelegate;
class QZWManager;

namespace sim {

struct RunOptions {
    bool json = false;
    std::optional<std::string> documents;
    std::optional<std::string> svg;
};

class Host {
  public:
    Host(Scenario scenario, RunOptions options);
    ~Host();
    // Runs the scenario; answers the exit status (0, or 3 when creating the manager raised).
    int run();

  private:
    class Delegates;
    void setUp();
    bool createManager();
    void execute(const Json& action);
    void call(const Json& action);
    std::shared_ptr<const quenby::platform::Region> region(const Json& r) const;
    std::shared_ptr<QZWManager> proximity() const;
    void result(const std::string& call, const OrderedJson& value);
    void writeSvg(const std::string& path) const;
    // The readable timeline's last lines: the campaigns found and what the server received.
    void summarize() const;

    Scenario scenario_;
    RunOptions options_;
    std::string documents_, bundle_;
    std::shared_ptr<quenby::platform::Platform> platform_;
    std::unique_ptr<Trace> trace_;
    std::unique_ptr<OperatorServer> server_;
    std::shared_ptr<Delegates> delegates_;
    std::shared_ptr<LWManager> campaigns_;
    std::shared_ptr<QZWManager> zonewise_;
    std::shared_ptr<LWAppDelegate> proxy_;
    std::shared_ptr<Walk> walk_;
    std::vector<Json> finds_;  // where each campaign was found, for the map
};

}  // namespace sim
