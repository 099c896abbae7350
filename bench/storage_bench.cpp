// The library's benchmarks (this file has the storage cases and main; manager_bench.cpp the kit
// and manager cases). Storage: what one ranging report and one large upload cycle cost through
// the library, next to the floor of the same SQLite work done with raw prepared statements.
//
//   (a) one ranging report of 30 beacons recorded by both layers (analytics session rows and
//       status sightings), optionally over a beacon_sessions table that already holds history;
//   (b) one analytics upload cycle over 10,000 closed sessions with 10 beacon rows each:
//       collection, document, POST to a local server, stamping; with its peak memory.
//
// The HTTP server runs in a child process so that its copies of the body do not count.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "analytics/QZWAnalytics.h"
#include "analytics/analytics_fixture.h"
#include "proximity/QZWConfiguration.h"
#include "status/QTLStatusDatabase.h"
#include "status/QTLStatusManager.h"

using namespace quenby;

// ---------------------------------------------------------------------------------------------
// Heap accounting: every C++ allocation of the process (SQLite's own heap is read separately).

static std::atomic<long long> gHeapNow{0}, gHeapPeak{0};

static void noteAlloc(void* p) {
    if (!p) return;
    long long now = gHeapNow += static_cast<long long>(malloc_usable_size(p));
    long long peak = gHeapPeak.load(std::memory_order_relaxed);
    while (now > peak && !gHeapPeak.compare_exchange_weak(peak, now)) {
    }
}

void* operator new(std::size_t n) {
    void* p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    noteAlloc(p);
    return p;
}
void operator delete(void* p) noexcept {
    if (!p) return;
    gHeapNow -= static_cast<long long>(malloc_usable_size(p));
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    operator delete(p);
}

namespace {

int gServerPort = 0;
pid_t gServerPid = 0;

// A server in its own process that accepts every POST and answers {}.
void startServer() {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    gServerPid = fork();
    if (gServerPid == 0) {
        close(fds[0]);
        httplib::Server s;
        std::size_t lastBody = 0;
        s.Post(".*", [&](const httplib::Request& q, httplib::Response& r) {
            lastBody = q.body.size();
            r.set_content("{}", "application/json");
        });
        s.Get("/last-body-size", [&](const httplib::Request&, httplib::Response& r) {
            r.set_content(std::to_string(lastBody), "text/plain");
        });
        int port = s.bind_to_any_port("127.0.0.1");
        if (write(fds[1], &port, sizeof port) != sizeof port) _exit(1);
        close(fds[1]);
        s.listen_after_bind();
        _exit(0);
    }
    close(fds[1]);
    if (read(fds[0], &gServerPort, sizeof gServerPort) != sizeof gServerPort) std::abort();
    close(fds[0]);
}

std::string serverUrl(const char* path) {
    return "http://127.0.0.1:" + std::to_string(gServerPort) + path;
}

}  // namespace

std::string benchServerUrl(const char* path) {
    return serverUrl(path);
}

namespace {

constexpr const char* kUUID = test::kUUID;

// Raw SQLite with the settings the library uses.
sqlite3* openRaw(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_busy_timeout(db, 2000);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                 nullptr);
    return db;
}

struct Stmt {
    sqlite3_stmt* s = nullptr;
    Stmt(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &s, nullptr); }
    ~Stmt() { sqlite3_finalize(s); }
    Stmt& text(int i, const std::string& v) {
        sqlite3_bind_text(s, i, v.c_str(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Stmt& num(int i, double v) {
        sqlite3_bind_double(s, i, v);
        return *this;
    }
    Stmt& integer(int i, long long v) {
        sqlite3_bind_int64(s, i, v);
        return *this;
    }
    // Steps through every row, reading each column as the library's records do.
    int run() {
        int rows = 0;
        while (sqlite3_step(s) == SQLITE_ROW) {
            ++rows;
            for (int c = 0; c < sqlite3_column_count(s); ++c) {
                if (sqlite3_column_type(s, c) == SQLITE_TEXT) {
                    benchmark::DoNotOptimize(sqlite3_column_text(s, c));
                } else {
                    benchmark::DoNotOptimize(sqlite3_column_double(s, c));
                }
            }
        }
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        return rows;
    }
};

void exec(sqlite3* db, const char* sql) {
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// History rows in beacon_sessions, in closed sessions of their own, as months of use leave.
void addHistory(const std::string& path, int rows) {
    if (rows == 0) return;
    sqlite3* db = openRaw(path);
    exec(db, "begin");
    Stmt s(db,
           "insert into beacon_sessions (region_session_id, first_detected_at, beacon_uuid, "
           "beacon_major, beacon_minor) values (?, ?, ?, ?, ?)");
    for (int i = 0; i < rows; ++i) {
        s.integer(1, 1000000 + i / 10)
            .num(2, test::kTestStart)
            .text(3, kUUID)
            .integer(4, 9)
            .integer(5, i);
        s.run();
    }
    exec(db, "commit");
    sqlite3_close(db);
}

std::vector<std::shared_ptr<const QZWBeacon>> thirtyBeacons() {
    std::vector<std::shared_ptr<const QZWBeacon>> out;
    for (int i = 0; i < 30; ++i) out.push_back(test::beacon(1, i));
    return out;
}

// (a) through the library.
void BM_RangingReport_Library(benchmark::State& state) {
    test::VirtualPlatform vp;
    QZWAnalytics recorder(vp.platform);
    addHistory(vp.documents.file("ZonewiseAnalytics.sqlite"), static_cast<int>(state.range(0)));
    auto status = QTLStatusManager::initWithConfig(
        vp.platform, {{"url", serverUrl("/status")}, {"token", "st"}});
    vp.scheduler().settle();  // the first watchdog pass; none is due afterwards
    auto region = test::beaconRegion(1, nullptr);
    recorder.openSessionWithRegion(region.get());
    auto beacons = thirtyBeacons();
    for (auto _ : state) {
        recorder.updateSessionWithRegionAndBeacons(region.get(), beacons);
        for (const auto& b : beacons) {
            status->rangedBeacon(QTLBeacon::beaconWithCLBeacon(*b->beacon()));
        }
    }
}

// (a) the floor: the same statements and transactions, raw. With a second argument of 1 the beacon
// lookup is the unbounded statement, which scans the whole table once per beacon.
void BM_RangingReport_Floor(benchmark::State& state) {
    const bool literal = state.range(1) != 0;
    test::VirtualPlatform vp;
    { QZWAnalytics schema(vp.platform); }
    { QTLStatusDatabase schema(*vp.platform); }
    addHistory(vp.documents.file("ZonewiseAnalytics.sqlite"), static_cast<int>(state.range(0)));
    sqlite3* a = openRaw(vp.documents.file("ZonewiseAnalytics.sqlite"));
    sqlite3* t = openRaw(vp.documents.file("Tallyline.sqlite"));
    exec(a,
         "insert into region_sessions (entered_at, region_uuid, region_major, region_minor) "
         "values (1772355600.0, 'E621E1F8-C36C-495A-93FC-0C247A3E6E5F', 1, NULL)");
    {
        Stmt find(a,
                  "select id from region_sessions where entered_at is not null and exited_at is "
                  "null and region_uuid = ? and region_major = ? and region_minor is null order "
                  "by entered_at desc;");
        Stmt beaconRow(a, literal
                              ? "select id from beacon_sessions where region_session_id = ? and "
                                "beacon_uuid = ? and beacon_major = ? and beacon_minor = ?"
                              : "select id from beacon_sessions where id >= ? and "
                                "region_session_id = ? and beacon_uuid = ? and beacon_major = "
                                "? and beacon_minor = ?");
        long long firstRow = 0;
        {
            Stmt next(a, "select coalesce(max(id), 0) + 1 from beacon_sessions");
            if (sqlite3_step(next.s) == SQLITE_ROW) firstRow = sqlite3_column_int64(next.s, 0);
        }
        Stmt refresh(a, "update beacon_sessions set last_detected_at = ? where id = ?;");
        Stmt insert(a,
                    "insert into beacon_sessions (region_session_id, first_detected_at, "
                    "beacon_uuid, beacon_major, beacon_minor) VALUES (?, ?, ?, ?, ?);");
        Stmt session(t,
                     "select * from beacon_sessions where beacon_uuid = ? and beacon_major = ? "
                     "and beacon_minor = ?");
        Stmt tInsert(t,
                     "insert into beacon_sessions (first_detected_at, last_detected_at, "
                     "beacon_uuid, beacon_major, beacon_minor, uploaded_at) VALUES (?, ?, ?, ?, "
                     "?, NULL);");
        Stmt tUpdate(t,
                     "update beacon_sessions set last_detected_at = ? where beacon_uuid = ? and "
                     "beacon_major = ? and beacon_minor = ?;");
        double now = test::kTestStart;
        for (auto _ : state) {
            exec(a, "begin exclusive transaction");
            sqlite3_bind_text(find.s, 1, kUUID, -1, SQLITE_STATIC);
            sqlite3_bind_int(find.s, 2, 1);
            long long sessionId =
                sqlite3_step(find.s) == SQLITE_ROW ? sqlite3_column_int64(find.s, 0) : 0;
            sqlite3_reset(find.s);
            for (int i = 0; i < 30; ++i) {
                int p = 1;
                if (!literal) beaconRow.integer(p++, firstRow);
                beaconRow.integer(p, sessionId)
                    .text(p + 1, kUUID)
                    .integer(p + 2, 1)
                    .integer(p + 3, i);
                long long row = 0;
                if (sqlite3_step(beaconRow.s) == SQLITE_ROW)
                    row = sqlite3_column_int64(beaconRow.s, 0);
                while (sqlite3_step(beaconRow.s) == SQLITE_ROW) {
                }
                sqlite3_reset(beaconRow.s);
                if (row) {
                    refresh.num(1, now).integer(2, row).run();
                } else {
                    insert.integer(1, sessionId)
                        .num(2, now)
                        .text(3, kUUID)
                        .integer(4, 1)
                        .integer(5, i)
                        .run();
                }
            }
            exec(a, "commit transaction");
            for (int i = 0; i < 30; ++i) {
                bool exists = session.text(1, kUUID).integer(2, 1).integer(3, i).run() > 0;
                exec(t, "begin exclusive transaction");
                if (exists) {
                    tUpdate.num(1, now).text(2, kUUID).integer(3, 1).integer(4, i).run();
                } else {
                    tInsert.num(1, now)
                        .num(2, now)
                        .text(3, kUUID)
                        .integer(4, 1)
                        .integer(5, i)
                        .run();
                }
                exec(t, "commit transaction");
                session.text(1, kUUID).integer(2, 1).integer(3, i).run();
            }
        }
    }
    sqlite3_close(a);
    sqlite3_close(t);
}

// 10,000 closed, unsent sessions with 10 beacon rows each.
void fillSessions(const std::string& path) {
    sqlite3* db = openRaw(path);
    exec(db, "begin");
    Stmt region(db,
                "insert into region_sessions (entered_at, exited_at, region_uuid, region_major, "
                "region_minor) values (?, ?, ?, ?, ?)");
    Stmt beacon(db,
                "insert into beacon_sessions (region_session_id, first_detected_at, "
                "last_detected_at, beacon_uuid, beacon_major, beacon_minor) values (?, ?, ?, ?, "
                "?, ?)");
    for (int i = 1; i <= 10000; ++i) {
        double t = test::kTestStart + i;
        region.num(1, t).num(2, t + 60).text(3, kUUID).integer(4, 1).integer(5, i % 100).run();
        for (int k = 0; k < 10; ++k) {
            beacon.integer(1, i)
                .num(2, t + k)
                .num(3, t + k + 1)
                .text(4, kUUID)
                .integer(5, 1)
                .integer(6, k)
                .run();
        }
    }
    exec(db, "commit");
    sqlite3_close(db);
}

void unstamp(const std::string& path) {
    sqlite3* db = openRaw(path);
    exec(db, "update region_sessions set uploaded_at = NULL");
    // Start every measured cycle from a checkpointed log, so no run pays another's checkpoint.
    exec(db, "PRAGMA wal_checkpoint(TRUNCATE)");
    sqlite3_close(db);
}

// (b) through the library, with peak memory against the size of the document sent.
void BM_UploadCycle_Library(benchmark::State& state) {
    test::VirtualPlatform vp;
    std::string path = vp.documents.file("ZonewiseAnalytics.sqlite");
    QZWAnalytics analytics(vp.platform);
    fillSessions(path);
    QZWConfiguration::sharedConfiguration(*vp.platform)
        .configureWithDictionary({{"ZWKitURL", "https://api.example.com/api/kits/17"},
                                  {"ZWAPIToken", "tok"},
                                  {"ZWAnalyticsURL", serverUrl("/analytics")}});
    double peakRatio = 0, docBytes = 0, peakBytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        unstamp(path);
        long long heapBase = gHeapNow.load();
        gHeapPeak = heapBase;
        long long sqliteBase = sqlite3_memory_used();
        sqlite3_memory_highwater(1);
        state.ResumeTiming();

        analytics.uploadAnalyticsToServer();

        state.PauseTiming();
        peakBytes = static_cast<double>((gHeapPeak.load() - heapBase) +
                                        (sqlite3_memory_highwater(0) - sqliteBase));
        httplib::Client server("127.0.0.1", gServerPort);
        docBytes = std::stod(server.Get("/last-body-size")->body);
        peakRatio = peakBytes / docBytes;
        state.ResumeTiming();
    }
    state.counters["doc_MB"] = docBytes / 1e6;
    state.counters["peak_MB"] = peakBytes / 1e6;
    state.counters["peak_per_doc"] = peakRatio;
}

// (b) the floor: the collection queries, then one transaction per stamped session, raw.
void BM_UploadCycle_Floor(benchmark::State& state) {
    test::VirtualPlatform vp;
    std::string path = vp.documents.file("ZonewiseAnalytics.sqlite");
    { QZWAnalytics schema(vp.platform); }
    fillSessions(path);
    sqlite3* db = openRaw(path);
    {
        Stmt regions(db,
                     "select * from region_sessions where uploaded_at is null and exited_at is "
                     "not null;");
        Stmt beacons(db,
                     "select * from beacon_sessions where region_session_id in (select id from "
                     "region_sessions where uploaded_at is null and exited_at is not null) order "
                     "by id");
        Stmt events(db, "select * from events where uploaded_at is null;");
        Stmt geos(db,
                  "select * from geo_region_sessions where uploaded_at is null and exited_at is "
                  "not null;");
        Stmt mark(db, "update region_sessions set uploaded_at = ? where id = ?;");
        for (auto _ : state) {
            state.PauseTiming();
            unstamp(path);
            state.ResumeTiming();
            exec(db, "begin exclusive transaction");
            int n = regions.run();
            beacons.run();
            exec(db, "commit transaction");
            exec(db, "begin exclusive transaction");
            events.run();
            exec(db, "commit transaction");
            exec(db, "begin exclusive transaction");
            geos.run();
            exec(db, "commit transaction");
            for (int id = 1; id <= n; ++id) {
                exec(db, "begin exclusive transaction");
                mark.num(1, test::kTestStart).integer(2, id).run();
                exec(db, "commit transaction");
            }
        }
    }
    sqlite3_close(db);
}

}  // namespace

BENCHMARK(BM_RangingReport_Library)->Arg(0)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RangingReport_Floor)
    ->Args({0, 0})
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UploadCycle_Library)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UploadCycle_Floor)->Iterations(3)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    startServer();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    kill(gServerPid, SIGTERM);
    waitpid(gServerPid, nullptr, 0);
    return 0;
}
