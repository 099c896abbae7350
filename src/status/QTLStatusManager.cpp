#include "status/QTLStatusManager.h"

#include "platform/console.h"
#include "status/QTLEventTrackingQueue.h"
#include "status/QTLStatusDatabase.h"

using quenby::platform::Json;

QTLStatusManager::QTLStatusManager(std::shared_ptr<quenby::platform::Platform> p)
    : platform_(std::move(p)) {}

QTLStatusManager::~QTLStatusManager() = default;

std::shared_ptr<QTLStatusManager> QTLStatusManager::initWithConfig(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& config) {
    auto db = std::make_unique<QTLStatusDatabase>(*platform);
    return initWithDatabase(std::move(platform), std::move(db), config);
}

std::shared_ptr<QTLStatusManager> QTLStatusManager::initWithInMemoryDatabase(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& config) {
    auto db = QTLStatusDatabase::initWithInMemoryDatabase(*platform);
    return initWithDatabase(std::move(platform), std::move(db), config);
}

std::shared_ptr<QTLStatusManager> QTLStatusManager::initWithDatabase(
    std::shared_ptr<quenby::platform::Platform> platform, std::unique_ptr<QTLStatusDatabase> db,
    const Json& config) {
    std::shared_ptr<QTLStatusManager> m(new QTLStatusManager(platform));
    m->db_ = std::move(db);
    m->eventTracker_ = QTLEventTrackingQueue::initWithConfig(platform, config);
    m->setupWatchdogQueue();
    m->startUploadWatchdog();
    return m;
}

void QTLStatusManager::rangedBeacon(const QTLBeacon& beacon) {
    db_->rangedBeacon(beacon);
    bufferedUpload();
}

void QTLStatusManager::uploadEvents() {
    eventTracker_->uploadEvents();
}

void QTLStatusManager::bufferedUpload() {
    if (isTimeToUpload()) uploadEvents();
}

bool QTLStatusManager::isTimeToUpload() const {
    auto last = eventTracker_->lastSuccessfulUpload();
    if (!last) return true;
    double sinceNow = last->timeIntervalSince(platform_->scheduler->now());  // negative: past
    return sinceNow < 0.0 - uploadThresholdSeconds.load();
}

void QTLStatusManager::setupWatchdogQueue() {
    if (!watchdogQueue_)
        watchdogQueue_ = platform_->scheduler->createSerialQueue(kWatchdogQueueLabel);
}

void QTLStatusManager::startUploadWatchdog() {
    if (uploadWatchdog_) return;
    auto timer = quenby::platform::TimerSource::create(watchdogQueue_);
    if (!timer) {
        quenby::platform::consoleWrite("Failed to create a watchdog timer - reason unknown.");
        return;
    }
    uploadWatchdog_ = timer;
    std::weak_ptr<QTLStatusManager> weak = weak_from_this();
    timer->setEventHandler([weak] {
        if (auto self = weak.lock()) self->bufferedUpload();
    });
    timer->setTimer(platform_->scheduler->now(),
                    std::chrono::seconds(uploadThresholdSeconds.load()), std::chrono::seconds(1));
    timer->resume();
}

void QTLStatusManager::stopTimedUpload() {
    if (!uploadWatchdog_) return;
    uploadWatchdog_->cancel();
    uploadWatchdog_.reset();
}
