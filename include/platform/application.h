// The host application as the library sees it: its state, background tasks, the application
// delegate slot (push tokens and remote notifications arrive there), local notifications, alerts
// and the will-resign-active notification. On Linux the host (or the simulator, or a test) plays
// the operating system's part through the deliver… and set… operations.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/json.h"
#include "platform/scheduler.h"
#include "platform/types.h"

namespace quenby::platform {

enum class ApplicationState { Active = 0, Inactive = 1, Background = 2 };

using BackgroundTaskIdentifier = std::uint64_t;
inline constexpr BackgroundTaskIdentifier kInvalidBackgroundTask = 0;

// Posted on the default notification center, with the application as sender, when the host is
// about to leave the foreground.
inline constexpr const char kApplicationWillResignActiveNotification[] =
    "ApplicationWillResignActiveNotification";

// Background-fetch results.
inline constexpr int kFetchResultNewData = 0;
inline constexpr int kFetchResultNoData = 1;
inline constexpr int kFetchResultFailed = 2;

// A notification for the user, presented at once when scheduled.
struct LocalNotification {
    std::string alertAction;
    std::string alertBody;
    Json userInfo = Json::object();
    std::string soundName;
};

class Application;
class ApplicationPresenter;

// The host's application delegate. Each callback is optional: respondsTo() says which ones this
// delegate implements, and only those are called.
class ApplicationDelegate {
  public:
    enum class Callback {
        DidRegisterForRemoteNotificationsWithDeviceToken,
        DidFailToRegisterForRemoteNotificationsWithError,
        DidReceiveRemoteNotification,                        // the older kind
        DidReceiveRemoteNotificationFetchCompletionHandler,  // the fetch kind
        DidReceiveLocalNotification,
        PerformFetchWithCompletionHandler,
        DidFinishLaunching,
        DidBecomeActive,
        WillResignActive,
        DidEnterBackground,
        WillEnterForeground,
        WillTerminate,
    };
    using FetchCompletion = std::function<void(int result)>;

    virtual ~ApplicationDelegate() = default;
    virtual bool respondsTo(Callback) const { return false; }
    // The delegate's class name, as the host would name it.
    virtual std::string className() const { return "ApplicationDelegate"; }

    virtual void applicationDidRegisterForRemoteNotificationsWithDeviceToken(Application&,
                                                                             const Bytes&) {}
    virtual void applicationDidFailToRegisterForRemoteNotificationsWithError(Application&,
                                                                             const Error&) {}
    virtual void applicationDidReceiveRemoteNotification(Application&, const Json&) {}
    virtual void applicationDidReceiveRemoteNotificationFetchCompletionHandler(Application&,
                                                                               const Json&,
                                                                               FetchCompletion) {}
    virtual void applicationDidReceiveLocalNotification(Application&, const LocalNotification&) {}
    virtual void applicationPerformFetchWithCompletionHandler(Application&, FetchCompletion) {}
    virtual void applicationDidFinishLaunching(Application&) {}
    virtual void applicationDidBecomeActive(Application&) {}
    virtual void applicationWillResignActive(Application&) {}
    virtual void applicationDidEnterBackground(Application&) {}
    virtual void applicationWillEnterForeground(Application&) {}
    virtual void applicationWillTerminate(Application&) {}
};

class Application : public std::enable_shared_from_this<Application> {
  public:
    // A record of what the library asked of the application, for the host's records and tests:
    // "beginBackgroundTask", "endBackgroundTask", "scheduleLocalNotification", "showAlert".
    struct Call {
        std::string name;
        std::string detail;  // task name, notification body or alert title
        BackgroundTaskIdentifier task = kInvalidBackgroundTask;
    };
    struct Alert {
        std::uint64_t id;
        std::string title, message;
        std::vector<std::string> buttons;  // index 0 is the cancel button
    };

    static std::shared_ptr<Application> create(std::shared_ptr<Scheduler> scheduler);

    ApplicationState applicationState() const;
    void setApplicationState(ApplicationState s);

    // Nothing runs the task: it is the host's permission to keep working. Answers
    // kInvalidBackgroundTask when background time is refused. Any thread.
    BackgroundTaskIdentifier beginBackgroundTaskWithName(const std::string& name,
                                                         std::function<void()> expirationHandler);
    void endBackgroundTask(BackgroundTaskIdentifier id);
    void setBackgroundTimeAvailable(bool available);
    // Names of the tasks still running.
    std::vector<std::string> runningBackgroundTasks() const;
    // The host's time runs out: the task's expiration handler runs (on the host thread). False
    // when no task of that name runs.
    bool expireBackgroundTask(const std::string& name);

    // The delegate slot: held strongly, as the platform holds its application delegate.
    std::shared_ptr<ApplicationDelegate> delegate() const;
    void setDelegate(std::shared_ptr<ApplicationDelegate> d);

    // Records the notification, then hands it to the presenter, if any. Any thread.
    void presentLocalNotificationNow(const LocalNotification& n);
    std::vector<LocalNotification> presentedNotifications() const;

    // Shows an alert (recorded, then handed to the presenter, if any); `onDismiss` runs with the
    // chosen button's index when the user dismisses it.
    std::uint64_t showAlert(const std::string& title, const std::string& message,
                            std::vector<std::string> buttons,
                            std::function<void(int buttonIndex)> onDismiss);
    std::vector<Alert> visibleAlerts() const;
    // The user picks `buttonIndex` on the oldest alert still shown. False when none is shown.
    bool dismissAlert(int buttonIndex);
    // The user picks `buttonIndex` on the alert `id`. False when that alert is no longer shown.
    // Host thread, as one pass.
    bool dismissAlertWithId(std::uint64_t id, int buttonIndex);

    // Where notifications and alerts are shown to the user, besides being recorded: held
    // strongly; nullptr removes it. Any thread.
    void setPresenter(std::shared_ptr<ApplicationPresenter> presenter);
    std::shared_ptr<ApplicationPresenter> presenter() const;

    std::vector<Call> calls() const;
    void setCallObserver(std::function<void(const Call&)> observer);

    // The operating system's part, on the host thread, each as one run-loop pass.
    // The host goes to the background: state inactive, then the will-resign-active notification.
    void deliverWillResignActive();
    // A push arrives: to the delegate's fetch-kind callback if it answers, else to the older one.
    void deliverRemoteNotification(const Json& userInfo, ApplicationDelegate::FetchCompletion done);
    void deliverDeviceToken(const Bytes& token);
    // The user opened a presented local notification: to the delegate's received-local-
    // notification callback, when it answers.
    void deliverLocalNotificationAction(const LocalNotification& n);

  private:
    explicit Application(std::shared_ptr<Scheduler> s) : scheduler_(std::move(s)) {}
    void record(Call call);
    // Takes alert `id` (the oldest when none) off the screen and runs its callback.
    bool finishAlert(std::optional<std::uint64_t> id, int buttonIndex);

    std::shared_ptr<Scheduler> scheduler_;
    mutable std::mutex mu_;
    ApplicationState state_ = ApplicationState::Active;  // guarded by mu_
    bool backgroundTime_ = true;                         // guarded by mu_
    BackgroundTaskIdentifier nextTask_ = 1;              // guarded by mu_
    std::map<BackgroundTaskIdentifier, std::pair<std::string, std::function<void()>>>
        tasks_;                                                       // mu_
    std::shared_ptr<ApplicationDelegate> delegate_;                   // guarded by mu_
    std::vector<LocalNotification> presented_;                        // guarded by mu_
    std::uint64_t nextAlert_ = 1;                                     // guarded by mu_
    std::vector<std::pair<Alert, std::function<void(int)>>> alerts_;  // guarded by mu_
    std::vector<Call> calls_;                                         // guarded by mu_
    std::function<void(const Call&)> observer_;                       // guarded by mu_
    std::shared_ptr<ApplicationPresenter> presenter_;                 // guarded by mu_
};

// Shows the application's notifications and alerts to the user (a desktop's notification
// server, say). The application holds it strongly and calls it without holding any lock of its
// own, so a presenter may call back into the application.
class ApplicationPresenter {
  public:
    ApplicationPresenter() = default;
    virtual ~ApplicationPresenter() = default;
    ApplicationPresenter(const ApplicationPresenter&) = delete;
    ApplicationPresenter& operator=(const ApplicationPresenter&) = delete;

    // After the notification was recorded, on the caller's thread (any); must not block long.
    virtual void presentLocalNotification(const LocalNotification& n) = 0;
    // After the alert was recorded, on the caller's thread (any); must not block long. The
    // user's answer goes back through Application::dismissAlertWithId.
    virtual void presentAlert(const Application::Alert& alert) = 0;
    // Alert `id` was answered, whichever way (through the presenter or not): host thread, before
    // its button callback runs. Lets the presenter take it off the screen.
    virtual void alertDismissed(std::uint64_t id) = 0;
};

}  // namespace quenby::platform
