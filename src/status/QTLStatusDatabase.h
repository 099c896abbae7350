// "Tallyline.sqlite": one row per beacon ever ranged, with its first and last sighting and the
// time it was last reported to the status server.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/platform.h"
#include "status/QTLBeacon.h"

// The in-memory form of one row.
struct QTLBeaconSession {
    quenby::platform::Json uuid, major, minor, beaconSessionId;
    std::optional<quenby::platform::Date> firstDetectedAt, lastDetectedAt;

    // From a dictionary keyed by the column-name constants (dates as seconds since 1970); a
    // missing key leaves its property null.
    static QTLBeaconSession beaconSessionWithResultDictionary(const quenby::platform::Json& dict);
};

class QTLStatusDatabase {
  public:
    static constexpr const char* kFileName = "Tallyline.sqlite";
    static constexpr const char* kSchema =
        "create table if not exists schema_version (version integer);create table if not exists "
        "beacon_sessions (id integer primary key autoincrement,first_detected_at "
        "text,last_detected_at text,beacon_major integer,beacon_minor integer,beacon_uuid "
        "text,uuid text,uploaded_at text);";

    explicit QTLStatusDatabase(const quenby::platform::Platform& platform);
    static std::unique_ptr<QTLStatusDatabase> initWithInMemoryDatabase(
        const quenby::platform::Platform& platform);

    const std::optional<std::string>& databasePath() const { return databasePath_; }
    const std::shared_ptr<quenby::platform::DatabaseQueue>& databaseQueue() const {
        return databaseQueue_;
    }

    // Records one sighting (a read, then an insert or update, then a read: not one transaction)
    // and answers the row as it now stands.
    std::optional<QTLBeaconSession> rangedBeacon(const QTLBeacon& beacon);
    bool beaconExists(const QTLBeacon& beacon);
    void insertNewBeaconSession(const QTLBeacon& beacon);
    void updateBeaconSession(const QTLBeacon& beacon);
    std::optional<QTLBeaconSession> sessionForBeacon(const QTLBeacon& beacon);
    // Rows never reported, or (as the stored dates read) sighted since.
    std::vector<QTLBeaconSession> beaconSessionsToBeUploaded();
    void markBeaconSessionAsUploaded(const QTLBeaconSession& session);
    void markBeaconSessionsAsUploaded(const std::vector<QTLBeaconSession>& sessions);
    void inTransaction(
        const std::function<void(quenby::platform::Database&, bool& rollback)>& block);
    // "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'" in UTC.
    static std::string formatDate(quenby::platform::Date date);
    void dumpDatabaseToConsole();
    // The current row as a dictionary keyed by the column-name constants.
    static quenby::platform::Json beaconSessonFromResultSet(const quenby::platform::ResultSet& rs);

  private:
    QTLStatusDatabase(const quenby::platform::Platform& platform, std::optional<std::string> path);

    std::shared_ptr<quenby::platform::Scheduler> scheduler_;
    std::optional<std::string> databasePath_;
    std::shared_ptr<quenby::platform::DatabaseQueue> databaseQueue_;
};
