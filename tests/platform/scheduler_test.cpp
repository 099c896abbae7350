#include "platform/scheduler.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <latch>
#include <mutex>
#include <semaphore>
#include <thread>

#include "platform/notifications.h"
#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;
using quenby::test::kTestStart;

namespace {

struct Log {
    std::mutex mu;
    std::vector<std::pair<double, std::string>> events;
    void add(Scheduler& s, std::string what) {
        std::lock_guard lk(mu);
        events.emplace_back(s.now().timeIntervalSince1970() - kTestStart, std::move(what));
    }
};

// Holds one task until released from the test thread.
struct Gate {
    std::latch entered{1}, open{1};
    void block() {
        entered.count_down();
        open.wait();
    }
    void waitEntered() { entered.wait(); }
    void release() { open.count_down(); }
};

// How often the thread whose /proc directory is `dir` has gone to sleep so far.
long sleeps(const std::string& dir) {
    std::ifstream in(dir + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("voluntary_ctxt_switches:")) return std::stol(line.substr(24));
    return 0;
}

// The same, summed over this process's threads named `name`.
long sleepsOf(const std::string& name) {
    long n = 0;
    DIR* d = opendir("/proc/self/task");
    while (auto* e = d ? readdir(d) : nullptr) {
        std::string dir = std::string("/proc/self/task/") + e->d_name;
        std::string comm;
        std::getline(std::ifstream(dir + "/comm"), comm);
        if (comm == name) n += sleeps(dir);
    }
    if (d) closedir(d);
    return n;
}

}  // namespace

TEST(Scheduler, VirtualTimersOfEveryKindFireInDueOrderOnlyWhenAdvanced) {
    test::VirtualPlatform vp;
    auto& s = vp.scheduler();
    Log log;
    auto rl = s.scheduleRunLoopTimer(30, true, [&] { log.add(s, "runloop"); });
    auto q = s.createSerialQueue("test.timers");
    auto src = TimerSource::create(q);
    src->setEventHandler([&] { log.add(s, "source"); });
    src->setTimer(s.now().addingTimeInterval(10), std::chrono::seconds(20),
                  std::chrono::seconds(1));
    src->resume();
    s.postToMainAfter(45, [&] { log.add(s, "after"); });
    // A timer that starts now fires on settle; one destroyed (not cancelled) stops too.
    auto now = TimerSource::create(q);
    now->setEventHandler([&] { log.add(s, "now"); });
    now->setTimer(s.now(), std::chrono::seconds(35), std::chrono::seconds(1));
    now->resume();
    // A run-loop timer runs on the host thread and may invalidate itself.
    int fired = 0;
    std::shared_ptr<RunLoopTimer> self;
    self = s.scheduleRunLoopTimer(25, true, [&] {
        EXPECT_TRUE(s.isHostThread());
        if (++fired == 3) self->invalidate();
    });

    s.settle();
    EXPECT_EQ(log.events, (std::vector<std::pair<double, std::string>>{{0, "now"}}))
        << "nothing else is due at the start";
    EXPECT_EQ(s.now().timeIntervalSince1970(), kTestStart) << "settle never moves time";

    s.advanceBy(60);
    std::vector<std::pair<double, std::string>> want = {
        {0, "now"},  {10, "source"}, {30, "runloop"}, {30, "source"},
        {35, "now"}, {45, "after"},  {50, "source"},  {60, "runloop"}};
    EXPECT_EQ(log.events, want);
    EXPECT_EQ(s.now().timeIntervalSince1970(), kTestStart + 60);

    rl->invalidate();
    src->cancel();
    now.reset();
    s.advanceBy(600);
    EXPECT_EQ(log.events.size(), want.size()) << "invalidated, cancelled, destroyed: quiet";
    EXPECT_EQ(fired, 3);
    EXPECT_FALSE(self->isValid());
}

TEST(Scheduler, SerialQueueRunsInOrderAndSyncWaitsForEarlierWork) {
    test::VirtualPlatform vp;
    auto& s = vp.scheduler();
    auto q = s.createSerialQueue("test.serial");
    std::vector<int> order;  // touched only by tasks of q, or under q.sync
    std::atomic<int> concurrent{0}, maxConcurrent{0};
    for (int i = 0; i < 200; ++i) {
        q->async([&, i] {
            int c = ++concurrent;
            maxConcurrent = std::max(maxConcurrent.load(), c);
            order.push_back(i);
            --concurrent;
        });
    }
    std::size_t seen = 0;
    bool onCaller = false;
    auto caller = std::this_thread::get_id();
    q->sync([&] {
        seen = order.size();
        onCaller = std::this_thread::get_id() == caller;
        EXPECT_TRUE(q->isCurrent());
        q->sync([&] { order.push_back(-1); });  // re-entrant sync runs at once
    });
    EXPECT_EQ(seen, 200u);
    EXPECT_TRUE(onCaller);
    EXPECT_FALSE(q->isCurrent());
    EXPECT_EQ(maxConcurrent, 1);
    std::atomic<int> ran{0};  // tasks of a queue whose object is gone still run
    {
        auto gone = s.createSerialQueue("test.gone");
        for (int i = 0; i < 10; ++i) gone->async([&] { ++ran; });
    }
    s.settle();
    ASSERT_EQ(order.size(), 201u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(ran, 10);
}

TEST(Scheduler, DataAddSourceCoalescesMergesIntoOnePassAndOneMoreDuringARun) {
    test::VirtualPlatform vp;
    auto& s = vp.scheduler();
    auto q = s.createSerialQueue("test.dataadd");
    auto src = DataAddSource::create(q);
    std::mutex mu;
    std::vector<unsigned long> runs;
    Gate inHandler;
    bool blockFirst = false;
    src->setEventHandler([&](unsigned long data) {
        {
            std::lock_guard lk(mu);
            runs.push_back(data);
        }
        if (blockFirst) {
            blockFirst = false;
            inHandler.block();
        }
    });
    src->mergeData(1);
    src->mergeData(1);
    s.settle();
    EXPECT_TRUE(runs.empty()) << "a suspended source only accumulates";
    src->resume();
    s.settle();
    EXPECT_EQ(runs, (std::vector<unsigned long>{2}));

    // Held queue: three merges while a run is pending make that one run.
    Gate hold;
    q->async([&] { hold.block(); });
    hold.waitEntered();
    for (int i = 0; i < 3; ++i) src->mergeData(1);
    hold.release();
    s.settle();
    EXPECT_EQ(runs, (std::vector<unsigned long>{2, 3}));

    // Merges while the handler runs: exactly one more run afterwards.
    blockFirst = true;
    src->mergeData(1);
    inHandler.waitEntered();
    for (int i = 0; i < 2; ++i) src->mergeData(1);
    inHandler.release();
    s.settle();
    EXPECT_EQ(runs, (std::vector<unsigned long>{2, 3, 1, 2}));

    src->cancel();
    src->mergeData(5);
    s.settle();
    EXPECT_EQ(runs.size(), 4u);
}

TEST(Scheduler, SettleWaitsForHttpInFlightIncludingFireAndForget) {
    test::VirtualPlatform vp;
    test::TestServer server;
    Gate handlerGate;
    server.on("GET", "/slow", test::TestServer::Handler([&](const test::ReceivedRequest&) {
                  handlerGate.block();
                  return test::Reply{200, "done"};
              }));
    server.on("GET", "/ping", test::Reply{200, "pong"});

    std::atomic<bool> completed{false};
    std::thread::id completionThread;
    HttpRequest req;
    req.url = server.url("/slow");
    vp.platform->http->send(req, [&](HttpResponse r) {
        EXPECT_FALSE(r.error);
        EXPECT_EQ(toString(r.body), "done");
        completionThread = std::this_thread::get_id();
        completed = true;
    });
    req.url = server.url("/ping");
    vp.platform->http->send(req, nullptr);

    // Let the server go only once it holds the request, from another thread: settle() must not
    // return before the completion has run.
    std::thread releaser([&] {
        handlerGate.waitEntered();
        handlerGate.release();
    });
    vp.scheduler().settle();
    releaser.join();
    EXPECT_TRUE(completed);
    EXPECT_NE(completionThread, std::this_thread::get_id());
    EXPECT_EQ(server.requestsTo("/ping").size(), 1u);

    auto token = vp.scheduler().beginWork();
    token = vp.scheduler().beginWork();  // the replaced unit ends, or settle() would never return
    token = {};
    vp.scheduler().settle();
}

TEST(Scheduler, MainQueueWorkFromBackgroundRunsOnHostDuringSettleAndThrowingIsNotFatal) {
    test::VirtualPlatform vp;
    test::ConsoleCapture console;
    auto& s = vp.scheduler();
    std::vector<int> order;
    bool onHost = false;
    s.dispatchGlobal([] { throw std::runtime_error("boom"); });
    s.dispatchGlobal([&] {
        s.postToMain([&] {
            onHost = s.isHostThread();
            order.push_back(1);
            s.postToMain([&] { order.push_back(2); });
        });
    });
    s.settle();
    EXPECT_TRUE(onHost);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(console.contains("Uncaught exception in background task: boom"));

    // A host without a loop of its own serves the same queue with run().
    s.postToMain([&] { order.push_back(3); });
    s.postToMain([&] { s.stop(); });
    s.run();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(Scheduler, SystemClockTimersFireOnTheirOwnAndIdleThreadsSleepThroughOthersWork) {
    auto s = Scheduler::create(std::make_shared<SystemClock>());
    // Background work ending wakes neither the timer thread, asleep until a timer an hour away,
    // nor the host waiting in its loop for main-queue work.
    auto later = s->scheduleRunLoopTimer(3600, false, [] {});
    // Enough tasks that a wake per task end stands far above the few switches a loaded machine
    // (lock contention, a sanitizer's own locks) adds.
    std::atomic<int> left{3000};
    long timerSleeps = sleepsOf("quenby-timer"), hostSleeps = sleeps("/proc/thread-self");
    s->dispatchGlobal([&] {
        for (int i = left; i > 0; --i) {
            s->dispatchGlobal([&] {
                if (--left == 0) s->postToMain([&] { s->stop(); });
            });
        }
    });
    s->run();
    EXPECT_LE(sleepsOf("quenby-timer") - timerSleeps, 10);
    EXPECT_LE(sleeps("/proc/thread-self") - hostSleeps, 10);
    later->invalidate();

    std::counting_semaphore<> ticks{0};
    auto src = TimerSource::create(s->createSerialQueue("test.system"));
    src->setEventHandler([&] { ticks.release(); });
    src->setTimer(s->now(), std::chrono::milliseconds(1), std::chrono::milliseconds(0));
    src->resume();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(ticks.try_acquire_for(std::chrono::seconds(10)));
    src->cancel();
}

TEST(Scheduler, ABackgroundTaskMayHoldTheLastReferenceToItsScheduler) {
    auto clock = std::make_shared<VirtualClock>(Date::fromSecondsSince1970(0));
    std::weak_ptr<VirtualClock> clockHeld = clock;  // the scheduler's last member to go
    // Shared with the task: the pool thread may still be leaving block() when the test goes on.
    auto gate = std::make_shared<Gate>();
    {
        auto s = Scheduler::create(std::move(clock));
        auto q = s->createSerialQueue("test.last");
        q->async([s, gate] { gate->block(); });  // the only owner once the test lets go
        s->dispatchGlobal([s] {});
        gate->waitEntered();
        s.reset();
        gate->release();
    }
    // Nothing waits for a pool thread to finish destroying the scheduler, so this does, on a real
    // thread: until its destructor is through, with a deadline in case it never is.
    auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!clockHeld.expired() && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::yield();
    EXPECT_TRUE(clockHeld.expired());
}

TEST(Scheduler, WaitUntilOnVirtualTimeWakesForWorkAndJumpsToTheDeadlineWhenNoneIsLeft) {
    test::VirtualPlatform vp;
    auto& s = vp.scheduler();
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    s.dispatchGlobal([&] {
        std::lock_guard lk(mu);
        done = true;
        cv.notify_all();
    });
    std::unique_lock lk(mu);
    EXPECT_TRUE(s.waitUntil(lk, cv, s.now().addingTimeInterval(30), [&] { return done; }));
    EXPECT_EQ(s.now().timeIntervalSince1970(), kTestStart) << "answered by work: no time passed";

    // A queue timer before the deadline answers; with nothing left, time jumps to the deadline.
    done = false;
    auto q = s.createSerialQueue("test.wait");
    auto timer = TimerSource::create(q);
    timer->setEventHandler([&] {
        std::lock_guard g(mu);
        done = true;
    });
    timer->setTimer(s.now().addingTimeInterval(12), std::chrono::hours(1), std::chrono::seconds(0));
    timer->resume();
    EXPECT_TRUE(s.waitUntil(lk, cv, s.now().addingTimeInterval(30), [&] { return done; }));
    EXPECT_EQ(s.now().timeIntervalSince1970(), kTestStart + 12);
    done = false;
    int hostTicks = 0;  // the host is the thread blocked in the wait
    auto rl = s.scheduleRunLoopTimer(5, false, [&] { ++hostTicks; });
    EXPECT_FALSE(s.waitUntil(lk, cv, s.now().addingTimeInterval(30), [&] { return done; }));
    EXPECT_EQ(s.now().timeIntervalSince1970(), kTestStart + 42);
    EXPECT_EQ(hostTicks, 0);
    lk.unlock();
    s.settle();
    EXPECT_EQ(hostTicks, 1);
}
