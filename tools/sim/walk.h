// A walk: the device moves along a path past beacons; from the regions the library registered it
// derives geofence and beacon-region entries and exits, answers state requests from its
// geometry, and ranges once a second.
//
// Radio: the shared RadioModel (sensing/radio.h) plus Gaussian noise of 1.5 dB from a fixed seed.
// A beacon is heard at RSSI -85 dBm or more (about 20 m at -59 dBm measured power); its accuracy
// is the distance that RSSI implies and its proximity the model's band for it. A beacon region
// is entered when one of its beacons is heard and left after 10 s with none heard; a geofence
// holds the positions within its radius.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/location_manager.h"

namespace sim {

class Walk : public std::enable_shared_from_this<Walk> {
  public:
    struct Point {
        double x, y, t;
    };
    struct Transmitter {
        quenby::platform::UUID uuid;
        int major, minor;
        double x, y, measuredPower;
    };

    static constexpr double kNoiseDb = 1.5;
    static constexpr double kExitAfter = 10.0;
    static constexpr unsigned kSeed = 20260301;

    Walk(const nlohmann::json& description, std::shared_ptr<quenby::platform::Scheduler> scheduler,
         std::shared_ptr<quenby::platform::LocationService> location);

    // Starts ticking once a second from now until the path's last time.
    void start();
    bool running() const { return timer_ != nullptr; }
    // The position `seconds` after the walk started, in metres east and north of the origin.
    std::pair<double, double> positionAt(double seconds) const;
    // Answers a state request from the current position.
    void answerStateRequest(const std::shared_ptr<const quenby::platform::Region>& region);

    double startedAt() const { return startedAt_; }
    const std::vector<Point>& path() const { return path_; }
    const std::vector<Transmitter>& beacons() const { return beacons_; }
    // Metres east/north of the origin for a latitude/longitude.
    std::pair<double, double> toLocal(double latitude, double longitude) const;

  private:
    void tick();
    bool insideCircle(const quenby::platform::CircularRegion& c, double x, double y) const;
    // The beacons of `region` heard at (x, y), with their readings.
    std::vector<quenby::platform::Beacon> heard(const quenby::platform::BeaconRegion& region,
                                                double x, double y);

    std::shared_ptr<quenby::platform::Scheduler> scheduler_;
    std::shared_ptr<quenby::platform::LocationService> location_;
    double originLat_, originLng_;
    std::vector<Transmitter> beacons_;
    std::vector<Point> path_;
    double startedAt_ = 0;
    std::mt19937 rng_{kSeed};
    std::shared_ptr<quenby::platform::RunLoopTimer> timer_;
    std::set<std::string> inside_;             // regions the device is in, by identifier
    std::map<std::string, double> lastHeard_;  // beacon regions: last time one was heard
};

}  // namespace sim
