#include "sensing/desktop_presenter.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include <fmt/format.h>
#include <sdbus-c++/sdbus-c++.h>

#include "platform/console.h"

namespace quenby::sensing {

using platform::Application;
using platform::LocalNotification;

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";

// Notify is a synchronous call on the presenting thread, bounded by this. A server answers in a
// millisecond or two, and with the id in hand when present* returns there is no half-shown state
// for alertDismissed or a signal to meet. (An asynchronous call would also leave sdbus-c++'s
// pending-call handle to be released on the presenting thread while the uninstrumented library
// frees it on the loop's, a hand-over ThreadSanitizer cannot see.) A server that has not
// answered by then is taken as absent and the item goes to the console.
constexpr auto kNotifyTimeout = std::chrono::seconds(1);
// create() asks the server who it is before anything is shown, so onDesktop() is meaningful at
// once; a server that is slower than this still gets every Notify.
constexpr auto kProbeTimeout = std::chrono::seconds(1);

// NotificationClosed reasons.
constexpr std::uint32_t kDismissedByUser = 2;

// Unanswered local notifications remembered for their default action; the oldest beyond this
// are forgotten (a desktop does not keep hundreds on screen anyway).
constexpr std::size_t kMaxLocalNotifications = 256;

using Hints = std::map<std::string, sdbus::Variant>;

std::string alertConsoleLine(const Application::Alert& a) {
    std::string line = fmt::format("Alert: {}: {}", a.title, a.message);
    for (const auto& b : a.buttons) line += fmt::format(" [{}]", b);
    return line;
}

}  // namespace

struct DesktopPresenter::Impl final : platform::ApplicationPresenter {
    Impl(std::shared_ptr<platform::Scheduler> s, std::weak_ptr<Application> a, std::string name)
        : scheduler(std::move(s)), application(std::move(a)), applicationName(std::move(name)) {}

    // What a notification id of ours stands for.
    struct Shown {
        std::optional<LocalNotification> local;  // set for a local notification
        std::uint64_t alert = 0;                 // else the alert's id
        std::size_t buttons = 0;
    };

    // Constant after create(). The proxy is used from presenting threads under busMu; stop()
    // joins the event loop's thread before releasing it.
    const std::shared_ptr<platform::Scheduler> scheduler;
    const std::weak_ptr<Application> application;
    const std::string applicationName;
    std::unique_ptr<sdbus::IConnection> connection;  // null: console only
    std::unique_ptr<sdbus::IProxy> proxy;

    std::atomic<bool> onDesktop{false};

    // Guards `stopped` and every use of the proxy outside the event loop. Never taken on the
    // event loop's thread, so stop() may hold it while joining that thread.
    std::mutex busMu;
    bool stopped = false;  // guarded by busMu

    // Taken on the event loop's thread while sd-bus holds its own lock: never held while
    // calling into sd-bus.
    std::mutex mu;
    std::map<std::uint32_t, Shown> shown;               // guarded by mu
    std::deque<std::uint32_t> localOrder;               // guarded by mu: oldest first
    std::map<std::uint64_t, std::uint32_t> alertShown;  // guarded by mu: alert -> notification

    void connect();
    void stop();

    void presentLocalNotification(const LocalNotification& n) override;
    void presentAlert(const Application::Alert& a) override;
    void alertDismissed(std::uint64_t id) override;

    // The server's id for the new notification; nothing when there is no server to show it.
    std::optional<std::uint32_t> notify(const std::string& summary, const std::string& body,
                                        const std::vector<std::string>& actions, const Hints& hints,
                                        std::int32_t expireTimeout);
    // Event loop thread.
    void actionInvoked(std::uint32_t id, const std::string& key);
    void notificationClosed(std::uint32_t id, std::uint32_t reason);
    // Under busMu.
    void close(std::uint32_t id);
    void answerAlert(std::uint64_t alert, int buttonIndex);
};

void DesktopPresenter::Impl::connect() {
    try {
        connection = sdbus::createSessionBusConnection();
        proxy = sdbus::createProxy(*connection, kService, kPath);
        // The event loop runs only while this Impl lives (stop() joins it), so `this` is safe.
        proxy->uponSignal("ActionInvoked")
            .onInterface(kInterface)
            .call([this](std::uint32_t id, const std::string& key) { actionInvoked(id, key); });
        proxy->uponSignal("NotificationClosed")
            .onInterface(kInterface)
            .call(
                [this](std::uint32_t id, std::uint32_t reason) { notificationClosed(id, reason); });
        proxy->finishRegistration();
    } catch (const sdbus::Error& e) {
        proxy.reset();
        connection.reset();
        platform::consoleWrite(fmt::format(
            "Desktop notifications unavailable (no session bus: {}); writing them to the console",
            e.getMessage()));
        return;
    }
    try {
        std::string name, vendor, version, specVersion;
        proxy->callMethod("GetServerInformation")
            .onInterface(kInterface)
            .withTimeout(kProbeTimeout)
            .storeResultsTo(name, vendor, version, specVersion);
        onDesktop = true;
    } catch (const sdbus::Error& e) {
        platform::consoleWrite(
            fmt::format("Desktop notifications unavailable ({} not answering: {}); writing them "
                        "to the console",
                        kService, e.getMessage()));
    }
    connection->enterEventLoopAsync();
}

void DesktopPresenter::Impl::stop() {
    std::lock_guard bl(busMu);
    if (stopped) return;
    stopped = true;
    if (!connection) return;
    connection->leaveEventLoop();
    // Resident alerts would otherwise stay on the desktop with buttons that no longer answer.
    std::vector<std::uint32_t> alerts;
    {
        std::lock_guard lk(mu);
        for (const auto& [alert, id] : alertShown) alerts.push_back(id);
    }
    for (auto id : alerts) close(id);
    proxy.reset();
    connection.reset();  // flushes what close() queued
}

std::optional<std::uint32_t> DesktopPresenter::Impl::notify(const std::string& summary,
                                                            const std::string& body,
                                                            const std::vector<std::string>& actions,
                                                            const Hints& hints,
                                                            std::int32_t expireTimeout) {
    std::lock_guard bl(busMu);
    if (stopped || !proxy) return std::nullopt;
    try {
        std::uint32_t id = 0;
        proxy->callMethod("Notify")
            .onInterface(kInterface)
            .withTimeout(kNotifyTimeout)
            .withArguments(applicationName, std::uint32_t{0}, std::string(), summary, body, actions,
                           hints, expireTimeout)
            .storeResultsTo(id);
        onDesktop = true;
        return id;
    } catch (const sdbus::Error&) {
        onDesktop = false;
        return std::nullopt;
    }
}

void DesktopPresenter::Impl::presentLocalNotification(const LocalNotification& n) {
    std::string summary = n.alertAction.empty() ? applicationName : n.alertAction;
    Hints hints;
    if (!n.soundName.empty()) hints["sound-name"] = sdbus::Variant(n.soundName);
    auto id =
        notify(summary, n.alertBody,
               {"default", n.alertAction.empty() ? std::string("Open") : n.alertAction}, hints, -1);
    if (!id) {
        platform::consoleWrite(fmt::format("Notification: {}: {}", summary, n.alertBody));
        return;
    }
    std::lock_guard lk(mu);
    shown[*id] = Shown{n, 0, 0};
    localOrder.push_back(*id);
    while (localOrder.size() > kMaxLocalNotifications) {
        auto old = shown.find(localOrder.front());
        if (old != shown.end() && old->second.local) shown.erase(old);
        localOrder.pop_front();
    }
}

void DesktopPresenter::Impl::presentAlert(const Application::Alert& a) {
    std::vector<std::string> actions;
    for (std::size_t i = 0; i < a.buttons.size(); ++i) {
        actions.push_back(std::to_string(i));  // the key is the button's index
        actions.push_back(a.buttons[i]);
    }
    // Normal urgency: critical would break through do-not-disturb, which an offer must not do.
    // The alert stays until answered through resident (not removed when a button is chosen;
    // alertDismissed closes it) and an expiry of 0 (never).
    Hints hints{{"urgency", sdbus::Variant(std::uint8_t{1})}, {"resident", sdbus::Variant(true)}};
    auto id = notify(a.title, a.message, actions, hints, 0);
    if (!id) {
        platform::consoleWrite(alertConsoleLine(a));
        return;
    }
    {
        std::lock_guard lk(mu);
        shown[*id] = Shown{std::nullopt, a.id, a.buttons.size()};
        alertShown[a.id] = *id;
    }
    // Presented off the host thread, the alert may have been answered on the host while Notify
    // was under way, before alertDismissed could find it: then it leaves the screen at once.
    auto app = application.lock();
    auto visible = app ? app->visibleAlerts() : std::vector<Application::Alert>{};
    if (std::none_of(visible.begin(), visible.end(), [&](const auto& v) { return v.id == a.id; })) {
        alertDismissed(a.id);
    }
}

void DesktopPresenter::Impl::actionInvoked(std::uint32_t id, const std::string& key) {
    std::unique_lock lk(mu);
    auto it = shown.find(id);
    if (it == shown.end()) return;  // another application's, or already answered
    if (it->second.local) {
        if (key != "default") return;
        LocalNotification n = std::move(*it->second.local);
        shown.erase(it);
        lk.unlock();
        scheduler->postToMain([app = application, n = std::move(n)] {
            if (auto a = app.lock()) a->deliverLocalNotificationAction(n);
        });
        return;
    }
    int index = -1;
    auto [end, ec] = std::from_chars(key.data(), key.data() + key.size(), index);
    if (ec != std::errc() || end != key.data() + key.size() || index < 0 ||
        static_cast<std::size_t>(index) >= it->second.buttons) {
        return;
    }
    // Forgotten at once so a repeated action cannot answer twice; alertShown keeps the id until
    // alertDismissed takes the resident notification off the screen.
    std::uint64_t alert = it->second.alert;
    shown.erase(it);
    lk.unlock();
    answerAlert(alert, index);
}

void DesktopPresenter::Impl::notificationClosed(std::uint32_t id, std::uint32_t reason) {
    std::unique_lock lk(mu);
    auto it = shown.find(id);
    if (it == shown.end()) return;
    Shown what = std::move(it->second);
    shown.erase(it);
    if (what.local) return;
    alertShown.erase(what.alert);
    lk.unlock();
    // Closing the alert without choosing a button is the cancel button, as on a phone where the
    // only way out of an alert is one of its buttons. Closed for any other reason (expired, the
    // server's own doing), the alert stays with the application for the host to answer.
    if (reason == kDismissedByUser) answerAlert(what.alert, 0);
}

void DesktopPresenter::Impl::answerAlert(std::uint64_t alert, int buttonIndex) {
    scheduler->postToMain([app = application, alert, buttonIndex] {
        if (auto a = app.lock()) a->dismissAlertWithId(alert, buttonIndex);
    });
}

void DesktopPresenter::Impl::alertDismissed(std::uint64_t alert) {
    std::uint32_t id;
    {
        std::lock_guard lk(mu);
        auto it = alertShown.find(alert);
        if (it == alertShown.end()) return;
        id = it->second;
        shown.erase(id);
        alertShown.erase(it);
    }
    std::lock_guard bl(busMu);
    if (!stopped && proxy) close(id);
}

void DesktopPresenter::Impl::close(std::uint32_t id) {
    try {
        proxy->callMethod("CloseNotification")
            .onInterface(kInterface)
            .withArguments(id)
            .dontExpectReply();
    } catch (const sdbus::Error&) {
        // Nothing to do: without a server there is nothing on screen to close.
    }
}

std::unique_ptr<DesktopPresenter> DesktopPresenter::create(
    std::shared_ptr<platform::Scheduler> scheduler,
    std::shared_ptr<platform::Application> application, std::string applicationName) {
    auto impl =
        std::make_shared<Impl>(std::move(scheduler), application, std::move(applicationName));
    impl->connect();
    application->setPresenter(impl);
    return std::unique_ptr<DesktopPresenter>(new DesktopPresenter(impl));
}

DesktopPresenter::~DesktopPresenter() {
    if (auto app = impl_->application.lock(); app && app->presenter() == impl_) {
        app->setPresenter(nullptr);
    }
    impl_->stop();
}

bool DesktopPresenter::onDesktop() const {
    return impl_->onDesktop;
}

}  // namespace quenby::sensing
