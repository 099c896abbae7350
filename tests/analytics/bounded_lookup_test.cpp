// The bounded beacon-row lookup writes exactly the rows the unbounded statement would, whatever
// the interleaving of sessions, restarts and a second recorder on the same file.
#include <gtest/gtest.h>

#include <random>

#include "analytics/analytics_fixture.h"
#include "platform/database.h"

using namespace quenby;
using namespace quenby::test;
using platform::Database;
using platform::Json;
using platform::SqlArg;

namespace {

// The session statements exactly as the format defines them, unbounded.
class LiteralRecorder {
  public:
    LiteralRecorder(VirtualPlatform& vp, const std::string& path) : vp_(vp) {
        q_ = platform::DatabaseQueue::databaseQueueWithPath(vp.scheduler(), path);
        q_->inDatabase([](Database& db) {
            platform::setupVersionedSchema(db, QZWAnalyticsDatabase::kSchema);
        });
    }
    void open(int major) {
        q_->inTransaction([&](Database& db, bool&) {
            db.executeUpdate(
                "insert into region_sessions (entered_at, region_uuid, region_major, "
                "region_minor) VALUES (?, ?, ?, ?);",
                {vp_.platform->scheduler->now(), kUUID, major, nullptr});
        });
    }
    void close(int major) {
        q_->inTransaction([&](Database& db, bool&) {
            if (auto id = find(db, major)) {
                db.executeUpdate("update region_sessions set exited_at = ? where id = ?;",
                                 {vp_.platform->scheduler->now(), *id});
            }
        });
    }
    void range(int major, const std::vector<int>& minors) {
        q_->inTransaction([&](Database& db, bool&) {
            auto id = find(db, major);
            if (!id) return;
            for (int minor : minors) {
                std::vector<std::int64_t> rows;
                auto rs = db.executeQuery(
                    "select id from beacon_sessions where region_session_id = ? and beacon_uuid = "
                    "? and beacon_major = ? and beacon_minor = ?",
                    {*id, kUUID, major, minor});
                while (rs && rs->next()) rows.push_back(rs->longLongIntForColumnIndex(0));
                rs.reset();
                for (auto r : rows) {
                    db.executeUpdate(
                        "update beacon_sessions set last_detected_at = ? where id = ?;",
                        {vp_.platform->scheduler->now(), r});
                }
                if (rows.empty()) {
                    db.executeUpdate(
                        "insert into beacon_sessions (region_session_id, "
                        "first_detected_at, beacon_uuid, beacon_major, beacon_minor) "
                        "VALUES (?, ?, ?, ?, ?);",
                        {*id, vp_.platform->scheduler->now(), kUUID, major, minor});
                }
            }
        });
    }

  private:
    std::optional<std::int32_t> find(Database& db, int major) {
        auto rs = db.executeQuery(
            "select id from region_sessions where entered_at is not null and exited_at is null and "
            "region_uuid = ? and region_major = ? and region_minor is null order by entered_at "
            "desc;",
            {kUUID, major});
        if (rs && rs->next()) return rs->intForColumnIndex(0);
        return std::nullopt;
    }
    VirtualPlatform& vp_;
    std::shared_ptr<platform::DatabaseQueue> q_;
};

}  // namespace

TEST(QZWAnalytics, BoundedBeaconLookupWritesTheRowsTheUnboundedStatementWould) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        VirtualPlatform vp;
        std::mt19937 rng(seed);
        std::string ours = vp.documents.file("ZonewiseAnalytics.sqlite");
        LiteralRecorder literal(vp, vp.documents.file("literal.sqlite"));
        // Two recorders on one file, either of which may be replaced (a restart) at any time.
        std::unique_ptr<QZWAnalytics> recorders[2] = {std::make_unique<QZWAnalytics>(vp.platform),
                                                      std::make_unique<QZWAnalytics>(vp.platform)};
        for (int step = 0; step < 300; ++step) {
            vp.scheduler().advanceBy(1);
            int major = static_cast<int>(rng() % 3);
            auto& rec = recorders[rng() % 2];
            auto region = beaconRegion(major, nullptr);
            switch (rng() % 10) {
                case 0:
                    rec->openSessionWithRegion(region.get());
                    literal.open(major);
                    break;
                case 1:
                    rec->closeSessionWithRegion(region.get());
                    literal.close(major);
                    break;
                case 2:
                    rec = std::make_unique<QZWAnalytics>(vp.platform);
                    break;
                default: {
                    std::vector<int> minors;
                    std::vector<std::shared_ptr<const QZWBeacon>> beacons;
                    for (int k = static_cast<int>(rng() % 4); k > 0; --k) {
                        minors.push_back(static_cast<int>(rng() % 5));
                        beacons.push_back(beacon(major, minors.back()));
                    }
                    rec->updateSessionWithRegionAndBeacons(region.get(), beacons);
                    literal.range(major, minors);
                }
            }
        }
        for (const char* table : {"region_sessions", "beacon_sessions"}) {
            std::string sql = std::string("select * from ") + table + " order by id";
            ASSERT_EQ(queryRows(ours, sql), queryRows(vp.documents.file("literal.sqlite"), sql))
                << table << ", seed " << seed;
        }
    }
}
