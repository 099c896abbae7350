// A host for end-to-end tests of the proximity manager: a kit server on 127.0.0.1, the host's
// bundle, a recording delegate and notification observer, all on virtual time.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/notifications.h"
#include "proximity/QZWManager.h"
#include "proximity/QZWNotifications.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace quenby::test {

inline constexpr const char* kBeaconUUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
using Lines = std::vector<std::string>;

// Every delegate call and observed notification, in one ordered log.
class Recorder : public QZWManagerDelegate {
  public:
    Recorder() {
        for (const char* name :
             {QZWManagerDidEnterRegionNotification, QZWManagerDidExitRegionNotification,
              QZWManagerDidDetermineStateForRegionNotification,
              QZWManagerDidRangeBeaconsInRegionNotification}) {
            ids_.push_back(platform::NotificationCenter::defaultCenter().addObserver(
                name, nullptr, [this](const platform::Notification& n) { note(n); }));
        }
    }
    ~Recorder() override {
        for (auto id : ids_) platform::NotificationCenter::defaultCenter().removeObserver(id);
    }
    Lines events() const {
        std::lock_guard lk(mu_);
        return events_;
    }
    void clear() {
        std::lock_guard lk(mu_);
        events_.clear();
    }
    std::vector<platform::Notification> notifications() const {
        std::lock_guard lk(mu_);
        return notes_;
    }

    void zonewiseDidSync(QZWManager&) override { add("didSync"); }
    void zonewiseDidEnter(QZWManager&, const std::shared_ptr<const QZWRegion>& r) override {
        add("didEnter " + id(r));
    }
    void zonewiseDidExit(QZWManager&, const std::shared_ptr<const QZWRegion>& r) override {
        add("didExit " + id(r));
    }
    void zonewiseDidDetermineStateForRegion(QZWManager&, std::int64_t s,
                                            const std::shared_ptr<const QZWRegion>& r) override {
        add("didDetermineState " + std::to_string(s) + " " + id(r));
    }
    void zonewiseDidRangeBeaconsInRegion(QZWManager&,
                                         const std::vector<std::shared_ptr<const QZWBeacon>>& b,
                                         const std::shared_ptr<const QZWBeaconRegion>& r) override {
        std::string names;
        for (const auto& x : b) names += " " + x->name().value_or("?");
        add("didRange " + id(r) + ":" + names);
    }
    void zonewiseDidFailWithError(QZWManager&, const platform::Error& e) override {
        add("didFail " + e.domain + " " + std::to_string(e.code));
    }

  private:
    static std::string id(const auto& r) { return r->identifier().value_or("?"); }
    void add(std::string e) {
        std::lock_guard lk(mu_);
        events_.push_back(std::move(e));
    }
    void note(const platform::Notification& n) {
        auto* r = n.userInfo.get<std::shared_ptr<const QZWRegion>>(QZWManagerNotificationRegionKey);
        std::lock_guard lk(mu_);
        events_.push_back("note " + n.name + " " + (r ? id(*r) : "-"));
        notes_.push_back(n);
    }
    mutable std::mutex mu_;
    Lines events_;
    std::vector<platform::Notification> notes_;
    std::vector<platform::NotificationCenter::ObserverId> ids_;
};

// The kit answer: a geofence, an exact beacon entry and a UUID-level entry, and the status service.
inline nlohmann::json sampleKit(const TestServer& server) {
    auto kit = nlohmann::json::parse(R"({"kit": {"id": 17, "name": "Store", "status_token": "st",
      "map": {"overlays": [{"type": "circle", "identifier": "fence-1", "name": "Car park",
                            "center": [40.0, -75.0], "radius": 50}]},
      "ibeacons": [
        {"uuid": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "major": 1, "minor": 1,
         "identifier": "door", "name": "Door beacon", "attributes": {"lw_place_ids": "[7]"}},
        {"uuid": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "major": null, "minor": null,
         "identifier": "store", "name": "Store"}]}})");
    kit["kit"]["status_url"] = server.url("/status");
    return kit;
}

struct ManagerFixture {
    VirtualPlatform vp;
    TestServer server;
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<QZWManager> manager;

    explicit ManagerFixture(bool withKitRoute = true) {
        vp.writeBundlePlist("Info.plist", {{"NSLocationAlwaysUsageDescription", "to find offers"}});
        vp.writeBundlePlist("Zonewise.plist", {{"ZWKitURL", server.url("/api/kits/17")},
                                               {"ZWAPIToken", "tok"},
                                               {"ZWAnalyticsURL", server.url("/analytics")}});
        QZWConfiguration::sharedConfiguration(*vp.platform)
            .setBundles(vp.platform->mainBundle, std::nullopt);
        QZWConfiguration::sharedConfiguration(*vp.platform).configureFromPlistFile();
        if (withKitRoute) serveKit(sampleKit(server));
        server.on("POST", "/analytics", Reply{200, "{}"});
        server.on("POST", "/status", Reply{200, "{}"});
    }
    void serveKit(const nlohmann::json& answer) {
        server.on("GET", "/api/kits/17", Reply{200, answer.dump()});
    }
    void create() { manager = QZWManager::managerWithDelegate(vp.platform, recorder); }
    // Created, started and through its first sync.
    void start() {
        create();
        manager->start();
        scheduler().settle();
    }
    platform::LocationService& location() { return *vp.platform->location; }
    platform::Scheduler& scheduler() { return vp.scheduler(); }
    std::size_t kitRequests() const { return server.requestsTo("/api/kits/17").size(); }
    Lines calls() const {
        Lines out;
        for (const auto& c : vp.platform->location->calls()) {
            out.push_back(c.name + (c.region ? " " + c.region->identifier() : ""));
        }
        return out;
    }
    static std::shared_ptr<const platform::BeaconRegion> beaconRegion(int major, int minor,
                                                                      const std::string& id) {
        return std::make_shared<const platform::BeaconRegion>(*platform::UUID::parse(kBeaconUUID),
                                                              major, minor, id);
    }
    static std::shared_ptr<const platform::BeaconRegion> door() {
        return beaconRegion(1, 1, "door");
    }
    static platform::Beacon beacon(int major, int minor, double accuracy = 1.2) {
        return {*platform::UUID::parse(kBeaconUUID), major, minor, 2, accuracy, -63};
    }
};

}  // namespace quenby::test
