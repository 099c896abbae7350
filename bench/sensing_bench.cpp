// What the beacon monitor costs the host thread: 1,000 beacons of one store UUID in range
// (majors 0-99 for the aisles, one minor per beacon), every aisle a region both monitored and
// ranged, as a kit registers them. Each advertisement is the 23-byte frame a scanner hands on,
// parsed, matched, smoothed and decided; the virtual clock moves between advertisements so that
// the windows roll as they do on a device.
#include <benchmark/benchmark.h>

#include <time.h>

#include <array>
#include <memory>
#include <random>
#include <vector>

#include "platform/location_manager.h"
#include "platform/scheduler.h"
#include "sensing/advertisement.h"
#include "sensing/beacon_monitor.h"

using namespace quenby::platform;
using namespace quenby::sensing;

namespace {

constexpr int kBeacons = 1000;
constexpr int kAisles = 100;
constexpr double kStart = 1772355600.0;

struct CountingDelegate : LocationManagerDelegate {
    long reports = 0, beacons = 0, transitions = 0;
    void locationManagerDidRangeBeaconsInRegion(
        LocationManager&, const std::vector<Beacon>& b,
        const std::shared_ptr<const BeaconRegion>&) override {
        ++reports;
        beacons += static_cast<long>(b.size());
    }
    void locationManagerDidEnterRegion(LocationManager&,
                                       const std::shared_ptr<const Region>&) override {
        ++transitions;
    }
    void locationManagerDidExitRegion(LocationManager&,
                                      const std::shared_ptr<const Region>&) override {
        ++transitions;
    }
};

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

using Frame = std::array<std::uint8_t, 23>;

Frame frame(const UUID& uuid, std::uint16_t major, std::uint16_t minor) {
    Frame f{0x02, 0x15};
    for (std::size_t i = 0; i < 16; ++i) f[2 + i] = uuid.bytes()[i];
    f[18] = static_cast<std::uint8_t>(major >> 8);
    f[19] = static_cast<std::uint8_t>(major);
    f[20] = static_cast<std::uint8_t>(minor >> 8);
    f[21] = static_cast<std::uint8_t>(minor);
    f[22] = static_cast<std::uint8_t>(-59);
    return f;
}

struct Store {
    std::shared_ptr<VirtualClock> clock =
        std::make_shared<VirtualClock>(Date::fromSecondsSince1970(kStart));
    std::shared_ptr<Scheduler> scheduler = Scheduler::create(clock);
    std::shared_ptr<LocationService> service = LocationService::create(scheduler);
    std::shared_ptr<LocationManager> manager = service->createLocationManager();
    std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
    std::shared_ptr<BeaconRegionMonitor> monitor;
    std::vector<Frame> frames, strangers;
    std::vector<int> baseRssi;
    std::vector<int> noise;
    // Time counts in tenths of a millisecond, so that no rounding drifts it off the ticks.
    long units = 0;
    double t = kStart;
    std::size_t next = 0;

    Store() {
        const UUID store = *UUID::parse("B9407F30-F5F8-466E-AFF9-25556B57FE6D");
        manager->setDelegate(delegate);
        for (int a = 0; a < kAisles; ++a) {
            auto r = std::make_shared<BeaconRegion>(store, static_cast<std::uint16_t>(a),
                                                    std::nullopt, "aisle-" + std::to_string(a));
            manager->startMonitoringForRegion(r);
            manager->startRangingBeaconsInRegion(r);
        }
        monitor = BeaconRegionMonitor::create(scheduler, service);
        monitor->scannerStarted();
        std::mt19937 rng(42);
        for (int b = 0; b < kBeacons; ++b) {
            frames.push_back(frame(store, static_cast<std::uint16_t>(b / (kBeacons / kAisles)),
                                   static_cast<std::uint16_t>(b)));
            baseRssi.push_back(-55 - static_cast<int>(rng() % 26));  // 1 m to 20 m away
            UUID::Bytes16 other{};
            for (auto& x : other) x = static_cast<std::uint8_t>(rng());
            strangers.push_back(frame(UUID(other), static_cast<std::uint16_t>(b), 1));
        }
        std::normal_distribution<double> jitter(0.0, 3.0);
        for (int i = 0; i < 4096; ++i) noise.push_back(static_cast<int>(std::lround(jitter(rng))));
    }

    // One advertisement `step` tenths of a millisecond after the previous one, round robin over
    // the beacons.
    void advertise(long step, const std::vector<Frame>& from) {
        units += step;
        t = kStart + static_cast<double>(units) * 1e-4;
        clock->setNow(Date::fromSecondsSince1970(t));
        const std::size_t i = next++;
        const Frame& f = from[i % from.size()];
        auto parsed = parseIBeaconFrame(f.data(), f.size());
        Advertisement a{parsed->uuid,
                        parsed->major,
                        parsed->minor,
                        parsed->measuredPower,
                        baseRssi[i % baseRssi.size()] + noise[i % noise.size()],
                        Date::fromSecondsSince1970(t)};
        monitor->advertisement(a);
    }
    // Fires what is due by now: the ranging tick, exit checks.
    void runTimers() { scheduler->advanceTo(Date::fromSecondsSince1970(t)); }
    // One second of 1,000 beacons at 10 Hz.
    void fillSecond() {
        for (int i = 0; i < 10 * kBeacons; ++i) advertise(1, frames);
    }
};

// Throughput: advertisements 1 ms apart (1,000/s of simulated time, so every beacon is heard once
// a second and the windows roll), with the ranging tick running each simulated second.
void BM_Advertisements(benchmark::State& state) {
    Store s;
    for (int i = 0; i < 10; ++i) s.fillSecond(), s.runTimers();
    long n = 0;
    for (auto _ : state) {
        s.advertise(10, s.frames);
        if (++n % kBeacons == 0) s.runTimers();
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["adv_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Advertisements);

// Advertisements of UUIDs no region names: the cost of the crowd next door.
void BM_UnrelatedAdvertisements(benchmark::State& state) {
    Store s;
    for (auto _ : state) s.advertise(10, s.strangers);
    state.counters["adv_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_UnrelatedAdvertisements);

// One ranging tick with 1,000 beacons heard at 10 Hz (50 readings each in the window): 100
// reports delivered through the location service.
void BM_RangingTick(benchmark::State& state) {
    Store s;
    for (int i = 0; i < 5; ++i) s.fillSecond(), s.runTimers();
    for (auto _ : state) {
        state.PauseTiming();
        s.fillSecond();
        state.ResumeTiming();
        s.runTimers();
    }
    state.counters["beacons_per_tick"] = static_cast<double>(s.delegate->beacons) /
                                         static_cast<double>(s.delegate->reports) * kAisles;
}
BENCHMARK(BM_RangingTick)->Unit(benchmark::kMicrosecond);

// A device's real second: 1,000 beacons x 10 Hz = 10,000 advertisements plus the ranging tick.
// The thread CPU time per simulated second is the share of one core the monitor takes.
void BM_OneSecondAt10kHz(benchmark::State& state) {
    Store s;
    for (int i = 0; i < 5; ++i) s.fillSecond(), s.runTimers();
    double cpuAds = 0, cpuTicks = 0;
    for (auto _ : state) {
        const double t0 = threadCpuSeconds();
        s.fillSecond();
        const double t1 = threadCpuSeconds();
        s.runTimers();
        const double t2 = threadCpuSeconds();
        cpuAds += t1 - t0;
        cpuTicks += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["ns_per_adv"] = cpuAds / n / (10.0 * kBeacons) * 1e9;
    state.counters["us_per_tick"] = cpuTicks / n * 1e6;
    state.counters["cpu_share_pct"] = (cpuAds + cpuTicks) / n * 100.0;
}
BENCHMARK(BM_OneSecondAt10kHz)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
