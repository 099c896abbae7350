#include "platform/scheduler.h"

#include <pthread.h>
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <vector>

#include "platform/console.h"
#include "platform/notifications.h"

namespace quenby::platform {

// ---------------------------------------------------------------------------------------------
// Thread pool. A thread is added whenever work arrives and no thread is idle, because queue
// tasks block (synchronous HTTP, database waits, sync() on another queue): a fixed-size pool
// could deadlock where the platform's own dispatch would not.

class ThreadPool {
  public:
    ThreadPool() : state_(std::make_shared<State>()) {}
    ~ThreadPool() {
        {
            std::lock_guard lk(state_->mu);
            state_->stopping = true;
        }
        state_->cv.notify_all();
        for (auto& t : threads_) {
            // The pool may go with the last owner of its scheduler, released by one of its own
            // threads: that thread finishes on the shared state.
            if (t.get_id() == std::this_thread::get_id()) {
                t.detach();
            } else {
                t.join();
            }
        }
    }

    void submit(Task task) {
        std::lock_guard lk(state_->mu);
        state_->tasks.push_back(std::move(task));
        if (state_->idle == 0 && threads_.size() < kMaxThreads) {
            threads_.emplace_back([state = state_] { workerMain(*state); });
        } else {
            state_->cv.notify_one();
        }
    }

  private:
    static constexpr std::size_t kMaxThreads = 512;

    struct State {
        std::mutex mu;
        std::condition_variable cv;
        std::deque<Task> tasks;  // guarded by mu
        std::size_t idle = 0;    // guarded by mu
        bool stopping = false;   // guarded by mu
    };

    static void workerMain(State& s) {
        pthread_setname_np(pthread_self(), "quenby-pool");  // told apart in /proc and debuggers
        NotificationQueue::markThreadDeferring();
        std::unique_lock lk(s.mu);
        for (;;) {
            ++s.idle;
            s.cv.wait(lk, [&] { return s.stopping || !s.tasks.empty(); });
            --s.idle;
            // Work queued before shutdown still runs: it holds accounting the owner waits on.
            if (s.tasks.empty()) return;
            Task t = std::move(s.tasks.front());
            s.tasks.pop_front();
            lk.unlock();
            t();
            t = nullptr;
            lk.lock();
        }
    }

    std::shared_ptr<State> state_;
    std::vector<std::thread> threads_;  // guarded by state_->mu; the destructor runs alone
};

// ---------------------------------------------------------------------------------------------
// Clocks

Date SystemClock::now() const {
    using namespace std::chrono;
    auto d = duration_cast<duration<double>>(system_clock::now().time_since_epoch());
    return Date::fromSecondsSince1970(d.count());
}

void VirtualClock::setNow(Date d) {
    double target = d.timeIntervalSince1970();
    double cur = now_.load();
    while (target > cur && !now_.compare_exchange_weak(cur, target)) {
    }
}

// ---------------------------------------------------------------------------------------------
// Timers

namespace detail {
struct TimerCore {
    double interval = 0;
    bool repeats = false;
    bool onHost = false;
    Task fire;
    std::atomic<bool> cancelled{false};
    std::optional<std::pair<double, std::uint64_t>> key;  // guarded by Scheduler::mu_
};
}  // namespace detail

namespace {
// The shortest interval a repeating timer may have, as the platform's run-loop timers use.
constexpr double kMinInterval = 0.0001;
}  // namespace

Scheduler::Scheduler(std::shared_ptr<Clock> clock)
    : clock_(std::move(clock)),
      hostThread_(std::this_thread::get_id()),
      pool_(std::make_unique<ThreadPool>()) {}

std::shared_ptr<Scheduler> Scheduler::create(std::shared_ptr<Clock> clock) {
    std::shared_ptr<Scheduler> s(new Scheduler(std::move(clock)));
    NotificationQueue::markThreadDeferring();
    if (!s->clock_->isVirtual())
        s->timerThread_ = std::thread([p = s.get()] { p->timerThreadMain(); });
    return s;
}

namespace {
// Set on the timer thread when the scheduler it serves was destroyed by a timer it fired: the
// thread then leaves without touching the scheduler again.
thread_local bool tlTimerThreadOrphaned = false;
}  // namespace

Scheduler::~Scheduler() {
    {
        std::lock_guard lk(mu_);
        shuttingDown_ = true;
    }
    timerCv_.notify_all();
    if (timerThread_.joinable()) {
        if (timerThread_.get_id() == std::this_thread::get_id()) {
            tlTimerThreadOrphaned = true;
            timerThread_.detach();
        } else {
            timerThread_.join();
        }
    }
    pool_.reset();  // runs what is queued, then joins
}

void Scheduler::insertTimerLocked(const std::shared_ptr<detail::TimerCore>& t) {
    timers_.emplace(*t->key, t);
}

std::shared_ptr<detail::TimerCore> Scheduler::addTimer(Date due, double interval, bool repeats,
                                                       bool onHost, Task fire) {
    auto t = std::make_shared<detail::TimerCore>();
    t->interval = std::max(interval, kMinInterval);
    t->repeats = repeats;
    t->onHost = onHost;
    t->fire = std::move(fire);
    bool earliest;
    bool hostWaits;
    {
        std::lock_guard lk(mu_);
        t->key = std::make_pair(due.timeIntervalSince1970(), seq_++);
        insertTimerLocked(t);
        earliest = timers_.begin()->second == t;
        hostWaits = workWaiters_ > 0;
    }
    // The timer thread sleeps until the earliest timer: only a new earliest one changes that.
    if (earliest && !isVirtual()) timerCv_.notify_one();
    if (hostWaits && isVirtual()) hostCv_.notify_all();
    return t;
}

void Scheduler::cancelTimer(const std::shared_ptr<detail::TimerCore>& t) {
    if (!t) return;
    t->cancelled = true;
    std::lock_guard lk(mu_);
    if (t->key) {
        timers_.erase(*t->key);
        t->key.reset();
    }
}

bool Scheduler::hasDueTimerLocked() const {
    return !timers_.empty() && timers_.begin()->first.first <= now().timeIntervalSince1970();
}

bool Scheduler::fireOneDueTimer() {
    std::shared_ptr<detail::TimerCore> t;
    {
        std::lock_guard lk(mu_);
        if (!hasDueTimerLocked()) return false;
        auto it = timers_.begin();
        t = it->second;
        double due = it->first.first;
        timers_.erase(it);
        t->key.reset();
        if (t->repeats) {
            double next = due + t->interval;
            // On the wall clock a late timer skips the firings it missed, as run-loop timers do.
            if (!isVirtual()) {
                double nowS = now().timeIntervalSince1970();
                if (next <= nowS) next += t->interval * std::ceil((nowS - next) / t->interval);
            }
            t->key = std::make_pair(next, seq_++);
            insertTimerLocked(t);
        }
    }
    if (t->cancelled) return true;
    if (t->onHost) {
        if (isHostThread()) {
            performPass([t] {
                if (!t->cancelled) t->fire();
            });
        } else {
            postToMain([t] {
                if (!t->cancelled) t->fire();
            });
        }
    } else {
        t->fire();
    }
    return true;
}

void Scheduler::timerThreadMain() {
    pthread_setname_np(pthread_self(), "quenby-timer");
    std::unique_lock lk(mu_);
    while (!shuttingDown_) {
        if (hasDueTimerLocked()) {
            lk.unlock();
            fireOneDueTimer();
            if (tlTimerThreadOrphaned) return;  // `this` is gone
            lk.lock();
            continue;
        }
        if (timers_.empty()) {
            timerCv_.wait(lk);
        } else {
            double dueS = timers_.begin()->first.first;
            double wait = dueS - now().timeIntervalSince1970();
            timerCv_.wait_for(lk, std::chrono::duration<double>(std::clamp(wait, 0.0, 3600.0)));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Work accounting

Scheduler::WorkToken::WorkToken(Scheduler* s) : s_(s) {
    if (s_) s_->beginWorkUnit();
}

Scheduler::WorkToken& Scheduler::WorkToken::operator=(WorkToken&& o) noexcept {
    if (this != &o) {
        release();
        s_ = std::exchange(o.s_, nullptr);
    }
    return *this;
}

void Scheduler::WorkToken::release() {
    if (s_) std::exchange(s_, nullptr)->endWorkUnit();
}

void Scheduler::beginWorkUnit() {
    std::lock_guard lk(mu_);
    ++outstanding_;
}

void Scheduler::endWorkUnit() {
    bool hostWaits;
    {
        std::lock_guard lk(mu_);
        --outstanding_;
        hostWaits = workWaiters_ > 0;
    }
    // Only a settle() or waitUntil() cares that work ended; a host serving its loop does not.
    if (hostWaits) hostCv_.notify_all();
}

void Scheduler::waitForQuietLocked(std::unique_lock<std::mutex>& lk) {
    ++workWaiters_;
    hostCv_.wait(lk, [&] { return outstanding_ == 0; });
    --workWaiters_;
}

void Scheduler::submitBackground(Task task) {
    beginWorkUnit();
    std::uint64_t turn = reserveTurn();
    // The task keeps the scheduler alive until its accounting is done: a task may hold the last
    // reference to whatever owns the scheduler.
    pool_->submit([self = shared_from_this(), task = std::move(task), turn]() mutable {
        if (turn) self->awaitTurn(turn);
        {
            WorkItemScope scope;
            try {
                task();
            } catch (const std::exception& e) {
                // A host must never be brought down by background work; say what happened.
                consoleWrite(std::string("Uncaught exception in background task: ") + e.what());
            } catch (...) {
                consoleWrite("Uncaught exception in background task");
            }
            task = nullptr;  // captured owners go before the work counts as done
        }
        self->yieldTurn();
        self->endWorkUnit();
    });
}

// ---------------------------------------------------------------------------------------------
// Turns

namespace {
// The turns the calling thread holds, by scheduler (a host may drive more than one).
thread_local std::vector<std::pair<const Scheduler*, std::uint64_t>> tlTurns;

auto heldTurn(const Scheduler* s) {
    return std::find_if(tlTurns.begin(), tlTurns.end(),
                        [s](const auto& t) { return t.first == s; });
}
// How long turns may stand still before a waiting thread goes on without one: only a thread
// blocked on another in a way that yields no turn (a lock of the host's own) holds one that long.
constexpr auto kTurnPatience = std::chrono::seconds(1);
}  // namespace

std::uint64_t Scheduler::reserveTurn() {
    if (!isVirtual()) return 0;
    std::lock_guard lk(turnMu_);
    auto t = nextTurn_++;
    reservedTurns_.insert(t);
    return t;
}

bool Scheduler::holdsTurn() const {
    return heldTurn(this) != tlTurns.end();
}

void Scheduler::awaitTurn(std::uint64_t turn) {
    if (!isVirtual()) return;
    if (holdsTurn()) {
        std::lock_guard lk(turnMu_);
        reservedTurns_.erase(turn);  // a reserved turn left standing would stop everyone
        return;
    }
    if (turn == 0) turn = reserveTurn();
    std::unique_lock lk(turnMu_);
    auto mine = [&] { return currentTurn_ == 0 && *reservedTurns_.begin() == turn; };
    for (;;) {
        std::uint64_t seen = turnsTaken_;
        if (turnCv_.wait_for(lk, kTurnPatience, mine)) break;
        if (turnsTaken_ == seen) {
            reservedTurns_.erase(turn);
            lk.unlock();
            turnCv_.notify_all();
            return;  // no progress: go on beside whoever is stuck
        }
    }
    reservedTurns_.erase(turn);
    currentTurn_ = turn;
    ++turnsTaken_;
    tlTurns.emplace_back(this, turn);
}

bool Scheduler::yieldTurn() {
    auto held = heldTurn(this);
    if (held == tlTurns.end()) return false;
    {
        std::lock_guard lk(turnMu_);
        if (currentTurn_ == held->second) currentTurn_ = 0;
    }
    tlTurns.erase(held);
    turnCv_.notify_all();
    return true;
}

void Scheduler::dispatchGlobal(Task task) {
    submitBackground(std::move(task));
}

// ---------------------------------------------------------------------------------------------
// Host run loop

void Scheduler::performPass(const Task& task) {
    assert(isHostThread() && "performPass runs on the host thread");
    // Work the pass sets going starts once the pass is over, not beside it.
    bool took = isVirtual() && !holdsTurn();
    if (took) awaitTurn();
    {
        WorkItemScope scope;
        if (task) task();
    }
    if (took) yieldTurn();
}

void Scheduler::postToMain(Task task) {
    {
        std::lock_guard lk(mu_);
        main_.emplace_back(Key{now().timeIntervalSince1970(), seq_++}, std::move(task));
    }
    hostCv_.notify_all();
}

void Scheduler::postToMainAfter(double seconds, Task task) {
    addTimer(now().addingTimeInterval(std::max(seconds, 0.0)), 0, false, true, std::move(task));
}

std::shared_ptr<RunLoopTimer> Scheduler::scheduleRunLoopTimer(double interval, bool repeats,
                                                              Task task) {
    interval = std::max(interval, kMinInterval);
    auto core =
        addTimer(now().addingTimeInterval(interval), interval, repeats, true, std::move(task));
    return std::make_shared<RunLoopTimer>(weak_from_this(), std::move(core));
}

void Scheduler::run() {
    std::unique_lock lk(mu_);
    stop_ = false;
    while (!stop_) {
        if (!main_.empty()) {
            Task t = std::move(main_.front().second);
            main_.pop_front();
            lk.unlock();
            performPass(t);
            lk.lock();
            continue;
        }
        if (NotificationQueue::defaultQueue().hasPending()) {
            lk.unlock();
            performPass({});
            lk.lock();
            continue;
        }
        hostCv_.wait(lk, [&] { return stop_ || !main_.empty(); });
    }
}

void Scheduler::stop() {
    {
        std::lock_guard lk(mu_);
        stop_ = true;
    }
    hostCv_.notify_all();
}

// ---------------------------------------------------------------------------------------------
// Determinism

void Scheduler::settle() {
    assert(isHostThread() && "settle runs on the host thread");
    const bool virt = isVirtual();
    // Called within a pass: the pass gives way to the work it waits for, and goes on after it.
    struct TurnBack {
        Scheduler* s;
        bool had;
        ~TurnBack() {
            if (had) s->awaitTurn();
        }
    } turnBack{this, yieldTurn()};
    for (;;) {
        Task item;
        {
            std::unique_lock lk(mu_);
            // On virtual time an item's background work (and whatever that sets going) finishes
            // before the next item starts: which pool thread wins can then change nothing.
            if (virt) waitForQuietLocked(lk);
            bool timerFirst = virt && hasDueTimerLocked() &&
                              (main_.empty() || timers_.begin()->first < main_.front().first);
            if (!timerFirst && !main_.empty()) {
                item = std::move(main_.front().second);
                main_.pop_front();
            } else if (!timerFirst) {
                lk.unlock();
                if (NotificationQueue::defaultQueue().hasPending()) {
                    performPass({});
                    continue;
                }
                lk.lock();
                if (virt) {
                    if (outstanding_ == 0 && main_.empty() && !hasDueTimerLocked()) return;
                    continue;
                }
                ++workWaiters_;
                hostCv_.wait(lk, [&] { return outstanding_ == 0 || !main_.empty(); });
                --workWaiters_;
                if (outstanding_ == 0 && main_.empty()) return;
                continue;
            }
        }
        if (item) {
            performPass(item);
        } else {
            fireOneDueTimer();
        }
    }
}

bool Scheduler::waitUntil(std::unique_lock<std::mutex>& lk, std::condition_variable& cv,
                          Date deadline, const std::function<bool()>& pred) {
    if (!isVirtual()) {
        auto wall = std::chrono::system_clock::now() +
                    std::chrono::duration_cast<std::chrono::system_clock::duration>(
                        std::chrono::duration<double>(deadline.timeIntervalSince(now())));
        return cv.wait_until(lk, wall, pred);
    }
    auto* vc = dynamic_cast<VirtualClock*>(clock_.get());
    // The waiter gives its turn to the work it waits for and looks at the predicate only once all
    // is quiet: each look then sees the same state from run to run, and taking the turn back
    // never waits on work that wants the caller's lock.
    bool hadTurn = yieldTurn();
    struct TurnBack {
        Scheduler* s;
        bool had;
        ~TurnBack() {
            if (had) s->awaitTurn();
        }
    } turnBack{this, hadTurn};
    for (;;) {
        lk.unlock();
        {
            std::unique_lock s(mu_);
            waitForQuietLocked(s);
        }
        lk.lock();
        if (pred()) return true;
        if (now() >= deadline) return false;
        lk.unlock();
        std::shared_ptr<detail::TimerCore> due;
        {
            std::unique_lock s(mu_);
            if (outstanding_ == 0) {
                // Nothing runs that could answer: the next queue timer before the deadline fires,
                // or the deadline comes.
                double next = deadline.timeIntervalSince1970();
                for (const auto& [key, t] : timers_) {
                    if (!t->onHost) {
                        next = std::min(next, key.first);
                        break;
                    }
                }
                if (vc) vc->setNow(Date::fromSecondsSince1970(next));
                for (auto it = timers_.begin(); it != timers_.end(); ++it) {
                    if (!it->second->onHost && it->first.first <= now().timeIntervalSince1970()) {
                        due = it->second;
                        timers_.erase(it);
                        due->key.reset();
                        if (due->repeats) {
                            due->key = std::make_pair(next + due->interval, seq_++);
                            insertTimerLocked(due);
                        }
                        break;
                    }
                }
            }
        }
        if (due && !due->cancelled) due->fire();
        lk.lock();
    }
}

void Scheduler::advanceTo(Date target) {
    assert(isHostThread() && "advanceTo runs on the host thread");
    settle();
    for (;;) {
        double next;
        {
            std::lock_guard lk(mu_);
            if (timers_.empty()) break;
            next = timers_.begin()->first.first;
        }
        if (next > target.timeIntervalSince1970()) break;
        if (auto* vc = dynamic_cast<VirtualClock*>(clock_.get())) {
            vc->setNow(Date::fromSecondsSince1970(next));
        }
        settle();
    }
    if (auto* vc = dynamic_cast<VirtualClock*>(clock_.get())) vc->setNow(target);
    settle();
}

// ---------------------------------------------------------------------------------------------
// RunLoopTimer

RunLoopTimer::~RunLoopTimer() = default;

void RunLoopTimer::invalidate() {
    if (auto s = scheduler_.lock()) {
        s->cancelTimer(core_);
    } else if (core_) {
        core_->cancelled = true;
    }
}

bool RunLoopTimer::isValid() const {
    return core_ && !core_->cancelled;
}

// ---------------------------------------------------------------------------------------------
// DispatchQueue

namespace {
thread_local std::vector<const void*> tlCurrentQueues;  // states of the queues running here
}  // namespace

struct DispatchQueue::State {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<Task> tasks;  // guarded by mu
    bool running = false;    // guarded by mu: a drain is scheduled or under way
};

DispatchQueue::DispatchQueue(std::weak_ptr<Scheduler> s, std::string label)
    : scheduler_(std::move(s)), label_(std::move(label)), state_(std::make_shared<State>()) {}

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> Scheduler::createSerialQueue(std::string label) {
    return std::shared_ptr<DispatchQueue>(new DispatchQueue(weak_from_this(), std::move(label)));
}

bool DispatchQueue::isCurrent() const {
    return std::find(tlCurrentQueues.begin(), tlCurrentQueues.end(), state_.get()) !=
           tlCurrentQueues.end();
}

void DispatchQueue::async(Task task) {
    auto sched = scheduler_.lock();
    if (!sched) return;
    bool start = false;
    {
        std::lock_guard lk(state_->mu);
        state_->tasks.push_back(std::move(task));
        if (!state_->running) state_->running = start = true;
    }
    if (start) schedule();
}

void DispatchQueue::schedule() {
    scheduleDrain(state_, scheduler_);
}

void DispatchQueue::scheduleDrain(const std::shared_ptr<State>& state,
                                  const std::weak_ptr<Scheduler>& scheduler) {
    auto sched = scheduler.lock();
    if (!sched) return;
    // One task per pool submission keeps the queues fair; the drain re-submits itself. It holds
    // only the queue's state, so tasks queued before the queue object went away still run.
    sched->submitBackground([state, scheduler] {
        Task t;
        {
            std::lock_guard lk(state->mu);
            t = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        tlCurrentQueues.push_back(state.get());
        t();
        t = nullptr;
        // Notifications the task queued belong to it: delivered before the queue moves on.
        NotificationQueue::defaultQueue().flush();
        tlCurrentQueues.pop_back();
        bool more;
        {
            std::lock_guard lk(state->mu);
            more = !state->tasks.empty();
            if (!more) state->running = false;
        }
        if (more) scheduleDrain(state, scheduler);
    });
}

void DispatchQueue::sync(const std::function<void()>& fn) {
    if (isCurrent()) {
        fn();
        return;
    }
    // Hand-over: a marker task runs when everything before it is done; it lets the caller in and
    // holds the queue until the caller is finished.
    struct Gate {
        std::mutex mu;
        std::condition_variable cv;
        bool entered = false, done = false;
        // On a virtual clock: whoever lets the other go reserves its next turn.
        bool callerHasTurn = false, gateHasTurn = false;
        std::uint64_t callerTurn = 0, gateTurn = 0;
    };
    auto gate = std::make_shared<Gate>();
    bool direct = false;
    {
        std::lock_guard lk(state_->mu);
        if (!state_->running) {
            state_->running = true;  // idle: take the queue without a pool round trip
            direct = true;
        }
    }
    std::shared_ptr<Scheduler> sched;
    if (!direct) {
        sched = scheduler_.lock();
        if (!sched) return;
        gate->callerHasTurn = sched->holdsTurn();
        async([gate, weak = scheduler_] {
            auto s = weak.lock();  // alive: the drain running this holds it
            std::unique_lock lk(gate->mu);
            gate->gateHasTurn = s && s->holdsTurn();
            gate->entered = true;
            if (gate->callerHasTurn && s) gate->callerTurn = s->reserveTurn();
            gate->cv.notify_all();
            if (gate->gateHasTurn) {
                lk.unlock();
                s->yieldTurn();
                lk.lock();
            }
            gate->cv.wait(lk, [&] { return gate->done; });
            lk.unlock();
            if (gate->gateHasTurn) s->awaitTurn(gate->gateTurn);
        });
        if (gate->callerHasTurn) sched->yieldTurn();
        std::unique_lock lk(gate->mu);
        gate->cv.wait(lk, [&] { return gate->entered; });
        lk.unlock();
        if (gate->callerHasTurn) sched->awaitTurn(gate->callerTurn);
    }
    tlCurrentQueues.push_back(state_.get());
    struct Exit {
        std::function<void()> f;
        ~Exit() { f(); }
    } onExit{[&] {
        tlCurrentQueues.pop_back();
        if (direct) {
            bool more;
            {
                std::lock_guard lk(state_->mu);
                more = !state_->tasks.empty();
                if (!more) state_->running = false;
            }
            if (more) schedule();
        } else {
            std::lock_guard lk(gate->mu);
            gate->done = true;
            if (gate->gateHasTurn) gate->gateTurn = sched->reserveTurn();
            gate->cv.notify_all();
        }
    }};
    fn();
}

// ---------------------------------------------------------------------------------------------
// DataAddSource

std::shared_ptr<DataAddSource> DataAddSource::create(std::shared_ptr<DispatchQueue> queue) {
    return std::shared_ptr<DataAddSource>(new DataAddSource(std::move(queue)));
}

DataAddSource::~DataAddSource() = default;

void DataAddSource::setEventHandler(Handler h) {
    std::lock_guard lk(mu_);
    handler_ = std::move(h);
}

void DataAddSource::scheduleLocked() {
    if (pending_ || !resumed_ || cancelled_ || data_ == 0) return;
    pending_ = true;
    queue_->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        Handler h;
        unsigned long data;
        {
            std::lock_guard lk(self->mu_);
            self->pending_ = false;
            if (self->cancelled_) return;
            data = std::exchange(self->data_, 0);
            h = self->handler_;
        }
        if (h) h(data);
    });
}

void DataAddSource::mergeData(unsigned long value) {
    std::lock_guard lk(mu_);
    if (cancelled_ || value == 0) return;
    data_ += value;
    scheduleLocked();
}

void DataAddSource::resume() {
    std::lock_guard lk(mu_);
    resumed_ = true;
    scheduleLocked();
}

void DataAddSource::cancel() {
    std::lock_guard lk(mu_);
    cancelled_ = true;
}

// ---------------------------------------------------------------------------------------------
// TimerSource

std::shared_ptr<TimerSource> TimerSource::create(std::shared_ptr<DispatchQueue> queue) {
    if (!queue || queue->scheduler().expired()) return nullptr;
    return std::shared_ptr<TimerSource>(new TimerSource(std::move(queue)));
}

TimerSource::~TimerSource() {
    std::shared_ptr<detail::TimerCore> core;
    {
        std::lock_guard lk(mu_);
        core = std::move(core_);
    }
    if (auto s = queue_->scheduler().lock()) s->cancelTimer(core);
}

void TimerSource::setTimer(Date start, std::chrono::nanoseconds interval,
                           std::chrono::nanoseconds /*leeway*/) {
    {
        std::lock_guard lk(mu_);
        start_ = start;
        interval_ = interval;
        configured_ = true;
    }
    arm();
}

void TimerSource::setEventHandler(Task h) {
    std::lock_guard lk(mu_);
    handler_ = std::move(h);
}

void TimerSource::resume() {
    {
        std::lock_guard lk(mu_);
        resumed_ = true;
    }
    arm();
}

void TimerSource::arm() {
    auto sched = queue_->scheduler().lock();
    if (!sched) return;
    std::shared_ptr<detail::TimerCore> old;
    Date start;
    double interval;
    {
        std::lock_guard lk(mu_);
        if (!configured_ || !resumed_ || cancelled_) return;
        old = std::move(core_);
        start = start_;
        interval = std::chrono::duration<double>(interval_).count();
    }
    sched->cancelTimer(old);
    auto core = sched->addTimer(start, interval, interval > 0, false, [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->fire();
    });
    std::lock_guard lk(mu_);
    if (cancelled_) {
        sched->cancelTimer(core);
    } else {
        core_ = std::move(core);
    }
}

void TimerSource::fire() {
    std::lock_guard lk(mu_);
    if (cancelled_ || pending_) return;
    pending_ = true;
    queue_->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        Task h;
        {
            std::lock_guard lk(self->mu_);
            self->pending_ = false;
            if (self->cancelled_) return;
            h = self->handler_;
        }
        if (h) h();
    });
}

void TimerSource::cancel() {
    std::shared_ptr<detail::TimerCore> core;
    {
        std::lock_guard lk(mu_);
        cancelled_ = true;
        core = std::move(core_);
    }
    if (auto s = queue_->scheduler().lock()) s->cancelTimer(core);
}

}  // namespace quenby::platform
