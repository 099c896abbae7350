// Local notifications and alerts on a desktop: python-dbusmock's notification_daemon on a private
// bus plays the notification server. What the presenter sent is read back from the mock's call
// log, and the user's clicks are signals the mock emits on request.
#include "sensing/desktop_presenter.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sdbus-c++/sdbus-c++.h>

#include "platform/clock.h"
#include "platform/platform.h"
#include "support/daemons.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Application;
using platform::Json;
using quenby::sensing::DesktopPresenter;
namespace daemons = quenby::testing;

namespace {

constexpr const char* kServer = "org.freedesktop.Notifications";
constexpr const char* kMockInterface = "org.freedesktop.DBus.Mock";
using Strings = std::vector<std::string>;

// Points DBUS_SESSION_BUS_ADDRESS at `address` while it lives.
struct SessionBusAddress {
    std::optional<std::string> old;
    explicit SessionBusAddress(const std::string& address) {
        if (const char* o = getenv("DBUS_SESSION_BUS_ADDRESS")) old = o;
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }
    ~SessionBusAddress() {
        old ? setenv("DBUS_SESSION_BUS_ADDRESS", old->c_str(), 1)
            : unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
};

// One Notify the server received: every argument in one line ("app|replaces|icon|summary|body|
// actions|hint:type=value ...|timeout"), and the id the mock answered (it numbers from 1).
struct Notify {
    std::string call;
    std::uint32_t id;
};

// The host's application delegate, receiving opened local notifications on the host thread.
struct HostDelegate final : platform::ApplicationDelegate {
    explicit HostDelegate(const platform::Scheduler& s) : scheduler(s) {}
    bool respondsTo(Callback c) const override {
        return c == Callback::DidReceiveLocalNotification;
    }
    void applicationDidReceiveLocalNotification(Application&,
                                                const platform::LocalNotification& n) override {
        EXPECT_TRUE(scheduler.isHostThread());
        opened.push_back(n.userInfo);
    }
    const platform::Scheduler& scheduler;
    std::vector<Json> opened;
};

class Desktop : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        bus_ = daemons::PrivateBus::start(&why);
        if (!bus_) GTEST_SKIP() << "no private D-Bus daemon: " << why;
        mock_ = daemons::DbusMock::start(*bus_, false, "notification_daemon", kServer, &why);
        ASSERT_TRUE(mock_) << why;
        address_ = std::make_unique<SessionBusAddress>(bus_->address());
        control_ = sdbus::createSessionBusConnectionWithAddress(bus_->address());
        mockObject_ = sdbus::createProxy(*control_, kServer, "/org/freedesktop/Notifications");
        presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    }

    // The arguments of every call of `method` the server received, in order.
    std::vector<std::vector<sdbus::Variant>> calls(const std::string& method) {
        std::vector<sdbus::Struct<std::uint64_t, std::string, std::vector<sdbus::Variant>>> log;
        mockObject_->callMethod("GetCalls").onInterface(kMockInterface).storeResultsTo(log);
        std::vector<std::vector<sdbus::Variant>> out;
        for (const auto& c : log)
            if (std::get<1>(c) == method) out.push_back(std::get<2>(c));
        return out;
    }
    std::vector<Notify> notifies() {
        std::vector<Notify> out;
        for (const auto& a : calls("Notify")) {
            std::string hints;
            for (const auto& [k, v] : a[6].get<std::map<std::string, sdbus::Variant>>()) {
                auto type = v.peekValueType();
                hints += fmt::format(" {}:{}=", k, type) +
                         (type == "s"   ? v.get<std::string>()
                          : type == "b" ? std::string(v.get<bool>() ? "true" : "false")
                                        : std::to_string(v.get<std::uint8_t>()));
            }
            out.push_back(
                {fmt::format("{}|{}|{}|{}|{}|{}|{}|{}", a[0].get<std::string>(),
                             a[1].get<std::uint32_t>(), a[2].get<std::string>(),
                             a[3].get<std::string>(), a[4].get<std::string>(),
                             fmt::join(a[5].get<Strings>(), ","), hints, a[7].get<std::int32_t>()),
                 static_cast<std::uint32_t>(out.size() + 1)});
        }
        return out;
    }
    // Waits (pumping the host thread) until the server has received `count` Notify calls.
    std::vector<Notify> waitForNotifies(std::size_t count) {
        std::vector<Notify> got;
        settleUntil([&] { return (got = notifies()).size() >= count; });
        return got;
    }
    std::vector<std::uint32_t> closed() {
        std::vector<std::uint32_t> out;
        for (const auto& a : calls("CloseNotification")) out.push_back(a[0].get<std::int32_t>());
        return out;
    }
    bool settleUntil(const std::function<bool()>& pred) {
        return daemons::waitFor([&] {
            scheduler->settle();
            return pred();
        });
    }
    void emit(const std::string& name, const std::string& signature,
              std::vector<sdbus::Variant> args) {
        mockObject_->callMethod("EmitSignal")
            .onInterface(kMockInterface)
            .withArguments(std::string(kServer), name, signature, args);
    }
    void actionInvoked(std::uint32_t id, const std::string& key) {
        emit("ActionInvoked", "us", {sdbus::Variant(id), sdbus::Variant(key)});
    }
    void notificationClosed(std::uint32_t id, std::uint32_t reason) {
        emit("NotificationClosed", "uu", {sdbus::Variant(id), sdbus::Variant(reason)});
    }

    // Declared in the order they come up: the presenter goes first, the bus last.
    std::unique_ptr<daemons::PrivateBus> bus_;
    std::unique_ptr<daemons::DbusMock> mock_;
    std::unique_ptr<SessionBusAddress> address_;
    std::unique_ptr<sdbus::IConnection> control_;
    std::unique_ptr<sdbus::IProxy> mockObject_;
    std::shared_ptr<platform::Scheduler> scheduler =
        platform::Scheduler::create(std::make_shared<platform::SystemClock>());
    std::shared_ptr<Application> app = Application::create(scheduler);
    std::unique_ptr<DesktopPresenter> presenter;
};

TEST_F(Desktop, LocalNotificationsArePostedOnlyOurOwnOpenedOnceAndTheConsoleTakesOver) {
    EXPECT_TRUE(presenter->onDesktop());
    auto host = std::make_shared<HostDelegate>(*scheduler);
    app->setDelegate(host);
    std::vector<int> answers;
    app->presentLocalNotificationNow({"View", "20% off coffee", Json{{"campaign", "c1"}}, "chime"});
    app->presentLocalNotificationNow({"", "Welcome back", Json{{"campaign", "c2"}}, ""});
    app->showAlert("Coffee", "", {"Cancel", "View Details"}, [&](int i) { answers.push_back(i); });
    auto n = waitForNotifies(3);
    ASSERT_EQ(n.size(), 3u);
    EXPECT_EQ(n[0].call, "Corner Store|0||View|20% off coffee|default,View| sound-name:s=chime|-1");
    // Without an action: the application's name as the title, a plain "Open", no sound.
    EXPECT_EQ(n[1].call, "Corner Store|0||Corner Store|Welcome back|default,Open||-1");

    // A server sending signals of the wrong shape, another application's notifications, and a
    // server closing our alert on its own (expired: still the application's to answer, but no
    // longer answered from the desktop).
    emit("ActionInvoked", "s", {sdbus::Variant(std::string("1"))});
    emit("ActionInvoked", "uu", {sdbus::Variant(n[2].id), sdbus::Variant(std::uint32_t{1})});
    emit("NotificationClosed", "us", {sdbus::Variant(n[2].id), sdbus::Variant(std::string("1"))});
    actionInvoked(n[2].id + 40, "1");
    actionInvoked(n[2].id + 41, "default");
    notificationClosed(n[2].id + 40, 2);
    notificationClosed(n[2].id, 1);
    actionInvoked(n[2].id, "1");
    actionInvoked(n[1].id, "View");  // not one of its actions
    actionInvoked(n[0].id, "default");
    actionInvoked(n[0].id, "default");  // already opened
    actionInvoked(n[1].id, "default");
    ASSERT_TRUE(settleUntil([&] { return host->opened.size() >= 2; }));
    EXPECT_EQ(host->opened, (std::vector<Json>{{{"campaign", "c1"}}, {{"campaign", "c2"}}}));
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(app->visibleAlerts().size(), 1u);

    // The server goes away (crashed, logged out): the console takes over.
    mock_->kill();
    test::ConsoleCapture console;
    app->presentLocalNotificationNow({"View", "20% off coffee", Json::object(), ""});
    app->showAlert("Coffee", "At the counter", {"Cancel", "View Details"}, nullptr);
    EXPECT_EQ(console.lines(), (Strings{"Notification: View: 20% off coffee",
                                        "Alert: Coffee: At the counter [Cancel] [View Details]"}));
    EXPECT_FALSE(presenter->onDesktop());
    EXPECT_EQ(app->visibleAlerts().size(), 2u) << "still the application's to answer";
}

TEST_F(Desktop, AlertButtonsAreActionsAndTheChosenOneAnswersTheAlertOnce) {
    std::vector<int> first, second;
    auto firstId = app->showAlert("20% off coffee", "At the counter", {"Cancel", "View Details"},
                                  [&](int i) { first.push_back(i); });
    app->showAlert("Bakery", "Fresh bread", {"Cancel", "View Details"},
                   [&](int i) { second.push_back(i); });
    auto n = waitForNotifies(2);
    ASSERT_EQ(n.size(), 2u);
    // Normal urgency, resident and never expiring: it stays until answered.
    EXPECT_EQ(n[0].call,
              "Corner Store|0||20% off coffee|At the counter|0,Cancel,1,View Details"
              "| resident:b=true urgency:y=1|0");

    // "View Details" on the first, as tapping it would: its callback with index 1, the alert gone,
    // the resident notification closed.
    actionInvoked(n[0].id, "1");
    ASSERT_TRUE(settleUntil([&] { return !first.empty(); }));
    EXPECT_EQ(first, std::vector<int>{1});
    ASSERT_EQ(app->visibleAlerts().size(), 1u);
    EXPECT_NE(app->visibleAlerts()[0].id, firstId);
    EXPECT_TRUE(settleUntil([&] { return closed() == std::vector<std::uint32_t>{n[0].id}; }));

    // Late or strange answers do nothing: the same alert again, a key that is no button.
    actionInvoked(n[0].id, "1");
    actionInvoked(n[0].id, "0");
    notificationClosed(n[0].id, 2);
    for (const char* key : {"2", "default", "-1"}) actionInvoked(n[1].id, key);
    // Closing the second without a button is its cancel button.
    notificationClosed(n[1].id, 2);
    ASSERT_TRUE(settleUntil([&] { return !second.empty(); }));
    EXPECT_EQ(second, std::vector<int>{0});
    EXPECT_EQ(first, std::vector<int>{1});
    EXPECT_TRUE(app->visibleAlerts().empty());
}

TEST_F(Desktop, AnsweredByTheHostOrOutlivedTheAlertLeavesTheDesktop) {
    std::vector<int> answers;
    app->showAlert("First", "", {"OK"}, [&](int i) { answers.push_back(i); });
    app->showAlert("Second", "", {"OK"}, [&](int i) { answers.push_back(10 + i); });
    auto n = waitForNotifies(2);
    ASSERT_EQ(n.size(), 2u);
    // Answered in the application itself: the desktop copy goes too, and a click that was
    // already on its way does not answer it a second time.
    EXPECT_TRUE(app->dismissAlert(0));
    ASSERT_TRUE(settleUntil([&] { return closed() == std::vector<std::uint32_t>{n[0].id}; }));
    actionInvoked(n[0].id, "0");
    notificationClosed(n[1].id, 2);
    ASSERT_TRUE(settleUntil([&] { return answers.size() >= 2; }));
    EXPECT_EQ(answers, (std::vector<int>{0, 10}));

    // Answered before it reached the desktop (here as soon as the application recorded it, as a
    // host thread could while another thread presents it): it leaves the screen once shown.
    app->setCallObserver([&](const Application::Call& c) {
        if (c.detail == "Third") {
            EXPECT_TRUE(app->dismissAlert(0));
        }
    });
    app->showAlert("Third", "", {"OK"}, [&](int i) { answers.push_back(20 + i); });
    app->setCallObserver(nullptr);
    n = waitForNotifies(3);
    ASSERT_EQ(n.size(), 3u);
    EXPECT_TRUE(settleUntil([&] { return closed().size() == 2; }));
    EXPECT_EQ(closed(), (std::vector<std::uint32_t>{n[0].id, n[2].id}));

    // The presenter goes: the alert it still shows leaves the desktop, and the application
    // goes back to recording only.
    app->showAlert("Fourth", "", {"OK"}, [&](int i) { answers.push_back(30 + i); });
    n = waitForNotifies(4);
    ASSERT_EQ(n.size(), 4u);
    presenter.reset();
    EXPECT_EQ(app->presenter(), nullptr);
    EXPECT_TRUE(settleUntil([&] { return closed().size() == 3; }));
    EXPECT_EQ(closed(), (std::vector<std::uint32_t>{n[0].id, n[2].id, n[3].id}));
    app->showAlert("Fifth", "", {"OK"}, nullptr);
    EXPECT_TRUE(app->dismissAlert(0));
    EXPECT_EQ(answers, (std::vector<int>{0, 10, 20, 30}));
    EXPECT_EQ(app->visibleAlerts().size(), 1u);
    EXPECT_EQ(notifies().size(), 4u);
}

// No session bus at all, or one where no notification server runs.
TEST(DesktopWithoutServer, WritesBothToTheConsole) {
    auto bus = daemons::PrivateBus::start(nullptr);
    Strings addresses{"unix:path=/nonexistent/quenby-test/bus"};
    if (bus) addresses.push_back(bus->address());
    for (const auto& address : addresses) {
        test::ConsoleCapture console;
        SessionBusAddress session(address);
        auto scheduler = platform::Scheduler::create(std::make_shared<platform::SystemClock>());
        auto app = Application::create(scheduler);
        auto presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
        EXPECT_FALSE(presenter->onDesktop()) << address;
        int answered = 0;
        app->presentLocalNotificationNow({"View", "20% off coffee", Json::object(), "chime"});
        app->presentLocalNotificationNow({"", "Welcome back", Json::object(), ""});
        app->showAlert("20% off coffee", "At the counter", {"Cancel", "View Details"},
                       [&](int) { ++answered; });
        EXPECT_EQ(console.withPrefix("Notification: "),
                  (Strings{"Notification: View: 20% off coffee",
                           "Notification: Corner Store: Welcome back"}));
        EXPECT_EQ(console.withPrefix("Alert: "),
                  Strings{"Alert: 20% off coffee: At the counter [Cancel] [View Details]"});
        EXPECT_FALSE(presenter->onDesktop());
        // Still the application's to answer, as without any presenter.
        EXPECT_TRUE(app->dismissAlert(1));
        EXPECT_EQ(answered, 1);
    }
}

}  // namespace
