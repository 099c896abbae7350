// Position fixes from gpsd (libgps, watch mode), fed to a GeofenceMonitor.
//
// Every fix of mode 2 or better becomes a Fix: latitude, longitude, horizontal error from gpsd's
// estimates (eph, else the larger of epx/epy, else unknown), the time it arrived on the
// scheduler's clock. gpsd absent, restarting or sending garbage is logged once per outage, told
// to the monitor once per outage (GeofenceMonitor::sourceFailed, domain "gpsd") and retried with a
// backoff that doubles from 0.25 s up to 5 s; the first report on a new connection ends the
// outage (one more log line) and starts the backoff again. The reader blocks in poll() on the
// gpsd socket and a wake-up descriptor between reports and between retries: no timeouts while
// connected, no spinning.
//
// The reader owns a thread of its own and only decodes; fixes and failures reach the monitor on
// the host thread, which holds it weakly. The connection to a local gpsd is refused at once when
// it is absent; a remote host that drops connection attempts can hold the destructor for as long
// as the system's connect timeout.
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

    // Starts the reader thread; nothing when the process is out of file descriptors. Host
    // thread.
    static std::unique_ptr<GpsdPositionSource> create(
        std::shared_ptr<platform::Scheduler> scheduler, std::shared_ptr<GeofenceMonitor> monitor,
        Options options);
    // Stops the reader thread and closes the connection. Host thread.
    ~GpsdPositionSource();

    struct Stats {
        std::uint64_t fixes = 0;     // fixes handed to the monitor
        std::uint64_t connects = 0;  // successful connections to gpsd
        std::uint64_t failures = 0;  // failed connects and lost connections
    };
    Stats stats() const;

  private:
    struct Impl;
    explicit GpsdPositionSource(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

}  // namespace quenby::sensing
