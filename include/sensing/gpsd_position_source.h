// Position fixes from gpsd (libgps, watch mode), fed to a GeofenceMonitor.
//
// Every fix of mode 2 or better becomes a Fix: latitude, longitude, horizontal error from gpsd's
// estimates (eph, else the larger of epx/epy), the fix's time. gpsd absent, restarting or sending
// garbage is logged once per outage and retried with a backoff that doubles from 0.25 s up to
// 5 s; the reader blocks in poll() between reports, never spins.
//
// The reader owns a thread of its own; fixes reach the monitor on the host thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/scheduler.h"
#include "sensing/geofence_monitor.h"

namespace quenby::sensing {

class GpsdPositionSource {
  public:
    struct Options {
        std::string host = "127.0.0.1";
        std::string port = "2947";
        double maxBackoff = 5.0;  // seconds
    };

    // Starts the reader thread. Host thread.
    static std::unique_ptr<GpsdPositionSource> create(std::shared_ptr<platform::Scheduler> scheduler,
                                                      std::shared_ptr<GeofenceMonitor> monitor,
                                                      Options options);
    // Stops the reader thread and closes the connection. Host thread.
    ~GpsdPositionSource();

    struct Stats {
        std::uint64_t fixes = 0;        // fixes handed to the monitor
        std::uint64_t connects = 0;     // successful connections to gpsd
        std::uint64_t failures = 0;     // failed connects and lost connections
    };
    Stats stats() const;

  private:
    struct Impl;
    explicit GpsdPositionSource(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
