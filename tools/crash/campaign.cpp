// crash-campaign: kills a real host (crash-host) with SIGKILL at random moments while it records
// and uploads, restarts it on the same documents directory, and after every kill holds both
// databases to what the host said it had committed and to what this program's server received:
//
//  - PRAGMA integrity_check is "ok" on the analytics and the status database;
//  - every row the host reported is in the database, or the server already has it;
//  - no row is stamped uploaded that the server never received;
//  - at the end, a run without a kill sends everything still unstamped, within a deadline.
//
// A third of the kills (by default) happen while the server holds one of the host's POSTs: the
// rows in it were received but never stamped, and go again after the restart. Those duplicate
// deliveries are allowed and counted.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <httplib.h>
#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "crash/protocol.h"
#include "platform/archive.h"

extern char** environ;

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

std::string number(const Json& v) {
    if (v.is_number_integer()) return std::to_string(v.get<std::int64_t>());
    return v.dump();
}

std::string text(const Json& v) {
    return v.is_string() ? v.get<std::string>() : v.dump();
}

// ---------------------------------------------------------------------------------------------
// The operator's server: the kit, and a ledger of every row that arrived in an upload.

class Server {
  public:
    Server() {
        server_.Get("/kit", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content(kit_.dump(), "application/json");
        });
        server_.Post("/analytics", [this](const httplib::Request& req, httplib::Response& res) {
            receive(req.body, true);
            res.set_content("{}", "application/json");
        });
        server_.Post("/status", [this](const httplib::Request& req, httplib::Response& res) {
            receive(req.body, false);
            res.set_content("{}", "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("the server could not bind");
        std::string base = url();
        kit_ = {{"kit",
                 {{"id", 42},
                  {"name", "Kill -9 campaign"},
                  {"status_url", base + "/status"},
                  {"status_token", "crash-status-token"},
                  {"map",
                   {{"overlays",
                     {{{"type", "circle"},
                       {"identifier", "yard"},
                       {"name", "Yard"},
                       {"center", {51.5, -0.12}},
                       {"radius", 40}}}}}},
                  {"ibeacons", Json::array()}}}};
        for (int minor = 1; minor <= 3; ++minor) {
            kit_["kit"]["ibeacons"].push_back({{"uuid", quenby::crash::kKitUUID},
                                               {"major", 1},
                                               {"minor", minor},
                                               {"identifier", fmt::format("shelf-{}", minor)},
                                               {"name", fmt::format("Shelf {}", minor)}});
        }
        // Serving starts once the kit is complete: the handlers read it without a lock.
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~Server() {
        server_.stop();
        thread_.join();
    }

    std::string url() const { return fmt::format("http://127.0.0.1:{}", port_); }

    void setRun(int run) {
        std::lock_guard lk(mu_);
        run_ = run;
    }
    // The next POST to arrive is held until release().
    void arm() {
        std::lock_guard lk(mu_);
        armed_ = true;
        released_ = false;
    }
    // True once a POST is being held; false when `deadline` passed first.
    bool waitForHeld(Clock::time_point deadline) {
        std::unique_lock lk(mu_);
        return cv_.wait_until(lk, deadline, [&] { return holding_; });
    }
    // Lets a held POST answer (its host is dead by then) and disarms.
    void release() {
        std::unique_lock lk(mu_);
        armed_ = false;
        released_ = true;
        cv_.notify_all();
        cv_.wait(lk, [&] { return !holding_; });
    }
    // Waits until something arrives or `deadline` passes.
    void waitForPost(Clock::time_point deadline) {
        std::unique_lock lk(mu_);
        std::size_t seen = posts_;
        cv_.wait_until(lk, deadline, [&] { return posts_ != seen; });
    }

    bool received(const std::string& key) const {
        std::lock_guard lk(mu_);
        return receipts_.count(key) > 0;
    }
    // Received during run `run` (the last receipt's run).
    bool receivedIn(const std::string& key, int run) const {
        std::lock_guard lk(mu_);
        auto it = receipts_.find(key);
        return it != receipts_.end() && it->second.lastRun == run;
    }
    std::size_t distinct() const {
        std::lock_guard lk(mu_);
        return receipts_.size();
    }
    std::size_t duplicates() const {
        std::lock_guard lk(mu_);
        std::size_t n = 0;
        for (const auto& [k, r] : receipts_) n += r.count - 1;
        return n;
    }
    std::size_t posts() const {
        std::lock_guard lk(mu_);
        return posts_;
    }
    std::size_t malformed() const {
        std::lock_guard lk(mu_);
        return malformed_;
    }

  private:
    struct Receipt {
        std::size_t count = 0;
        int lastRun = 0;
    };

    void receive(const std::string& body, bool analytics) {
        std::vector<std::string> keys;
        bool ok = true;
        try {
            Json doc = Json::parse(body);
            if (analytics) {
                for (const auto& e : doc.value(quenby::crash::kEventType, Json::array())) {
                    keys.push_back("E " + number(e.at("seq")));
                }
                for (const auto& z : doc.at("zonewise_events")) {
                    for (const auto& r : z.at("region_sessions")) {
                        std::string id = number(r.at("id"));
                        keys.push_back("R " + id);
                        for (const auto& b : r.at("beacon_sessions")) {
                            keys.push_back(fmt::format(
                                "B {} {} {} {}", id, text(b.at("beacon_uuid")),
                                number(b.at("beacon_major")), number(b.at("beacon_minor"))));
                        }
                    }
                    for (const auto& g : z.at("geo_region_sessions")) {
                        keys.push_back("G " + number(g.at("id")));
                    }
                }
            } else {
                for (const auto& s : doc.at("beacon_status_events")) {
                    keys.push_back(fmt::format("S {} {} {}", text(s.at("uuid")),
                                               number(s.at("major")), number(s.at("minor"))));
                }
            }
        } catch (const std::exception&) {
            ok = false;
        }
        std::unique_lock lk(mu_);
        ++posts_;
        if (!ok) ++malformed_;
        for (const auto& k : keys) {
            auto& r = receipts_[k];
            ++r.count;
            r.lastRun = run_;
        }
        cv_.notify_all();
        if (armed_ && !holding_) {
            // The body is in: the host is killed while it waits for this answer.
            holding_ = true;
            cv_.notify_all();
            cv_.wait(lk, [&] { return released_; });
            holding_ = false;
            cv_.notify_all();
        }
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    Json kit_;  // written before the server thread starts, read-only afterwards
    mutable std::mutex mu_;
    std::condition_variable cv_;
    // guarded by mu_
    int run_ = 0;
    bool armed_ = false, holding_ = false, released_ = false;
    std::size_t posts_ = 0, malformed_ = 0;
    std::map<std::string, Receipt> receipts_;
};

// ---------------------------------------------------------------------------------------------
// The databases as the next host will find them.

class Sqlite {
  public:
    // No file: nothing opened. The connection never checkpoints on close, so the next host
    // still finds the write-ahead log a killed host left behind.
    explicit Sqlite(const std::string& path) {
        if (!fs::exists(path)) return;
        if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            error_ = db_ ? sqlite3_errmsg(db_) : "cannot open";
            sqlite3_close(db_);
            db_ = nullptr;
            return;
        }
        sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        sqlite3_busy_timeout(db_, 5000);
        exec("pragma query_only = 1");
    }
    ~Sqlite() { sqlite3_close(db_); }
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;

    bool open() const { return db_ != nullptr; }
    const std::string& error() const { return error_; }

    // Every row, each column as text (NULL as an absent value) or, for blobs, raw bytes.
    using Row = std::vector<std::optional<std::string>>;
    std::vector<Row> exec(const char* sql) {
        std::vector<Row> rows;
        if (!db_) return rows;
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &st, nullptr) != SQLITE_OK) {
            error_ = sqlite3_errmsg(db_);
            return rows;
        }
        int rc;
        while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
            Row row;
            for (int i = 0; i < sqlite3_column_count(st); ++i) {
                if (sqlite3_column_type(st, i) == SQLITE_NULL) {
                    row.emplace_back();
                } else {
                    auto* p = static_cast<const char*>(sqlite3_column_blob(st, i));
                    row.emplace_back(std::string(p ? p : "", sqlite3_column_bytes(st, i)));
                }
            }
            rows.push_back(std::move(row));
        }
        if (rc != SQLITE_DONE) error_ = sqlite3_errmsg(db_);
        sqlite3_finalize(st);
        return rows;
    }

  private:
    sqlite3* db_ = nullptr;
    std::string error_;
};

struct Session {
    bool closed = false, stamped = false;
};

struct State {
    std::map<std::int64_t, Session> regions, geos;
    std::set<std::string> beaconRows;    // "B sid uuid major minor"
    std::map<std::string, bool> events;  // "E seq" -> stamped
    std::map<std::string, bool> status;  // "S uuid major minor" -> stamped
    std::vector<std::string> integrityFailures;
    std::size_t unreadableEvents = 0;

    bool has(const std::string& key) const {
        std::int64_t id = 0;
        if (key.rfind("X R ", 0) == 0 || key.rfind("X G ", 0) == 0) {
            id = std::stoll(key.substr(4));
            const auto& t = key[2] == 'R' ? regions : geos;
            auto it = t.find(id);
            return it != t.end() && it->second.closed;
        }
        switch (key[0]) {
            case 'R':
                return regions.count(std::stoll(key.substr(2))) > 0;
            case 'G':
                return geos.count(std::stoll(key.substr(2))) > 0;
            case 'B':
                return beaconRows.count(key) > 0;
            case 'E':
                return events.count(key) > 0;
            case 'S':
                return status.count(key) > 0;
        }
        return false;
    }
};

// An event's details never change once written: decoded once per row id.
std::map<std::string, std::string> eventSeqCache;

State readState(const fs::path& documents, bool checkIntegrity) {
    State s;
    auto integrity = [&](Sqlite& db, const char* name) {
        if (!db.open()) {
            if (!db.error().empty())
                s.integrityFailures.push_back(fmt::format("{}: {}", name, db.error()));
            return;
        }
        auto rows = db.exec("pragma integrity_check");
        if (rows.size() != 1 || !rows[0][0] || *rows[0][0] != "ok") {
            std::string why = rows.empty() || !rows[0][0] ? db.error() : *rows[0][0];
            s.integrityFailures.push_back(fmt::format("{}: {}", name, why));
        }
    };
    {
        Sqlite db((documents / "ZonewiseAnalytics.sqlite").string());
        if (checkIntegrity) integrity(db, "ZonewiseAnalytics.sqlite");
        for (const char* table : {"region_sessions", "geo_region_sessions"}) {
            auto& out = table[0] == 'r' ? s.regions : s.geos;
            for (auto& r : db.exec(fmt::format("select id, exited_at is not null, uploaded_at is "
                                               "not null from {}",
                                               table)
                                       .c_str())) {
                out[std::stoll(*r[0])] = {*r[1] == "1", *r[2] == "1"};
            }
        }
        for (auto& r : db.exec("select region_session_id, upper(beacon_uuid), beacon_major, "
                               "beacon_minor from beacon_sessions")) {
            s.beaconRows.insert(fmt::format("B {} {} {} {}", r[0].value_or("?"), r[1].value_or("?"),
                                            r[2].value_or("?"), r[3].value_or("?")));
        }
        for (auto& r : db.exec("select id, event_details, uploaded_at is not null from events")) {
            auto& seq = eventSeqCache[*r[0]];
            if (seq.empty() && r[1]) {
                quenby::platform::Bytes bytes(r[1]->begin(), r[1]->end());
                auto details = quenby::platform::unarchiveJson(bytes);
                if (details && details->is_object() && details->contains("seq")) {
                    seq = "E " + number((*details)["seq"]);
                }
            }
            if (seq.empty()) {
                ++s.unreadableEvents;
                continue;
            }
            s.events[seq] = *r[2] == "1";
        }
    }
    {
        Sqlite db((documents / "Tallyline.sqlite").string());
        if (checkIntegrity) integrity(db, "Tallyline.sqlite");
        for (auto& r : db.exec("select beacon_uuid, beacon_major, beacon_minor, uploaded_at is not "
                               "null from beacon_sessions")) {
            s.status[fmt::format("S {} {} {}", r[0].value_or("?"), r[1].value_or("?"),
                                 r[2].value_or("?"))] = *r[3] == "1";
        }
    }
    return s;
}

// ---------------------------------------------------------------------------------------------
// The host process.

class HostProcess {
  public:
    HostProcess(const std::string& exe, const std::vector<std::string>& args, const fs::path& log) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
        if (err >= 0) posix_spawn_file_actions_adddup2(&fa, err, STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(exe.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        int rc = posix_spawn(&pid_, exe.c_str(), &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        ::close(in[0]);
        ::close(out[1]);
        if (err >= 0) ::close(err);
        if (rc != 0) {
            ::close(in[1]);
            ::close(out[0]);
            throw std::runtime_error(fmt::format("cannot start {}: {}", exe, std::strerror(rc)));
        }
        stdin_ = in[1];
        // Read all along, so that the host never blocks on a full pipe.
        reader_ = std::thread([this, fd = out[0]] {
            std::string buf;
            char chunk[4096];
            ssize_t n;
            while ((n = ::read(fd, chunk, sizeof chunk)) > 0) buf.append(chunk, n);
            ::close(fd);
            std::size_t start = 0, end;
            while ((end = buf.find('\n', start)) != std::string::npos) {
                lines_.push_back(buf.substr(start, end - start));
                start = end + 1;
            }
            // A line cut by the kill has no newline: it was never written whole.
        });
    }
    ~HostProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        closeInput();
        if (reader_.joinable()) reader_.join();
    }

    void kill() { ::kill(pid_, SIGKILL); }
    void closeInput() {
        if (stdin_ >= 0) ::close(stdin_);
        stdin_ = -1;
    }
    // Waits for the process to end; its status.
    int wait() {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        reaped_ = true;
        return status;
    }
    // Waits at most until `deadline`; nothing when the process still runs.
    std::optional<int> waitUntil(Clock::time_point deadline) {
        auto f = std::async(std::launch::async, [this] { return wait(); });
        if (f.wait_until(deadline) == std::future_status::ready) return f.get();
        kill();
        f.get();
        return std::nullopt;
    }
    // The lines the host wrote; complete once it is dead (its end of the pipe closed).
    const std::vector<std::string>& lines() {
        if (reader_.joinable()) reader_.join();
        return lines_;
    }

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    int stdin_ = -1;
    std::thread reader_;
    std::vector<std::string> lines_;
};

std::string describe(int status) {
    if (WIFSIGNALED(status)) return fmt::format("killed by signal {}", WTERMSIG(status));
    return fmt::format("exit status {}", WEXITSTATUS(status));
}

// ---------------------------------------------------------------------------------------------

struct Totals {
    int kills = 0, inPost = 0, inPostMissed = 0;
    std::size_t committed = 0, anomalies = 0, integrity = 0, lost = 0, wronglyStamped = 0;
    std::size_t unsent = 0, hostFailures = 0;
};

class Campaign {
  public:
    Campaign(std::string hostExe, fs::path work, std::uint64_t seed, int maxDelayMs,
             int inPostPercent, int finalDeadline, bool verbose)
        : hostExe_(std::move(hostExe)),
          work_(std::move(work)),
          rng_(seed),
          maxDelayMs_(maxDelayMs),
          inPostPercent_(inPostPercent),
          finalDeadline_(finalDeadline),
          verbose_(verbose) {
        fs::create_directories(work_ / "documents");
        fs::create_directories(work_ / "bundle");
        auto plist = [&](const char* name, const std::string& entries) {
            std::ofstream(work_ / "bundle" / name)
                << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                << entries << "</dict></plist>\n";
        };
        plist("Info.plist",
              "<key>NSLocationAlwaysUsageDescription</key><string>kill -9 campaign</string>");
        std::string base = server_.url();
        plist("Zonewise.plist",
              fmt::format("<key>ZWKitURL</key><string>{0}/kit</string>"
                          "<key>ZWAPIToken</key><string>crash-token</string>"
                          "<key>ZWAnalyticsURL</key><string>{0}/analytics</string>",
                          base));
    }

    Totals run(int kills) {
        for (int k = 1; k <= kills; ++k) {
            // The last kill always lands inside a POST, so that the final run has rows to send.
            killOnce(k, k == kills);
            if (verbose_ && k % 100 == 0) {
                std::fprintf(stderr, "%d kills, %zu rows committed, %zu received\n", k,
                             totals_.committed, server_.distinct());
            }
        }
        finalRun(kills + 1);
        return totals_;
    }

    const Server& server() const { return server_; }

  private:
    std::unique_ptr<HostProcess> start(int run, bool drain) {
        server_.setRun(run);
        std::vector<std::string> args{"--documents", (work_ / "documents").string(),
                                      "--bundle",    (work_ / "bundle").string(),
                                      "--run",       std::to_string(run)};
        if (drain) args.push_back("--drain");
        return std::make_unique<HostProcess>(hostExe_, args, work_ / "host.log");
    }

    void killOnce(int run, bool mustHoldPost) {
        auto host = start(run, false);
        std::uniform_int_distribution<int> delay(0, maxDelayMs_);
        bool inPost =
            std::uniform_int_distribution<int>(1, 100)(rng_) <= inPostPercent_ || mustHoldPost;
        std::this_thread::sleep_for(std::chrono::milliseconds(delay(rng_)));
        if (inPost) {
            ++totals_.inPost;
            server_.arm();
            if (!server_.waitForHeld(Clock::now() + std::chrono::seconds(10))) {
                ++totals_.inPostMissed;
            }
        }
        host->kill();
        int status = host->wait();
        server_.release();
        ++totals_.kills;
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
            fail(totals_.hostFailures,
                 fmt::format("run {}: the host ended by itself: {}", run, describe(status)));
        }
        collect(run, *host);
        check(run, readState(work_ / "documents", true));
    }

    void collect(int run, HostProcess& host) {
        for (const auto& line : host.lines()) {
            if (line == "READY") continue;
            if (line.rfind("ANOMALY", 0) == 0) {
                fail(totals_.anomalies, fmt::format("run {}: {}", run, line));
                continue;
            }
            committed_.push_back(line);
            ++totals_.committed;
        }
    }

    // What a committed line needs from the server to count as delivered instead of stored.
    static std::string receivedKey(const std::string& committed) {
        return committed.rfind("X ", 0) == 0 ? committed.substr(2) : committed;
    }

    void check(int run, const State& s) {
        for (const auto& f : s.integrityFailures) {
            fail(totals_.integrity, fmt::format("run {}: integrity: {}", run, f));
        }
        if (s.unreadableEvents > 0) {
            fail(totals_.anomalies, fmt::format("run {}: {} event rows without a readable seq", run,
                                                s.unreadableEvents));
        }
        for (const auto& c : committed_) {
            if (!s.has(c) && !server_.received(receivedKey(c))) {
                failOnce(totals_.lost, "lost " + c,
                         fmt::format("run {}: committed row lost: {}", run, c));
            }
        }
        auto stamped = [&](const std::string& key, bool isStamped) {
            if (isStamped && !server_.received(key)) {
                failOnce(totals_.wronglyStamped, "stamped " + key,
                         fmt::format("run {}: stamped uploaded, never received: {}", run, key));
            }
        };
        for (const auto& [id, r] : s.regions) stamped(fmt::format("R {}", id), r.stamped);
        for (const auto& [id, g] : s.geos) stamped(fmt::format("G {}", id), g.stamped);
        for (const auto& [key, st] : s.events) stamped(key, st);
        for (const auto& [key, st] : s.status) stamped(key, st);
    }

    // Everything an upload may still carry: closed sessions, events and status rows, unstamped.
    static std::vector<std::string> unsent(const State& s) {
        std::vector<std::string> out;
        for (const auto& [id, r] : s.regions) {
            if (r.closed && !r.stamped) out.push_back(fmt::format("R {}", id));
        }
        for (const auto& [id, g] : s.geos) {
            if (g.closed && !g.stamped) out.push_back(fmt::format("G {}", id));
        }
        for (const auto& [key, st] : s.events) {
            if (!st) out.push_back(key);
        }
        for (const auto& [key, st] : s.status) {
            if (!st) out.push_back(key);
        }
        return out;
    }

    void finalRun(int run) {
        auto before = unsent(readState(work_ / "documents", false));
        auto host = start(run, true);
        auto deadline = Clock::now() + std::chrono::seconds(finalDeadline_);
        std::vector<std::string> missing;
        for (;;) {
            missing.clear();
            for (const auto& key : before) {
                if (!server_.receivedIn(key, run)) missing.push_back(key);
            }
            for (const auto& key : unsent(readState(work_ / "documents", false))) {
                missing.push_back(key + " (unstamped)");
            }
            if (missing.empty() || Clock::now() >= deadline) break;
            // Woken by the next upload; the stamps follow its answer, hence the short bound.
            server_.waitForPost(std::min(deadline, Clock::now() + std::chrono::milliseconds(200)));
        }
        for (const auto& m : missing) {
            fail(totals_.unsent,
                 fmt::format("final run: not sent and stamped after the restart: {}", m));
        }
        unsentAtRestart_ = before.size();
        host->closeInput();
        auto status = host->waitUntil(Clock::now() + std::chrono::seconds(10));
        if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
            fail(totals_.hostFailures,
                 fmt::format("final run: the host did not end cleanly: {}",
                             status ? describe(*status) : "still running after 10 s"));
        }
        collect(run, *host);
        State last = readState(work_ / "documents", true);
        check(run, last);
        for (const auto* t : {&last.regions, &last.geos}) {
            for (const auto& [id, session] : *t) openLeft_ += session.closed ? 0 : 1;
        }
    }

    // A row found wrong is counted once, however many later checks find it again.
    void failOnce(std::size_t& counter, const std::string& key, const std::string& what) {
        if (reported_.insert(key).second) fail(counter, what);
    }

    void fail(std::size_t& counter, const std::string& what) {
        ++counter;
        // The first few of a kind say enough; the totals count the rest.
        if (counter <= 10) std::fprintf(stderr, "VIOLATION %s\n", what.c_str());
    }

  public:
    std::size_t unsentAtRestart_ = 0;
    // Sessions a kill interrupted: nothing closes them later, so no upload ever carries them.
    std::size_t openLeft_ = 0;

  private:
    std::string hostExe_;
    fs::path work_;
    std::mt19937_64 rng_;
    int maxDelayMs_, inPostPercent_, finalDeadline_;
    bool verbose_;
    Server server_;
    Totals totals_;
    std::vector<std::string> committed_;
    std::set<std::string> reported_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Kill -9 campaign: SIGKILLs a recording and uploading host and checks its files"};
    std::uint64_t seed = 1;
    int kills = 20, maxDelayMs = 1000, inPost = 33, finalDeadline = 60;
    std::string hostExe = (fs::canonical("/proc/self/exe").parent_path() / "crash-host").string();
    std::string work;
    bool keep = false, verbose = false;
    app.add_option("--seed", seed, "seed of the kill plan");
    app.add_option("--kills", kills, "number of kills")->check(CLI::Range(1, 60000));
    app.add_option("--max-delay-ms", maxDelayMs, "longest wait from a start to its kill")
        ->check(CLI::Range(0, 600000));
    app.add_option("--in-post", inPost, "percentage of kills made while the server holds a POST")
        ->check(CLI::Range(0, 100));
    app.add_option("--final-deadline", finalDeadline,
                   "seconds the final run has to send what is unstamped");
    app.add_option("--host", hostExe, "the crash-host executable");
    app.add_option("--work", work, "working directory (default: a new one under $TMPDIR)");
    app.add_flag("--keep", keep, "keep the working directory");
    app.add_flag("--verbose", verbose, "progress every 100 kills");
    CLI11_PARSE(app, argc, argv);

    // A killed host never reads its answer; the server must not die of the broken connection.
    signal(SIGPIPE, SIG_IGN);
    bool temporary = work.empty();
    if (temporary) {
        std::string pattern = (fs::temp_directory_path() / "quenby-crash-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            std::perror("mkdtemp");
            return 2;
        }
        work = pattern;
    }

    auto began = Clock::now();
    Totals t;
    std::size_t received = 0, duplicates = 0, posts = 0, malformed = 0, unsentAtRestart = 0,
                openLeft = 0;
    {
        Campaign campaign(hostExe, work, seed, maxDelayMs, inPost, finalDeadline, verbose);
        t = campaign.run(kills);
        received = campaign.server().distinct();
        duplicates = campaign.server().duplicates();
        posts = campaign.server().posts();
        malformed = campaign.server().malformed();
        unsentAtRestart = campaign.unsentAtRestart_;
        openLeft = campaign.openLeft_;
    }
    double seconds = std::chrono::duration<double>(Clock::now() - began).count();
    std::size_t violations = t.anomalies + t.integrity + t.lost + t.wronglyStamped + t.unsent +
                             t.hostFailures + malformed;
    std::printf("seed %llu: %d kills (%d inside a POST, %d of them found none) in %.1f s\n",
                static_cast<unsigned long long>(seed), t.kills, t.inPost, t.inPostMissed, seconds);
    std::printf("rows committed          %zu\n", t.committed);
    std::printf("rows received           %zu (in %zu POSTs)\n", received, posts);
    std::printf("duplicate deliveries    %zu\n", duplicates);
    std::printf("sent by the final run   %zu rows unstamped at its start\n", unsentAtRestart);
    std::printf("sessions left open      %zu (interrupted visits: never closed, never sent)\n",
                openLeft);
    std::printf("integrity failures      %zu\n", t.integrity);
    std::printf("lost rows               %zu\n", t.lost);
    std::printf("wrongly stamped rows    %zu\n", t.wronglyStamped);
    std::printf("unsent at the end       %zu\n", t.unsent);
    std::printf(
        "other violations        %zu (host failures %zu, unexpected writes %zu, malformed "
        "posts %zu)\n",
        t.hostFailures + t.anomalies + malformed, t.hostFailures, t.anomalies, malformed);
    std::printf("%s\n", violations == 0 ? "PASS" : "FAIL");
    if (temporary && !keep && violations == 0) fs::remove_all(work);
    if (violations != 0 || keep) std::printf("working directory: %s\n", work.c_str());
    return violations == 0 ? 0 : 1;
}
