// The campaign alert and the application-delegate proxy.
#include <gtest/gtest.h>

#include "campaigns/LWAppDelegate.h"
#include "campaigns/LWCampaignAlertView.h"
#include "campaigns/campaign_fixture.h"

using namespace quenby;
using namespace quenby::test;
using platform::ApplicationDelegate;
using platform::Json;
using Callback = ApplicationDelegate::Callback;

namespace {

// A host's own application delegate, implementing the callbacks it is given.
class HostDelegate : public ApplicationDelegate {
  public:
    explicit HostDelegate(std::vector<Callback> implemented)
        : implemented_(std::move(implemented)) {}
    bool respondsTo(Callback c) const override { return std::ranges::count(implemented_, c); }
    std::string className() const override { return "StoreAppDelegate"; }
    void applicationDidRegisterForRemoteNotificationsWithDeviceToken(
        platform::Application&, const platform::Bytes&) override {
        heard.push_back("token");
    }
    void applicationDidReceiveRemoteNotification(platform::Application&, const Json&) override {
        heard.push_back("legacy");
    }
    void applicationDidReceiveRemoteNotificationFetchCompletionHandler(
        platform::Application&, const Json&, FetchCompletion done) override {
        heard.push_back("fetch");
        done(platform::kFetchResultNewData);
    }
    void applicationDidBecomeActive(platform::Application&) override { heard.push_back("active"); }
    void applicationDidReceiveLocalNotification(platform::Application&,
                                                const platform::LocalNotification& n) override {
        heard.push_back("local " + n.alertBody);
    }
    std::vector<std::string> heard;

  private:
    std::vector<Callback> implemented_;
};

}  // namespace

TEST(LWCampaignAlertView, OnlyViewDetailsRunsTheCompletionOnce) {
    CampaignFixture f;
    f.startAndSync();
    auto c1 = f.manager->campaignWithId("c1");
    auto& app = *f.vp.platform->application;
    int ran = 0;
    LWCampaignAlertView::showWithCampaignAndCompletion(app, *c1, [&] { ++ran; });
    ASSERT_EQ(app.visibleAlerts().size(), 1u);
    auto alert = app.visibleAlerts()[0];
    EXPECT_EQ(alert.title + "|" + alert.message, "20% off coffee|At the counter");
    EXPECT_EQ(alert.buttons, (std::vector<std::string>{"Cancel", "View Details"}));
    app.dismissAlert(0);
    EXPECT_EQ(ran, 0);
    LWCampaignAlertView::showWithCampaignAndCompletion(app, *c1, [&] { ++ran; });
    app.dismissAlert(1);
    EXPECT_FALSE(app.dismissAlert(1)) << "dismissed once";
    EXPECT_EQ(ran, 1);
}

TEST(LWAppDelegate, PushesReachTheHostOrTheManagerByPrecedence) {
    CampaignFixture f;
    f.startAndSync();
    auto& app = *f.vp.platform->application;
    auto check = [&](std::vector<Callback> implemented, std::vector<std::string> hostHears,
                     std::vector<int> results, const char* why) {
        auto host = std::make_shared<HostDelegate>(implemented);
        app.setDelegate(host);
        auto proxy = LWAppDelegate::initWithManager(app, f.manager);
        EXPECT_EQ(app.delegate(), proxy);
        EXPECT_EQ(proxy->className(), "StoreAppDelegate");
        std::vector<int> got;
        app.deliverRemoteNotification({{"aps", {{"content-available", 1}}}},
                                      [&](int r) { got.push_back(r); });
        EXPECT_EQ(host->heard, hostHears) << why;
        EXPECT_EQ(got, results) << why;
        return host;
    };
    using C = Callback;
    check({C::DidReceiveRemoteNotificationFetchCompletionHandler, C::DidReceiveRemoteNotification},
          {"fetch"}, {0}, "the host's fetch handler takes the push alone");
    // Without a recent place the manager answers "no data" (1).
    check({C::DidReceiveRemoteNotification}, {"legacy"}, {1},
          "the older handler, then the manager");
    check({}, {}, {1}, "only the manager");

    // Tokens: the manager first, then the host when it takes them; other callbacks pass through.
    auto host = check({C::DidRegisterForRemoteNotificationsWithDeviceToken, C::DidBecomeActive,
                       C::DidReceiveLocalNotification},
                      {}, {1}, "");
    app.deliverDeviceToken({0x01, 0x02});
    f.vp.scheduler().settle();
    EXPECT_EQ(host->heard, (std::vector<std::string>{"token"}));
    EXPECT_EQ(f.manager->campaignRepo()->registeredDeviceToken(), "0102");
    auto proxy = std::static_pointer_cast<LWAppDelegate>(app.delegate());
    EXPECT_FALSE(f.manager->lwAppDelegate()) << "the manager never fills its slot";
    EXPECT_TRUE(proxy->respondsTo(C::DidBecomeActive)) << "a host-only callback";
    EXPECT_FALSE(proxy->respondsTo(C::WillTerminate));
    proxy->applicationDidBecomeActive(app);
    EXPECT_EQ(host->heard.back(), "active");
    platform::LocalNotification note;
    note.alertBody = "20% off";
    app.deliverLocalNotificationAction(note);
    EXPECT_EQ(host->heard.back(), "local 20% off");

    app.setDelegate(nullptr);
    EXPECT_EQ(LWAppDelegate::initWithManager(app, f.manager)->className(), "LWAppDelegate")
        << "without a host delegate the proxy names itself";
    app.setDelegate(proxy);

    // Once the manager is gone, the intercepted callbacks still reach the host.
    f.manager.reset();
    app.deliverDeviceToken({0x03});
    EXPECT_EQ(host->heard.back(), "token");
}
