// What one hostile answer costs: 120 MB of valid JSON (an array of zeros) as the kit, the campaign
// feed and the status answer, each exchange in a child process of its own so that its peak
// resident size is its own ("peak_MiB"); and what the guard before parsing costs a real kit of
// 10,000 beacons, against the JSON library's parse alone.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "campaigns/LWAPIRequest.h"
#include "platform/json.h"
#include "proximity/QZWAPIRequest.h"
#include "status/QTLAPIRequest.h"
#include "support/hostile_server.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Error;
using platform::Json;

namespace {

enum Kind { kKit, kFeed, kStatus };

// In the child: one request against the hostile server, to its completion. Exits 0 when the
// request failed as it should.
[[noreturn]] void exchange(Kind kind, int timeFd) {
    bool failed = false;
    platform::setConsoleSink([](std::string_view) {});  // one refusal line per exchange
    {
        test::VirtualPlatform vp;
        test::HostileServer server;
        auto done = [&failed](std::optional<Error> e, std::optional<Json>) { failed = bool(e); };
        auto start = std::chrono::steady_clock::now();
        switch (kind) {
            case kKit:
                QZWAPIRequest(vp.platform, "t").get(platform::Url::parse(server.url("/kit")), done);
                break;
            case kFeed:
                LWAPIRequest(vp.platform, "t").getHandler(server.url("/feed"), done);
                break;
            case kStatus:
                QTLAPIRequest(vp.platform, "t")
                    .get(platform::Url::parse(server.url("/status")), done);
                break;
        }
        vp.scheduler().settle();
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (write(timeFd, &seconds, sizeof seconds) != sizeof seconds) std::_Exit(2);
    }
    std::_Exit(failed ? 0 : 1);
}

void BM_HostileAnswer(benchmark::State& state) {
    auto kind = static_cast<Kind>(state.range(0));
    long peakKiB = 0;
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) return state.SkipWithError("pipe");
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            exchange(kind, fds[1]);
        }
        close(fds[1]);
        double seconds = 0;
        bool timed = read(fds[0], &seconds, sizeof seconds) == sizeof seconds;
        close(fds[0]);
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        if (!timed || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            return state.SkipWithError("the hostile answer was not refused");
        }
        state.SetIterationTime(seconds);
        peakKiB = std::max(peakKiB, usage.ru_maxrss);
    }
    state.counters["peak_MiB"] = static_cast<double>(peakKiB) / 1024;
}
BENCHMARK(BM_HostileAnswer)
    ->ArgName("kit0_feed1_status2")
    ->DenseRange(kKit, kStatus)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// A kit of 10,000 beacons as operators write them, about 1.7 MB.
std::string realKit() {
    Json list = Json::array();
    for (int i = 0; i < 10000; ++i) {
        list.push_back({{"uuid", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
                        {"major", i / 100},
                        {"minor", i},
                        {"identifier", "shelf-" + std::to_string(i)},
                        {"name", "Shelf " + std::to_string(i) + " \"aisle\""},
                        {"attributes", {{"lw_place_ids", "[1, 2]"}}}});
    }
    return Json{{"kit", {{"id", 17}, {"name", "Big store"}, {"ibeacons", list}}}}.dump();
}

void BM_ParseKit(benchmark::State& state) {
    std::string text = realKit();
    bool guarded = state.range(0) == 1;
    for (auto _ : state) {
        if (guarded) {
            benchmark::DoNotOptimize(platform::parseJson(text));
        } else {
            benchmark::DoNotOptimize(Json::parse(text));
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ParseKit)->ArgName("guarded")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
