// Local notifications and alerts on a desktop: python-dbusmock's notification_daemon on a private
// bus plays the notification server. What the presenter sent is read back from the mock's call
// log, and the user's clicks are signals the mock emits on request.
#include "sensing/desktop_presenter.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sdbus-c++/sdbus-c++.h>

#include "campaigns/LWCampaign.h"
#include "campaigns/LWCampaignAlertView.h"
#include "campaigns/LWContent.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "support/daemons.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Application;
using platform::ApplicationDelegate;
using platform::Json;
using platform::LocalNotification;
using quenby::sensing::DesktopPresenter;
using quenby::testing::waitFor;
namespace daemons = quenby::testing;

namespace {

constexpr const char* kServer = "org.freedesktop.Notifications";
constexpr const char* kMockInterface = "org.freedesktop.DBus.Mock";

// Sets DBUS_SESSION_BUS_ADDRESS while it lives.
class SessionBusAddress {
  public:
    explicit SessionBusAddress(const std::string& address) {
        if (const char* old = getenv("DBUS_SESSION_BUS_ADDRESS")) old_ = old;
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }
    ~SessionBusAddress() {
        if (old_) {
            setenv("DBUS_SESSION_BUS_ADDRESS", old_->c_str(), 1);
        } else {
            unsetenv("DBUS_SESSION_BUS_ADDRESS");
        }
    }

  private:
    std::optional<std::string> old_;
};

struct NotifyCall {
    std::string appName;
    std::uint32_t replacesId;
    std::string icon, summary, body;
    std::vector<std::string> actions;
    std::map<std::string, sdbus::Variant> hints;
    std::int32_t expireTimeout;
    std::uint32_t id;  // what the mock answered: it numbers notifications from 1
};

// The host's application delegate, receiving opened local notifications on the host thread.
class HostDelegate final : public ApplicationDelegate {
  public:
    explicit HostDelegate(const platform::Scheduler& s) : scheduler_(s) {}
    bool respondsTo(Callback c) const override {
        return c == Callback::DidReceiveLocalNotification;
    }
    void applicationDidReceiveLocalNotification(Application&, const LocalNotification& n) override {
        EXPECT_TRUE(scheduler_.isHostThread());
        opened.push_back(n.userInfo);
    }
    std::vector<Json> opened;

  private:
    const platform::Scheduler& scheduler_;
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
        scheduler = platform::Scheduler::create(std::make_shared<platform::SystemClock>());
        app = Application::create(scheduler);
    }
    void TearDown() override {
        presenter.reset();
        mockObject_.reset();
        control_.reset();
        address_.reset();
    }

    // Every Notify the server received, in order.
    std::vector<NotifyCall> notifies() {
        std::vector<NotifyCall> out;
        std::uint32_t id = 0;
        for (const auto& call : callLog()) {
            const auto& args = std::get<2>(call);
            if (std::get<1>(call) != "Notify") continue;
            out.push_back({args[0].get<std::string>(), args[1].get<std::uint32_t>(),
                           args[2].get<std::string>(), args[3].get<std::string>(),
                           args[4].get<std::string>(), args[5].get<std::vector<std::string>>(),
                           args[6].get<std::map<std::string, sdbus::Variant>>(),
                           args[7].get<std::int32_t>(), ++id});
        }
        return out;
    }
    // Waits (pumping the host thread) until the server has received `count` Notify calls.
    std::vector<NotifyCall> waitForNotifies(std::size_t count) {
        std::vector<NotifyCall> got;
        waitFor([&] {
            scheduler->settle();
            got = notifies();
            return got.size() >= count;
        });
        EXPECT_EQ(got.size(), count);
        return got;
    }
    // Ids passed to CloseNotification, in order.
    std::vector<std::uint32_t> closed() {
        std::vector<std::uint32_t> out;
        for (const auto& call : callLog()) {
            if (std::get<1>(call) == "CloseNotification") {
                out.push_back(static_cast<std::uint32_t>(std::get<2>(call)[0].get<std::int32_t>()));
            }
        }
        return out;
    }
    void actionInvoked(std::uint32_t id, const std::string& key) {
        emit("ActionInvoked", "us", {sdbus::Variant(id), sdbus::Variant(key)});
    }
    void notificationClosed(std::uint32_t id, std::uint32_t reason) {
        emit("NotificationClosed", "uu", {sdbus::Variant(id), sdbus::Variant(reason)});
    }
    void malformedSignals(std::uint32_t id) {
        emit("ActionInvoked", "s", {sdbus::Variant(std::string("1"))});
        emit("ActionInvoked", "uu", {sdbus::Variant(id), sdbus::Variant(std::uint32_t{1})});
        emit("NotificationClosed", "us", {sdbus::Variant(id), sdbus::Variant(std::string("1"))});
    }
    // Pumps the host thread until `pred` holds.
    bool settleUntil(const std::function<bool()>& pred) {
        return waitFor([&] {
            scheduler->settle();
            return pred();
        });
    }

    // The notification server goes away (crashed, logged out).
    void killServer() { mock_->kill(); }

    std::shared_ptr<platform::Scheduler> scheduler;
    std::shared_ptr<Application> app;
    std::unique_ptr<DesktopPresenter> presenter;

  private:
    using CallLog =
        std::vector<sdbus::Struct<std::uint64_t, std::string, std::vector<sdbus::Variant>>>;
    CallLog callLog() {
        CallLog log;
        mockObject_->callMethod("GetCalls").onInterface(kMockInterface).storeResultsTo(log);
        return log;
    }
    void emit(const std::string& name, const std::string& signature,
              std::vector<sdbus::Variant> args) {
        mockObject_->callMethod("EmitSignal")
            .onInterface(kMockInterface)
            .withArguments(std::string(kServer), name, signature, args);
    }

    std::unique_ptr<daemons::PrivateBus> bus_;
    std::unique_ptr<daemons::DbusMock> mock_;
    std::unique_ptr<SessionBusAddress> address_;
    std::unique_ptr<sdbus::IConnection> control_;
    std::unique_ptr<sdbus::IProxy> mockObject_;
};

TEST_F(Desktop, LocalNotificationIsPostedAndOpeningItReachesTheDelegateOnce) {
    presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    EXPECT_TRUE(presenter->onDesktop());
    auto host = std::make_shared<HostDelegate>(*scheduler);
    app->setDelegate(host);

    app->presentLocalNotificationNow({"View", "20% off coffee", Json{{"campaign", "c1"}}, "chime"});
    app->presentLocalNotificationNow({"", "Welcome back", Json{{"campaign", "c2"}}, ""});
    auto n = waitForNotifies(2);
    ASSERT_EQ(n.size(), 2u);
    EXPECT_EQ(n[0].appName, "Corner Store");
    EXPECT_EQ(n[0].replacesId, 0u);
    EXPECT_EQ(n[0].icon, "");
    EXPECT_EQ(n[0].summary, "View");
    EXPECT_EQ(n[0].body, "20% off coffee");
    EXPECT_EQ(n[0].actions, (std::vector<std::string>{"default", "View"}));
    ASSERT_EQ(n[0].hints.size(), 1u);
    EXPECT_EQ(n[0].hints.at("sound-name").get<std::string>(), "chime");
    EXPECT_EQ(n[0].expireTimeout, -1);
    // Without an action: the application's name as the title, a plain "Open", no sound.
    EXPECT_EQ(n[1].summary, "Corner Store");
    EXPECT_EQ(n[1].actions, (std::vector<std::string>{"default", "Open"}));
    EXPECT_TRUE(n[1].hints.empty());

    actionInvoked(n[1].id, "View");  // not one of its actions
    actionInvoked(n[0].id, "default");
    actionInvoked(n[0].id, "default");  // already opened
    actionInvoked(n[1].id, "default");
    ASSERT_TRUE(settleUntil([&] { return host->opened.size() >= 2; }));
    EXPECT_EQ(host->opened, (std::vector<Json>{{{"campaign", "c1"}}, {{"campaign", "c2"}}}));
}

TEST_F(Desktop, AlertButtonsAreActionsAndTheChosenOneAnswersTheAlertOnce) {
    presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    std::vector<int> first, second;
    auto firstId = app->showAlert("20% off coffee", "At the counter", {"Cancel", "View Details"},
                                  [&](int i) { first.push_back(i); });
    app->showAlert("Bakery", "Fresh bread", {"Cancel", "View Details"},
                   [&](int i) { second.push_back(i); });
    auto n = waitForNotifies(2);
    ASSERT_EQ(n.size(), 2u);
    EXPECT_EQ(n[0].summary, "20% off coffee");
    EXPECT_EQ(n[0].body, "At the counter");
    EXPECT_EQ(n[0].actions, (std::vector<std::string>{"0", "Cancel", "1", "View Details"}));
    EXPECT_EQ(n[0].hints.at("urgency").peekValueType(), "y");
    EXPECT_EQ(n[0].hints.at("urgency").get<std::uint8_t>(), 1);
    EXPECT_TRUE(n[0].hints.at("resident").get<bool>());
    EXPECT_EQ(n[0].expireTimeout, 0) << "never expires";

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
    actionInvoked(n[1].id, "2");
    actionInvoked(n[1].id, "default");
    actionInvoked(n[1].id, "-1");
    // Closing the second without a button is its cancel button.
    notificationClosed(n[1].id, 2);
    ASSERT_TRUE(settleUntil([&] { return !second.empty(); }));
    EXPECT_EQ(second, std::vector<int>{0});
    EXPECT_EQ(first, std::vector<int>{1});
    EXPECT_TRUE(app->visibleAlerts().empty());
}

TEST_F(Desktop, OnlyItsOwnNotificationsAreAnswered) {
    presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    auto host = std::make_shared<HostDelegate>(*scheduler);
    app->setDelegate(host);
    std::vector<int> answers;
    app->showAlert("Coffee", "", {"Cancel", "View Details"}, [&](int i) { answers.push_back(i); });
    auto n = waitForNotifies(1);
    ASSERT_EQ(n.size(), 1u);
    // A server sending signals of the wrong shape, another application's notifications, and a
    // server closing ours on its own.
    malformedSignals(n[0].id);
    actionInvoked(n[0].id + 40, "1");
    actionInvoked(n[0].id + 41, "default");
    notificationClosed(n[0].id + 40, 2);
    notificationClosed(n[0].id, 1);  // expired: still the application's to answer
    app->presentLocalNotificationNow({"View", "Welcome", Json{{"k", 1}}, ""});
    auto after = waitForNotifies(2);
    ASSERT_EQ(after.size(), 2u);
    actionInvoked(after[1].id, "default");
    ASSERT_TRUE(settleUntil([&] { return !host->opened.empty(); }));
    EXPECT_EQ(host->opened, std::vector<Json>{Json({{"k", 1}})});
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(app->visibleAlerts().size(), 1u);
    actionInvoked(n[0].id, "1");  // forgotten once the server closed it
    app->presentLocalNotificationNow({"View", "Again", Json{{"k", 2}}, ""});
    auto last = waitForNotifies(3);
    ASSERT_EQ(last.size(), 3u);
    actionInvoked(last[2].id, "default");
    ASSERT_TRUE(settleUntil([&] { return host->opened.size() == 2; }));
    EXPECT_TRUE(answers.empty());
}

TEST_F(Desktop, AnsweredByTheHostOrOutlivedTheAlertLeavesTheDesktop) {
    presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
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

TEST_F(Desktop, ViewDetailsOnTheCampaignAlertRunsItsCompletion) {
    test::TempDir documents, bundle;
    platform::Platform::Options o;
    o.applicationId = "com.example.store";
    o.documentsDirectory = documents.path();
    o.bundleDirectory = bundle.path();
    auto p = platform::Platform::create(o);
    presenter = DesktopPresenter::create(p->scheduler, p->application, "Corner Store");
    auto content = LWContent::initWithDictionary(p, {{"id", 5},
                                                     {"alert_title", "20% off coffee"},
                                                     {"alert_message", "At the counter"},
                                                     {"body", "<p>Coffee</p>"}});
    auto campaign = LWCampaign::initWithDictionaryContents(
        p, {{"id", "c1"}, {"links", {{"content", 5}}}}, {content});
    int completions = 0;
    LWCampaignAlertView::showWithCampaignAndCompletion(*p->application, *campaign,
                                                       [&] { ++completions; });
    scheduler = p->scheduler;
    auto n = waitForNotifies(1);
    ASSERT_EQ(n.size(), 1u);
    EXPECT_EQ(n[0].summary, "20% off coffee");
    EXPECT_EQ(n[0].actions, (std::vector<std::string>{"0", "Cancel", "1", "View Details"}));
    actionInvoked(n[0].id, "1");
    EXPECT_TRUE(settleUntil([&] { return completions == 1; }));
    EXPECT_TRUE(p->application->visibleAlerts().empty());
    presenter.reset();
}

TEST_F(Desktop, ServerGoneFallsBackToTheConsole) {
    presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    ASSERT_TRUE(presenter->onDesktop());
    killServer();
    test::ConsoleCapture console;
    app->presentLocalNotificationNow({"View", "20% off coffee", Json::object(), ""});
    app->showAlert("Coffee", "At the counter", {"Cancel", "View Details"}, nullptr);
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{"Notification: View: 20% off coffee",
                                        "Alert: Coffee: At the counter [Cancel] [View Details]"}));
    EXPECT_FALSE(presenter->onDesktop());
    EXPECT_EQ(app->visibleAlerts().size(), 1u) << "still the application's to answer";
}

TEST(DesktopWithoutServer, NoSessionBusWritesBothToTheConsole) {
    test::ConsoleCapture console;
    SessionBusAddress nowhere("unix:path=/nonexistent/quenby-test/bus");
    auto scheduler = platform::Scheduler::create(std::make_shared<platform::SystemClock>());
    auto app = Application::create(scheduler);
    auto presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    EXPECT_FALSE(presenter->onDesktop());
    int answered = 0;
    app->presentLocalNotificationNow({"View", "20% off coffee", Json::object(), "chime"});
    app->presentLocalNotificationNow({"", "Welcome back", Json::object(), ""});
    app->showAlert("20% off coffee", "At the counter", {"Cancel", "View Details"},
                   [&](int) { ++answered; });
    EXPECT_EQ(console.withPrefix("Notification: "),
              (std::vector<std::string>{"Notification: View: 20% off coffee",
                                        "Notification: Corner Store: Welcome back"}));
    EXPECT_EQ(
        console.withPrefix("Alert: "),
        std::vector<std::string>{"Alert: 20% off coffee: At the counter [Cancel] [View Details]"});
    // Still the application's to answer, as without any presenter.
    EXPECT_TRUE(app->dismissAlert(1));
    EXPECT_EQ(answered, 1);
}

TEST(DesktopWithoutServer, BusWithoutNotificationServerWritesBothToTheConsole) {
    std::string why;
    auto bus = daemons::PrivateBus::start(&why);
    if (!bus) GTEST_SKIP() << "no private D-Bus daemon: " << why;
    test::ConsoleCapture console;
    SessionBusAddress address(bus->address());
    auto scheduler = platform::Scheduler::create(std::make_shared<platform::SystemClock>());
    auto app = Application::create(scheduler);
    auto presenter = DesktopPresenter::create(scheduler, app, "Corner Store");
    EXPECT_FALSE(presenter->onDesktop());
    app->presentLocalNotificationNow({"View", "20% off coffee", Json::object(), ""});
    app->showAlert("Coffee", "At the counter", {"Cancel", "View Details"}, nullptr);
    EXPECT_TRUE(console.contains("Notification: View: 20% off coffee"));
    EXPECT_TRUE(console.contains("Alert: Coffee: At the counter [Cancel] [View Details]"));
    EXPECT_FALSE(presenter->onDesktop());
}

}  // namespace
