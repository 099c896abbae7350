// lurewave-agent: the library on a real Linux device. Beacons from BlueZ, positions from gpsd,
// notifications on the desktop, the system clock; the same timeline (or JSON trace) as the
// simulator, until SIGINT, SIGTERM or --for seconds.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "campaigns/LWManager.h"
#include "common/recorders.h"
#include "common/trace.h"
#include "platform/platform.h"
#include "proximity/QZWManager.h"
#include "sensing/beacon_monitor.h"
#include "sensing/bluez_beacon_source.h"
#include "sensing/desktop_presenter.h"
#include "sensing/geofence_monitor.h"
#include "sensing/gpsd_position_source.h"

namespace {

namespace fs = std::filesystem;
using quenby::platform::Platform;

struct Options {
    std::string bundle;
    std::optional<std::string> documents;
    bool proximity = false, json = false, verbose = false, noBluetooth = false, noGps = false;
    std::string gpsd = "127.0.0.1:2947";
    std::optional<std::string> adapter;
    double exitTimeout = 10.0;
    std::optional<double> runFor;
};

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "lurewave-agent: %s\n", message.c_str());
    return status;
}

// "host:port", "host" or ":port"; IPv6 literals in brackets ("[::1]:2947").
bool splitHostPort(const std::string& text, std::string& host, std::string& port) {
    host = "127.0.0.1";
    port = "2947";
    std::string rest = text;
    if (!rest.empty() && rest.front() == '[') {
        auto close = rest.find(']');
        if (close == std::string::npos) return false;
        host = rest.substr(1, close - 1);
        rest = rest.substr(close + 1);
        if (rest.empty()) return !host.empty();
        if (rest.front() != ':') return false;
        port = rest.substr(1);
    } else if (auto colon = rest.rfind(':'); colon != std::string::npos) {
        if (colon > 0) host = rest.substr(0, colon);
        port = rest.substr(colon + 1);
    } else {
        host = rest;
    }
    if (host.empty() || port.empty() || port.size() > 5) return false;
    for (char c : port) {
        if (c < '0' || c > '9') return false;
    }
    int n = std::stoi(port);
    return n > 0 && n < 65536;
}

class Agent {
  public:
    explicit Agent(Options o) : options_(std::move(o)) {}

    // Ends the run loop, from any thread; before the loop runs, it will end at once.
    void requestStop() {
        std::lock_guard lk(stopMu_);
        stopRequested_ = true;
        if (scheduler_) scheduler_->postToMain([s = scheduler_] { s->stop(); });
    }

    int run() {
        std::string gpsHost, gpsPort;
        if (!splitHostPort(options_.gpsd, gpsHost, gpsPort))
            return fail(2, "--gpsd wants HOST:PORT, not \"" + options_.gpsd + "\"");
        std::error_code ec;
        if (!fs::is_directory(options_.bundle, ec) ||
            ::access(options_.bundle.c_str(), R_OK | X_OK) != 0) {
            return fail(2, "cannot read the bundle directory " + options_.bundle);
        }

        Platform::Options po;
        po.applicationId = "lurewave-agent";
        po.bundleDirectory = fs::absolute(options_.bundle).string();
        if (options_.documents) po.documentsDirectory = *options_.documents;
        try {
            platform_ = Platform::create(std::move(po));
        } catch (const std::exception& e) {
            return fail(2, e.what());
        }
        auto scheduler = platform_->scheduler;
        {
            std::lock_guard lk(stopMu_);
            scheduler_ = scheduler;
            if (stopRequested_) scheduler->postToMain([scheduler] { scheduler->stop(); });
        }
        // A long-running host prints each event as it comes, and a beacon in range for hours
        // still shows up once a minute.
        trace_ = std::make_unique<host::Trace>(
            scheduler, scheduler->now(),
            options_.json      ? host::Trace::Form::Json
            : options_.verbose ? host::Trace::Form::Verbose
                               : host::Trace::Form::Timeline,
            /*live=*/true, /*maxFold=*/60.0);
        recorders_ = std::make_unique<host::Recorders>(*trace_, platform_);
        recorders_->setImplemented({"local"});
        // The host shows every campaign it is told was found.
        recorders_->setFindHook([this](const std::shared_ptr<LWCampaign>& c) {
            platform_->application->presentLocalNotificationNow(c->buildLocalNotification());
        });
        trace_->note("documents: " + platform_->documentsDirectory);
        presenter_ = quenby::sensing::DesktopPresenter::create(scheduler, platform_->application,
                                                               "lurewave-agent");
        startSources(gpsHost, gpsPort);

        if (!managers_.create(!options_.proximity, platform_, *recorders_, false)) {
            stopSources();
            return fail(3,
                        "creating the manager raised \"Missing info.plist key\": the bundle's "
                        "Info.plist declares no location usage "
                        "(NSLocationAlwaysUsageDescription or "
                        "NSLocationWhenInUseUsageDescription)");
        }
        scheduler->performPass([&] {
            if (managers_.campaigns) {
                managers_.campaigns->start();
            } else {
                managers_.zonewise->start();
            }
        });
        if (options_.runFor)
            scheduler->postToMainAfter(*options_.runFor, [scheduler] { scheduler->stop(); });
        scheduler->run();

        // Stop as the host application would, then let every write and upload in flight finish.
        scheduler->performPass([&] {
            if (managers_.campaigns) {
                managers_.campaigns->stop();
            } else {
                managers_.zonewise->stop();
            }
        });
        scheduler->settle();
        stopSources();
        managers_.reset(platform_, *recorders_);
        scheduler->settle();
        trace_->note(fmt::format("stopped after {:.1f} s", trace_->now()));
        recorders_.reset();
        return 0;
    }

  private:
    void startSources(const std::string& gpsHost, const std::string& gpsPort) {
        auto scheduler = platform_->scheduler;
        auto location = platform_->location;
        if (options_.noBluetooth) {
            // Nothing can range here; the library hears that from the location service.
            auto caps = location->capabilities();
            caps.rangingAvailable = false;
            location->setCapabilities(caps);
        } else {
            quenby::sensing::BeaconRegionMonitor::Options mo;
            mo.exitTimeout = options_.exitTimeout;
            beacons_ = quenby::sensing::BeaconRegionMonitor::create(scheduler, location, mo);
            quenby::sensing::BluezBeaconSource::Options bo;
            bo.adapter = options_.adapter;
            bluez_ = quenby::sensing::BluezBeaconSource::create(scheduler, beacons_, bo);
        }
        if (!options_.noGps) {
            geofences_ = quenby::sensing::GeofenceMonitor::create(scheduler, location);
            quenby::sensing::GpsdPositionSource::Options go;
            go.host = gpsHost;
            go.port = gpsPort;
            gpsd_ = quenby::sensing::GpsdPositionSource::create(scheduler, geofences_, go);
        }
    }

    void stopSources() {
        bluez_.reset();
        gpsd_.reset();
        if (beacons_) beacons_->shutdown();
        if (geofences_) geofences_->shutdown();
        presenter_.reset();
    }

    Options options_;
    std::mutex stopMu_;
    bool stopRequested_ = false;                              // guarded by stopMu_
    std::shared_ptr<quenby::platform::Scheduler> scheduler_;  // guarded by stopMu_
    std::shared_ptr<Platform> platform_;
    std::unique_ptr<host::Trace> trace_;
    std::unique_ptr<host::Recorders> recorders_;
    host::Managers managers_;
    std::unique_ptr<quenby::sensing::DesktopPresenter> presenter_;
    std::shared_ptr<quenby::sensing::BeaconRegionMonitor> beacons_;
    std::shared_ptr<quenby::sensing::GeofenceMonitor> geofences_;
    std::unique_ptr<quenby::sensing::BluezBeaconSource> bluez_;
    std::unique_ptr<quenby::sensing::GpsdPositionSource> gpsd_;
};

}  // namespace

int main(int argc, char** argv) {
    // Termination signals are taken by one thread of ours (below), never by a library thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    CLI::App app{
        "Runs the Quenby location library on this device: beacons from BlueZ, positions "
        "from gpsd, notifications on the desktop"};
    Options o;
    std::string documents, adapter;
    double runFor = 0;
    app.add_option("--bundle", o.bundle,
                   "Bundle directory: Info.plist, Lurewave.plist and/or Zonewise.plist")
        ->required();
    app.add_option("--documents", documents,
                   "Documents directory (default $XDG_DATA_HOME/lurewave-agent)");
    app.add_flag("--proximity", o.proximity, "Run the proximity layer alone, without campaigns");
    app.add_flag("--json", o.json, "Print the trace as JSON Lines");
    app.add_flag("--verbose", o.verbose, "Print every ranging report and document in full");
    app.add_option("--gpsd", o.gpsd, "gpsd address (default 127.0.0.1:2947)");
    app.add_option("--adapter", adapter, "Bluetooth adapter (default: the first powered one)");
    app.add_flag("--no-bluetooth", o.noBluetooth, "Do not scan for beacons");
    app.add_flag("--no-gps", o.noGps, "Do not read positions from gpsd");
    app.add_option("--exit-timeout", o.exitTimeout,
                   "Seconds without a beacon before its region is left (default 10)")
        ->check(CLI::PositiveNumber);
    app.add_option("--for", runFor, "Stop after this many seconds")->check(CLI::PositiveNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (!documents.empty()) o.documents = documents;
    if (!adapter.empty()) o.adapter = adapter;
    if (runFor > 0) o.runFor = runFor;

    // The signal thread outlives the agent: it reaches it only while it exists.
    static std::mutex agentMu;
    static Agent* running = nullptr;  // guarded by agentMu
    auto agent = std::make_unique<Agent>(std::move(o));
    {
        std::lock_guard lk(agentMu);
        running = agent.get();
    }
    std::thread signals([stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        // The first signal stops the agent in order; a second one ends the process at once.
        {
            std::lock_guard lk(agentMu);
            if (running) running->requestStop();
        }
        sigwait(&stopSignals, &sig);
        _exit(128 + sig);
    });
    signals.detach();
    int status = agent->run();
    {
        std::lock_guard lk(agentMu);
        running = nullptr;
    }
    agent.reset();
    return status;
}
