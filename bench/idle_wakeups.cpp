// Idle cost of the library itself: a proximity manager started on the system clock with a kit of
// one beacon and one geofence, nothing in range, its host thread serving the run loop. Counts the
// context switches (voluntary and involuntary, from /proc) of the scheduler's threads (host run
// loop, timer thread, pool) over a span, after a start-up that is not idle time.
//
//   bench_idle_wakeups [SECONDS]      (default 60)
//
// The operator's server runs in this process too; its threads are counted apart.
#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "platform/platform.h"
#include "platform/plist.h"
#include "proximity/QZWConfiguration.h"
#include "proximity/QZWManager.h"
#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;

namespace {

struct ThreadStats {
    std::string name;
    long switches = 0;
};

// Context switches of every thread of this process, by thread id.
std::map<int, ThreadStats> threadStats() {
    std::map<int, ThreadStats> out;
    DIR* d = opendir("/proc/self/task");
    if (!d) return out;
    while (auto* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string base = std::string("/proc/self/task/") + e->d_name;
        ThreadStats s;
        std::ifstream comm(base + "/comm");
        std::getline(comm, s.name);
        std::ifstream status(base + "/status");
        for (std::string line; std::getline(status, line);) {
            auto colon = line.find(':');
            if (colon != std::string::npos && line.find("ctxt_switches") != std::string::npos)
                s.switches += std::atol(line.c_str() + colon + 1);
        }
        out[std::atoi(e->d_name)] = s;
    }
    closedir(d);
    return out;
}

bool isScheduler(const std::string& name) {
    return name == "quenby-host" || name == "quenby-timer" || name == "quenby-pool";
}

}  // namespace

int main(int argc, char** argv) {
    double span = argc > 1 ? std::atof(argv[1]) : 60;
    const double kStartUp = 5;

    test::TestServer server;
    platform::Json kit = {{"kit",
                           {{"id", 1},
                            {"status_url", server.url("/status")},
                            {"status_token", "st"},
                            {"map",
                             {{"overlays",
                               {{{"type", "circle"},
                                 {"identifier", "lot"},
                                 {"center", {40.0, -75.0}},
                                 {"radius", 30}}}}}},
                            {"ibeacons",
                             {{{"uuid", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
                               {"major", 1},
                               {"minor", 1},
                               {"identifier", "door"}}}}}}};
    server.on("GET", "/kit", test::Reply{200, kit.dump()});
    server.on("POST", "/analytics", test::Reply{200, "{}"});
    server.on("POST", "/status", test::Reply{200, "{}"});

    test::TempDir bundle, documents;
    test::writeFile(bundle.file("Info.plist"),
                    platform::toXmlPropertyList({{"NSLocationAlwaysUsageDescription", "bench"}}));
    pthread_setname_np(pthread_self(), "quenby-host");
    platform::Platform::Options o;
    o.applicationId = "com.quenby.bench.idle";
    o.bundleDirectory = bundle.path();
    o.documentsDirectory = documents.path();
    auto p = platform::Platform::create(o);
    QZWConfiguration::sharedConfiguration(*p).configureWithDictionary(
        {{"ZWKitURL", server.url("/kit")},
         {"ZWAPIToken", "t"},
         {"ZWAnalyticsURL", server.url("/analytics")}});
    auto manager = QZWManager::manager(p);
    manager->start();

    std::map<int, ThreadStats> before;
    std::thread clock([&] {
        std::this_thread::sleep_for(std::chrono::duration<double>(kStartUp));
        p->scheduler->postToMain([&] { before = threadStats(); });
        std::this_thread::sleep_for(std::chrono::duration<double>(span));
        p->scheduler->postToMain([&] { p->scheduler->stop(); });
    });
    p->scheduler->run();
    auto after = threadStats();
    clock.join();

    long scheduler = 0, other = 0;
    int schedulerThreads = 0;
    for (const auto& [tid, s] : after) {
        auto b = before.find(tid);
        long n = s.switches - (b == before.end() ? 0 : b->second.switches);
        if (isScheduler(s.name)) {
            scheduler += n;
            ++schedulerThreads;
        } else {
            other += n;
        }
    }
    // The host's own two wakes for the measurement's start and stop are not the library's.
    scheduler = std::max(0L, scheduler - 2);
    std::printf("idle started manager, system clock, %.0f s after %.0f s of start-up\n", span,
                kStartUp);
    std::printf("  scheduler threads (host, timer, pool): %d\n", schedulerThreads);
    std::printf("  wake-ups: %ld (%.1f per minute)\n", scheduler, scheduler * 60 / span);
    std::printf("  other threads (operator server, measurement): %ld\n", other);
    std::printf("  requests served: %zu\n", server.requests().size());
    manager->stop();
    return 0;
}
