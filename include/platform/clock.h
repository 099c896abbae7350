// Every reading of "now" in the library goes through a Clock, so that tests and the simulator can
// run hours of timers in milliseconds.
#pragma once

#include <atomic>

#include "platform/types.h"

namespace quenby::platform {

class Clock {
  public:
    Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock() = default;

    // Thread-safe; any thread.
    virtual Date now() const = 0;
    // Virtual clocks move only when the scheduler advances them; timers never fire by themselves.
    virtual bool isVirtual() const = 0;
};

// Wall-clock time.
class SystemClock final : public Clock {
  public:
    Date now() const override;
    bool isVirtual() const override { return false; }
};

// Time that stands still until Scheduler::advanceTo moves it. Only the scheduler sets it.
class VirtualClock final : public Clock {
  public:
    explicit VirtualClock(Date start) : now_(start.timeIntervalSince1970()) {}
    Date now() const override { return Date::fromSecondsSince1970(now_.load()); }
    bool isVirtual() const override { return true; }

    // Moves the clock forward; a date in the past leaves it where it is.
    void setNow(Date d);

  private:
    std::atomic<double> now_;
};

}  // namespace quenby::platform
