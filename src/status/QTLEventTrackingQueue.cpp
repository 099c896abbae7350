#include "status/QTLEventTrackingQueue.h"

#include "platform/console.h"

using quenby::platform::Json;

std::shared_ptr<QTLEventTrackingQueue> QTLEventTrackingQueue::initWithConfig(
    std::shared_ptr<quenby::platform::Platform> platform, const Json& config) {
    std::shared_ptr<QTLEventTrackingQueue> q(new QTLEventTrackingQueue(platform));
    q->db_ = std::make_unique<QTLStatusDatabase>(*platform);
    auto urlText = quenby::platform::jsonString(quenby::platform::jsonMember(&config, "url"));
    // Any text a URL parser takes is a URL, a relative reference too: only an exchange that
    // took place may stamp rows, and such a URL fails at the request instead.
    auto url = urlText ? quenby::platform::Url::parseReference(*urlText) : std::nullopt;
    q->uploader_ = std::make_unique<QTLStatusUploader>(
        platform, url,
        quenby::platform::jsonString(quenby::platform::jsonMember(&config, "token")));
    q->setupQueue();
    q->registerUploadSource();
    return q;
}

std::optional<quenby::platform::Date> QTLEventTrackingQueue::lastSuccessfulUpload() const {
    std::lock_guard lk(mu_);
    return lastSuccessfulUpload_;
}

void QTLEventTrackingQueue::setLastSuccessfulUpload(std::optional<quenby::platform::Date> d) {
    std::lock_guard lk(mu_);
    lastSuccessfulUpload_ = d;
}

void QTLEventTrackingQueue::setupQueue() {
    if (!queue_) queue_ = platform_->scheduler->createSerialQueue(kQueueLabel);
}

void QTLEventTrackingQueue::registerUploadSource() {
    if (uploadSource_) return;
    uploadSource_ = quenby::platform::DataAddSource::create(queue_);
    std::weak_ptr<QTLEventTrackingQueue> weak = weak_from_this();
    uploadSource_->setEventHandler([weak](unsigned long) {
        if (auto self = weak.lock()) self->uploadPass();
    });
    uploadSource_->resume();
}

void QTLEventTrackingQueue::uploadEvents() {
    uploadSource_->mergeData(1);
}

void QTLEventTrackingQueue::uploadPass() {
    auto sessions = db_->beaconSessionsToBeUploaded();
    // Blocks this queue for the whole exchange; nothing else of the status layer waits on it.
    auto error = uploader_->sendEvents(sessions);
    if (error) {
        quenby::platform::consoleWrite("Failed uploading events: " + error->toString());
        return;
    }
    // Sending nothing (no URL, no rows) also counts as a success, and marks what was due.
    setLastSuccessfulUpload(platform_->scheduler->now());
    db_->markBeaconSessionsAsUploaded(sessions);
}
