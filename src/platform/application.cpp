#include "platform/application.h"

#include <algorithm>

#include "platform/notifications.h"

namespace quenby::platform {

std::shared_ptr<Application> Application::create(std::shared_ptr<Scheduler> scheduler) {
    return std::shared_ptr<Application>(new Application(std::move(scheduler)));
}

ApplicationState Application::applicationState() const {
    std::lock_guard lk(mu_);
    return state_;
}

void Application::setApplicationState(ApplicationState s) {
    std::lock_guard lk(mu_);
    state_ = s;
}

void Application::record(Call call) {
    std::function<void(const Call&)> observer;
    {
        std::lock_guard lk(mu_);
        calls_.push_back(call);
        observer = observer_;
    }
    if (observer) observer(call);
}

BackgroundTaskIdentifier Application::beginBackgroundTaskWithName(
    const std::string& name, std::function<void()> expirationHandler) {
    BackgroundTaskIdentifier id;
    {
        std::lock_guard lk(mu_);
        if (!backgroundTime_) return kInvalidBackgroundTask;
        id = nextTask_++;
        tasks_.emplace(id, std::make_pair(name, std::move(expirationHandler)));
    }
    record({"beginBackgroundTask", name, id});
    return id;
}

void Application::endBackgroundTask(BackgroundTaskIdentifier id) {
    std::string name;
    {
        std::lock_guard lk(mu_);
        auto it = tasks_.find(id);
        if (it == tasks_.end()) return;
        name = it->second.first;
        tasks_.erase(it);
    }
    record({"endBackgroundTask", name, id});
}

void Application::setBackgroundTimeAvailable(bool available) {
    std::lock_guard lk(mu_);
    backgroundTime_ = available;
}

std::vector<std::string> Application::runningBackgroundTasks() const {
    std::lock_guard lk(mu_);
    std::vector<std::string> out;
    for (const auto& [id, t] : tasks_) out.push_back(t.first);
    return out;
}

bool Application::expireBackgroundTask(const std::string& name) {
    std::function<void()> handler;
    {
        std::lock_guard lk(mu_);
        for (const auto& [id, t] : tasks_) {
            if (t.first == name) {
                handler = t.second;
                break;
            }
        }
    }
    if (!handler) return false;
    scheduler_->performPass(handler);
    return true;
}

std::shared_ptr<ApplicationDelegate> Application::delegate() const {
    std::lock_guard lk(mu_);
    return delegate_;
}

void Application::setDelegate(std::shared_ptr<ApplicationDelegate> d) {
    std::lock_guard lk(mu_);
    delegate_ = std::move(d);
}

void Application::presentLocalNotificationNow(const LocalNotification& n) {
    {
        std::lock_guard lk(mu_);
        presented_.push_back(n);
    }
    record({"scheduleLocalNotification", n.alertBody, kInvalidBackgroundTask});
    if (auto p = presenter()) p->presentLocalNotification(n);
}

std::vector<LocalNotification> Application::presentedNotifications() const {
    std::lock_guard lk(mu_);
    return presented_;
}

std::uint64_t Application::showAlert(const std::string& title, const std::string& message,
                                     std::vector<std::string> buttons,
                                     std::function<void(int)> onDismiss) {
    Alert alert{0, title, message, std::move(buttons)};
    {
        std::lock_guard lk(mu_);
        alert.id = nextAlert_++;
        alerts_.push_back({alert, std::move(onDismiss)});
    }
    record({"showAlert", title, kInvalidBackgroundTask});
    if (auto p = presenter()) p->presentAlert(alert);
    return alert.id;
}

std::vector<Application::Alert> Application::visibleAlerts() const {
    std::lock_guard lk(mu_);
    std::vector<Alert> out;
    for (const auto& [a, f] : alerts_) out.push_back(a);
    return out;
}

bool Application::dismissAlert(int buttonIndex) {
    return finishAlert(std::nullopt, buttonIndex);
}

bool Application::dismissAlertWithId(std::uint64_t id, int buttonIndex) {
    return finishAlert(id, buttonIndex);
}

bool Application::finishAlert(std::optional<std::uint64_t> id, int buttonIndex) {
    std::function<void(int)> onDismiss;
    std::uint64_t taken;
    std::shared_ptr<ApplicationPresenter> presenter;
    {
        std::lock_guard lk(mu_);
        auto it = alerts_.begin();
        if (id) {
            it = std::find_if(alerts_.begin(), alerts_.end(),
                              [&](const auto& a) { return a.first.id == *id; });
        }
        if (it == alerts_.end()) return false;
        taken = it->first.id;
        onDismiss = std::move(it->second);
        alerts_.erase(it);
        presenter = presenter_;
    }
    // Off the screen before whatever the callback brings up (another alert, say) appears.
    if (presenter) presenter->alertDismissed(taken);
    scheduler_->performPass([&] {
        if (onDismiss) onDismiss(buttonIndex);
    });
    return true;
}

void Application::setPresenter(std::shared_ptr<ApplicationPresenter> presenter) {
    std::lock_guard lk(mu_);
    presenter_ = std::move(presenter);
}

std::shared_ptr<ApplicationPresenter> Application::presenter() const {
    std::lock_guard lk(mu_);
    return presenter_;
}

std::vector<Application::Call> Application::calls() const {
    std::lock_guard lk(mu_);
    return calls_;
}

void Application::setCallObserver(std::function<void(const Call&)> observer) {
    std::lock_guard lk(mu_);
    observer_ = std::move(observer);
}

void Application::deliverWillResignActive() {
    setApplicationState(ApplicationState::Inactive);
    scheduler_->performPass([&] {
        NotificationCenter::defaultCenter().post(
            Notification{kApplicationWillResignActiveNotification, this, {}});
        if (auto d = delegate();
            d && d->respondsTo(ApplicationDelegate::Callback::WillResignActive)) {
            d->applicationWillResignActive(*this);
        }
    });
}

void Application::deliverRemoteNotification(const Json& userInfo,
                                            ApplicationDelegate::FetchCompletion done) {
    scheduler_->performPass([&] {
        auto d = delegate();
        if (!d) return;
        using C = ApplicationDelegate::Callback;
        if (d->respondsTo(C::DidReceiveRemoteNotificationFetchCompletionHandler)) {
            d->applicationDidReceiveRemoteNotificationFetchCompletionHandler(*this, userInfo,
                                                                             std::move(done));
        } else if (d->respondsTo(C::DidReceiveRemoteNotification)) {
            d->applicationDidReceiveRemoteNotification(*this, userInfo);
        }
    });
}

void Application::deliverDeviceToken(const Bytes& token) {
    scheduler_->performPass([&] {
        auto d = delegate();
        if (d &&
            d->respondsTo(
                ApplicationDelegate::Callback::DidRegisterForRemoteNotificationsWithDeviceToken)) {
            d->applicationDidRegisterForRemoteNotificationsWithDeviceToken(*this, token);
        }
    });
}

void Application::deliverLocalNotificationAction(const LocalNotification& n) {
    scheduler_->performPass([&] {
        if (auto d = delegate();
            d && d->respondsTo(ApplicationDelegate::Callback::DidReceiveLocalNotification)) {
            d->applicationDidReceiveLocalNotification(*this, n);
        }
    });
}

}  // namespace quenby::platform
