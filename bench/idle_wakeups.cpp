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
    long voluntary = 0;    // the thread blocked: a wake-up it needed
    long involuntary = 0;  // the thread was preempted: the machine's load, not the library
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
            if (colon == std::string::npos) continue;
            long n = std::atol(line.c_str() + colon + 1);
            if (line.rfind("voluntary_ctxt_switches", 0) == 0) s.voluntary = n;
            if (line.rfind("nonvoluntary_ctxt_switches", 0) == 0) s.involuntary = n;
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
    std::size_t requestsBefore = 0;
    std::thread clock([&] {
        pthread_setname_np(pthread_self(), "measurement");  // not the host it was started from
        std::this_thread::sleep_for(std::chrono::duration<double>(kStartUp));
        p->scheduler->postToMain([&] {
            before = threadStats();
            requestsBefore = server.requests().size();
        });
        std::this_thread::sleep_for(std::chrono::duration<double>(span));
        p->scheduler->postToMain([&] { p->scheduler->stop(); });
    });
    p->scheduler->run();
    auto after = threadStats();
    clock.join();

    // By thread: a wake-up is a voluntary switch (the thread slept and was woken); involuntary
    // switches are preemptions by the rest of the machine and are shown apart.
    struct Count {
        int threads = 0;
        long voluntary = 0, involuntary = 0;
    };
    std::map<std::string, Count> byName;
    Count other;
    for (const auto& [tid, s] : after) {
        auto b = before.find(tid);
        // A thread id may have been reused by a thread started since: count that one whole.
        bool same = b != before.end() && b->second.name == s.name &&
                    b->second.voluntary <= s.voluntary && b->second.involuntary <= s.involuntary;
        ThreadStats was = same ? b->second : ThreadStats{};
        Count& c = isScheduler(s.name) ? byName[s.name] : other;
        ++c.threads;
        c.voluntary += s.voluntary - was.voluntary;
        c.involuntary += s.involuntary - was.involuntary;
    }
    // The host's own two wakes for the measurement's start and stop are not the library's.
    if (byName.count("quenby-host"))
        byName["quenby-host"].voluntary = std::max(0L, byName["quenby-host"].voluntary - 2);
    long wakes = 0, preempted = 0;
    for (const auto& [name, c] : byName) {
        wakes += c.voluntary;
        preempted += c.involuntary;
    }
    auto requests = server.requests();
    std::map<std::string, int> served;
    for (std::size_t i = requestsBefore; i < requests.size(); ++i)
        ++served[requests[i].method + " " + requests[i].path];
    std::printf("idle started manager, system clock, %.0f s after %.0f s of start-up\n", span,
                kStartUp);
    std::printf("  wake-ups: %ld (%.1f per minute)\n", wakes, wakes * 60 / span);
    for (const auto& [name, c] : byName)
        std::printf("    %-13s %d thread(s): %ld wake-ups, %ld preempted\n", name.c_str(),
                    c.threads, c.voluntary, c.involuntary);
    std::printf("  preempted by the machine's load (not counted): %ld\n", preempted);
    std::printf("  other threads (operator server, measurement): %ld\n",
                other.voluntary + other.involuntary);
    std::printf("  requests served in the span:%s\n", served.empty() ? " none" : "");
    for (const auto& [what, n] : served) std::printf("    %-13s %d\n", what.c_str(), n);
    manager->stop();
    return 0;
}
