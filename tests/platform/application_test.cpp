// The application's presenter hook, alerts answered by id, opened local notifications, and the
// location service's refusals on a device without ranging.
#include "platform/application.h"

#include <gtest/gtest.h>

#include "platform/location_manager.h"
#include "platform/notifications.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;

namespace {

// Writes down what it is asked, and what the application had recorded at that moment.
struct RecordingPresenter final : ApplicationPresenter {
    explicit RecordingPresenter(Application& app) : app_(app) {}
    void presentLocalNotification(const LocalNotification& n) override {
        auto calls = app_.calls();
        heard.push_back("notification " + n.alertBody + " " + n.userInfo.dump() + " after " +
                        (calls.empty() ? "nothing" : calls.back().name));
    }
    void presentAlert(const Application::Alert& a) override {
        std::string buttons;
        for (const auto& b : a.buttons) buttons += "[" + b + "]";
        // Reading the application back must not deadlock: it holds no lock while calling us.
        heard.push_back("alert " + std::to_string(a.id) + " " + a.title + ": " + a.message + " " +
                        buttons + " visible " + std::to_string(app_.visibleAlerts().size()));
    }
    void alertDismissed(std::uint64_t id) override {
        heard.push_back("dismissed " + std::to_string(id) + " visible " +
                        std::to_string(app_.visibleAlerts().size()));
    }
    std::vector<std::string> heard;
    Application& app_;
};

struct LocalNotificationDelegate final : ApplicationDelegate {
    explicit LocalNotificationDelegate(bool responds) : responds_(responds) {}
    bool respondsTo(Callback c) const override {
        return responds_ && c == Callback::DidReceiveLocalNotification;
    }
    void applicationDidReceiveLocalNotification(Application&, const LocalNotification& n) override {
        received.push_back(n.userInfo);
        NotificationQueue::defaultQueue().enqueueNotification({"Opened", nullptr, {}}, center);
        deliveredInsidePass = opened;
    }
    NotificationCenter center;
    std::vector<Json> received;
    int opened = 0;
    int deliveredInsidePass = -1;
    bool responds_;
};

}  // namespace

TEST(ApplicationPresenter, SeesWhatWasRecordedInOrderUntilRemoved) {
    test::VirtualPlatform vp;
    auto& app = *vp.platform->application;
    std::vector<std::string> observed;
    app.setCallObserver([&](const Application::Call& c) { observed.push_back(c.name); });
    auto presenter = std::make_shared<RecordingPresenter>(app);
    app.setPresenter(presenter);

    app.presentLocalNotificationNow({"View", "20% off coffee", Json{{"campaign", "c1"}}, "ding"});
    auto id = app.showAlert("Coffee", "At the counter", {"Cancel", "View Details"}, nullptr);
    EXPECT_EQ(
        presenter->heard,
        (std::vector<std::string>{
            R"(notification 20% off coffee {"campaign":"c1"} after scheduleLocalNotification)",
            "alert " + std::to_string(id) +
                " Coffee: At the counter [Cancel][View Details] visible 1"}));
    EXPECT_EQ(observed, (std::vector<std::string>{"scheduleLocalNotification", "showAlert"}));

    app.setPresenter(nullptr);
    app.presentLocalNotificationNow({"", "later", Json::object(), ""});
    app.showAlert("Later", "", {"OK"}, nullptr);
    EXPECT_EQ(presenter->heard.size(), 2u) << "a removed presenter hears nothing";
    EXPECT_EQ(app.presentedNotifications().size(), 2u);
    EXPECT_EQ(app.visibleAlerts().size(), 2u);
}

TEST(ApplicationPresenter, AlertAnsweredByIdRunsOnlyThatAlertsCallbackOnceInOnePass) {
    test::VirtualPlatform vp;
    auto& app = *vp.platform->application;
    auto presenter = std::make_shared<RecordingPresenter>(app);
    app.setPresenter(presenter);
    NotificationCenter center;
    std::vector<std::string> got;
    int delivered = 0;
    center.addObserver("Answered", nullptr, [&](const Notification&) { ++delivered; });
    auto show = [&](const std::string& title) {
        return app.showAlert(title, "", {"Cancel", "View Details"}, [&, title](int index) {
            got.push_back(title + " " + std::to_string(index));
            EXPECT_EQ(delivered, 0) << "queued notifications wait for the end of the pass";
            NotificationQueue::defaultQueue().enqueueNotification({"Answered", nullptr, {}},
                                                                  center);
        });
    };
    auto first = show("first");
    auto second = show("second");
    presenter->heard.clear();

    EXPECT_TRUE(app.dismissAlertWithId(second, 1));
    EXPECT_EQ(got, (std::vector<std::string>{"second 1"}));
    EXPECT_EQ(delivered, 1) << "the callback ran as one pass of its own";
    EXPECT_FALSE(app.dismissAlertWithId(second, 1)) << "answered once";
    EXPECT_FALSE(app.dismissAlertWithId(second + 100, 0));
    ASSERT_EQ(app.visibleAlerts().size(), 1u);
    EXPECT_EQ(app.visibleAlerts()[0].id, first);

    // The oldest-first answer shares the same path, presenter included.
    delivered = 0;
    EXPECT_TRUE(app.dismissAlert(0));
    EXPECT_EQ(got, (std::vector<std::string>{"second 1", "first 0"}));
    EXPECT_EQ(delivered, 1);
    EXPECT_FALSE(app.dismissAlert(0));
    // Told once per alert, once the alert is gone and before its callback.
    EXPECT_EQ(presenter->heard,
              (std::vector<std::string>{"dismissed " + std::to_string(second) + " visible 1",
                                        "dismissed " + std::to_string(first) + " visible 0"}));
}

TEST(ApplicationPresenter, OpenedLocalNotificationReachesOnlyADelegateThatAnswers) {
    test::VirtualPlatform vp;
    auto& app = *vp.platform->application;
    LocalNotification n{"View", "20% off coffee", Json{{"campaign", "c1"}}, ""};
    app.deliverLocalNotificationAction(n);  // no delegate: nothing happens

    auto silent = std::make_shared<LocalNotificationDelegate>(false);
    app.setDelegate(silent);
    app.deliverLocalNotificationAction(n);
    EXPECT_TRUE(silent->received.empty());

    auto host = std::make_shared<LocalNotificationDelegate>(true);
    host->center.addObserver("Opened", nullptr, [&](const Notification&) { ++host->opened; });
    app.setDelegate(host);
    app.deliverLocalNotificationAction(n);
    EXPECT_EQ(host->received, (std::vector<Json>{Json{{"campaign", "c1"}}}));
    EXPECT_EQ(host->deliveredInsidePass, 0);
    EXPECT_EQ(host->opened, 1) << "delivered as one pass";
}

TEST(LocationService, DeviceWithoutRangingRefusesEveryRangingRequestOnTheHostThread) {
    struct Delegate final : LocationManagerDelegate {
        std::vector<std::string> heard;
        void locationManagerRangingBeaconsDidFailForRegionWithError(
            LocationManager&, const std::shared_ptr<const BeaconRegion>& r,
            const Error& e) override {
            heard.push_back(r->identifier() + " " + e.toString());
        }
    };
    test::VirtualPlatform vp;
    auto delegate = std::make_shared<Delegate>();
    auto manager = vp.platform->location->createLocationManager();
    manager->setDelegate(delegate);
    auto caps = vp.platform->location->capabilities();
    caps.rangingAvailable = false;
    vp.platform->location->setCapabilities(caps);
    manager->startRangingBeaconsInRegion(std::make_shared<BeaconRegion>(
        *UUID::parse(test::kTestVendorId), std::nullopt, std::nullopt, "door"));
    EXPECT_TRUE(delegate->heard.empty()) << "callbacks wait for the host's run loop";
    vp.scheduler().settle();
    EXPECT_EQ(delegate->heard,
              (std::vector<std::string>{
                  "door Error Domain=kCLErrorDomain Code=16 \"Ranging is unavailable on this "
                  "device\""}));
}
