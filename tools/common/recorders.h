// What a host tool hears and sees, traced: the delegates it hands the library (proximity,
// campaigns, the second location listener, its application delegate), the library's console
// lines, the calls the library makes on the location service and the application, and the
// notifications it posts. Shared by the simulator and the agent, so both print the same lines.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/trace.h"
#include "platform/notifications.h"
#include "platform/platform.h"

class LWAppDelegate;
class LWCampaign;
class LWManager;
class LWManagerDelegate;
class QZWManager;
class QZWManagerDelegate;

namespace host {

class Recorders {
  public:
    // Attaches to the platform at once: console sink, call observers, notification observers.
    Recorders(Trace& trace, std::shared_ptr<quenby::platform::Platform> platform);
    // Detaches everything it attached.
    ~Recorders();
    Recorders(const Recorders&) = delete;
    Recorders& operator=(const Recorders&) = delete;

    std::shared_ptr<QZWManagerDelegate> proximity() const;
    std::shared_ptr<LWManagerDelegate> campaigns() const;
    std::shared_ptr<quenby::platform::LocationManagerDelegate> secondListener() const;
    // The host's own application delegate, answering only the callbacks named in `implemented`
    // ("fetch", "legacy", "token", "local").
    std::shared_ptr<quenby::platform::ApplicationDelegate> applicationDelegate() const;
    void setImplemented(std::set<std::string> implemented);

    // Runs after a location-service call is traced (on the caller's thread).
    void setLocationCallHook(std::function<void(const quenby::platform::LocationService::Call&)>);
    // Runs when the campaign layer reports a found campaign, after it is traced.
    void setFindHook(std::function<void(const std::shared_ptr<LWCampaign>&)>);

    Trace& trace() const { return trace_; }

  private:
    struct Listeners;
    Trace& trace_;
    std::shared_ptr<quenby::platform::Platform> platform_;
    std::shared_ptr<Listeners> listeners_;
    std::vector<quenby::platform::NotificationCenter::ObserverId> observers_;
};

// The manager a host runs: the campaign layer (with the application-delegate proxy over the
// host's own delegate) or the proximity layer alone.
struct Managers {
    std::shared_ptr<LWManager> campaigns;
    std::shared_ptr<QZWManager> zonewise;
    std::shared_ptr<LWAppDelegate> proxy;

    std::shared_ptr<QZWManager> proximity() const;
    // Creates it; when creation raises, traces the exception and answers false.
    bool create(bool campaignsHost, const std::shared_ptr<quenby::platform::Platform>& platform,
                Recorders& recorders, bool secondListener);
    // Releases it, putting the host's own application delegate back.
    void reset(const std::shared_ptr<quenby::platform::Platform>& platform, Recorders& recorders);
};

}  // namespace host
