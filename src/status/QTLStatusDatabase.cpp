#include "status/QTLStatusDatabase.h"

#include "platform/files.h"
#include "status/QTLConstants.h"

using quenby::platform::Database;
using quenby::platform::DatabaseQueue;
using quenby::platform::Json;
using quenby::platform::ResultSet;

namespace {

constexpr const char* kInsert =
    "insert into beacon_sessions (first_detected_at, last_detected_at, beacon_uuid, "
    "beacon_major, beacon_minor, uploaded_at) VALUES                      (                ?,  "
    "              ?,           ?,             ?,            ?,       NULL);";
constexpr const char* kUpdate =
    "update beacon_sessions set last_detected_at = ? where beacon_uuid = ? and beacon_major = ? "
    "and beacon_minor = ?;";
constexpr const char* kSession =
    "select * from beacon_sessions where beacon_uuid = ? and beacon_major = ? and beacon_minor = ?";
// datetime() of the stored text (seconds since 1970) is NULL, so a row once stamped is never due
// again: kept exactly as the format has always behaved.
constexpr const char* kDue =
    "select * from beacon_sessions where uploaded_at is null or datetime(uploaded_at) < "
    "datetime(last_detected_at);";
constexpr const char* kMark =
    "update beacon_sessions set uploaded_at = ? where beacon_uuid = ? and beacon_major = ? and "
    "beacon_minor = ?;";

std::optional<quenby::platform::Date> dateOf(const Json& dict, const char* key) {
    auto it = dict.find(key);
    if (it == dict.end() || !it->is_number()) return std::nullopt;
    return quenby::platform::Date::fromSecondsSince1970(it->get<double>());
}

Json member(const Json& dict, const char* key) {
    auto it = dict.find(key);
    return it == dict.end() ? Json() : *it;
}

}  // namespace

QTLBeaconSession QTLBeaconSession::beaconSessionWithResultDictionary(const Json& dict) {
    QTLBeaconSession s;
    if (!dict.is_object()) return s;
    s.uuid = member(dict, QTLBeaconSessionUUIDColumnName);
    s.major = member(dict, QTLBeaconSessionMajorColumnName);
    s.minor = member(dict, QTLBeaconSessionMinorColumnName);
    s.beaconSessionId = member(dict, QTLBeaconSessionIDColumnName);
    s.firstDetectedAt = dateOf(dict, QTLBeaconSessionFirstDetectedAtColumnName);
    s.lastDetectedAt = dateOf(dict, QTLBeaconSessionLastDetectedAtColumnName);
    return s;
}

QTLStatusDatabase::QTLStatusDatabase(const quenby::platform::Platform& platform)
    : QTLStatusDatabase(platform,
                        quenby::platform::joinPath(platform.documentsDirectory, kFileName)) {}

QTLStatusDatabase::QTLStatusDatabase(const quenby::platform::Platform& platform,
                                     std::optional<std::string> path)
    : scheduler_(platform.scheduler),
      databasePath_(std::move(path)),
      databaseQueue_(DatabaseQueue::databaseQueueWithPath(*platform.scheduler, databasePath_)) {
    if (databaseQueue_) {
        databaseQueue_->inDatabase(
            [](Database& db) { quenby::platform::setupVersionedSchema(db, kSchema); });
    }
}

std::unique_ptr<QTLStatusDatabase> QTLStatusDatabase::initWithInMemoryDatabase(
    const quenby::platform::Platform& platform) {
    return std::unique_ptr<QTLStatusDatabase>(new QTLStatusDatabase(platform, std::nullopt));
}

void QTLStatusDatabase::inTransaction(const std::function<void(Database&, bool&)>& block) {
    if (databaseQueue_) databaseQueue_->inTransaction(block);
}

std::optional<QTLBeaconSession> QTLStatusDatabase::rangedBeacon(const QTLBeacon& beacon) {
    if (beaconExists(beacon)) {
        updateBeaconSession(beacon);
    } else {
        insertNewBeaconSession(beacon);
    }
    return sessionForBeacon(beacon);
}

bool QTLStatusDatabase::beaconExists(const QTLBeacon& beacon) {
    return sessionForBeacon(beacon).has_value();
}

void QTLStatusDatabase::insertNewBeaconSession(const QTLBeacon& beacon) {
    inTransaction([&](Database& db, bool&) {
        db.executeUpdate(kInsert, {scheduler_->now(), scheduler_->now(), beacon.uuid, beacon.major,
                                   beacon.minor});
    });
}

void QTLStatusDatabase::updateBeaconSession(const QTLBeacon& beacon) {
    inTransaction([&](Database& db, bool&) {
        db.executeUpdate(kUpdate, {scheduler_->now(), beacon.uuid, beacon.major, beacon.minor});
    });
}

std::optional<QTLBeaconSession> QTLStatusDatabase::sessionForBeacon(const QTLBeacon& beacon) {
    std::optional<QTLBeaconSession> out;
    if (!databaseQueue_) return out;
    databaseQueue_->inDatabase([&](Database& db) {
        auto rs = db.executeQuery(kSession, {beacon.uuid, beacon.major, beacon.minor});
        if (rs && rs->next()) {
            out =
                QTLBeaconSession::beaconSessionWithResultDictionary(beaconSessonFromResultSet(*rs));
        }
    });
    return out;
}

std::vector<QTLBeaconSession> QTLStatusDatabase::beaconSessionsToBeUploaded() {
    std::vector<QTLBeaconSession> out;
    inTransaction([&](Database& db, bool&) {
        auto rs = db.executeQuery(kDue);
        while (rs && rs->next()) {
            out.push_back(QTLBeaconSession::beaconSessionWithResultDictionary(
                beaconSessonFromResultSet(*rs)));
        }
    });
    return out;
}

void QTLStatusDatabase::markBeaconSessionAsUploaded(const QTLBeaconSession& s) {
    // Matched by the beacon's identity, not by id.
    inTransaction([&](Database& db, bool&) {
        db.executeUpdate(kMark, {scheduler_->now(), s.uuid, s.major, s.minor});
    });
}

void QTLStatusDatabase::markBeaconSessionsAsUploaded(const std::vector<QTLBeaconSession>& list) {
    for (const auto& s : list) markBeaconSessionAsUploaded(s);
}

std::string QTLStatusDatabase::formatDate(quenby::platform::Date date) {
    return quenby::platform::formatUTC(date, true);
}

void QTLStatusDatabase::dumpDatabaseToConsole() {
    inTransaction([](Database& db, bool&) {
        quenby::platform::dumpQueries(db, {"select * from beacon_sessions order by id desc"},
                                      " | \n");
    });
}

Json QTLStatusDatabase::beaconSessonFromResultSet(const ResultSet& rs) {
    Json d = Json::object();
    for (const char* key : {QTLBeaconSessionUUIDColumnName, QTLBeaconSessionMajorColumnName,
                            QTLBeaconSessionMinorColumnName, QTLBeaconSessionIDColumnName}) {
        d[key] = rs.objectForColumn(key);
    }
    for (const char* key :
         {QTLBeaconSessionFirstDetectedAtColumnName, QTLBeaconSessionLastDetectedAtColumnName}) {
        if (auto date = rs.dateForColumn(key)) d[key] = date->timeIntervalSince1970();
    }
    return d;
}
