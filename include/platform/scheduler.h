// Threads, queues and timers, in the manner of a run loop plus Grand Central Dispatch:
//
//  - the host thread's run loop: run-loop timers, main-queue work and, at the end of every pass,
//    the delivery of the thread's queued notifications;
//  - serial dispatch queues, a global concurrent queue, data-add and timer sources, all served by
//    one thread pool that grows when every thread is blocked (so a queue blocked in a synchronous
//    HTTP exchange or a database wait never starves another);
//  - on a virtual clock, advanceTo() and settle(), which make every test deterministic: time moves
//    only when told, and settle() returns once no work of any kind is left.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/types.h"

namespace quenby::platform {

class DispatchQueue;
class ThreadPool;
class RunLoopTimer;

namespace detail {
struct TimerCore;
}

class Scheduler : public std::enable_shared_from_this<Scheduler> {
  public:
    // The calling thread becomes the host thread.
    static std::shared_ptr<Scheduler> create(std::shared_ptr<Clock> clock);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    const Clock& clock() const { return *clock_; }
    Date now() const { return clock_->now(); }
    bool isVirtual() const { return clock_->isVirtual(); }

    // --- The host thread's run loop -------------------------------------------------------
    bool isHostThread() const { return std::this_thread::get_id() == hostThread_; }

    // Runs `task` as one pass of the run loop, then delivers the notifications queued on this
    // thread during the pass. Host thread only.
    void performPass(const Task& task);
    // Queues work for the host thread (dispatch_async to the main queue). Any thread.
    void postToMain(Task task);
    // Queues work for the host thread once `seconds` have passed on the clock. Any thread.
    void postToMainAfter(double seconds, Task task);
    // A timer on the host run loop, first firing `interval` seconds from now. Any thread; the
    // task always runs on the host thread, as a pass of its own.
    std::shared_ptr<RunLoopTimer> scheduleRunLoopTimer(double interval, bool repeats, Task task);

    // Serves the host run loop on the calling thread until stop(). For hosts that have no loop
    // of their own; on a virtual clock use advanceTo()/settle() instead.
    void run();
    void stop();

    // --- Background work -------------------------------------------------------------------
    std::shared_ptr<DispatchQueue> createSerialQueue(std::string label);
    // The global concurrent queue: each task runs on a pool thread, in no particular order.
    void dispatchGlobal(Task task);

    // --- Determinism ------------------------------------------------------------------------
    // Moves a virtual clock to `target`, firing every timer due at or before it in order of due
    // time (ties in order of creation) and settling after each. Host thread only.
    void advanceTo(Date target);
    void advanceBy(double seconds) { advanceTo(now().addingTimeInterval(seconds)); }
    // Runs until no work is left: timers due now, main-queue work, queued notifications of the
    // host thread, queue tasks, source handlers and every WorkToken held (HTTP in flight). Time
    // does not move. Host thread only. On a virtual clock what is due runs one item at a time in
    // order of due time and creation (timers and main-queue work alike), each item's background
    // work finishing before the next item starts.
    void settle();

    // Blocks until `pred` (read under `lk`) holds or `deadline` passes on the clock; answers
    // pred(). On the wall clock this is a wait on `cv`, which whoever changes the predicate must
    // notify. On a virtual clock the waiter looks at the predicate whenever no background work is
    // left, and if it does not hold, time moves on (firing queue timers on the way) to the
    // deadline. Run-loop timers wait for the host thread, which is the one blocked here.
    bool waitUntil(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Date deadline,
                   const std::function<bool()>& pred);

    // Marks work that runs outside the queues (an HTTP exchange) so that settle() waits for it.
    class WorkToken {
      public:
        WorkToken() = default;
        explicit WorkToken(Scheduler* s);
        WorkToken(WorkToken&& o) noexcept : s_(std::exchange(o.s_, nullptr)) {}
        WorkToken& operator=(WorkToken&& o) noexcept;
        WorkToken(const WorkToken&) = delete;
        WorkToken& operator=(const WorkToken&) = delete;
        ~WorkToken() { release(); }
        void release();

      private:
        Scheduler* s_ = nullptr;
    };
    WorkToken beginWork() { return WorkToken(this); }

    // --- Used by the queue and source implementations ---------------------------------------
    // Runs `task` on a pool thread as one accounted work item.
    void submitBackground(Task task);
    std::shared_ptr<detail::TimerCore> addTimer(Date due, double interval, bool repeats,
                                                bool onHost, Task fire);
    void cancelTimer(const std::shared_ptr<detail::TimerCore>& t);

    // On a virtual clock one thread runs at a time, taking turns in the order they were asked
    // for: host passes and background tasks alike. A thread that is about to block on another
    // yields its turn; the thread that wakes it reserves its next turn for it, so that the order
    // stays the same from run to run. On the system clock these do nothing.
    std::uint64_t reserveTurn();
    // Blocks until `turn` (0: a new one, after every turn reserved so far) comes. A thread that
    // waits too long (its turn held by one blocked where no turn is yielded) goes on without it.
    void awaitTurn(std::uint64_t turn = 0);
    // Ends the calling thread's turn, if it has one; answers whether it had.
    bool yieldTurn();
    bool holdsTurn() const;

  private:
    explicit Scheduler(std::shared_ptr<Clock> clock);
    void beginWorkUnit();
    void endWorkUnit();
    // Pops one timer due at or before now and fires it; false when none is due.
    bool fireOneDueTimer();
    bool hasDueTimerLocked() const;
    void timerThreadMain();
    void insertTimerLocked(const std::shared_ptr<detail::TimerCore>& t);
    // Blocks the host until no work unit is outstanding. `lk` holds mu_.
    void waitForQuietLocked(std::unique_lock<std::mutex>& lk);

    // (due time, creation order): one sequence for timers and main-queue work, so that what is
    // due at one virtual instant runs in the order it was asked for.
    using Key = std::pair<double, std::uint64_t>;

    std::shared_ptr<Clock> clock_;
    std::thread::id hostThread_;
    std::unique_ptr<ThreadPool> pool_;

    mutable std::mutex mu_;
    // Each waiter has its own condition variable and is woken only for what it waits on: an idle
    // process then wakes for its timers, not for every background task that ends.
    std::condition_variable hostCv_;   // main_ or stop_ changed; for workWaiters_: a unit ended
    std::condition_variable timerCv_;  // the earliest timer changed, or shuttingDown_
    long outstanding_ = 0;             // guarded by mu_
    int workWaiters_ = 0;              // guarded by mu_: host waits that end with a work unit
    std::deque<std::pair<Key, Task>> main_;  // guarded by mu_; in key order
    bool stop_ = false;                      // guarded by mu_; run() returns
    bool shuttingDown_ = false;              // guarded by mu_; timer thread exits
    std::uint64_t seq_ = 0;                  // guarded by mu_
    // Pending timers by key. Guarded by mu_.
    std::map<Key, std::shared_ptr<detail::TimerCore>> timers_;
    std::thread timerThread_;  // system clock only: fires timers when due

    // Turns (virtual clock only); guarded by turnMu_.
    mutable std::mutex turnMu_;
    std::condition_variable turnCv_;
    std::uint64_t nextTurn_ = 1;
    std::uint64_t currentTurn_ = 0;  // 0: nobody's turn
    std::uint64_t turnsTaken_ = 0;
    std::set<std::uint64_t> reservedTurns_;  // reserved, not yet taken
};

// A timer on the host run loop (the platform's repeating run-loop timer).
class RunLoopTimer {
  public:
    explicit RunLoopTimer(std::weak_ptr<Scheduler> s, std::shared_ptr<detail::TimerCore> core)
        : scheduler_(std::move(s)), core_(std::move(core)) {}
    ~RunLoopTimer();
    RunLoopTimer(const RunLoopTimer&) = delete;
    RunLoopTimer& operator=(const RunLoopTimer&) = delete;
    // Stops the timer for good; a firing already under way completes. Any thread.
    void invalidate();
    bool isValid() const;

  private:
    std::weak_ptr<Scheduler> scheduler_;
    std::shared_ptr<detail::TimerCore> core_;
};

// A serial queue: tasks run one at a time, in the order queued, on pool threads.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
  public:
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const { return label_; }
    // Queues `task`. Any thread. A queue whose scheduler is gone drops it.
    void async(Task task);
    // Runs `fn` on the calling thread once every task queued before it has run, with the queue
    // held for the duration, so nothing else of the queue runs meanwhile. Called from a task of
    // this very queue it runs at once.
    void sync(const std::function<void()>& fn);
    // True while the calling thread runs a task (or a sync block) of this queue.
    bool isCurrent() const;

    const std::weak_ptr<Scheduler>& scheduler() const { return scheduler_; }

  private:
    friend class Scheduler;
    struct State;
    DispatchQueue(std::weak_ptr<Scheduler> s, std::string label);
    void schedule();
    static void scheduleDrain(const std::shared_ptr<State>& state,
                              const std::weak_ptr<Scheduler>& scheduler);

    std::weak_ptr<Scheduler> scheduler_;
    std::string label_;
    std::shared_ptr<State> state_;
};

// A source that sums the values merged into it and runs its handler once per batch: merges that
// arrive while a run is pending join it; merges during a run cause one more run afterwards.
class DataAddSource : public std::enable_shared_from_this<DataAddSource> {
  public:
    using Handler = std::function<void(unsigned long data)>;
    // Sources start suspended: merges accumulate until resume().
    static std::shared_ptr<DataAddSource> create(std::shared_ptr<DispatchQueue> queue);
    ~DataAddSource();

    void setEventHandler(Handler h);
    void mergeData(unsigned long value);
    void resume();
    void cancel();

  private:
    explicit DataAddSource(std::shared_ptr<DispatchQueue> q) : queue_(std::move(q)) {}
    void scheduleLocked();

    std::shared_ptr<DispatchQueue> queue_;
    std::mutex mu_;
    Handler handler_;         // guarded by mu_
    unsigned long data_ = 0;  // guarded by mu_
    bool pending_ = false;    // guarded by mu_: a handler run is queued and has not started
    bool resumed_ = false;    // guarded by mu_
    bool cancelled_ = false;  // guarded by mu_
};

// A timer that runs its handler on a queue. Fires that come while a run is still queued or
// running merge into it. Destroying the source cancels it.
class TimerSource : public std::enable_shared_from_this<TimerSource> {
  public:
    static std::shared_ptr<TimerSource> create(std::shared_ptr<DispatchQueue> queue);
    ~TimerSource();

    // First firing at `start`, then every `interval`. The leeway is accepted for fidelity; the
    // scheduler always fires on time.
    void setTimer(Date start, std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway);
    void setEventHandler(Task h);
    void resume();
    void cancel();

  private:
    explicit TimerSource(std::shared_ptr<DispatchQueue> q) : queue_(std::move(q)) {}
    void arm();
    void fire();

    std::shared_ptr<DispatchQueue> queue_;
    std::mutex mu_;
    Task handler_;                               // guarded by mu_
    Date start_;                                 // guarded by mu_
    std::chrono::nanoseconds interval_{0};       // guarded by mu_
    bool configured_ = false, resumed_ = false;  // guarded by mu_
    bool cancelled_ = false, pending_ = false;   // guarded by mu_
    std::shared_ptr<detail::TimerCore> core_;    // guarded by mu_
};

}  // namespace quenby::platform
