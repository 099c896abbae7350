// The analytics recorder and uploader. Region, geofence and beacon notifications (through
// QZWAnalyticsLogger) become session rows; closed sessions and events are sent as one document
// and stamped uploaded. The manager's instance only uploads; the one its logger makes records.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "analytics/QZWAnalyticsDatabase.h"
#include "analytics/QZWAnalyticsRecords.h"
#include "platform/platform.h"
#include "proximity/QZWKit.h"

class QZWAnalyticsLogger;

class QZWAnalytics {
  public:
    using Json = quenby::platform::Json;

    // Opens the database file of the platform's documents directory.
    explicit QZWAnalytics(std::shared_ptr<quenby::platform::Platform> platform);
    ~QZWAnalytics();
    QZWAnalytics(const QZWAnalytics&) = delete;
    QZWAnalytics& operator=(const QZWAnalytics&) = delete;

    const QZWAnalyticsDatabase& db() const { return *db_; }
    // Present while logging: it observes the manager's notifications and records through an
    // analytics instance of its own.
    std::shared_ptr<QZWAnalyticsLogger> logger() const;
    void startLogging();
    void stopLogging();

    // "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC; the fraction of a second is dropped.
    static std::string formatDate(quenby::platform::Date date);

    // Recording. A null region records nothing.
    void openSessionWithRegion(const QZWRegion* region);
    void closeSessionWithRegion(const QZWRegion* region);
    void updateSessionWithRegionAndBeacons(
        const QZWRegion* region, const std::vector<std::shared_ptr<const QZWBeacon>>& beacons);
    void addEventWithDetails(const std::string& type, const Json& details);

    // Uploading: one cycle (nothing is sent when nothing is closed and no event waits).
    void uploadAnalyticsToServer();
    std::vector<QZWRegionSessionRecord> beaconRegionsToBeUploaded();
    std::vector<QZWGeoSessionRecord> geoRegionsToBeUploaded();
    std::vector<QZWEventRecord> eventsToBeUploaded();
    void markBeaconRegionsUploaded(const std::vector<QZWRegionSessionRecord>& regions);
    void markGeoRegionsUploaded(const std::vector<QZWGeoSessionRecord>& geos);
    void markEventsUploaded(const std::vector<QZWEventRecord>& events);

  private:
    // The lowest row id a beacon row of `session` can have, found once per open session.
    std::int64_t firstPossibleRow(quenby::platform::Database& db, std::int32_t session);
    template <class Record>
    void markUploaded(const std::vector<Record>& records, const char* sql, const char* message);

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::unique_ptr<QZWAnalyticsDatabase> db_;
    // Touched only inside this object's transactions, which its database queue serialises.
    std::unordered_map<std::int32_t, std::int64_t> firstRows_;
    mutable std::mutex loggerMutex_;
    std::shared_ptr<QZWAnalyticsLogger> logger_;  // guarded by loggerMutex_
};
