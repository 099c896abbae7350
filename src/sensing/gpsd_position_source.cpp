#include "sensing/gpsd_position_source.h"

#include <errno.h>
#include <fcntl.h>
#include <gps.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <optional>
#include <thread>

#include "platform/console.h"
#include "platform/json.h"
#include "sensing/gpsd_report.h"

namespace quenby::sensing {

namespace {

constexpr double kFirstBackoff = 0.25;  // seconds

// Error codes in the "gpsd" domain besides libgps's own (negative) connection codes.
constexpr long kClosed = 1;      // gpsd closed the connection
constexpr long kUnreadable = 2;  // a report longer than kMaxReportLine, or a read error

// gpsd's longest reports (SKY with every satellite, AIS) stay under 10 kB.
constexpr std::size_t kMaxReportLine = 20000;

}  // namespace

std::optional<Fix> fixFromReport(const gps_data_t& data, platform::Date at) {
    constexpr gps_mask_t kNeeded = MODE_SET | LATLON_SET;
    if ((data.set & kNeeded) != kNeeded || data.fix.mode < MODE_2D) return std::nullopt;
    double lat = data.fix.latitude, lng = data.fix.longitude;
    if (!std::isfinite(lat) || !std::isfinite(lng) || std::fabs(lat) > 90 || std::fabs(lng) > 180)
        return std::nullopt;
    double error = -1;
    if (std::isfinite(data.fix.eph)) {
        error = data.fix.eph;
    } else if (std::isfinite(data.fix.epx) || std::isfinite(data.fix.epy)) {
        error = std::fmax(data.fix.epx, data.fix.epy);  // fmax skips a NaN
    }
    return Fix{lat, lng, error, at};
}

bool decodeReport(std::string line, gps_data_t& data) {
    // Checked without building a tree: libgps decodes the line itself next.
    auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] != '{' || !platform::Json::accept(line))
        return false;
    data.set = 0;
    return gps_unpack(line.data(), &data) == 0;
}

struct GpsdPositionSource::Impl {
    // Set before the reader starts and never changed: read freely from every thread.
    std::shared_ptr<platform::Scheduler> scheduler;
    std::weak_ptr<GeofenceMonitor> monitor;
    Options options;
    std::weak_ptr<Impl> self;  // for tasks that may outlive the source
    int wakeFd = -1;           // eventfd: written once by the destructor, polled by the reader

    // Atomics: set by the destructor (stopping), the reader and host-thread tasks (counters);
    // read by anyone.
    std::atomic<bool> stopping{false};
    std::atomic<std::uint64_t> fixes{0}, connects{0}, failures{0};

    std::thread reader;     // started by create() and joined by the destructor, both host thread
    bool inOutage = false;  // reader thread only: a failure was told and no report came since

    std::string where() const { return options.host + ":" + options.port; }

    // Sleeps for `seconds` unless the destructor wakes the thread first. Answers false when it
    // did.
    bool pause(double seconds) {
        pollfd p{wakeFd, POLLIN, 0};
        int ms = static_cast<int>(std::ceil(seconds * 1000));
        for (;;) {
            auto begin = std::chrono::steady_clock::now();
            int n = ::poll(&p, 1, ms);
            if (n > 0 || stopping) return false;
            if (n == 0) return true;
            if (errno != EINTR) return !stopping;
            ms -= static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - begin)
                                       .count());
            if (ms <= 0) return true;
        }
    }

    void failed(long code, const std::string& why) {
        ++failures;
        if (inOutage) return;
        inOutage = true;
        platform::consoleWrite("Lurewave: gpsd at " + where() + " unavailable (" + why +
                               "); retrying");
        platform::Error error{"gpsd", code, "gpsd at " + where() + " unavailable: " + why};
        std::weak_ptr<GeofenceMonitor> m = monitor;
        scheduler->postToMain([m, error] {
            if (auto monitor = m.lock()) monitor->sourceFailed(error);
        });
    }

    void connectedAgain() {
        if (!inOutage) return;
        inOutage = false;
        platform::consoleWrite("Lurewave: gpsd at " + where() + " connected again");
    }

    void handle(const gps_data_t& data) {
        auto fix = fixFromReport(data, scheduler->now());
        if (!fix) return;
        Fix f = *fix;
        std::weak_ptr<GeofenceMonitor> m = monitor;
        // Counted where the fix reaches the monitor. The task may run after this source is gone
        // (then it does nothing), so it holds the counters weakly.
        scheduler->postToMain([m, f, counter = std::weak_ptr<Impl>(self)] {
            auto monitor = m.lock();
            auto impl = counter.lock();
            if (!monitor || !impl) return;
            ++impl->fixes;
            monitor->fix(f);
        });
    }

    // Reads reports until the connection fails (its code and reason) or the destructor wakes the
    // thread (nothing). `onFirstReport` runs when the first report arrives.
    template <class F>
    std::optional<std::pair<long, std::string>> readUntilLost(gps_data_t& data, F onFirstReport) {
        bool first = true;
        std::string pending;  // what came after the last whole line
        pollfd fds[2] = {{data.gps_fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        for (;;) {
            int n = ::poll(fds, 2, -1);
            if (stopping) return std::nullopt;
            if (n < 0) {
                if (errno == EINTR) continue;
                return std::pair{kUnreadable, std::string("poll: ") + std::strerror(errno)};
            }
            if (fds[1].revents) return std::nullopt;
            if (!fds[0].revents) continue;
            // The socket is non-blocking: read what is there, decode every whole line.
            for (;;) {
                char buf[4096];
                ssize_t got = ::recv(data.gps_fd, buf, sizeof buf, MSG_DONTWAIT);
                if (got == 0) return std::pair{kClosed, std::string("gpsd closed the connection")};
                if (got < 0) {
                    if (errno == EINTR) continue;
                    if (errno == EAGAIN || errno == EWOULDBLOCK) break;
                    return std::pair{kUnreadable, std::string("read: ") + std::strerror(errno)};
                }
                pending.append(buf, static_cast<std::size_t>(got));
                std::size_t start = 0;
                for (std::size_t nl; (nl = pending.find('\n', start)) != std::string::npos;
                     start = nl + 1) {
                    if (nl - start > kMaxReportLine) break;
                    // A line that is no gpsd message (or one libgps makes nothing of) is skipped;
                    // only a real message shows that gpsd is there.
                    if (!decodeReport(pending.substr(start, nl - start), data)) continue;
                    if ((data.set & ~PACKET_SET) == 0) continue;
                    if (first) {
                        first = false;
                        onFirstReport();
                    }
                    handle(data);
                }
                pending.erase(0, start);
                std::size_t line = pending.find('\n');
                if (std::min(line, pending.size()) > kMaxReportLine)
                    return std::pair{kUnreadable, std::string("unreadable report from gpsd: a line over ") +
                                                      std::to_string(kMaxReportLine) + " bytes"};
            }
        }
    }

    void run() {
        double backoff = kFirstBackoff;
        // Large (every AIS and skyview field): kept off the thread's stack.
        auto data = std::make_unique<gps_data_t>();
        while (!stopping) {
            *data = gps_data_t{};
            errno = 0;
            if (gps_open(options.host.c_str(), options.port.c_str(), data.get()) != 0) {
                // libgps leaves its own (negative) code in errno.
                int code = errno;
                failed(code, gps_errstr(code));
            } else if (gps_stream(data.get(), WATCH_ENABLE | WATCH_JSON, nullptr) != 0) {
                gps_close(data.get());
                failed(kUnreadable, "the watch request could not be sent");
            } else {
                ++connects;
                // gps_read must never block: the thread waits in poll() alone, where the
                // destructor can wake it. libgps 3.22 opens the socket non-blocking already;
                // this holds it to that.
                int flags = ::fcntl(data->gps_fd, F_GETFL);
                ::fcntl(data->gps_fd, F_SETFL, flags | O_NONBLOCK);
                auto lost = readUntilLost(*data, [&] {
                    backoff = kFirstBackoff;
                    connectedAgain();
                });
                gps_close(data.get());
                if (!lost) return;
                failed(lost->first, lost->second);
            }
            if (!pause(backoff)) return;
            backoff = std::min(backoff * 2, options.maxBackoff);
        }
    }
};

std::unique_ptr<GpsdPositionSource> GpsdPositionSource::create(
    std::shared_ptr<platform::Scheduler> scheduler, std::shared_ptr<GeofenceMonitor> monitor,
    Options options) {
    auto impl = std::make_shared<Impl>();
    impl->scheduler = std::move(scheduler);
    impl->monitor = monitor;
    impl->options = std::move(options);
    impl->self = impl;
    impl->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (impl->wakeFd < 0) {
        platform::consoleWrite(std::string("Lurewave: cannot follow gpsd: eventfd: ") +
                               std::strerror(errno));
        return nullptr;
    }
    impl->reader = std::thread([raw = impl.get()] { raw->run(); });
    return std::unique_ptr<GpsdPositionSource>(new GpsdPositionSource(std::move(impl)));
}

GpsdPositionSource::~GpsdPositionSource() {
    impl_->stopping = true;
    std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(impl_->wakeFd, &one, sizeof one);
    if (impl_->reader.joinable()) impl_->reader.join();
    ::close(impl_->wakeFd);
}

GpsdPositionSource::Stats GpsdPositionSource::stats() const {
    return Stats{impl_->fixes.load(), impl_->connects.load(), impl_->failures.load()};
}

}  // namespace quenby::sensing
