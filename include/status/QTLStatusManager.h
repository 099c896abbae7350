// The status layer's entry point: records every ranged beacon's sighting in "Tallyline.sqlite"
// and uploads what is due, at most about once per threshold, from a watchdog timer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/json.h"
#include "platform/platform.h"
#include "status/QTLBeacon.h"

class QTLStatusDatabase;
class QTLEventTrackingQueue;

class QTLStatusManager : public std::enable_shared_from_this<QTLStatusManager> {
  public:
    static constexpr const char* kWatchdogQueueLabel = "com.quenby.tallyline.watchdogs";

    // `config`: {"url": status endpoint, "token": status API token}. Starts working at once: the
    // watchdog's first tick (and so the first upload pass) comes right away.
    static std::shared_ptr<QTLStatusManager> initWithConfig(
        std::shared_ptr<quenby::platform::Platform> platform, const quenby::platform::Json& config);
    static std::shared_ptr<QTLStatusManager> initWithInMemoryDatabase(
        std::shared_ptr<quenby::platform::Platform> platform, const quenby::platform::Json& config);
    static std::shared_ptr<QTLStatusManager> initWithDatabase(
        std::shared_ptr<quenby::platform::Platform> platform, std::unique_ptr<QTLStatusDatabase> db,
        const quenby::platform::Json& config);
    ~QTLStatusManager();
    QTLStatusManager(const QTLStatusManager&) = delete;
    QTLStatusManager& operator=(const QTLStatusManager&) = delete;

    static std::string getVersion() { return "1"; }

    // Records one sighting, then asks for an upload if one is due.
    void rangedBeacon(const QTLBeacon& beacon);
    void uploadEvents();
    void bufferedUpload();
    // True before the first successful pass, then once strictly more than the threshold has
    // passed since the last.
    bool isTimeToUpload() const;
    void setupWatchdogQueue();
    void startUploadWatchdog();
    void stopTimedUpload();

    // Minimum spacing of uploads. The watchdog's period is read once, when it starts.
    std::atomic<std::int32_t> uploadThresholdSeconds{30};

    QTLStatusDatabase& db() { return *db_; }
    QTLEventTrackingQueue& eventTracker() { return *eventTracker_; }

  private:
    explicit QTLStatusManager(std::shared_ptr<quenby::platform::Platform> p);

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::unique_ptr<QTLStatusDatabase> db_;
    std::shared_ptr<QTLEventTrackingQueue> eventTracker_;
    std::shared_ptr<quenby::platform::DispatchQueue> watchdogQueue_;
    std::shared_ptr<quenby::platform::TimerSource> uploadWatchdog_;  // touched on the host thread
};
