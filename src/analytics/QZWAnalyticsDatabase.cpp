#include "analytics/QZWAnalyticsDatabase.h"

#include "platform/console.h"
#include "platform/files.h"

using quenby::platform::Database;
using quenby::platform::DatabaseQueue;
using quenby::platform::dumpQueries;
using quenby::platform::setupVersionedSchema;

QZWAnalyticsDatabase::QZWAnalyticsDatabase(const quenby::platform::Platform& platform)
    : QZWAnalyticsDatabase(platform,
                           quenby::platform::joinPath(platform.documentsDirectory, kFileName)) {}

QZWAnalyticsDatabase::QZWAnalyticsDatabase(const quenby::platform::Platform& platform,
                                           std::optional<std::string> path)
    : databasePath_(std::move(path)),
      databaseQueue_(DatabaseQueue::databaseQueueWithPath(*platform.scheduler, databasePath_)) {
    setupDatabaseSchema();
}

std::unique_ptr<QZWAnalyticsDatabase> QZWAnalyticsDatabase::initWithInMemoryDatabase(
    const quenby::platform::Platform& platform) {
    return std::unique_ptr<QZWAnalyticsDatabase>(new QZWAnalyticsDatabase(platform, std::nullopt));
}

void QZWAnalyticsDatabase::setupDatabaseSchema() {
    // Runs before any other user of the queue exists. Without a connection the batch cannot run,
    // which is reported like any other failure of it.
    if (!databaseQueue_) {
        quenby::platform::consoleWrite("Woah, SQL failed!");
        return;
    }
    setupVersionedSchema(databaseQueue_->database(), kSchema);
}

void QZWAnalyticsDatabase::inTransaction(const std::function<void(Database&, bool&)>& block) const {
    if (databaseQueue_) databaseQueue_->inTransaction(block);
}

void QZWAnalyticsDatabase::dumpDatabaseToConsole() const {
    inTransaction([](Database& db, bool&) {
        dumpQueries(
            db,
            {"select * from schema_version", "select * from region_sessions order by id desc",
             "select * from beacon_sessions order by id desc",
             "select * from events order by id desc",
             "select * from geo_region_sessions order by id desc"},
            " |\n");
    });
}
