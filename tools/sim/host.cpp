#include "sim/host.h"

#include <stdlib.h>
#include <strings.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <map>

#include <fmt/format.h>

#include "campaigns/LWCampaignAlertView.h"
#include "campaigns/LWManager.h"
#include "platform/plist.h"
#include "sim/report.h"
#include "proximity/QZWAnalyticsEvent.h"
#include "proximity/QZWManager.h"

namespace sim {

using quenby::platform::Beacon;
using quenby::platform::BeaconRegion;
using quenby::platform::CircularRegion;
using quenby::platform::Error;
using quenby::platform::Region;
using quenby::platform::UUID;

namespace {

Error errorOf(const Json& e) {
    long code = e["code"].get<long>();
    std::string domain = e["domain"];
    return Error{domain, code, e.value("description", fmt::format("{} error {}", domain, code))};
}

Beacon beaconOf(const Json& b) {
    return Beacon{*UUID::parse(b["uuid"].get<std::string>()),
                  b["major"].get<int>(),
                  b["minor"].get<int>(),
                  b.value("proximity", std::int64_t{2}),
                  b.value("accuracy", 1.0),
                  b.value("rssi", -60L)};
}

}  // namespace

// ---------------------------------------------------------------------------------------------

Host::Host(Scenario scenario, RunOptions options)
    : scenario_(std::move(scenario)), options_(std::move(options)) {}

Host::~Host() {
    managers_.campaigns.reset();
    managers_.zonewise.reset();
    if (platform_) platform_->scheduler->settle();
    recorders_.reset();
    std::error_code ec;
    if (!bundle_.empty()) std::filesystem::remove_all(bundle_, ec);
}

void Host::setUp() {
    std::string tmp = std::filesystem::temp_directory_path().string();
    if (options_.documents) {
        documents_ = *options_.documents;
        std::filesystem::create_directories(documents_);
    } else {
        std::string t = tmp + "/lurewave-sim-XXXXXX";
        if (!mkdtemp(t.data())) throw std::runtime_error("cannot make a documents directory");
        documents_ = t;
    }
    std::string b = tmp + "/lurewave-sim-bundle-XXXXXX";
    if (!mkdtemp(b.data())) throw std::runtime_error("cannot make a bundle directory");
    bundle_ = b;

    quenby::platform::Platform::Options o;
    o.applicationId = "lurewave-sim";
    o.documentsDirectory = documents_;
    o.bundleDirectory = bundle_;
    o.clock = std::make_shared<quenby::platform::VirtualClock>(
        quenby::platform::Date::fromSecondsSince1970(scenario_.start));
    o.device = std::make_shared<quenby::platform::FixedDeviceInfo>(
        scenario_.device.vendorId ? UUID::parse(*scenario_.device.vendorId) : std::nullopt);
    platform_ = quenby::platform::Platform::create(std::move(o));
    digest_ =
        std::make_unique<RunDigest>(options_.svg || options_.report, options_.report.has_value());
    trace_ = std::make_unique<Trace>(
        platform_->scheduler, quenby::platform::Date::fromSecondsSince1970(scenario_.start),
        options_.json      ? Trace::Form::Json
        : options_.verbose ? Trace::Form::Verbose
                           : Trace::Form::Timeline,
        /*live=*/false, std::numeric_limits<double>::infinity(),
        [digest = digest_.get()](const OrderedJson& r) { digest->add(r); });
    trace_->note("documents: " + documents_);

    // The embedded server first: its address goes into every "{server}" of the scenario.
    if (scenario_.server) {
        server_ = std::make_unique<OperatorServer>(
            std::nullopt, std::nullopt, 0, [this](const ServedRequest& r) {
                OrderedJson f, headers = OrderedJson::object();
                // Every request here is to the embedded server itself, whose port differs from
                // run to run: written as the scenario writes that address, two runs of one
                // scenario give the same trace byte for byte.
                for (const auto& [k, v] : r.headers) {
                    bool own = strcasecmp(k.c_str(), "Host") == 0 && v.rfind("127.0.0.1:", 0) == 0;
                    headers[k] = own ? std::string("{server}") : v;
                }
                f["method"] = r.method;
                f["path"] = r.target;
                f["headers"] = headers;
                f["body"] = r.body;
                trace_->add("server", f);
            });
        Json s = *scenario_.server;
        substituteServer(s, server_->baseUrl());
        if (s.contains("kit")) server_->setKit(s["kit"]);
        if (s.contains("campaigns")) server_->setCampaigns(s["campaigns"]);
        substituteServer(scenario_.bundle, server_->baseUrl());
        for (auto& step : scenario_.steps) substituteServer(step.action, server_->baseUrl());
    }
    for (const auto& [name, contents] : scenario_.bundle.items()) {
        std::ofstream(bundle_ + "/" + name) << quenby::platform::toXmlPropertyList(contents);
    }

    // The device.
    auto& location = *platform_->location;
    location.setAuthorizationStatus(scenario_.device.authorization);
    auto caps = location.capabilities();
    caps.monitoringAvailable = scenario_.device.monitoringAvailable;
    caps.regionMonitoringAvailable = scenario_.device.monitoringAvailable;
    caps.rangingAvailable = scenario_.device.rangingAvailable;
    location.setCapabilities(caps);
    const std::string& state = scenario_.device.applicationState;
    platform_->application->setApplicationState(
        state == "active"     ? quenby::platform::ApplicationState::Active
        : state == "inactive" ? quenby::platform::ApplicationState::Inactive
                              : quenby::platform::ApplicationState::Background);

    // What the host hears and sees.
    recorders_ = std::make_unique<host::Recorders>(*trace_, platform_);
    recorders_->setImplemented(scenario_.device.hostAppDelegate);
    recorders_->setLocationCallHook([this](const quenby::platform::LocationService::Call& c) {
        // A walk answers state requests from where the device is.
        if (c.name == "requestStateForRegion" && walk_ && walk_->running()) {
            auto walk = walk_;
            auto region = c.region;
            platform_->scheduler->postToMain([walk, region] { walk->answerStateRequest(region); });
        }
    });
    // The host shows every campaign it is told was found.
    recorders_->setFindHook([this](const std::shared_ptr<LWCampaign>& c) {
        platform_->application->presentLocalNotificationNow(c->buildLocalNotification());
    });
}

bool Host::createManager() {
    return managers_.create(scenario_.host == "campaigns", platform_, *recorders_,
                            scenario_.device.secondListener);
}

std::shared_ptr<QZWManager> Host::proximity() const {
    return managers_.proximity();
}

int Host::run() {
    setUp();
    if (!createManager()) return 3;
    platform_->scheduler->settle();
    auto& scheduler = *platform_->scheduler;
    for (const auto& step : scenario_.steps) {
        scheduler.advanceTo(
            quenby::platform::Date::fromSecondsSince1970(scenario_.start + step.at));
        bool ok = true;
        scheduler.performPass([&] {
            if (step.action.contains("call") && step.action["call"] == "create") {
                ok = createManager();
            } else {
                execute(step.action);
            }
        });
        if (!ok) return 3;
        scheduler.settle();
    }
    scheduler.advanceTo(
        quenby::platform::Date::fromSecondsSince1970(scenario_.start + scenario_.until));
    scheduler.settle();
    trace_->flush();
    summarize();
    writeOutputs();
    return failed_ ? 4 : 0;
}

void Host::summarize() const {
    trace_->note("");
    trace_->note("Summary");
    if (managers_.campaigns) {
        for (const auto& c : managers_.campaigns->foundCampaigns()) {
            trace_->note(
                fmt::format("  campaign {}: found at place {}, viewed {} time(s), {}", c->id(),
                            c->foundAt() ? std::to_string(c->foundAt()->id()) : "-", c->viewCount(),
                            c->fulfilled() ? "fulfilled" : "not fulfilled"));
        }
    }
    std::string line;
    for (const auto& [what, n] : digest_->received())
        line += fmt::format("{}{} x{}", line.empty() ? "" : ", ", what, n);
    if (!line.empty()) trace_->note("  server received " + line);
    trace_->note("  documents directory: " + documents_);
}

std::shared_ptr<const Region> Host::region(const Json& r) const {
    if (r.contains("uuid")) {
        std::optional<std::uint16_t> major, minor;
        if (r.contains("major")) major = r["major"].get<std::uint16_t>();
        if (r.contains("minor")) minor = r["minor"].get<std::uint16_t>();
        std::string uuid = r["uuid"];
        return std::make_shared<const BeaconRegion>(*UUID::parse(uuid), major, minor,
                                                    r.value("identifier", uuid));
    }
    double lat = r.contains("center") ? r["center"][0].get<double>() : 0.0;
    double lng = r.contains("center") ? r["center"][1].get<double>() : 0.0;
    return std::make_shared<const CircularRegion>(lat, lng, r.value("radius", 100.0),
                                                  r["identifier"].get<std::string>());
}

void Host::result(const std::string& call, const OrderedJson& value) {
    OrderedJson f;
    f["call"] = call;
    f["value"] = value;
    trace_->add("result", f);
}

void Host::execute(const Json& a) {
    auto& location = *platform_->location;
    auto& app = *platform_->application;
    auto beaconRegion = [&](const Json& r) {
        return std::static_pointer_cast<const BeaconRegion>(region(r));
    };
    if (a.contains("call")) {
        call(a);
    } else if (a.contains("enter")) {
        location.deliverEnter(region(a["enter"]));
    } else if (a.contains("exit")) {
        location.deliverExit(region(a["exit"]));
    } else if (a.contains("state")) {
        location.deliverState(region(a["state"]), a["value"].get<std::int64_t>());
    } else if (a.contains("range")) {
        std::vector<Beacon> beacons;
        for (const auto& b : a["beacons"]) beacons.push_back(beaconOf(b));
        location.deliverRanging(beaconRegion(a["range"]), beacons);
    } else if (a.contains("fail")) {
        location.deliverFailure(errorOf(a["fail"]));
    } else if (a.contains("rangingFail")) {
        location.deliverRangingFailure(beaconRegion(a["rangingFail"]), errorOf(a["error"]));
    } else if (a.contains("monitoringFail")) {
        location.deliverMonitoringFailure(region(a["monitoringFail"]), errorOf(a["error"]));
    } else if (a.contains("authorization")) {
        location.deliverAuthorizationChange(a["authorization"].get<int>());
    } else if (a.contains("location")) {
        location.deliverLocations(
            {{a["location"][0].get<double>(), a["location"][1].get<double>()}});
    } else if (a.contains("applicationState")) {
        std::string s = a["applicationState"];
        app.setApplicationState(s == "active"     ? quenby::platform::ApplicationState::Active
                                : s == "inactive" ? quenby::platform::ApplicationState::Inactive
                                                  : quenby::platform::ApplicationState::Background);
    } else if (a.contains("expireBackgroundTask")) {
        app.expireBackgroundTask(a["expireBackgroundTask"].get<std::string>());
    } else if (a.contains("alertButton")) {
        app.dismissAlert(a["alertButton"].get<int>());
    } else if (a.contains("push")) {
        app.deliverRemoteNotification(a["push"], [this](int r) { result("push", r); });
    } else if (a.contains("deviceToken")) {
        app.deliverDeviceToken(hexBytes(a["deviceToken"].get<std::string>()));
    } else if (a.contains("walk")) {
        walk_ = std::make_shared<Walk>(a["walk"], platform_->scheduler, platform_->location);
        walk_->start();
    } else if (a.contains("pass")) {
        for (const auto& inner : a["pass"]) execute(inner);
    }
}

void Host::call(const Json& a) {
    std::string name = a["call"];
    auto z = proximity();
    auto idList = [](const std::vector<std::shared_ptr<LWCampaign>>& list) {
        OrderedJson ids = OrderedJson::array();
        for (const auto& c : list) ids.push_back(c->id());
        return ids;
    };
    if (name == "destroy") {
        managers_.reset(platform_, *recorders_);
        return;
    }
    if (name == "postEvent") {
        QZWAnalyticsEvent::postEventWithDetails(a["type"], a["details"]);
        return;
    }
    if (name == "resignActive") {
        platform_->application->deliverWillResignActive();
        return;
    }
    if (!z) return;  // the host released its manager: nothing to call
    if (name == "start") {
        managers_.campaigns ? managers_.campaigns->start() : z->start();
    } else if (name == "stop") {
        managers_.campaigns ? managers_.campaigns->stop() : z->stop();
    } else if (name == "sync") {
        managers_.campaigns ? managers_.campaigns->sync() : z->sync();
    } else if (name == "syncWithCompletionHandler") {
        auto report = [this](int r) { result("syncWithCompletionHandler", r); };
        managers_.campaigns ? managers_.campaigns->syncWithCompletionHandler(report)
                            : z->syncWithCompletionHandler(report);
    } else if (name == "setPartnerIdentifier") {
        managers_.campaigns ? managers_.campaigns->setPartnerIdentifier(a["value"])
                            : z->setPartnerIdentifier(a["value"]);
    } else if (name == "logLevel") {
        z->logLevel(a["value"].get<int>());
    } else if (name == "getLat") {
        result("getLat", z->getLat());
    } else if (name == "getLng") {
        result("getLng", z->getLng());
    } else if (name == "foundCampaigns") {
        result("foundCampaigns", idList(managers_.campaigns->foundCampaigns()));
    } else if (name == "activeCampaigns") {
        result("activeCampaigns", idList(managers_.campaigns->activeCampaigns()));
    } else if (name == "setCampaignViewed" || name == "setCampaignFulfilled" ||
               name == "showCampaignAlert") {
        auto c = managers_.campaigns->campaignWithId(a["campaign"]);
        if (!c) {
            result(name, nullptr);  // no campaign of that id: nothing else happens
            return;
        }
        if (name == "setCampaignViewed") {
            managers_.campaigns->setCampaignViewed(c);
            result(name, campaignJson(*c));
        } else if (name == "setCampaignFulfilled") {
            managers_.campaigns->setCampaignFulfilledAtPlace(c, LWPlace::initWithDict(a["place"]));
            result(name, campaignJson(*c));
        } else {
            LWCampaignAlertView::showWithCampaignAndCompletion(
                *platform_->application, *c,
                [this, id = c->id()] { result("alertCompletion", id); });
        }
    } else if (name == "registerDeviceToken") {
        managers_.campaigns->registerDeviceToken(hexBytes(a["hex"]));
    } else if (name == "deregisterDeviceToken") {
        managers_.campaigns->deregisterDeviceToken();
    } else if (name == "remoteNotification") {
        managers_.campaigns->handleRemoteNotificationFetchCompletionHandler(
            a["userInfo"], [this](int r) { result("remoteNotification", r); });
    }
}

MapScene Host::mapScene() const {
    MapScene scene;
    // Walk times count from the walk's start; the trace's from the run's.
    double offset = walk_->startedAt() - scenario_.start;
    std::shared_ptr<const QZWKit> kit;
    if (auto z = proximity()) kit = z->kit();
    if (kit && kit->map()) {
        for (const auto& c : kit->map()->overlays()) {
            auto [x, y] = walk_->toLocal(c->latitude(), c->longitude());
            scene.fences.push_back({x, y, c->radius(), c->name().value_or(c->identifier().value_or("?"))});
        }
    }
    for (const auto& b : walk_->beacons()) {
        std::string label = fmt::format("{}/{}", b.major, b.minor);
        // The kit's name for the beacon, where the kit has one.
        for (const auto& r : kit ? kit->beaconRegions() : decltype(kit->beaconRegions()){}) {
            auto j = regionJson(*r);
            if (j.value("uuid", "") == b.uuid.uuidString() && j.value("major", -1) == b.major &&
                j.value("minor", -1) == b.minor) {
                label = r->name().value_or(r->identifier().value_or(label));
                break;
            }
        }
        scene.beacons.push_back({b.x, b.y, label});
    }
    for (const auto& p : walk_->path()) scene.path.push_back({p.x, p.y, p.t + offset});
    scene.markers = digest_->markers([&](double t) { return walk_->positionAt(t - offset); });
    return scene;
}

void Host::writeOutputs() {
    auto save = [this](const std::string& path, const std::string& text, const char* what) {
        std::ofstream out(path, std::ios::binary);
        out << text;
        out.close();
        if (!out) {
            std::fprintf(stderr, "lurewave-sim: cannot write %s\n", path.c_str());
            failed_ = true;
            return;
        }
        trace_->note(fmt::format("  {}: {}", what, path));
    };
    std::optional<MapScene> map;
    if (walk_ && (options_.svg || options_.report)) map = mapScene();
    if (options_.svg) {
        if (map) {
            save(*options_.svg, renderMap(*map), "map");
        } else {
            trace_->note("  map: none, the scenario has no walk");
        }
    }
    if (options_.report) {
        std::string started = quenby::platform::formatUTC(
            quenby::platform::Date::fromSecondsSince1970(scenario_.start), false);
        save(*options_.report,
             digest_->renderReport(options_.name.empty() ? "scenario" : options_.name, started,
                                   scenario_.until, map),
             "report");
    }
}

}  // namespace sim
