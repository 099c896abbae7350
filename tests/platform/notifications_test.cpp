#include "platform/notifications.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;

namespace {

// Writes down "name/sender/value" for each notification named `name` (every one when empty).
struct Recorder {
    std::vector<std::string> got;
    NotificationCenter& center;
    NotificationCenter::ObserverId id;
    explicit Recorder(NotificationCenter& c, const std::string& name = "")
        : center(c), id(c.addObserver(name, nullptr, [this](const Notification& n) {
              const int* v = n.userInfo.get<int>("v");
              got.push_back(n.name + "/" + static_cast<const char*>(n.sender) + "/" +
                            (v ? std::to_string(*v) : "-"));
          })) {}
    ~Recorder() { center.removeObserver(id); }
};

const char* kA = "a";
const char* kB = "b";

Notification note(const std::string& name, const char* sender, int v) {
    Notification n{name, sender, {}};
    n.userInfo.set("v", v);
    return n;
}

}  // namespace

TEST(NotificationQueue, DeliversAtEndOfPassCoalescedByNameAndSenderAndWhatDeliveryQueues) {
    test::VirtualPlatform vp;
    NotificationCenter center;
    Recorder rec(center);
    auto& q = NotificationQueue::defaultQueue();
    vp.scheduler().performPass([&] {
        q.enqueueNotification(note("Enter", kA, 1), center);
        q.enqueueNotification(note("Enter", kA, 2), center);  // same name and sender: dropped
        q.enqueueNotification(note("Enter", kB, 3), center);  // other sender: kept
        q.enqueueNotification(note("Range", kA, 4), center);  // other name: kept
        EXPECT_TRUE(rec.got.empty()) << "nothing is delivered inside the pass";
    });
    EXPECT_EQ(rec.got, (std::vector<std::string>{"Enter/a/1", "Enter/b/3", "Range/a/4"}));

    // The next pass starts afresh; what an observer queues while being told is delivered too.
    auto id = center.addObserver("Enter", nullptr, [&](const Notification&) {
        q.enqueueNotification(note("Second", kA, 9), center);
    });
    vp.scheduler().performPass([&] { q.enqueueNotification(note("Enter", kA, 5), center); });
    center.removeObserver(id);
    EXPECT_EQ(rec.got, (std::vector<std::string>{"Enter/a/1", "Enter/b/3", "Range/a/4", "Enter/a/5",
                                                 "Second/a/9"}));

    // Queued on the host outside a pass: delivered by settle.
    rec.got.clear();
    q.enqueueNotification(note("Late", kA, 1), center);
    EXPECT_TRUE(rec.got.empty());
    vp.scheduler().settle();
    EXPECT_EQ(rec.got, (std::vector<std::string>{"Late/a/1"}));
}

TEST(NotificationQueue, QueueTasksDeliverOnTheirOwnThreadAtTheEndOfEachTask) {
    test::VirtualPlatform vp;
    NotificationCenter center;
    std::vector<std::string> events;  // touched only on the queue's tasks
    std::thread::id deliveredOn, postedOn;
    auto id = center.addObserver("Evt", nullptr, [&](const Notification&) {
        deliveredOn = std::this_thread::get_id();
        events.push_back("delivered");
    });
    auto q = vp.scheduler().createSerialQueue("test.notes");
    q->async([&] {
        postedOn = std::this_thread::get_id();
        NotificationQueue::defaultQueue().enqueueNotification(note("Evt", kA, 1), center);
        NotificationQueue::defaultQueue().enqueueNotification(note("Evt", kA, 2), center);
        events.push_back("task1 end");
    });
    q->async([&] { events.push_back("task2"); });
    vp.scheduler().settle();
    center.removeObserver(id);
    EXPECT_EQ(events, (std::vector<std::string>{"task1 end", "delivered", "task2"}));
    EXPECT_EQ(deliveredOn, postedOn);
}

TEST(NotificationCenter, FiltersByNameAndSenderHonoursRemovalDuringPostAndPostsAtOnceOffLoop) {
    NotificationCenter center;
    std::vector<std::string> got;
    NotificationCenter::ObserverId second = 0;
    center.addObserver("X", kA, [&](const Notification& n) { got.push_back("onlyA:" + n.name); });
    center.addObserver("", nullptr, [&](const Notification& n) {
        got.push_back("all:" + n.name);
        center.removeObserver(second);
    });
    second =
        center.addObserver("X", nullptr, [&](const Notification&) { got.push_back("second"); });
    center.post(note("X", kB, 0));
    EXPECT_EQ(got, (std::vector<std::string>{"all:X"})) << "removed before its turn: not called";
    got.clear();
    center.post(note("X", kA, 0));
    EXPECT_EQ(got, (std::vector<std::string>{"onlyA:X", "all:X"}));
    // A thread without a run loop posts at once.
    std::thread([&] {
        NotificationQueue::defaultQueue().enqueueNotification(note("Now", kA, 1), center);
        EXPECT_EQ(got.back(), "all:Now");
    }).join();

    UserInfo info;
    info.set("n", 3).set<std::string>("s", "x");
    EXPECT_EQ(*info.get<int>("n"), 3);
    EXPECT_EQ(info.get<std::string>("n"), nullptr) << "wrong type reads as missing";
    EXPECT_EQ(info.get<int>("missing"), nullptr);
    EXPECT_EQ(info.keys(), (std::vector<std::string>{"n", "s"}));
}
