#include "analytics/QZWAnalytics.h"

#include <unordered_map>

#include "analytics/QZWAPIAnalyticsUploader.h"
#include "analytics/QZWAnalyticsLogger.h"
#include "platform/archive.h"
#include "proximity/QZWLogger.h"

using quenby::platform::Database;
using quenby::platform::Date;
using quenby::platform::Json;
using quenby::platform::ResultSet;
using quenby::platform::SqlArg;

namespace {

constexpr const char* kOpenRegionSession =
    "insert into region_sessions (entered_at, region_uuid, region_major, region_minor) VALUES "
    "(?, ?, ?, ?);";
constexpr const char* kFindOpenExact =
    "select id from region_sessions where entered_at is not null and exited_at is null and "
    "region_uuid = ? and region_major = ? and region_minor = ? order by entered_at desc;";
constexpr const char* kFindOpenMajor =
    "select id from region_sessions where entered_at is not null and exited_at is null and "
    "region_uuid = ? and region_major = ? and region_minor is null order by entered_at desc;";
constexpr const char* kFindOpenUUID =
    "select id from region_sessions where entered_at is not null and exited_at is null and "
    "region_uuid = ? and region_major is null and region_minor is null order by entered_at desc;";
constexpr const char* kCloseRegionSession =
    "update region_sessions set exited_at = ? where id = ?;";
constexpr const char* kOpenGeoSession =
    "insert into geo_region_sessions (entered_at, latitude, longitude, radius, region_id) VALUES "
    "(?, ?, ?, ?, ?);";
constexpr const char* kFindOpenGeo =
    "select id from geo_region_sessions where entered_at is not null and exited_at is null and "
    "latitude = ? and longitude = ? and radius = ? order by entered_at desc;";
constexpr const char* kCloseGeoSession =
    "update geo_region_sessions set exited_at = ? where id = ?;";
// A beacon's rows in a session. `id >= ?` takes the session's first possible row id: every row of
// a session is written while it is open, after every row that existed when it opened (ids only
// grow), so the bound excludes none of its rows and lets SQLite seek instead of scanning a table
// that keeps every sighting ever made.
constexpr const char* kFindBeacon =
    "select id from beacon_sessions where id >= ? and region_session_id = ? and beacon_uuid = ? "
    "and beacon_major = ? and beacon_minor = ?";
constexpr const char* kFirstRowOfSession =
    "select min(id) from beacon_sessions where region_session_id = ?";
constexpr const char* kNextRowId = "select coalesce(max(id), 0) + 1 from beacon_sessions";
constexpr const char* kRefreshBeacon =
    "update beacon_sessions set last_detected_at = ? where id = ?;";
constexpr const char* kInsertBeacon =
    "insert into beacon_sessions (region_session_id, first_detected_at,              beacon_uuid, "
    "   beacon_major, beacon_minor) VALUES (                ?,                 ?,                "
    "        ?,               ?,            ?);";
constexpr const char* kInsertEvent =
    "insert into events (event_type, event_details, triggered_at) VALUES (         ?,          "
    "   ?,            ?);";
constexpr const char* kClosedRegionSessions =
    "select * from region_sessions where uploaded_at is null and exited_at is not null;";
// The beacon rows of every closed, unsent region session in one pass: the same rows, in the same
// order within each session, as one query per session would give, without scanning the whole
// table once per session.
constexpr const char* kBeaconSessionsOfClosedRegions =
    "select * from beacon_sessions where region_session_id in (select id from region_sessions "
    "where uploaded_at is null and exited_at is not null) order by id";
constexpr const char* kClosedGeoSessions =
    "select * from geo_region_sessions where uploaded_at is null and exited_at is not null;";
constexpr const char* kPendingEvents = "select * from events where uploaded_at is null;";
constexpr const char* kMarkRegion = "update region_sessions set uploaded_at = ? where id = ?;";
constexpr const char* kMarkGeo = "update geo_region_sessions set uploaded_at = ? where id = ?;";
constexpr const char* kMarkEvent = "update events set uploaded_at = ? where id = ?;";

SqlArg uuidArg(const std::optional<quenby::platform::UUID>& u) {
    return u ? SqlArg(u->uuidString()) : SqlArg(nullptr);
}

// The open session of a beacon region, chosen by what the region defines: the newest one.
std::optional<std::int32_t> findOpenSession(Database& db, const QZWBeaconRegion& r) {
    std::unique_ptr<ResultSet> rs;
    if (r.hasMajor() && r.hasMinor()) {
        rs = db.executeQuery(kFindOpenExact, {uuidArg(r.uuid()), *r.major(), *r.minor()});
    } else if (r.hasMajor()) {
        rs = db.executeQuery(kFindOpenMajor, {uuidArg(r.uuid()), *r.major()});
    } else {
        // A region with a minor but no major lands here and never matches its own row.
        rs = db.executeQuery(kFindOpenUUID, {uuidArg(r.uuid())});
    }
    if (rs && rs->next()) return rs->intForColumnIndex(0);
    return std::nullopt;
}

}  // namespace

QZWAnalytics::QZWAnalytics(std::shared_ptr<quenby::platform::Platform> platform)
    : platform_(std::move(platform)), db_(std::make_unique<QZWAnalyticsDatabase>(*platform_)) {}

QZWAnalytics::~QZWAnalytics() = default;

std::shared_ptr<QZWAnalyticsLogger> QZWAnalytics::logger() const {
    std::lock_guard lk(loggerMutex_);
    return logger_;
}

void QZWAnalytics::startLogging() {
    std::lock_guard lk(loggerMutex_);
    if (!logger_) logger_ = QZWAnalyticsLogger::create(platform_);
}

void QZWAnalytics::stopLogging() {
    std::shared_ptr<QZWAnalyticsLogger> released;
    {
        std::lock_guard lk(loggerMutex_);
        released = std::move(logger_);
    }
    // The logger stops observing as it goes, outside the lock.
}

std::string QZWAnalytics::formatDate(Date date) {
    return quenby::platform::formatUTC(date);
}

void QZWAnalytics::openSessionWithRegion(const QZWRegion* region) {
    if (auto* r = dynamic_cast<const QZWBeaconRegion*>(region)) {
        SqlArg uuid = uuidArg(r->uuid());
        SqlArg major = r->hasMajor() ? SqlArg(*r->major()) : SqlArg(nullptr);
        SqlArg minor = r->hasMinor() ? SqlArg(*r->minor()) : SqlArg(nullptr);
        db_->inTransaction([&](Database& db, bool&) {
            db.executeUpdate(kOpenRegionSession, {platform_->scheduler->now(), uuid, major, minor});
        });
    } else if (auto* c = dynamic_cast<const QZWCircle*>(region)) {
        db_->inTransaction([&](Database& db, bool&) {
            db.executeUpdate(kOpenGeoSession, {platform_->scheduler->now(), c->latitude(),
                                               c->longitude(), c->radius(), c->identifier()});
        });
    }
}

void QZWAnalytics::closeSessionWithRegion(const QZWRegion* region) {
    if (auto* r = dynamic_cast<const QZWBeaconRegion*>(region)) {
        db_->inTransaction([&](Database& db, bool&) {
            auto id = findOpenSession(db, *r);
            if (!id) return;
            if (!db.executeUpdate(kCloseRegionSession, {platform_->scheduler->now(), *id})) {
                QZWLogger::logFormat(QZWLogLevelError, "Failed to close session id {}", *id);
            } else {
                firstRows_.erase(*id);
            }
        });
    } else if (auto* c = dynamic_cast<const QZWCircle*>(region)) {
        db_->inTransaction([&](Database& db, bool&) {
            // The same float-to-double widening as at entry, so the stored values compare equal.
            auto rs = db.executeQuery(kFindOpenGeo, {c->latitude(), c->longitude(), c->radius()});
            if (!rs || !rs->next()) return;
            std::int32_t id = rs->intForColumnIndex(0);
            rs->close();
            if (!db.executeUpdate(kCloseGeoSession, {platform_->scheduler->now(), id})) {
                QZWLogger::logFormat(QZWLogLevelError, "Failed to close geo session id {}", id);
            }
        });
    }
}

std::int64_t QZWAnalytics::firstPossibleRow(Database& db, std::int32_t session) {
    auto it = firstRows_.find(session);
    if (it != firstRows_.end()) return it->second;
    std::int64_t first = 0;
    auto rs = db.executeQuery(kFirstRowOfSession, {session});
    if (rs && rs->next() && !rs->columnIndexIsNull(0)) {
        first = rs->longLongIntForColumnIndex(0);
    } else {
        rs = db.executeQuery(kNextRowId);
        if (!rs || !rs->next()) return 0;  // unknown: the lookup scans everything
        first = rs->longLongIntForColumnIndex(0);
    }
    firstRows_.emplace(session, first);
    return first;
}

void QZWAnalytics::updateSessionWithRegionAndBeacons(
    const QZWRegion* region, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons) {
    auto* r = dynamic_cast<const QZWBeaconRegion*>(region);
    if (!r) return;
    db_->inTransaction([&](Database& db, bool&) {
        auto session = findOpenSession(db, *r);
        if (!session) return;  // sightings outside a session are dropped
        std::int64_t firstRow = firstPossibleRow(db, *session);
        for (const auto& b : beacons) {
            if (!b) continue;
            SqlArg uuid = uuidArg(b->uuid());
            SqlArg major(b->major()), minor(b->minor());
            auto failed = [&] {
                QZWLogger::logFormat(QZWLogLevelError, "Failed inserting beacon ({}, {}, {})",
                                     b->uuid() ? b->uuid()->uuidString() : "(null)",
                                     b->major() ? b->major()->description() : "(null)",
                                     b->minor() ? b->minor()->description() : "(null)");
            };
            std::vector<std::int64_t> rows;
            if (auto rs = db.executeQuery(kFindBeacon, {firstRow, *session, uuid, major, minor})) {
                while (rs->next()) rows.push_back(rs->longLongIntForColumnIndex(0));
            }
            for (std::int64_t row : rows) {
                if (!db.executeUpdate(kRefreshBeacon, {platform_->scheduler->now(), row})) failed();
            }
            if (rows.empty() &&
                !db.executeUpdate(kInsertBeacon,
                                  {*session, platform_->scheduler->now(), uuid, major, minor})) {
                failed();
            }
        }
    });
}

void QZWAnalytics::addEventWithDetails(const std::string& type, const Json& details) {
    quenby::platform::Bytes blob = quenby::platform::archiveJson(details);
    db_->inTransaction([&](Database& db, bool&) {
        db.executeUpdate(kInsertEvent, {type, blob, platform_->scheduler->now()});
    });
}

// ---------------------------------------------------------------------------------------------
// Upload

void QZWAnalytics::uploadAnalyticsToServer() {
    // A new uploader every cycle, so configuration changes take effect on the next one.
    QZWAPIAnalyticsUploader uploader(platform_);
    auto regions = beaconRegionsToBeUploaded();
    auto events = eventsToBeUploaded();
    auto geos = geoRegionsToBeUploaded();
    if (regions.empty() && events.empty() && geos.empty()) return;
    if (!uploader.uploadBeaconRegionsAndGeoRegionsAndEvents(regions, geos, events)) return;
    markBeaconRegionsUploaded(regions);
    markEventsUploaded(events);
    markGeoRegionsUploaded(geos);
}

std::vector<QZWRegionSessionRecord> QZWAnalytics::beaconRegionsToBeUploaded() {
    std::vector<QZWRegionSessionRecord> out;
    db_->inTransaction([&](Database& db, bool&) {
        std::unordered_map<std::int64_t, std::size_t> byId;
        if (auto rs = db.executeQuery(kClosedRegionSessions)) {
            while (rs->next()) {
                QZWRegionSessionRecord r;
                r.id = rs->objectForColumn("id");
                r.regionUuid = rs->objectForColumn("region_uuid");
                r.regionMajor = rs->objectForColumn("region_major");
                r.regionMinor = rs->objectForColumn("region_minor");
                r.enteredAt = rs->dateForColumn("entered_at");
                r.exitedAt = rs->dateForColumn("exited_at");
                byId.emplace(rs->longLongIntForColumn("id"), out.size());
                out.push_back(std::move(r));
            }
        }
        if (out.empty()) return;
        if (auto rs = db.executeQuery(kBeaconSessionsOfClosedRegions)) {
            int session = rs->columnIndexForName("region_session_id");
            int uuid = rs->columnIndexForName("beacon_uuid");
            int major = rs->columnIndexForName("beacon_major");
            int minor = rs->columnIndexForName("beacon_minor");
            int first = rs->columnIndexForName("first_detected_at");
            int last = rs->columnIndexForName("last_detected_at");
            while (rs->next()) {
                auto it = byId.find(rs->longLongIntForColumnIndex(session));
                if (it == byId.end()) continue;
                out[it->second].beaconSessions.push_back(
                    {rs->objectForColumnIndex(uuid), rs->objectForColumnIndex(major),
                     rs->objectForColumnIndex(minor), rs->dateForColumnIndex(first),
                     rs->dateForColumnIndex(last)});
            }
        }
    });
    return out;
}

std::vector<QZWGeoSessionRecord> QZWAnalytics::geoRegionsToBeUploaded() {
    std::vector<QZWGeoSessionRecord> out;
    db_->inTransaction([&](Database& db, bool&) {
        auto rs = db.executeQuery(kClosedGeoSessions);
        while (rs && rs->next()) {
            out.push_back({rs->objectForColumn("id"), rs->objectForColumn("region_id"),
                           rs->objectForColumn("latitude"), rs->objectForColumn("longitude"),
                           rs->objectForColumn("radius"), rs->dateForColumn("entered_at"),
                           rs->dateForColumn("exited_at")});
        }
    });
    return out;
}

std::vector<QZWEventRecord> QZWAnalytics::eventsToBeUploaded() {
    std::vector<QZWEventRecord> out;
    db_->inTransaction([&](Database& db, bool&) {
        auto rs = db.executeQuery(kPendingEvents);
        while (rs && rs->next()) {
            QZWEventRecord e;
            e.id = rs->objectForColumn("id");
            e.eventType = rs->objectForColumn("event_type");
            std::string why;
            auto details =
                quenby::platform::unarchiveJson(rs->dataForColumn("event_details"), &why);
            if (!details) {
                QZWLogger::logFormat(QZWLogLevelError, "Unreadable details of event {}: {}",
                                     e.id.dump(), why);
            }
            e.eventDetails = details ? std::move(*details) : Json();
            e.triggeredAt = rs->dateForColumn("triggered_at");
            out.push_back(std::move(e));
        }
    });
    return out;
}

template <class Record>
void QZWAnalytics::markUploaded(const std::vector<Record>& records, const char* sql,
                                const char* message) {
    for (const auto& r : records) {
        bool ok = false;
        db_->inTransaction([&](Database& db, bool&) {
            ok = db.executeUpdate(sql, {platform_->scheduler->now(), r.id});
        });
        if (ok) QZWLogger::log(QZWLogLevelInfo, message);
    }
}

void QZWAnalytics::markBeaconRegionsUploaded(const std::vector<QZWRegionSessionRecord>& regions) {
    markUploaded(regions, kMarkRegion, "Posted beacon sessions to analytics server");
}

void QZWAnalytics::markGeoRegionsUploaded(const std::vector<QZWGeoSessionRecord>& geos) {
    markUploaded(geos, kMarkGeo, "Posted geo sessions to analytics server");
}

void QZWAnalytics::markEventsUploaded(const std::vector<QZWEventRecord>& events) {
    markUploaded(events, kMarkEvent, "Posted events to analytics server");
}
