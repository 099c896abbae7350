// crash-host: a real host for the kill -9 campaign. It runs the proximity manager on the system
// clock against the campaign's server (named in the bundle's Zonewise.plist), walks the kit's
// regions over and over (enter, ranging, exit, an analytics event, an analytics upload) and keeps
// the status layer uploading after every report. After each step it reads back what the step
// committed and writes one line per row on standard output (see protocol.h): the campaign kills it
// at any moment and holds it to those lines.
//
// --drain records nothing: it only uploads, and exits cleanly when standard input closes.
#include <sqlite3.h>
#include <unistd.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "crash/protocol.h"
#include "platform/platform.h"
#include "proximity/QZWAnalyticsEvent.h"
#include "proximity/QZWManager.h"
#include "status/QTLStatusManager.h"

using namespace quenby::platform;
using quenby::crash::kEventType;
using quenby::crash::kKitUUID;
using quenby::crash::kStatusUUID;

namespace {

// One write per line, so that a line is either whole in the pipe or absent after a kill.
void say(const std::string& text) {
    std::string line = text + "\n";
    const char* p = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(STDOUT_FILENO, p, left);
        if (n <= 0) return;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

// The host's own connection to the analytics file, only to read back what the library wrote.
class Reader {
  public:
    explicit Reader(const std::string& path) {
        if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            sqlite3_close(db_);
            db_ = nullptr;
            return;
        }
        sqlite3_busy_timeout(db_, 2000);
    }
    ~Reader() { sqlite3_close(db_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The first column of the first row, when there is one and it is not NULL.
    std::optional<std::int64_t> integer(const char* sql, const std::vector<std::string>& args) {
        if (!db_) return std::nullopt;
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &st, nullptr) != SQLITE_OK) return std::nullopt;
        for (std::size_t i = 0; i < args.size(); ++i) {
            sqlite3_bind_text(st, static_cast<int>(i + 1), args[i].c_str(), -1, SQLITE_TRANSIENT);
        }
        std::optional<std::int64_t> out;
        if (sqlite3_step(st) == SQLITE_ROW && sqlite3_column_type(st, 0) != SQLITE_NULL) {
            out = sqlite3_column_int64(st, 0);
        }
        sqlite3_finalize(st);
        return out;
    }

  private:
    sqlite3* db_ = nullptr;
};

struct Action {
    enum Kind { Enter, Range, Exit, Event, Upload } kind;
    bool geo = false;
    std::size_t region = 0;
};

class Host : public QZWManagerDelegate, public std::enable_shared_from_this<Host> {
  public:
    Host(std::shared_ptr<Platform> platform, int run, bool drain, double step)
        : platform_(std::move(platform)), run_(run), drain_(drain), step_(step) {}

    std::weak_ptr<QZWManager> manager;

    // Sync results come on a request's context: the work itself goes to the host thread.
    void zonewiseDidSync(QZWManager&) override {
        std::weak_ptr<Host> weak = weak_from_this();
        platform_->scheduler->postToMain([weak] {
            if (auto self = weak.lock()) self->begin();
        });
    }
    void zonewiseDidFailWithError(QZWManager&, const Error& e) override {
        std::fprintf(stderr, "crash-host: %s\n", e.toString().c_str());
    }

  private:
    void begin() {
        auto m = manager.lock();
        if (begun_ || !m) return;
        begun_ = true;
        kit_ = m->kit();
        // Uploads on every report rather than every 30 s: the campaign wants a POST in flight
        // as often as a write.
        if (auto status = m->statusManager()) status->uploadThresholdSeconds = 0;
        reader_ =
            std::make_unique<Reader>(platform_->documentsDirectory + "/ZonewiseAnalytics.sqlite");
        lastRegionId_ = reader_->integer("select max(id) from region_sessions", {}).value_or(0);
        lastGeoId_ = reader_->integer("select max(id) from geo_region_sessions", {}).value_or(0);
        say("READY");
        next();
    }

    void next() {
        std::weak_ptr<Host> weak = weak_from_this();
        platform_->scheduler->postToMainAfter(step_, [weak] {
            if (auto self = weak.lock()) self->drain_ ? self->drainTick() : self->step();
        });
    }

    void drainTick() {
        auto m = manager.lock();
        if (!m) return;
        m->timedSync();  // the analytics upload, synchronous on this thread
        if (auto status = m->statusManager()) status->uploadEvents();
        next();
    }

    void plan() {
        std::size_t beacons = kit_->beaconRegions().size();
        std::size_t geos = kit_->map() ? kit_->map()->overlays().size() : 0;
        if (beacons + geos == 0) return;
        std::size_t i = visit_++ % (beacons + geos);
        bool geo = i >= beacons;
        std::size_t r = geo ? i - beacons : i;
        actions_.push_back({Action::Enter, geo, r});
        if (!geo) {
            for (int k = 0; k < 3; ++k) actions_.push_back({Action::Range, geo, r});
        }
        actions_.push_back({Action::Exit, geo, r});
        actions_.push_back({Action::Event});
        actions_.push_back({Action::Upload});
    }

    void step() {
        if (actions_.empty()) plan();
        if (actions_.empty()) return;
        Action a = actions_.front();
        actions_.pop_front();
        perform(a);
        // What the action wrote is read back in the next pass: the analytics logger records when
        // this pass's notifications go out, at its end.
        std::weak_ptr<Host> weak = weak_from_this();
        platform_->scheduler->postToMain([weak, a] {
            if (auto self = weak.lock()) {
                self->report(a);
                self->next();
            }
        });
    }

    std::shared_ptr<const Region> regionOf(const Action& a) const {
        if (a.geo) return kit_->map()->overlays()[a.region]->region();
        return kit_->beaconRegions()[a.region]->region();
    }

    void perform(const Action& a) {
        auto& location = *platform_->location;
        switch (a.kind) {
            case Action::Enter:
                location.deliverEnter(regionOf(a));
                break;
            case Action::Exit:
                location.deliverExit(regionOf(a));
                break;
            case Action::Range: {
                auto region = kit_->beaconRegions()[a.region]->region();
                ranged_.clear();
                ranged_.push_back({region->proximityUUID(), region->major().value_or(0),
                                   region->minor().value_or(0), 1, 0.5, -60});
                if (counter_ < 65535) {
                    ranged_.push_back({*UUID::parse(kStatusUUID), run_, ++counter_, 3, 8.0, -90});
                }
                location.deliverRanging(region, ranged_);
                break;
            }
            case Action::Event:
                seq_ = static_cast<std::int64_t>(run_) * 1000000 + ++counter_;
                QZWAnalyticsEvent::postEventWithDetails(kEventType, {{"seq", seq_}});
                break;
            case Action::Upload:
                if (auto m = manager.lock()) m->timedSync();
                break;
        }
    }

    void report(const Action& a) {
        const char* table = a.geo ? "geo_region_sessions" : "region_sessions";
        const char* tag = a.geo ? "G" : "R";
        switch (a.kind) {
            case Action::Enter: {
                std::optional<std::int64_t> id;
                if (a.geo) {
                    id = reader_->integer(
                        "select max(id) from geo_region_sessions where region_id = ? and exited_at "
                        "is null",
                        {regionOf(a)->identifier()});
                } else {
                    auto r = kit_->beaconRegions()[a.region]->region();
                    id = reader_->integer(
                        "select max(id) from region_sessions where exited_at is null and "
                        "upper(region_uuid) = ? and region_major = ? and region_minor = ?",
                        {r->proximityUUID().uuidString(), std::to_string(r->major().value_or(0)),
                         std::to_string(r->minor().value_or(0))});
                }
                std::int64_t& last = a.geo ? lastGeoId_ : lastRegionId_;
                if (!id || *id <= last) {
                    say(fmt::format("ANOMALY no new {} row after an entry", table));
                    session_.reset();
                    break;
                }
                last = *id;
                session_ = *id;
                seenInSession_.clear();
                say(fmt::format("{} {}", tag, *id));
                break;
            }
            case Action::Exit: {
                if (!session_) break;
                auto closed = reader_->integer(
                    fmt::format("select count(*) from {} where id = ? and exited_at is not null",
                                table)
                        .c_str(),
                    {std::to_string(*session_)});
                if (closed.value_or(0) == 1) {
                    say(fmt::format("X {} {}", tag, *session_));
                } else {
                    say(fmt::format("ANOMALY {} row {} not closed after an exit", table,
                                    *session_));
                }
                session_.reset();
                break;
            }
            case Action::Range:
                for (const auto& b : ranged_) {
                    std::string uuid = b.proximityUUID.uuidString();
                    // The status layer records inside the ranging callback itself.
                    if (uuid == kStatusUUID) say(fmt::format("S {} {} {}", uuid, b.major, b.minor));
                    if (!session_) continue;
                    std::string key = fmt::format("{} {} {}", uuid, b.major, b.minor);
                    if (!seenInSession_.insert(key).second) continue;
                    auto n = reader_->integer(
                        "select count(*) from beacon_sessions where region_session_id = ? and "
                        "upper(beacon_uuid) = ? and beacon_major = ? and beacon_minor = ?",
                        {std::to_string(*session_), uuid, std::to_string(b.major),
                         std::to_string(b.minor)});
                    if (n.value_or(0) >= 1) {
                        say(fmt::format("B {} {}", *session_, key));
                    } else {
                        say(fmt::format("ANOMALY no beacon row {} in session {}", key, *session_));
                    }
                }
                break;
            case Action::Event:
                say(fmt::format("E {}", seq_));
                break;
            case Action::Upload:
                break;
        }
    }

    std::shared_ptr<Platform> platform_;
    const int run_;
    const bool drain_;
    const double step_;
    // Everything below is touched on the host thread only.
    bool begun_ = false;
    std::shared_ptr<const QZWKit> kit_;
    std::unique_ptr<Reader> reader_;
    std::deque<Action> actions_;
    std::size_t visit_ = 0;
    int counter_ = 0;
    std::int64_t seq_ = 0;
    std::int64_t lastRegionId_ = 0, lastGeoId_ = 0;
    std::optional<std::int64_t> session_;
    std::set<std::string> seenInSession_;
    std::vector<Beacon> ranged_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"A host for the kill -9 campaign"};
    std::string documents, bundle;
    int run = 0;
    bool drain = false;
    double step = 0.01;
    app.add_option("--documents", documents, "documents directory")->required();
    app.add_option("--bundle", bundle, "bundle directory: Info.plist, Zonewise.plist")->required();
    app.add_option("--run", run, "this run's number, 1..65535: the major of its status beacons")
        ->required()
        ->check(CLI::Range(1, 65535));
    app.add_option("--step", step, "seconds between two steps of the walk");
    app.add_flag("--drain", drain, "record nothing, upload until standard input closes");
    CLI11_PARSE(app, argc, argv);

    Platform::Options o;
    o.applicationId = "quenby-crash";
    o.documentsDirectory = documents;
    o.bundleDirectory = bundle;
    auto platform = Platform::create(o);
    auto host = std::make_shared<Host>(platform, run, drain, step);
    auto manager = QZWManager::managerWithDelegate(platform, host);
    host->manager = manager;

    // The campaign ends a drain by closing our standard input.
    auto scheduler = platform->scheduler;
    std::thread watch([scheduler] {
        char c;
        while (::read(STDIN_FILENO, &c, 1) > 0) {
        }
        scheduler->postToMain([scheduler] { scheduler->stop(); });
    });
    manager->start();
    scheduler->run();
    watch.join();
    manager->stop();
    return 0;
}
