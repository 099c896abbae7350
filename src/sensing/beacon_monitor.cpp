#include "sensing/beacon_monitor.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "sensing/radio.h"

// How time is read. Every decision runs on the scheduler's now() at the moment the host thread
// handles it, not on Advertisement::at: the deadlines and the ranging tick are timers on that
// clock, and a scanner's stamp (taken on its own thread, or left at its default) must not be able
// to stretch or shrink a window. The hop from the scanner's thread to the host is far below the
// one-second resolution of anything decided here.
//
// Windows are half-open. A reading, a sighting or a region's last advertisement counts while its
// age is below the window and has expired once the age reaches it: a region heard at t exits at
// exactly t + exitTimeout, a beacon heard at t is in the reports of ticks before t + rangingMemory,
// and a reading at t is smoothed in ticks before t + smoothingWindow. One rule, so that the three
// windows never disagree about the same instant.
//
// The scanner's states. Until scannerStarted() and after scannerStopped() it hears nothing:
// advertisements are ignored (late ones still queued from the scanner's thread included), no
// region enters or exits and no ranging report goes out. A region inside when the scanner stops
// stays inside, because no phone reports an exit it could not observe, and its exit deadline
// starts over when the scanner runs again. State answers in that time: inside for such regions,
// unknown for every other, since outside can only be claimed after listening.

namespace quenby::sensing {

using platform::Beacon;
using platform::BeaconRegion;
using platform::Date;
using platform::Error;
using platform::LocationService;
using platform::Region;
using platform::RunLoopTimer;
using platform::Scheduler;
using platform::UUID;

namespace {

// Dates are about 1.8e9 s, where one ulp is about 2.4e-7 s: a timer armed `deadline - now` ahead
// can land that much short of the deadline it was computed from.
constexpr double kTimeSlack = 1e-6;
constexpr double kNever = -std::numeric_limits<double>::infinity();

// Readings kept per beacon: 25 a second over the default window. A beacon advertising faster is
// smoothed over its latest readings, so a flood cannot grow memory.
constexpr std::size_t kMaxReadings = 128;

bool expired(double at, double now, double window) {
    return now - at >= window - kTimeSlack;
}

struct Reading {
    double at;
    int rssi;
};

// One beacon's readings, oldest first.
class ReadingRing {
  public:
    void push(Reading r) {
        if (size_ == buf_.size()) {
            if (buf_.size() >= kMaxReadings) {
                buf_[head_] = r;
                head_ = next(head_);
                return;
            }
            grow();
        }
        buf_[index(size_)] = r;
        ++size_;
    }
    // Forgets the readings that have expired in a window of `window` seconds ending now.
    void dropExpired(double now, double window) {
        while (size_ > 0 && expired(buf_[head_].at, now, window)) {
            head_ = next(head_);
            --size_;
        }
    }
    std::size_t size() const { return size_; }
    const Reading& operator[](std::size_t i) const { return buf_[index(i)]; }

  private:
    std::size_t index(std::size_t i) const {
        std::size_t j = head_ + i;
        return j >= buf_.size() ? j - buf_.size() : j;
    }
    std::size_t next(std::size_t i) const { return i + 1 == buf_.size() ? 0 : i + 1; }
    void grow() {
        std::vector<Reading> b;
        b.reserve(std::min(kMaxReadings, std::max<std::size_t>(8, buf_.size() * 2)));
        for (std::size_t i = 0; i < size_; ++i) b.push_back((*this)[i]);
        b.resize(b.capacity());
        buf_ = std::move(b);
        head_ = 0;
    }

    std::vector<Reading> buf_;
    std::size_t head_ = 0, size_ = 0;
};

// What ranging remembers of one beacon (uuid from its bucket, major and minor).
struct Track {
    std::uint16_t major = 0, minor = 0;
    std::int8_t measuredPower = 0;
    double lastHeard = kNever;
    ReadingRing readings;
};

std::uint32_t trackKey(std::uint16_t major, std::uint16_t minor) {
    return (static_cast<std::uint32_t>(major) << 16) | minor;
}

// One region definition the service holds. The monitored and ranged lists are separate and an
// identifier may name a different definition in each, so an entry is an identifier together with
// its definition, playing one role or both.
struct Entry {
    std::string identifier;
    UUID uuid;
    std::optional<std::uint16_t> major, minor;
    std::shared_ptr<const BeaconRegion> monitored, ranged;  // the service's current objects
    bool wasMonitored = false, wasRanged = false;           // roles before the latest refresh
    double registeredAt = 0;
    double lastHeard = kNever;
    bool inside = false;  // as delivered; monitored entries only

    bool sameDefinition(const BeaconRegion& r) const {
        return uuid == r.proximityUUID() && major == r.major() && minor == r.minor();
    }
};

// Everything known under one proximity UUID: the first thing an advertisement is looked up by,
// so that the traffic of unrelated beacons costs a hash lookup and nothing more.
struct Bucket {
    std::vector<Entry*> anyMajor;                           // regions naming no major
    std::vector<std::pair<std::uint16_t, Entry*>> byMajor;  // sorted by major
    bool ranged = false;                                    // some region here is ranged
    std::unordered_map<std::uint32_t, Track> tracks;        // only while ranged
    std::vector<Beacon> report;                             // this tick's beacons, by major, minor
};

struct Event {
    enum class Kind { Enter, Exit, MonitoringFailure, RangingFailure };
    Kind kind;
    std::shared_ptr<const BeaconRegion> region;
};

// Mean of the readings; with five or more, the highest and lowest tenth (at least one each) are
// dropped first, so that one reflection or one body in the way does not move the estimate.
long trimmedMean(std::vector<int>& values) {
    const std::size_t n = values.size();
    std::size_t trim = 0;
    if (n >= 5) {
        trim = std::max<std::size_t>(1, n / 10);
        std::sort(values.begin(), values.end());
    }
    long sum = 0;
    for (std::size_t i = trim; i < n - trim; ++i) sum += values[i];
    return std::lround(static_cast<double>(sum) / static_cast<double>(n - 2 * trim));
}

bool nearerFirst(const Beacon& a, const Beacon& b) {
    const bool ua = a.accuracy < 0, ub = b.accuracy < 0;
    if (ua != ub) return ub;
    if (!ua && a.accuracy != b.accuracy) return a.accuracy < b.accuracy;
    if (a.major != b.major) return a.major < b.major;
    return a.minor < b.minor;
}

double positiveOr(double value, double fallback) {
    return value > 0 && std::isfinite(value) ? value : fallback;
}

}  // namespace

struct BeaconRegionMonitor::Impl {
    Impl(std::shared_ptr<Scheduler> s, std::shared_ptr<LocationService> l, Options o)
        : scheduler(std::move(s)), location(std::move(l)) {
        const Options defaults;
        options.exitTimeout = positiveOr(o.exitTimeout, defaults.exitTimeout);
        options.rangingMemory = positiveOr(o.rangingMemory, defaults.rangingMemory);
        options.smoothingWindow = positiveOr(o.smoothingWindow, defaults.smoothingWindow);
        options.rangingInterval = positiveOr(o.rangingInterval, defaults.rangingInterval);
    }

    const std::shared_ptr<Scheduler> scheduler;
    const std::shared_ptr<LocationService> location;
    Options options;
    std::weak_ptr<BeaconRegionMonitor> self;
    // Set by the call observer on whatever thread registered a region, cleared by the refresh it
    // posted: a burst of registrations costs one re-read of the lists.
    const std::shared_ptr<std::atomic<bool>> refreshPending =
        std::make_shared<std::atomic<bool>>(false);

    // Everything below belongs to the host thread.
    std::optional<LocationService::ObserverId> observerId;
    bool shutDown = false;
    bool running = false;
    bool outage = false;  // failure delivered; ends when the scanner runs again
    Error outageError;
    double startedAt = 0;
    std::vector<std::unique_ptr<Entry>> entries;
    std::vector<Entry*> monitoredOrder, rangedOrder;  // the service's list order
    std::unordered_map<UUID, Bucket> buckets;
    bool wants = false;
    std::function<void(bool)> scanningObserver;
    std::shared_ptr<RunLoopTimer> exitTimer, rangingTimer;
    std::vector<int> scratch;

    double now() const { return scheduler->now().timeIntervalSince1970(); }

    void deliver(const std::vector<Event>& events) {
        for (const auto& e : events) {
            if (shutDown) return;  // a delegate may shut the monitor down mid-way
            switch (e.kind) {
                case Event::Kind::Enter:
                    location->deliverEnter(e.region);
                    break;
                case Event::Kind::Exit:
                    location->deliverExit(e.region);
                    break;
                case Event::Kind::MonitoringFailure:
                    location->deliverMonitoringFailure(e.region, outageError);
                    break;
                case Event::Kind::RangingFailure:
                    location->deliverRangingFailure(e.region, outageError);
                    break;
            }
        }
    }

    // Re-reads the service's beacon regions. Entries whose identifier and definition survive
    // keep their state, so the library re-registering its kit on every sync enters nothing anew.
    void refresh() {
        refreshPending->store(false);
        if (shutDown) return;
        const auto monitoredList = location->monitoredRegions();
        const auto rangedList = location->rangedRegions();
        const double t = now();

        std::unordered_map<std::string, std::vector<std::unique_ptr<Entry>>> old;
        for (auto& e : entries) {
            e->wasMonitored = e->monitored != nullptr;
            e->wasRanged = e->ranged != nullptr;
            e->monitored.reset();
            e->ranged.reset();
            old[e->identifier].push_back(std::move(e));
        }
        entries.clear();
        std::unordered_map<std::string, std::vector<Entry*>> placed;
        auto place = [&](const std::shared_ptr<const BeaconRegion>& r) -> Entry* {
            auto& here = placed[r->identifier()];
            for (Entry* e : here) {
                if (e->sameDefinition(*r)) return e;
            }
            std::unique_ptr<Entry> entry;
            if (auto it = old.find(r->identifier()); it != old.end()) {
                for (auto& candidate : it->second) {
                    if (candidate && candidate->sameDefinition(*r)) {
                        entry = std::move(candidate);
                        break;
                    }
                }
            }
            if (!entry) {
                entry = std::make_unique<Entry>();
                entry->identifier = r->identifier();
                entry->uuid = r->proximityUUID();
                entry->major = r->major();
                entry->minor = r->minor();
                entry->registeredAt = t;
            }
            here.push_back(entry.get());
            entries.push_back(std::move(entry));
            return here.back();
        };

        monitoredOrder.clear();
        rangedOrder.clear();
        for (const auto& r : monitoredList) {
            if (!r || r->kind() != Region::Kind::Beacon) continue;
            auto b = std::static_pointer_cast<const BeaconRegion>(r);
            Entry* e = place(b);
            e->monitored = b;
            monitoredOrder.push_back(e);
        }
        for (const auto& r : rangedList) {
            if (!r) continue;
            Entry* e = place(r);
            e->ranged = r;
            rangedOrder.push_back(e);
        }

        std::vector<Event> events;
        for (const auto& e : entries) {
            if (!e->monitored) e->inside = false;
        }
        if (outage) {
            // The phone refuses a region registered while it cannot scan, as it did the others.
            for (Entry* e : monitoredOrder) {
                if (!e->wasMonitored)
                    events.push_back({Event::Kind::MonitoringFailure, e->monitored});
            }
            for (Entry* e : rangedOrder) {
                if (!e->wasRanged) events.push_back({Event::Kind::RangingFailure, e->ranged});
            }
        }
        for (const auto& e : entries) {
            e->wasMonitored = e->monitored != nullptr;
            e->wasRanged = e->ranged != nullptr;
        }

        std::unordered_map<UUID, Bucket> next;
        for (const auto& e : entries) {
            Bucket& b = next[e->uuid];
            if (e->major) {
                b.byMajor.emplace_back(*e->major, e.get());
            } else {
                b.anyMajor.push_back(e.get());
            }
            if (e->ranged) b.ranged = true;
        }
        for (auto& [uuid, b] : next) {
            std::stable_sort(b.byMajor.begin(), b.byMajor.end(),
                             [](const auto& x, const auto& y) { return x.first < y.first; });
            if (!b.ranged) continue;
            if (auto it = buckets.find(uuid); it != buckets.end()) {
                b.tracks = std::move(it->second.tracks);
            }
        }
        buckets = std::move(next);

        const bool wanted = !entries.empty();
        const bool changed = wanted != wants;
        wants = wanted;
        updateRangingTimer();

        auto keep = self.lock();  // a delegate or the observer may drop the last owner
        deliver(events);
        if (changed && !shutDown && scanningObserver) {
            auto observer = scanningObserver;  // it may replace itself
            observer(wanted);
        }
    }

    void answerState(const std::shared_ptr<const BeaconRegion>& region) {
        if (shutDown) return;
        // The radio knows definitions, not names: any registered region of the same definition
        // answers, the monitored one of the same identifier first.
        const Entry* match = nullptr;
        int best = -1;
        for (const auto& e : entries) {
            if (!e->sameDefinition(*region)) continue;
            const int rank = (e->monitored ? 2 : 0) + (e->identifier == region->identifier());
            if (rank > best) {
                best = rank;
                match = e.get();
            }
        }
        std::int64_t state = 0;
        if (match) {
            const double t = now();
            if (match->monitored ? match->inside
                                 : running && !expired(match->lastHeard, t, options.exitTimeout)) {
                state = 1;
            } else if (running && t - std::max(startedAt, match->registeredAt) >=
                                      options.exitTimeout - kTimeSlack) {
                // Heard nothing for a whole window of listening, counted from the later of the
                // scanner's start and the region's registration: before that it was not listened
                // for.
                state = 2;
            }
        }
        auto keep = self.lock();
        location->deliverState(region, state);
    }

    void armExitTimer() {
        if (exitTimer || !running || shutDown) return;
        double earliest = std::numeric_limits<double>::infinity();
        for (Entry* e : monitoredOrder) {
            if (e->inside) earliest = std::min(earliest, e->lastHeard + options.exitTimeout);
        }
        if (!std::isfinite(earliest)) return;
        // One timer for all regions, at the earliest deadline. Advertisements only ever move
        // deadlines later, so they never touch it: it fires, exits what is due, and re-arms.
        exitTimer =
            scheduler->scheduleRunLoopTimer(std::max(earliest - now(), 0.0), false, [w = self] {
                if (auto m = w.lock()) m->impl_->exitCheck();
            });
    }

    void exitCheck() {
        exitTimer.reset();
        if (!running || shutDown) return;
        const double t = now();
        std::vector<Event> events;
        for (Entry* e : monitoredOrder) {
            if (e->inside && expired(e->lastHeard, t, options.exitTimeout)) {
                e->inside = false;
                events.push_back({Event::Kind::Exit, e->monitored});
            }
        }
        armExitTimer();
        deliver(events);
    }

    void updateRangingTimer() {
        const bool want = running && !shutDown && !rangedOrder.empty();
        if (want && !rangingTimer) {
            rangingTimer =
                scheduler->scheduleRunLoopTimer(options.rangingInterval, true, [w = self] {
                    if (auto m = w.lock()) m->impl_->rangingTick();
                });
        } else if (!want && rangingTimer) {
            rangingTimer->invalidate();
            rangingTimer.reset();
        }
    }

    Beacon report(const UUID& uuid, const Track& track, double t) {
        Beacon b;
        b.proximityUUID = uuid;
        b.major = track.major;
        b.minor = track.minor;
        scratch.clear();
        for (std::size_t i = 0; i < track.readings.size(); ++i) {
            const Reading& r = track.readings[i];
            if (!expired(r.at, t, options.smoothingWindow)) scratch.push_back(r.rssi);
        }
        // Heard, but with no level in the window (a memory longer than the window, or readings
        // without a level): reported as the platforms report an unranged beacon.
        if (scratch.empty()) return b;
        b.rssi = trimmedMean(scratch);
        const double d = RadioModel::distanceFor(track.measuredPower, static_cast<double>(b.rssi));
        b.accuracy = d < 0 ? -1.0 : std::round(d * 100.0) / 100.0;
        b.proximity = RadioModel::proximityFor(b.accuracy);
        return b;
    }

    void rangingTick() {
        if (!running || shutDown) return;
        const double t = now();
        const double keepFor = std::max(options.rangingMemory, options.smoothingWindow);
        for (auto& [uuid, b] : buckets) {
            b.report.clear();
            if (!b.ranged) continue;
            std::erase_if(b.tracks,
                          [&](const auto& kv) { return expired(kv.second.lastHeard, t, keepFor); });
            for (auto& [key, track] : b.tracks) {
                track.readings.dropExpired(t, options.smoothingWindow);
                if (!expired(track.lastHeard, t, options.rangingMemory)) {
                    b.report.push_back(report(uuid, track, t));
                }
            }
            std::sort(b.report.begin(), b.report.end(), [](const Beacon& x, const Beacon& y) {
                return x.major != y.major ? x.major < y.major : x.minor < y.minor;
            });
        }

        std::vector<std::pair<std::shared_ptr<const BeaconRegion>, std::vector<Beacon>>> reports;
        reports.reserve(rangedOrder.size());
        for (Entry* e : rangedOrder) {
            std::vector<Beacon> beacons;
            if (auto it = buckets.find(e->uuid); it != buckets.end()) {
                const auto& all = it->second.report;
                auto first = all.begin(), last = all.end();
                if (e->major) {
                    const int major = *e->major;
                    first = std::lower_bound(all.begin(), all.end(), major,
                                             [](const Beacon& x, int m) { return x.major < m; });
                    last = std::upper_bound(first, all.end(), major,
                                            [](int m, const Beacon& x) { return m < x.major; });
                }
                for (auto i = first; i != last; ++i) {
                    if (!e->minor || i->minor == *e->minor) beacons.push_back(*i);
                }
                std::stable_sort(beacons.begin(), beacons.end(), nearerFirst);
            }
            reports.emplace_back(e->ranged, std::move(beacons));
        }
        for (const auto& [region, beacons] : reports) {
            if (shutDown || !running) return;
            location->deliverRanging(region, beacons);
        }
    }

    void stop() {
        if (shutDown) return;
        shutDown = true;
        running = false;
        if (observerId) location->removeCallObserver(*observerId);
        observerId.reset();
        if (exitTimer) exitTimer->invalidate();
        if (rangingTimer) rangingTimer->invalidate();
        exitTimer.reset();
        rangingTimer.reset();
    }
};

std::shared_ptr<BeaconRegionMonitor> BeaconRegionMonitor::create(
    std::shared_ptr<platform::Scheduler> scheduler,
    std::shared_ptr<platform::LocationService> location, Options options) {
    std::shared_ptr<BeaconRegionMonitor> m(
        new BeaconRegionMonitor(std::move(scheduler), std::move(location), options));
    m->attach();
    return m;
}

BeaconRegionMonitor::BeaconRegionMonitor(std::shared_ptr<platform::Scheduler> scheduler,
                                         std::shared_ptr<platform::LocationService> location,
                                         Options options)
    : impl_(std::make_unique<Impl>(std::move(scheduler), std::move(location), options)) {}

BeaconRegionMonitor::~BeaconRegionMonitor() {
    impl_->stop();
}

void BeaconRegionMonitor::attach() {
    Impl& m = *impl_;
    assert(m.scheduler->isHostThread());
    m.self = weak_from_this();
    // The observer runs on the registering thread, possibly a request thread: it touches no
    // state of the monitor and only posts work to the host thread, holding the monitor weakly.
    std::weak_ptr<Scheduler> scheduler = m.scheduler;
    m.observerId = m.location->addCallObserver(
        [w = m.self, scheduler, pending = m.refreshPending](const LocationService::Call& call) {
            if (!call.region || call.region->kind() != Region::Kind::Beacon) return;
            auto s = scheduler.lock();
            if (!s) return;
            if (call.name == "requestStateForRegion") {
                auto region = std::static_pointer_cast<const BeaconRegion>(call.region);
                s->postToMain([w, region] {
                    if (auto m = w.lock()) m->impl_->answerState(region);
                });
            } else if (call.name == "startMonitoringForRegion" ||
                       call.name == "stopMonitoringForRegion" ||
                       call.name == "startRangingBeaconsInRegion" ||
                       call.name == "stopRangingBeaconsInRegion") {
                if (!pending->exchange(true)) {
                    s->postToMain([w] {
                        if (auto m = w.lock()) m->impl_->refresh();
                    });
                }
            }
        });
    m.refresh();
}

void BeaconRegionMonitor::advertisement(const Advertisement& a) {
    Impl& m = *impl_;
    assert(m.scheduler->isHostThread());
    if (!m.running) return;
    // Below the model's hearing threshold a reading is noise, not a beacon.
    if (a.rssi < RadioModel::kHearingDbm) return;
    auto it = m.buckets.find(a.uuid);
    if (it == m.buckets.end()) return;
    Bucket& b = it->second;
    const double t = m.now();

    std::vector<Event> events;
    bool forRanging = false;
    auto heard = [&](Entry* e) {
        if (e->monitored) {
            // A deadline already past whose timer has not run yet (a wall clock races the
            // queue): the silence happened, so the exit comes before the new entry.
            if (e->inside && expired(e->lastHeard, t, m.options.exitTimeout)) {
                e->inside = false;
                events.push_back({Event::Kind::Exit, e->monitored});
            }
            if (!e->inside) {
                e->inside = true;
                events.push_back({Event::Kind::Enter, e->monitored});
            }
        }
        e->lastHeard = t;
        forRanging = forRanging || e->ranged != nullptr;
    };
    for (Entry* e : b.anyMajor) heard(e);
    auto first = std::lower_bound(b.byMajor.begin(), b.byMajor.end(), a.major,
                                  [](const auto& x, std::uint16_t v) { return x.first < v; });
    for (auto i = first; i != b.byMajor.end() && i->first == a.major; ++i) {
        if (!i->second->minor || *i->second->minor == a.minor) heard(i->second);
    }

    if (forRanging) {
        auto [ti, inserted] = b.tracks.try_emplace(trackKey(a.major, a.minor));
        Track& track = ti->second;
        if (inserted) {
            track.major = a.major;
            track.minor = a.minor;
        }
        track.measuredPower = a.measuredPower;
        track.lastHeard = t;
        track.readings.dropExpired(t, m.options.smoothingWindow);
        // 0 is the platforms' "no level"; the beacon was heard, but there is nothing to average.
        if (a.rssi < 0) track.readings.push({t, a.rssi});
    }

    if (!events.empty()) {
        m.armExitTimer();
        auto keep = shared_from_this();
        m.deliver(events);
    }
}

bool BeaconRegionMonitor::wantsScanning() const {
    return impl_->wants;
}

void BeaconRegionMonitor::setScanningObserver(std::function<void(bool wanted)> observer) {
    impl_->scanningObserver = std::move(observer);
}

void BeaconRegionMonitor::scannerStarted() {
    Impl& m = *impl_;
    assert(m.scheduler->isHostThread());
    if (m.shutDown || m.running) return;
    m.running = true;
    m.outage = false;
    m.startedAt = m.now();
    // Deadlines were suspended while nothing could be heard: a region still inside gets a full
    // timeout of listening before it exits.
    for (Entry* e : m.monitoredOrder) {
        if (e->inside) e->lastHeard = m.startedAt;
    }
    m.armExitTimer();
    m.updateRangingTimer();
}

void BeaconRegionMonitor::scannerStopped(const std::optional<platform::Error>& error) {
    Impl& m = *impl_;
    assert(m.scheduler->isHostThread());
    if (m.shutDown) return;
    if (m.running) {
        m.running = false;
        if (m.exitTimer) m.exitTimer->invalidate();
        m.exitTimer.reset();
        m.updateRangingTimer();
        // Ranging after the outage starts from what the restarted scanner hears.
        for (auto& [uuid, b] : m.buckets) b.tracks.clear();
        for (const auto& e : m.entries) {
            if (!e->inside) e->lastHeard = kNever;
        }
    }
    if (!error || m.outage) return;
    m.outage = true;
    m.outageError = *error;
    std::vector<Event> events;
    for (Entry* e : m.monitoredOrder)
        events.push_back({Event::Kind::MonitoringFailure, e->monitored});
    for (Entry* e : m.rangedOrder) events.push_back({Event::Kind::RangingFailure, e->ranged});
    auto keep = shared_from_this();
    m.deliver(events);
}

void BeaconRegionMonitor::shutdown() {
    impl_->stop();
}

}  // namespace quenby::sensing
