// "ZonewiseAnalytics.sqlite": beacon-region sessions, the beacons seen in them, geofence sessions
// and free-form events. This class owns the file and its schema; QZWAnalytics issues the
// statements, each inside a transaction of this class.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/database.h"
#include "platform/platform.h"

class QZWAnalyticsDatabase {
  public:
    static constexpr const char* kFileName = "ZonewiseAnalytics.sqlite";
    static constexpr const char* kSchema =
        "create table if not exists schema_version (version integer);"
        "create table if not exists region_sessions (id integer primary key autoincrement,"
        "entered_at text,exited_at text,region_major integer,region_minor integer,region_uuid "
        "text,uuid text,uploaded_at text);"
        "create table if not exists beacon_sessions (id integer primary key autoincrement,"
        "first_detected_at text,last_detected_at text,beacon_major integer,beacon_minor integer,"
        "beacon_uuid text,uuid text,uploaded_at text,region_session_id integer);"
        "create table if not exists events (id integer primary key autoincrement,event_type "
        "text,event_details blob,uploaded_at text,triggered_at text,uuid text);"
        "create table if not exists geo_region_sessions (id integer primary key autoincrement,"
        "entered_at text,exited_at text,latitude real,longitude real,radius real,uuid text,"
        "region_id text,uploaded_at text);";

    // The file in the documents directory.
    explicit QZWAnalyticsDatabase(const quenby::platform::Platform& platform);
    // A private in-memory database: nothing survives the object.
    static std::unique_ptr<QZWAnalyticsDatabase> initWithInMemoryDatabase(
        const quenby::platform::Platform& platform);

    const std::optional<std::string>& databasePath() const { return databasePath_; }
    // Null when the file could not be opened: every transaction then does nothing.
    const std::shared_ptr<quenby::platform::DatabaseQueue>& databaseQueue() const {
        return databaseQueue_;
    }

    void inTransaction(
        const std::function<void(quenby::platform::Database&, bool& rollback)>& block) const;
    // Prints every table, newest rows first, to standard output.
    void dumpDatabaseToConsole() const;

  private:
    QZWAnalyticsDatabase(const quenby::platform::Platform& platform,
                         std::optional<std::string> path);
    void setupDatabaseSchema();

    std::optional<std::string> databasePath_;
    std::shared_ptr<quenby::platform::DatabaseQueue> databaseQueue_;
};
