// Runs status uploads on the serial queue "com.quenby.tallyline.events". Any number of requests
// for an upload merge, through a data-add source, into one pass.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "platform/json.h"
#include "platform/platform.h"
#include "status/QTLStatusDatabase.h"
#include "status/QTLStatusUploader.h"

class QTLEventTrackingQueue : public std::enable_shared_from_this<QTLEventTrackingQueue> {
  public:
    static constexpr const char* kQueueLabel = "com.quenby.tallyline.events";

    // `config`: {"url": status endpoint, "token": status API token}.
    static std::shared_ptr<QTLEventTrackingQueue> initWithConfig(
        std::shared_ptr<quenby::platform::Platform> platform, const quenby::platform::Json& config);

    // The time of the last pass that ended without a transport error. Any thread.
    std::optional<quenby::platform::Date> lastSuccessfulUpload() const;
    void setLastSuccessfulUpload(std::optional<quenby::platform::Date> d);

    QTLStatusDatabase& db() { return *db_; }
    const QTLStatusUploader& uploader() const { return *uploader_; }
    const std::shared_ptr<quenby::platform::DispatchQueue>& queue() const { return queue_; }

    // Asks for a pass; returns at once.
    void uploadEvents();

  private:
    explicit QTLEventTrackingQueue(std::shared_ptr<quenby::platform::Platform> p)
        : platform_(std::move(p)) {}
    void setupQueue();
    void registerUploadSource();
    void uploadPass();

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::unique_ptr<QTLStatusDatabase> db_;
    std::unique_ptr<QTLStatusUploader> uploader_;
    std::shared_ptr<quenby::platform::DispatchQueue> queue_;
    std::shared_ptr<quenby::platform::DataAddSource> uploadSource_;
    mutable std::mutex mu_;
    std::optional<quenby::platform::Date> lastSuccessfulUpload_;  // guarded by mu_
};
