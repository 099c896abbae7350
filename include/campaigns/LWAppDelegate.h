// Puts itself in the application delegate slot in place of the host's delegate, takes the push
// token and silent remote notifications for the campaign manager, and passes every other callback
// to the host's delegate unchanged.
#pragma once

#include <memory>
#include <mutex>

#include "campaigns/LWManager.h"
#include "platform/application.h"

class LWAppDelegate : public quenby::platform::ApplicationDelegate,
                      public std::enable_shared_from_this<LWAppDelegate> {
  public:
    using Callback = quenby::platform::ApplicationDelegate::Callback;

    // Keeps the application's current delegate as the original, installs itself, and holds the
    // manager weakly.
    static std::shared_ptr<LWAppDelegate> initWithManager(
        quenby::platform::Application& application, std::shared_ptr<LWManager> manager);

    std::shared_ptr<quenby::platform::ApplicationDelegate> originalDelegate() const;

    // Its own two callbacks, and whatever the original answers for the rest.
    bool respondsTo(Callback c) const override;
    // The original's class: the proxy presents itself as the host's delegate.
    std::string className() const override;

    // The manager first, then the original when it takes tokens.
    void applicationDidRegisterForRemoteNotificationsWithDeviceToken(
        quenby::platform::Application& app, const quenby::platform::Bytes& token) override;
    // A host delegate with a fetch-kind handler takes the push alone; otherwise the older handler
    // (when there is one) hears it, then the manager, which calls `done`.
    void applicationDidReceiveRemoteNotificationFetchCompletionHandler(
        quenby::platform::Application& app, const quenby::platform::Json& userInfo,
        FetchCompletion done) override;

    // Forwarded unchanged to the original when it implements them.
    void applicationDidFailToRegisterForRemoteNotificationsWithError(
        quenby::platform::Application& app, const quenby::platform::Error& e) override;
    void applicationDidReceiveRemoteNotification(quenby::platform::Application& app,
                                                 const quenby::platform::Json& info) override;
    void applicationDidReceiveLocalNotification(
        quenby::platform::Application& app, const quenby::platform::LocalNotification& n) override;
    void applicationPerformFetchWithCompletionHandler(quenby::platform::Application& app,
                                                      FetchCompletion done) override;
    void applicationDidFinishLaunching(quenby::platform::Application& app) override;
    void applicationDidBecomeActive(quenby::platform::Application& app) override;
    void applicationWillResignActive(quenby::platform::Application& app) override;
    void applicationDidEnterBackground(quenby::platform::Application& app) override;
    void applicationWillEnterForeground(quenby::platform::Application& app) override;
    void applicationWillTerminate(quenby::platform::Application& app) override;

  private:
    LWAppDelegate() = default;
    // The original when it implements `c`.
    std::shared_ptr<quenby::platform::ApplicationDelegate> forwardee(Callback c) const;

    mutable std::mutex mu_;
    std::shared_ptr<quenby::platform::ApplicationDelegate> original_;  // guarded by mu_
    std::weak_ptr<LWManager> manager_;                                 // guarded by mu_
};
