#include "common/recorders.h"

#include "campaigns/LWAppDelegate.h"
#include "campaigns/LWManager.h"
#include "platform/console.h"
#include "proximity/QZWManager.h"
#include "proximity/QZWNotifications.h"

namespace host {

using quenby::platform::Application;
using quenby::platform::ApplicationDelegate;
using quenby::platform::Beacon;
using quenby::platform::BeaconRegion;
using quenby::platform::Error;
using quenby::platform::LocationManager;
using quenby::platform::Region;

namespace {
OrderedJson beaconsJson(const std::vector<std::shared_ptr<const QZWBeacon>>& beacons) {
    OrderedJson a = OrderedJson::array();
    for (const auto& b : beacons) a.push_back(regionJson(*b));
    return a;
}
}  // namespace

struct Recorders::Listeners {
    explicit Listeners(Trace& trace) : trace(trace) {}
    Trace& trace;

    void delegate(const char* name, OrderedJson fields = OrderedJson::object()) {
        OrderedJson f;
        f["name"] = name;
        for (const auto& [k, v] : fields.items()) f[k] = v;
        trace.add("delegate", f);
    }

    struct Proximity : QZWManagerDelegate {
        Listeners* d;
        void zonewiseDidSync(QZWManager&) override { d->delegate("zonewiseDidSync:"); }
        void zonewiseDidEnter(QZWManager&, const std::shared_ptr<const QZWRegion>& r) override {
            d->delegate("zonewise:didEnter:", {{"region", regionJson(*r)}});
        }
        void zonewiseDidExit(QZWManager&, const std::shared_ptr<const QZWRegion>& r) override {
            d->delegate("zonewise:didExit:", {{"region", regionJson(*r)}});
        }
        void zonewiseDidDetermineStateForRegion(
            QZWManager&, std::int64_t s, const std::shared_ptr<const QZWRegion>& r) override {
            d->delegate("zonewise:didDetermineState:forRegion:",
                        {{"state", s}, {"region", regionJson(*r)}});
        }
        void zonewiseDidRangeBeaconsInRegion(
            QZWManager&, const std::vector<std::shared_ptr<const QZWBeacon>>& b,
            const std::shared_ptr<const QZWBeaconRegion>& r) override {
            d->delegate("zonewise:didRangeBeacons:inRegion:",
                        {{"beacons", beaconsJson(b)}, {"region", regionJson(*r)}});
        }
        void zonewiseDidFailWithError(QZWManager&, const Error& e) override {
            d->delegate("zonewise:didFailWithError:", {{"error", errorJson(e)}});
        }
    };

    struct Campaigns : LWManagerDelegate {
        Listeners* d;
        std::function<void(const std::shared_ptr<LWCampaign>&)> onFind;
        void lurewaveDidFindCampaign(LWManager&, const std::shared_ptr<LWCampaign>& c) override {
            d->delegate("lurewave:didFindCampaign:", {{"campaign", campaignJson(*c)}});
            if (onFind) onFind(c);
        }
        void lurewaveDidDetectPlaceOnEvent(LWManager&, const std::shared_ptr<const LWPlace>& p,
                                           int event) override {
            d->delegate("lurewave:didDetectPlace:onEvent:",
                        {{"place", placeJson(*p)}, {"event", event}});
        }
        void lurewaveDidSync(LWManager&) override { d->delegate("lurewaveDidSync:"); }
        void lurewaveDidFailWithError(LWManager&, const Error& e) override {
            d->delegate("lurewave:didFailWithError:", {{"error", errorJson(e)}});
        }
    };

    struct SecondListener : quenby::platform::LocationManagerDelegate {
        Listeners* d;
        void forwarded(const char* call, const std::shared_ptr<const Region>& r = nullptr) {
            OrderedJson f;
            f["call"] = call;
            if (r) f["region"] = platformRegionJson(*r);
            d->trace.add("forwarded", f);
        }
        void locationManagerDidUpdateLocations(
            LocationManager&, const std::vector<quenby::platform::Location>&) override {
            forwarded("locationManager:didUpdateLocations:");
        }
        void locationManagerDidDetermineStateForRegion(
            LocationManager&, std::int64_t, const std::shared_ptr<const Region>& r) override {
            forwarded("locationManager:didDetermineState:forRegion:", r);
        }
        void locationManagerDidRangeBeaconsInRegion(
            LocationManager&, const std::vector<Beacon>&,
            const std::shared_ptr<const BeaconRegion>& r) override {
            forwarded("locationManager:didRangeBeacons:inRegion:", r);
        }
        void locationManagerRangingBeaconsDidFailForRegionWithError(
            LocationManager&, const std::shared_ptr<const BeaconRegion>& r, const Error&) override {
            forwarded("locationManager:rangingBeaconsDidFailForRegion:withError:", r);
        }
        void locationManagerDidEnterRegion(LocationManager&,
                                           const std::shared_ptr<const Region>& r) override {
            forwarded("locationManager:didEnterRegion:", r);
        }
        void locationManagerDidExitRegion(LocationManager&,
                                          const std::shared_ptr<const Region>& r) override {
            forwarded("locationManager:didExitRegion:", r);
        }
        void locationManagerDidFailWithError(LocationManager*, const Error&) override {
            forwarded("locationManager:didFailWithError:");
        }
        void locationManagerMonitoringDidFailForRegionWithError(
            LocationManager&, const std::shared_ptr<const Region>& r, const Error&) override {
            forwarded("locationManager:monitoringDidFailForRegion:withError:", r);
        }
        void locationManagerDidChangeAuthorizationStatus(LocationManager&, int) override {
            forwarded("locationManager:didChangeAuthorizationStatus:");
        }
    };

    struct HostAppDelegate : ApplicationDelegate {
        Listeners* d;
        std::set<std::string> implemented;
        bool respondsTo(Callback c) const override {
            switch (c) {
                case Callback::DidReceiveRemoteNotificationFetchCompletionHandler:
                    return implemented.count("fetch") != 0;
                case Callback::DidReceiveRemoteNotification:
                    return implemented.count("legacy") != 0;
                case Callback::DidRegisterForRemoteNotificationsWithDeviceToken:
                    return implemented.count("token") != 0;
                case Callback::DidReceiveLocalNotification:
                    return implemented.count("local") != 0;
                default:
                    return false;
            }
        }
        std::string className() const override { return "SimulatorAppDelegate"; }
        void ran(const char* name) {
            OrderedJson f;
            f["call"] = "hostDelegate";
            f["name"] = name;
            d->trace.add("app", f);
        }
        void applicationDidRegisterForRemoteNotificationsWithDeviceToken(
            Application&, const quenby::platform::Bytes&) override {
            ran("token");
        }
        void applicationDidReceiveLocalNotification(
            Application&, const quenby::platform::LocalNotification&) override {
            ran("local");
        }
        void applicationDidReceiveRemoteNotification(Application&, const Json&) override {
            ran("legacy");
        }
        void applicationDidReceiveRemoteNotificationFetchCompletionHandler(
            Application&, const Json&, FetchCompletion done) override {
            ran("fetch");
            if (done) done(quenby::platform::kFetchResultNoData);
        }
    };

    std::shared_ptr<Proximity> proximity = std::make_shared<Proximity>();
    std::shared_ptr<Campaigns> campaigns = std::make_shared<Campaigns>();
    std::shared_ptr<SecondListener> second = std::make_shared<SecondListener>();
    std::shared_ptr<HostAppDelegate> app = std::make_shared<HostAppDelegate>();
    std::function<void(const quenby::platform::LocationService::Call&)> locationHook;
};

Recorders::Recorders(Trace& trace, std::shared_ptr<quenby::platform::Platform> platform)
    : trace_(trace),
      platform_(std::move(platform)),
      listeners_(std::make_shared<Listeners>(trace)) {
    listeners_->proximity->d = listeners_.get();
    listeners_->campaigns->d = listeners_.get();
    listeners_->second->d = listeners_.get();
    listeners_->app->d = listeners_.get();

    quenby::platform::setConsoleSink([this](std::string_view line) {
        OrderedJson f;
        f["line"] = std::string(line);
        trace_.add("log", f);
    });
    std::weak_ptr<Listeners> weak = listeners_;
    platform_->location->setCallObserver(
        [this, weak](const quenby::platform::LocationService::Call& c) {
            OrderedJson f;
            f["call"] = c.name;
            if (c.region) f["region"] = platformRegionJson(*c.region);
            trace_.add("location", f);
            auto l = weak.lock();
            if (l && l->locationHook) l->locationHook(c);
        });
    auto* app = platform_->application.get();
    app->setCallObserver([this, app](const Application::Call& c) {
        OrderedJson f;
        f["call"] = c.name;
        if (c.name == "beginBackgroundTask" || c.name == "endBackgroundTask") {
            f["name"] = c.detail;
            f["id"] = c.task;
        } else if (c.name == "scheduleLocalNotification") {
            auto n = app->presentedNotifications().back();
            f["action"] = n.alertAction;
            f["body"] = n.alertBody;
            f["userInfo"] = n.userInfo;
            f["sound"] = n.soundName;
        } else if (c.name == "showAlert") {
            auto a = app->visibleAlerts().back();
            f["title"] = a.title;
            f["message"] = a.message;
            f["buttons"] = a.buttons;
        }
        trace_.add("app", f);
    });
    app->setDelegate(listeners_->app);

    for (const char* name :
         {QZWManagerDidEnterRegionNotification, QZWManagerDidExitRegionNotification,
          QZWManagerDidDetermineStateForRegionNotification,
          QZWManagerDidRangeBeaconsInRegionNotification, QZWManagerDidTriggerAnalyticsEvent}) {
        observers_.push_back(quenby::platform::NotificationCenter::defaultCenter().addObserver(
            name, nullptr, [this](const quenby::platform::Notification& n) {
                OrderedJson info = OrderedJson::object();
                if (auto* e = n.userInfo.get<int>(QZWManagerNotificationEventKey))
                    info["QZWEvent"] = *e;
                if (auto* r = n.userInfo.get<std::shared_ptr<const QZWRegion>>(
                        QZWManagerNotificationRegionKey)) {
                    info["QZWRegion"] = regionJson(**r);
                }
                if (auto* s = n.userInfo.get<std::int64_t>(QZWManagerNotificationRegionStateKey)) {
                    info["QZWRegionState"] = *s;
                }
                if (auto* b = n.userInfo.get<std::vector<std::shared_ptr<const QZWBeacon>>>(
                        QZWManagerNotificationBeaconsKey)) {
                    info["QZWIBeacons"] = beaconsJson(*b);
                }
                if (auto* t =
                        n.userInfo.get<std::string>(QZWManagerNotificationAnalyticsEventTypeKey)) {
                    info["QZWAnalyticsEventType"] = *t;
                }
                if (auto* d =
                        n.userInfo.get<Json>(QZWManagerNotificationAnalyticsEventDetailsKey)) {
                    info["QZWAnalyticsEventDetails"] = *d;
                }
                OrderedJson f;
                f["name"] = n.name;
                f["userInfo"] = info;
                trace_.add("notification", f);
            }));
    }
}

Recorders::~Recorders() {
    for (auto id : observers_)
        quenby::platform::NotificationCenter::defaultCenter().removeObserver(id);
    platform_->location->setCallObserver(nullptr);
    platform_->application->setCallObserver(nullptr);
    quenby::platform::setConsoleSink(nullptr);
}

std::shared_ptr<QZWManagerDelegate> Recorders::proximity() const {
    return listeners_->proximity;
}

std::shared_ptr<LWManagerDelegate> Recorders::campaigns() const {
    return listeners_->campaigns;
}

std::shared_ptr<quenby::platform::LocationManagerDelegate> Recorders::secondListener() const {
    return listeners_->second;
}

std::shared_ptr<ApplicationDelegate> Recorders::applicationDelegate() const {
    return listeners_->app;
}

void Recorders::setImplemented(std::set<std::string> implemented) {
    listeners_->app->implemented = std::move(implemented);
}

void Recorders::setLocationCallHook(
    std::function<void(const quenby::platform::LocationService::Call&)> hook) {
    listeners_->locationHook = std::move(hook);
}

void Recorders::setFindHook(std::function<void(const std::shared_ptr<LWCampaign>&)> hook) {
    listeners_->campaigns->onFind = std::move(hook);
}

// ---------------------------------------------------------------------------------------------

std::shared_ptr<QZWManager> Managers::proximity() const {
    return campaigns ? campaigns->zwManager() : zonewise;
}

bool Managers::create(bool campaignsHost,
                      const std::shared_ptr<quenby::platform::Platform>& platform,
                      Recorders& recorders, bool secondListener) {
    try {
        if (campaignsHost) {
            campaigns = LWManager::managerWithDelegate(platform, recorders.campaigns());
            // The proxy sits over the host's own application delegate.
            platform->application->setDelegate(recorders.applicationDelegate());
            proxy = LWAppDelegate::initWithManager(*platform->application, campaigns);
        } else {
            zonewise = QZWManager::managerWithDelegate(platform, recorders.proximity());
        }
    } catch (const QZWException& e) {
        OrderedJson f;
        f["name"] = e.name();
        f["reason"] = e.reason();
        recorders.trace().add("exception", f);
        return false;
    }
    if (secondListener) {
        if (auto z = proximity()) z->setLocationManagerDelegate(recorders.secondListener());
    }
    return true;
}

void Managers::reset(const std::shared_ptr<quenby::platform::Platform>& platform,
                     Recorders& recorders) {
    if (proxy) platform->application->setDelegate(recorders.applicationDelegate());
    proxy.reset();
    campaigns.reset();
    zonewise.reset();
}

}  // namespace host
