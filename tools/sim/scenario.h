// A scenario: the device, the host's bundle, an optional embedded operator server, and timed
// steps. Checked whole before anything runs; a malformed one is a ScenarioError naming the step.
#pragma once

#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

using Json = nlohmann::json;

struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Device {
    int authorization = 3;
    bool monitoringAvailable = true;
    bool rangingAvailable = true;
    std::optional<std::string> vendorId = std::string("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    std::string applicationState = "active";
    std::set<std::string> hostAppDelegate;  // "fetch", "legacy", "token"
    bool secondListener = false;
};

struct Step {
    double at = 0;
    Json action;  // one action object (a "pass" holds several)
};

struct Scenario {
    double start = 0;  // seconds since 1970
    std::string host = "campaigns";
    Json bundle = Json::object();  // plist file name -> contents
    std::optional<Json> server;    // {"kit": …, "campaigns": …}
    Device device;
    std::vector<Step> steps;
    double until = 0;
};

Scenario parseScenario(const std::string& text);
// Replaces every "{server}" inside every string of `j` with `base`.
void substituteServer(Json& j, const std::string& base);
// Bytes from an even-length hex string; throws ScenarioError for anything else.
std::vector<std::uint8_t> hexBytes(const std::string& hex);

}  // namespace sim
