#include "campaigns/LWAppDelegate.h"
#include "campaigns/LWCampaignAlertView.h"

using quenby::platform::Application;

// ---------------------------------------------------------------------------------------------
// The campaign alert

void LWCampaignAlertView::showWithCampaignAndCompletion(Application& application,
                                                        const LWCampaign& campaign,
                                                        std::function<void()> completion) {
    auto delegate = std::make_shared<LWCampaignAlertViewDelegate>(std::move(completion));
    LWCampaignAlertView(campaign, delegate).show(application);
}

LWCampaignAlertView::LWCampaignAlertView(const LWCampaign& campaign,
                                         std::shared_ptr<LWCampaignAlertViewDelegate> delegate)
    : retainedDelegate_(std::move(delegate)) {
    auto content = campaign.content();
    title_ = content ? content->alertTitle() : "(null)";
    message_ = content ? content->alertMessage() : "(null)";
}

void LWCampaignAlertView::show(Application& application) {
    application.showAlert(title_, message_, {"Cancel", "View Details"},
                          [delegate = retainedDelegate_](int index) {
                              delegate->alertViewDidDismissWithButtonIndex(index);
                          });
}

// ---------------------------------------------------------------------------------------------
// The application-delegate proxy

std::shared_ptr<LWAppDelegate> LWAppDelegate::initWithManager(Application& application,
                                                              std::shared_ptr<LWManager> manager) {
    std::shared_ptr<LWAppDelegate> proxy(new LWAppDelegate());
    proxy->original_ = application.delegate();
    application.setDelegate(proxy);
    proxy->manager_ = manager;
    return proxy;
}

std::shared_ptr<quenby::platform::ApplicationDelegate> LWAppDelegate::originalDelegate() const {
    std::lock_guard lk(mu_);
    return original_;
}

std::shared_ptr<quenby::platform::ApplicationDelegate> LWAppDelegate::forwardee(Callback c) const {
    auto original = originalDelegate();
    return original && original->respondsTo(c) ? original : nullptr;
}

bool LWAppDelegate::respondsTo(Callback c) const {
    if (c == Callback::DidRegisterForRemoteNotificationsWithDeviceToken ||
        c == Callback::DidReceiveRemoteNotificationFetchCompletionHandler) {
        return true;
    }
    return forwardee(c) != nullptr;
}

std::string LWAppDelegate::className() const {
    auto original = originalDelegate();
    return original ? original->className() : "LWAppDelegate";
}

void LWAppDelegate::applicationDidRegisterForRemoteNotificationsWithDeviceToken(
    Application& app, const quenby::platform::Bytes& token) {
    std::shared_ptr<LWManager> manager;
    {
        std::lock_guard lk(mu_);
        manager = manager_.lock();
    }
    if (manager) manager->registerDeviceToken(token);
    if (auto o = forwardee(Callback::DidRegisterForRemoteNotificationsWithDeviceToken)) {
        o->applicationDidRegisterForRemoteNotificationsWithDeviceToken(app, token);
    }
}

void LWAppDelegate::applicationDidReceiveRemoteNotificationFetchCompletionHandler(
    Application& app, const quenby::platform::Json& userInfo, FetchCompletion done) {
    if (auto o = forwardee(Callback::DidReceiveRemoteNotificationFetchCompletionHandler)) {
        o->applicationDidReceiveRemoteNotificationFetchCompletionHandler(app, userInfo,
                                                                         std::move(done));
        return;  // the host handles its own pushes; the campaign manager is not told
    }
    if (auto o = forwardee(Callback::DidReceiveRemoteNotification)) {
        o->applicationDidReceiveRemoteNotification(app, userInfo);
    }
    std::shared_ptr<LWManager> manager;
    {
        std::lock_guard lk(mu_);
        manager = manager_.lock();
    }
    if (manager) manager->handleRemoteNotificationFetchCompletionHandler(userInfo, std::move(done));
}

// The forwarding table: every callback the proxy does not take reaches the original unchanged.
void LWAppDelegate::applicationDidFailToRegisterForRemoteNotificationsWithError(
    Application& app, const quenby::platform::Error& e) {
    if (auto o = forwardee(Callback::DidFailToRegisterForRemoteNotificationsWithError)) {
        o->applicationDidFailToRegisterForRemoteNotificationsWithError(app, e);
    }
}

void LWAppDelegate::applicationDidReceiveRemoteNotification(Application& app,
                                                            const quenby::platform::Json& info) {
    if (auto o = forwardee(Callback::DidReceiveRemoteNotification)) {
        o->applicationDidReceiveRemoteNotification(app, info);
    }
}

void LWAppDelegate::applicationDidReceiveLocalNotification(
    Application& app, const quenby::platform::LocalNotification& n) {
    if (auto o = forwardee(Callback::DidReceiveLocalNotification)) {
        o->applicationDidReceiveLocalNotification(app, n);
    }
}

void LWAppDelegate::applicationPerformFetchWithCompletionHandler(Application& app,
                                                                 FetchCompletion done) {
    if (auto o = forwardee(Callback::PerformFetchWithCompletionHandler)) {
        o->applicationPerformFetchWithCompletionHandler(app, std::move(done));
    }
}

void LWAppDelegate::applicationDidFinishLaunching(Application& app) {
    if (auto o = forwardee(Callback::DidFinishLaunching)) o->applicationDidFinishLaunching(app);
}

void LWAppDelegate::applicationDidBecomeActive(Application& app) {
    if (auto o = forwardee(Callback::DidBecomeActive)) o->applicationDidBecomeActive(app);
}

void LWAppDelegate::applicationWillResignActive(Application& app) {
    if (auto o = forwardee(Callback::WillResignActive)) o->applicationWillResignActive(app);
}

void LWAppDelegate::applicationDidEnterBackground(Application& app) {
    if (auto o = forwardee(Callback::DidEnterBackground)) o->applicationDidEnterBackground(app);
}

void LWAppDelegate::applicationWillEnterForeground(Application& app) {
    if (auto o = forwardee(Callback::WillEnterForeground)) o->applicationWillEnterForeground(app);
}

void LWAppDelegate::applicationWillTerminate(Application& app) {
    if (auto o = forwardee(Callback::WillTerminate)) o->applicationWillTerminate(app);
}
