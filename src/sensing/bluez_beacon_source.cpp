#include "sensing/bluez_beacon_source.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "sensing/advertisement.h"
#include "sensing/bluez_frame.h"

namespace quenby::sensing {

namespace {

using platform::Error;
using SteadyClock = std::chrono::steady_clock;

constexpr char kBluez[] = "org.bluez";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kObjectManagerInterface[] = "org.freedesktop.DBus.ObjectManager";

// Long enough for a busy bluetoothd, short enough that a hung one is noticed and retried.
constexpr std::chrono::seconds kCallTimeout{10};
// Leaving the bus must not hang the host thread behind a bluetoothd that stopped answering.
constexpr std::chrono::seconds kShutdownStopTimeout{2};

using Properties = std::map<std::string, sdbus::Variant>;
using InterfaceMap = std::map<std::string, Properties>;
using ManagedObjects = std::map<sdbus::ObjectPath, InterfaceMap>;

Error bluezError(long code, std::string description) {
    return Error{BluezBeaconSource::kErrorDomain, code, std::move(description)};
}

bool hasInterface(const std::vector<std::string>& interfaces, const char* name) {
    for (const auto& i : interfaces)
        if (i == name) return true;
    return false;
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

std::optional<IBeaconFrame> frameFromManufacturerData(const sdbus::Variant& value) {
    using Entries = std::map<std::uint16_t, sdbus::Variant>;
    if (!value.containsValueOfType<Entries>()) return std::nullopt;
    auto entries = value.get<Entries>();
    auto apple = entries.find(kAppleCompanyId);
    if (apple == entries.end() || !apple->second.containsValueOfType<std::vector<std::uint8_t>>())
        return std::nullopt;
    auto bytes = apple->second.get<std::vector<std::uint8_t>>();
    return parseIBeaconFrame(bytes.data(), bytes.size());
}

BluezDevices::Update BluezDevices::update(const std::string& path, const Properties& changed,
                                          const std::vector<std::string>& invalidated,
                                          bool announce) {
    auto mdata = changed.find("ManufacturerData");
    auto rssi = changed.find("RSSI");
    bool frameGone = hasInterface(invalidated, "ManufacturerData");
    bool rssiGone = hasInterface(invalidated, "RSSI");
    bool frameSent = mdata != changed.end(), rssiSent = rssi != changed.end();
    if (!frameSent && !rssiSent && !frameGone && !rssiGone) return {};

    auto& d = devices_[path];
    bool malformed = false;
    if (frameSent) {
        d.frame = frameFromManufacturerData(mdata->second);
    } else if (frameGone) {
        d.frame.reset();
    }
    if (rssiSent) {
        if (rssi->second.containsValueOfType<std::int16_t>()) {
            d.rssi = rssi->second.get<std::int16_t>();
        } else {
            malformed = true;
        }
    } else if (rssiGone) {
        d.rssi.reset();
    }
    if (!announce) return {Update::Recorded, {}, 0};
    // An invalidation alone leaves the device without a frame or a strength: no sighting.
    if (malformed || !d.frame || !d.rssi) return {Update::Ignored, {}, 0};
    return {Update::Heard, *d.frame, *d.rssi};
}

void BluezDevices::removeUnder(const std::string& adapterPath) {
    std::string prefix = adapterPath + "/";
    for (auto it = devices_.begin(); it != devices_.end();)
        it = startsWith(it->first, prefix) ? devices_.erase(it) : std::next(it);
}

// Threads. Everything about the bus lives on one thread of the source's own: it owns the
// connection, runs its event loop (poll on the connection plus an eventfd for work handed over
// from the host thread), makes every call and hears every signal. sdbus-c++ 1.2 documents its
// connection as thread-aware, not thread-safe, and its own loop thread offers no way to run work
// on it, so this loop replaces enterEventLoopAsync(): no other thread ever touches the
// connection, and the bus-side state below needs no lock. Decoded values go to the host thread
// through the scheduler; the monitor is only ever called there.
struct BluezBeaconSource::Impl : std::enable_shared_from_this<Impl> {
    Impl(std::shared_ptr<platform::Scheduler> scheduler, std::weak_ptr<BeaconRegionMonitor> monitor,
         Options options, bool wanted)
        : scheduler_(std::move(scheduler)),
          monitor_(std::move(monitor)),
          options_(std::move(options)),
          wanted_(wanted) {}

    ~Impl() {
        if (wakeFd_ >= 0) ::close(wakeFd_);
    }

    // ---- Constant after create() (read on both threads) -----------------------------------
    const std::shared_ptr<platform::Scheduler> scheduler_;
    const std::weak_ptr<BeaconRegionMonitor> monitor_;
    const Options options_;
    int wakeFd_ = -1;  // set before the bus thread starts

    // ---- Shared between threads ----------------------------------------------------------
    std::atomic<std::uint64_t> advertisements_{0}, ignored_{0}, discoveryStarts_{0},
        discoveryStops_{0};
    std::mutex tasksMu_;
    std::deque<std::function<void()>> tasks_;  // guarded by tasksMu_: work for the bus thread
    bool exit_ = false;                        // guarded by tasksMu_: the bus thread must leave
    std::thread thread_;                       // started and joined on the host thread

    // ---- Host thread only -------------------------------------------------------------------
    bool hostToldStarted_ = false;  // the monitor last heard scannerStarted() from us

    // ---- Bus thread only --------------------------------------------------------------------
    enum class Phase { Idle, Starting, Running, Stopping };
    enum class Told { Nothing, Started, Stopped, Failed };
    struct Adapter {
        bool powered = false;
    };

    bool wanted_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::vector<sdbus::Slot> matches_;
    std::unique_ptr<sdbus::IProxy> root_;
    // Never destroyed while the connection runs: a proxy must not die inside its own reply.
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> adapterProxies_;
    bool known_ = false;                // a first GetManagedObjects of this connection has answered
    bool bluezPresent_ = false;         // org.bluez answers on the bus
    bool refreshing_ = false;           // a GetManagedObjects is in flight
    std::uint64_t ownerEpoch_ = 0;      // bumps when bluetoothd leaves or changes
    std::uint64_t discoveryEpoch_ = 0;  // bumps when discovery is lost: its replies are stale
    std::map<std::string, Adapter> adapters_;
    BluezDevices devices_;
    Phase phase_ = Phase::Idle;
    std::string discoveryAdapter_;  // where discovery runs, starts or stops
    bool holdOff_ = false;          // BlueZ refused: wait for the retry timer before asking again
    std::optional<SteadyClock::time_point> retryAt_;
    Told told_ = Told::Nothing;

    // =========================================================================================
    // Host thread

    void post(std::function<void()> task) {
        {
            std::lock_guard lk(tasksMu_);
            tasks_.push_back(std::move(task));
        }
        wake();
    }

    void wake() const {
        std::uint64_t one = 1;
        [[maybe_unused]] auto r = ::write(wakeFd_, &one, sizeof one);
    }

    void shutdown() {
        if (auto m = monitor_.lock()) m->setScanningObserver(nullptr);
        {
            std::lock_guard lk(tasksMu_);
            exit_ = true;
        }
        wake();
        if (thread_.joinable()) thread_.join();
        // Nothing is heard any more: the monitor must not go on believing it.
        if (hostToldStarted_) {
            hostToldStarted_ = false;
            if (auto m = monitor_.lock()) m->scannerStopped(std::nullopt);
        }
    }

    // Everything handed to the host goes through here, in order; a task whose source is gone
    // by the time it runs does nothing.
    void toHost(std::function<void(Impl&, BeaconRegionMonitor&)> f) {
        scheduler_->postToMain([weak = weak_from_this(), f = std::move(f)] {
            auto self = weak.lock();
            if (!self) return;
            if (auto m = self->monitor_.lock()) f(*self, *m);
        });
    }

    // =========================================================================================
    // Bus thread: the loop

    void threadMain() {
        while (!exitRequested()) {
            try {
                connect();
            } catch (const std::exception& e) {
                teardown();
                failWithoutBus(std::string("cannot reach the system bus: ") + e.what());
                idleUntil(SteadyClock::now() + retryDelay());
                continue;
            }
            try {
                serve();
            } catch (const std::exception& e) {
                // The connection broke (dbus-daemon gone); start over with a new one.
                teardown();
                failWithoutBus(std::string("lost the system bus: ") + e.what());
                idleUntil(SteadyClock::now() + retryDelay());
                continue;
            }
        }
        stopDiscoveryOnExit();
        teardown();
    }

    SteadyClock::duration retryDelay() const {
        return std::chrono::duration_cast<SteadyClock::duration>(
            std::chrono::duration<double>(std::max(options_.retryInterval, 0.05)));
    }

    bool exitRequested() {
        std::lock_guard lk(tasksMu_);
        return exit_;
    }

    // Runs the work the host handed over; false once the thread must leave.
    bool runTasks() {
        for (;;) {
            std::function<void()> task;
            {
                std::lock_guard lk(tasksMu_);
                if (exit_) return false;
                if (tasks_.empty()) return true;
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }

    void drainWakeFd() const {
        std::uint64_t n;
        [[maybe_unused]] auto r = ::read(wakeFd_, &n, sizeof n);
    }

    // Without a connection: only host work and the clock.
    void idleUntil(SteadyClock::time_point until) {
        while (runTasks()) {
            auto now = SteadyClock::now();
            if (now >= until) return;
            auto ms = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
            pollfd fd{wakeFd_, POLLIN, 0};
            if (::poll(&fd, 1, static_cast<int>(ms)) > 0) drainWakeFd();
        }
    }

    void connect() {
        connection_ = options_.busAddress
                          ? sdbus::createSessionBusConnectionWithAddress(*options_.busAddress)
                          : sdbus::createSystemBusConnection();
        // One match per kind of signal covers every adapter and device path at once, instead
        // of a proxy per device among possibly thousands.
        matches_.push_back(connection_->addMatch(
            "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0='org.bluez'",
            [this](sdbus::Message& m) { guarded([&] { onNameOwnerChanged(m); }); }));
        matches_.push_back(connection_->addMatch(
            "type='signal',sender='org.bluez',path='/',"
            "interface='org.freedesktop.DBus.ObjectManager'",
            [this](sdbus::Message& m) { guarded([&] { onObjectManagerSignal(m); }); }));
        matches_.push_back(connection_->addMatch(
            "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',"
            "member='PropertiesChanged',path_namespace='/org/bluez'",
            [this](sdbus::Message& m) { guarded([&] { onPropertiesChanged(m); }); }));
        root_ = sdbus::createProxy(*connection_, kBluez, "/");
        refresh();
    }

    void teardown() {
        // Proxies and match slots before the connection they belong to.
        root_.reset();
        adapterProxies_.clear();
        matches_.clear();
        connection_.reset();
        known_ = bluezPresent_ = refreshing_ = false;
        ++ownerEpoch_;
        ++discoveryEpoch_;
        adapters_.clear();
        devices_.clear();
        phase_ = Phase::Idle;
        discoveryAdapter_.clear();
        retryAt_.reset();
        holdOff_ = false;
    }

    void serve() {
        for (;;) {
            if (!runTasks()) return;
            while (connection_->processPendingRequest()) {
            }
            if (retryAt_ && SteadyClock::now() >= *retryAt_) {
                retryAt_.reset();
                holdOff_ = false;
                refresh();
                continue;
            }
            auto pd = connection_->getEventLoopPollData();
            int timeout = pd.getPollTimeout();
            if (retryAt_) {
                auto ms =
                    std::chrono::ceil<std::chrono::milliseconds>(*retryAt_ - SteadyClock::now());
                int retryMs = static_cast<int>(std::max<std::int64_t>(ms.count(), 0));
                timeout = timeout < 0 ? retryMs : std::min(timeout, retryMs);
            }
            pollfd fds[2] = {{pd.fd, pd.events, 0}, {wakeFd_, POLLIN, 0}};
            int r = ::poll(fds, 2, timeout);
            if (r < 0 && errno != EINTR) throw std::runtime_error("poll failed");
            if (r > 0 && (fds[1].revents & POLLIN)) drainWakeFd();
        }
    }

    // Nothing a handler meets (a malformed message, a failed call) may unwind into sd-bus.
    template <typename F>
    void guarded(F&& f) {
        try {
            f();
        } catch (const std::exception&) {
            ignored_.fetch_add(1, std::memory_order_relaxed);
        }
    }

    void stopDiscoveryOnExit() {
        if (!connection_ || (phase_ != Phase::Running && phase_ != Phase::Starting)) return;
        try {
            discoveryStops_.fetch_add(1, std::memory_order_relaxed);
            adapterProxy(discoveryAdapter_)
                .callMethod("StopDiscovery")
                .onInterface(kAdapterInterface)
                .withTimeout(kShutdownStopTimeout);
        } catch (const sdbus::Error&) {
            // bluetoothd ends our discovery by itself once we leave the bus.
        }
    }

    sdbus::IProxy& adapterProxy(const std::string& path) {
        auto& p = adapterProxies_[path];
        if (!p) p = sdbus::createProxy(*connection_, kBluez, path);
        return *p;
    }

    // =========================================================================================
    // Bus thread: what BlueZ has

    void refresh() {
        if (!connection_ || refreshing_) return;
        refreshing_ = true;
        auto epoch = ownerEpoch_;
        root_->callMethodAsync("GetManagedObjects")
            .onInterface(kObjectManagerInterface)
            .withTimeout(kCallTimeout)
            .uponReplyInvoke([this, epoch](const sdbus::Error* error, ManagedObjects objects) {
                guarded([&] { onManagedObjects(epoch, error, objects); });
            });
    }

    void onManagedObjects(std::uint64_t epoch, const sdbus::Error* error,
                          const ManagedObjects& objects) {
        if (epoch != ownerEpoch_) return;  // a newer refresh follows
        refreshing_ = false;
        known_ = true;
        if (error) {
            bluezPresent_ = false;
            adapters_.clear();
            devices_.clear();
            lose(bluezError(DaemonGone, "bluetoothd is not on the system bus"));
            return;
        }
        bluezPresent_ = true;
        adapters_.clear();
        devices_.clear();
        for (const auto& [path, interfaces] : objects) {
            if (auto a = interfaces.find(kAdapterInterface); a != interfaces.end())
                adapters_[path] = Adapter{poweredIn(a->second).value_or(false)};
            // Readings from before this moment are not advertisements heard now: keep them
            // only as the device's last known values.
            if (auto d = interfaces.find(kDeviceInterface); d != interfaces.end())
                deviceUpdate(path, d->second, {}, /*announce=*/false);
        }
        if (phase_ != Phase::Idle && !adapterUsable(discoveryAdapter_)) {
            lose(adapterLostError(discoveryAdapter_));
            return;
        }
        reconcile();
    }

    void onNameOwnerChanged(sdbus::Message& m) {
        std::string name, oldOwner, newOwner;
        m >> name >> oldOwner >> newOwner;
        if (name != kBluez) return;
        ++ownerEpoch_;
        refreshing_ = false;
        if (!oldOwner.empty() || newOwner.empty()) {
            bluezPresent_ = false;
            adapters_.clear();
            devices_.clear();
            known_ = true;
            lose(bluezError(DaemonGone, "bluetoothd left the bus"));
        }
        if (!newOwner.empty()) refresh();
    }

    void onObjectManagerSignal(sdbus::Message& m) {
        if (!bluezPresent_) return;  // the coming snapshot has it all
        sdbus::ObjectPath path;
        std::string member = m.getMemberName();
        if (member == "InterfacesAdded") {
            InterfaceMap interfaces;
            m >> path >> interfaces;
            if (auto a = interfaces.find(kAdapterInterface); a != interfaces.end()) {
                adapters_[path] = Adapter{poweredIn(a->second).value_or(false)};
                reconcile();
            }
            if (auto d = interfaces.find(kDeviceInterface); d != interfaces.end())
                deviceUpdate(path, d->second, {}, /*announce=*/true);
        } else if (member == "InterfacesRemoved") {
            std::vector<std::string> interfaces;
            m >> path >> interfaces;
            if (hasInterface(interfaces, kDeviceInterface)) devices_.remove(path);
            if (hasInterface(interfaces, kAdapterInterface)) adapterRemoved(path);
        }
    }

    void onPropertiesChanged(sdbus::Message& m) {
        if (!bluezPresent_) return;
        std::string interface;
        Properties changed;
        std::vector<std::string> invalidated;
        m >> interface >> changed >> invalidated;
        std::string path = m.getPath();
        if (interface == kDeviceInterface) {
            deviceUpdate(path, changed, invalidated, /*announce=*/true);
        } else if (interface == kAdapterInterface) {
            auto a = adapters_.find(path);
            if (a == adapters_.end()) return;
            // Powered off under running discovery: reconcile() finds the adapter no longer
            // usable, stops there and tells the monitor.
            if (auto powered = poweredIn(changed)) {
                a->second.powered = *powered;
                reconcile();
            }
        }
    }

    static std::optional<bool> poweredIn(const Properties& properties) {
        auto p = properties.find("Powered");
        if (p == properties.end() || !p->second.containsValueOfType<bool>()) return std::nullopt;
        return p->second.get<bool>();
    }

    void adapterRemoved(const std::string& path) {
        adapters_.erase(path);
        devices_.removeUnder(path);
        if (phase_ != Phase::Idle && discoveryAdapter_ == path) {
            lose(bluezError(NoAdapter, "Bluetooth adapter " + path + " was removed"));
            return;
        }
        reconcile();
    }

    // =========================================================================================
    // Bus thread: devices

    void deviceUpdate(const std::string& path, const Properties& changed,
                      const std::vector<std::string>& invalidated, bool announce) {
        auto u = devices_.update(path, changed, invalidated, announce);
        if (u.kind == BluezDevices::Update::Ignored) {
            ignored_.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        if (u.kind != BluezDevices::Update::Heard) return;
        advertisements_.fetch_add(1, std::memory_order_relaxed);
        toHost([f = u.frame, heard = u.rssi](Impl& self, BeaconRegionMonitor& m) {
            m.advertisement(Advertisement{f.uuid, f.major, f.minor, f.measuredPower, heard,
                                          self.scheduler_->now()});
        });
    }

    // =========================================================================================
    // Bus thread: discovery

    // The adapter discovery should run on, when there is one.
    std::optional<std::string> usableAdapter() const {
        if (options_.adapter) {
            std::string suffix = "/" + *options_.adapter;
            for (const auto& [path, a] : adapters_) {
                if (path.size() >= suffix.size() &&
                    path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
                    return a.powered ? std::optional(path) : std::nullopt;
            }
            return std::nullopt;
        }
        for (const auto& [path, a] : adapters_)
            if (a.powered) return path;
        return std::nullopt;
    }

    bool adapterUsable(const std::string& path) const {
        auto a = adapters_.find(path);
        return a != adapters_.end() && a->second.powered;
    }

    Error adapterLostError(const std::string& path) const {
        return bluezError(NoAdapter, "Bluetooth adapter " + path + " is gone or powered off");
    }

    Error blockerError() const {
        if (!bluezPresent_) return bluezError(DaemonGone, "bluetoothd is not on the system bus");
        if (options_.adapter)
            return bluezError(
                NoAdapter, "Bluetooth adapter " + *options_.adapter + " is missing or powered off");
        return bluezError(NoAdapter, "no powered Bluetooth adapter");
    }

    // Discovery can no longer run where it did: forget it, tell the monitor, and look again.
    void lose(const Error& why) {
        if (phase_ != Phase::Idle) {
            ++discoveryEpoch_;
            phase_ = Phase::Idle;
            discoveryAdapter_.clear();
            if (wanted_) tellFailed(why);
        }
        reconcile();
    }

    void setWanted(bool wanted) {
        if (wanted == wanted_) return;
        wanted_ = wanted;
        if (!wanted) {
            holdOff_ = false;
            retryAt_.reset();
        }
        reconcile();
    }

    // Brings discovery in line with what the monitor wants and what BlueZ offers. Called after
    // every change of either; a call in flight finishes first and calls again.
    void reconcile() {
        if (!wanted_) {
            if (phase_ == Phase::Running) stopDiscovery();
            tellStopped();
            told_ = Told::Nothing;  // the next wish to scan gets its own answer
            return;
        }
        if (phase_ == Phase::Starting || phase_ == Phase::Stopping) return;
        if (!connection_ || !known_) return;
        auto target = usableAdapter();
        if (phase_ == Phase::Running) {
            // Unnamed, any usable adapter will do: no hopping when another one appears.
            if (target == discoveryAdapter_ ||
                (!options_.adapter && adapterUsable(discoveryAdapter_)))
                return;
            // Powered off (BlueZ may answer the stop with NotReady, which is fine): stop,
            // tell, and start wherever reconcile() finds a usable adapter next.
            stopDiscovery();
            tellFailed(adapterLostError(discoveryAdapter_));
            return;
        }
        if (!target) {
            tellFailed(blockerError());
            armRetry();
            return;
        }
        if (holdOff_) return;
        startDiscovery(*target);
    }

    void armRetry() {
        if (!retryAt_) retryAt_ = SteadyClock::now() + retryDelay();
    }

    void startDiscovery(const std::string& path) {
        phase_ = Phase::Starting;
        discoveryAdapter_ = path;
        auto epoch = ++discoveryEpoch_;
        Properties filter{{"Transport", sdbus::Variant(std::string("le"))},
                          {"DuplicateData", sdbus::Variant(true)}};
        adapterProxy(path)
            .callMethodAsync("SetDiscoveryFilter")
            .onInterface(kAdapterInterface)
            .withTimeout(kCallTimeout)
            .withArguments(filter)
            .uponReplyInvoke([this, epoch, path](const sdbus::Error*) {
                // A BlueZ too old for DuplicateData refuses the filter but still scans (with
                // duplicates merged, RSSI changes still arrive): scanning that way beats not
                // scanning. A real refusal comes again from StartDiscovery.
                guarded([&] {
                    if (epoch != discoveryEpoch_) return;
                    callStartDiscovery(path, epoch);
                });
            });
    }

    void callStartDiscovery(const std::string& path, std::uint64_t epoch) {
        adapterProxy(path)
            .callMethodAsync("StartDiscovery")
            .onInterface(kAdapterInterface)
            .withTimeout(kCallTimeout)
            .uponReplyInvoke([this, epoch](const sdbus::Error* error) {
                guarded([&] {
                    if (epoch != discoveryEpoch_) return;
                    // InProgress: this very client already has discovery running there.
                    if (error && error->getName() != "org.bluez.Error.InProgress")
                        return refused(*error);
                    phase_ = Phase::Running;
                    discoveryStarts_.fetch_add(1, std::memory_order_relaxed);
                    if (wanted_) tellStarted();
                    reconcile();
                });
            });
    }

    void refused(const sdbus::Error& error) {
        phase_ = Phase::Idle;
        discoveryAdapter_.clear();
        if (wanted_) tellFailed(Error{error.getName(), DiscoveryRefused, error.getMessage()});
        holdOff_ = true;
        armRetry();
        reconcile();
    }

    void stopDiscovery() {
        phase_ = Phase::Stopping;
        auto epoch = ++discoveryEpoch_;
        discoveryStops_.fetch_add(1, std::memory_order_relaxed);
        adapterProxy(discoveryAdapter_)
            .callMethodAsync("StopDiscovery")
            .onInterface(kAdapterInterface)
            .withTimeout(kCallTimeout)
            .uponReplyInvoke([this, epoch](const sdbus::Error*) {
                // Whatever the answer (NotReady, Failed: nothing to stop), discovery is over.
                guarded([&] {
                    if (epoch != discoveryEpoch_) return;
                    phase_ = Phase::Idle;
                    discoveryAdapter_.clear();
                    reconcile();
                });
            });
    }

    // =========================================================================================
    // Bus thread: what the monitor hears

    void tellStarted() {
        if (told_ == Told::Started) return;
        told_ = Told::Started;
        toHost([](Impl& self, BeaconRegionMonitor& m) {
            self.hostToldStarted_ = true;
            m.scannerStarted();
        });
    }

    void tellStopped() {
        if (told_ != Told::Started) return;
        told_ = Told::Stopped;
        toHost([](Impl& self, BeaconRegionMonitor& m) {
            self.hostToldStarted_ = false;
            m.scannerStopped(std::nullopt);
        });
    }

    // Once per outage: the first failure after a start (or after the wish to scan) is the one
    // that tells; the retries that follow fail the same way.
    void tellFailed(const Error& why) {
        if (told_ == Told::Failed) return;
        told_ = Told::Failed;
        toHost([why](Impl& self, BeaconRegionMonitor& m) {
            self.hostToldStarted_ = false;
            m.scannerStopped(why);
        });
    }

    void failWithoutBus(const std::string& description) {
        if (wanted_) tellFailed(bluezError(BusUnreachable, description));
    }
};

std::unique_ptr<BluezBeaconSource> BluezBeaconSource::create(
    std::shared_ptr<platform::Scheduler> scheduler, std::shared_ptr<BeaconRegionMonitor> monitor,
    Options options) {
    bool wanted = monitor && monitor->wantsScanning();
    auto impl = std::make_shared<Impl>(std::move(scheduler), monitor, std::move(options), wanted);
    impl->wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (impl->wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    if (monitor) {
        monitor->setScanningObserver([weak = std::weak_ptr<Impl>(impl)](bool wanted) {
            if (auto self = weak.lock()) {
                Impl* raw = self.get();
                self->post([raw, wanted] { raw->setWanted(wanted); });
            }
        });
    }
    impl->thread_ = std::thread([raw = impl.get()] { raw->threadMain(); });
    return std::unique_ptr<BluezBeaconSource>(new BluezBeaconSource(std::move(impl)));
}

BluezBeaconSource::~BluezBeaconSource() {
    impl_->shutdown();
}

BluezBeaconSource::Stats BluezBeaconSource::stats() const {
    Stats s;
    s.advertisements = impl_->advertisements_.load(std::memory_order_relaxed);
    s.ignored = impl_->ignored_.load(std::memory_order_relaxed);
    s.discoveryStarts = impl_->discoveryStarts_.load(std::memory_order_relaxed);
    s.discoveryStops = impl_->discoveryStops_.load(std::memory_order_relaxed);
    return s;
}

}  // namespace quenby::sensing
