// A host application for end-to-end campaign tests: kit and campaign feed served on 127.0.0.1,
// the host's bundle, a recording campaign delegate, on virtual time.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "campaigns/LWCampaignRepository.h"
#include "campaigns/LWManager.h"
#include "campaigns/LWZonewiseDelegate.h"
#include "platform/archive.h"
#include "proximity/QZWManager.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace quenby::test {

inline constexpr const char* kStoreUUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

class CampaignHost : public LWManagerDelegate {
  public:
    void lurewaveDidFindCampaign(LWManager&, const std::shared_ptr<LWCampaign>& c) override {
        add("found " + c->id());
    }
    void lurewaveDidDetectPlaceOnEvent(LWManager&, const std::shared_ptr<const LWPlace>& p,
                                       int event) override {
        add("place " + std::to_string(p->id()) + " " + std::to_string(event));
    }
    void lurewaveDidSync(LWManager&) override { add("didSync"); }
    void lurewaveDidFailWithError(LWManager&, const platform::Error& e) override {
        add("didFail " + e.domain + " " + std::to_string(e.code));
    }
    std::vector<std::string> events() const {
        std::lock_guard lk(mu_);
        return events_;
    }
    void clear() {
        std::lock_guard lk(mu_);
        events_.clear();
    }

  private:
    void add(std::string e) {
        std::lock_guard lk(mu_);
        events_.push_back(std::move(e));
    }
    mutable std::mutex mu_;
    std::vector<std::string> events_;
};

struct CampaignFixture {
    VirtualPlatform vp;
    TestServer server;
    std::shared_ptr<CampaignHost> host = std::make_shared<CampaignHost>();
    std::shared_ptr<LWManager> manager;

    CampaignFixture() {
        vp.writeBundlePlist("Info.plist", {{"NSLocationAlwaysUsageDescription", "offers nearby"}});
        vp.writeBundlePlist("Lurewave.plist", {{"LWKitURL", server.url("/campaigns")},
                                               {"LWAPIToken", "lw-token"},
                                               {"ZWKitURL", server.url("/kit")},
                                               {"ZWAPIToken", "zw-token"},
                                               {"ZWAnalyticsURL", server.url("/analytics")}});
        server.on("GET", "/kit", Reply{200, kit().dump()});
        serveFeed({campaign("c1")});
        for (const char* path : {"/analytics", "/status", "/tokens"}) {
            server.on("POST", path, Reply{200, "{\"ok\":true}"});
        }
        server.on("DELETE", "/tokens", Reply{200, "{\"ok\":true}"});
    }

    // A door beacon (place 7), a checkout beacon (place 9) and a geofence (place 7).
    nlohmann::json kit() const {
        auto k = nlohmann::json::parse(R"({"kit": {"id": 17, "status_token": "st",
          "map": {"overlays": [{"type": "circle", "identifier": "lot", "name": "Car park",
            "center": [40.0, -75.0], "radius": 80, "attributes": {"lw_place_ids": "[7]"}}]},
          "ibeacons": [{"major": 1, "minor": 1, "identifier": "door", "name": "Door",
                        "attributes": {"lw_place_ids": "[7]"}},
                       {"major": 1, "minor": 2, "identifier": "checkout", "name": "Checkout",
                        "attributes": {"lw_place_ids": "[9]"}}]}})");
        k["kit"]["status_url"] = server.url("/status");
        for (auto& b : k["kit"]["ibeacons"]) b["uuid"] = kStoreUUID;
        return k;
    }

    static nlohmann::json campaign(const std::string& id,
                                   nlohmann::json extra = nlohmann::json::object()) {
        auto c = nlohmann::json::parse(R"({"start_at": "2026-03-01T08:00:00.000+0000",
          "end_at": "2026-03-02T08:00:00.000+0000", "min_recur_secs": 3600, "trigger_distance": 2.0,
          "links": {"content": 5, "places": [7], "fulfillment_places": [9]}})");
        c["id"] = id;
        for (auto& [k, v] : extra.items()) c[k] = v;
        return c;
    }

    nlohmann::json feed(const std::vector<nlohmann::json>& campaigns) const {
        auto f = nlohmann::json::parse(R"({"linked": {"contents": [{"id": 5,
          "alert_title": "20% off coffee", "alert_message": "At the counter",
          "body": "<p>Coffee</p>"}]}})");
        f["kits"] = {{{"id", 17}, {"configuration", {{"ios_tokens_url", server.url("/tokens")}}}}};
        f["linked"]["campaigns"] = campaigns;
        return f;
    }
    void serveFeed(const std::vector<nlohmann::json>& campaigns) {
        server.on("GET", "/campaigns", Reply{200, feed(campaigns).dump()});
    }

    void create() { manager = LWManager::managerWithDelegate(vp.platform, host); }
    void restart() {
        manager.reset();
        create();
    }
    void settle() { vp.scheduler().settle(); }
    void startAndSync() {
        create();
        manager->start();
        settle();
    }
    void sync() {
        manager->sync();
        settle();
    }

    platform::Application& app() { return *vp.platform->application; }
    platform::LocationService& location() { return *vp.platform->location; }
    std::size_t requests(const std::string& path) const { return server.requestsTo(path).size(); }
    std::string statePath() const { return vp.documents.file("LurewaveState_lw-token.plist"); }
    std::optional<nlohmann::json> state() const {
        return platform::unarchiveJson(*vp.platform->files->readFile(statePath()));
    }

    static std::shared_ptr<const platform::BeaconRegion> region(int minor, const char* id) {
        return std::make_shared<const platform::BeaconRegion>(*platform::UUID::parse(kStoreUUID), 1,
                                                              minor, id);
    }
    static platform::Beacon beacon(int minor, double accuracy) {
        return {*platform::UUID::parse(kStoreUUID), 1, minor, 2, accuracy, -60};
    }
    // Ranges the door (minor 1) or the checkout (minor 2) at `accuracy` metres.
    void range(int minor, double accuracy) {
        location().deliverRanging(region(minor, minor == 1 ? "door" : "checkout"),
                                  {beacon(minor, accuracy)});
    }
    // The details of each event recorded in the analytics database, oldest first.
    std::vector<nlohmann::json> analyticsEvents() const {
        std::vector<nlohmann::json> out;
        for (const auto& row : queryRows(vp.documents.file("ZonewiseAnalytics.sqlite"),
                                         "select event_details from events order by id")) {
            const auto& blob = row["event_details"].get_binary();
            out.push_back(*platform::unarchiveJson(platform::Bytes(blob.begin(), blob.end())));
        }
        return out;
    }
};

}  // namespace quenby::test
