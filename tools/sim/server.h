// The operator's dev server on 127.0.0.1: the kit answer, the campaign feed, and {"ok": true} for
// every POST or DELETE (analytics, status, push tokens). Each request is reported as received.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace httplib {
class Server;
}

namespace sim {

struct ServedRequest {
    std::string method, target, body;
    std::vector<std::pair<std::string, std::string>> headers;  // as received
};

class OperatorServer {
  public:
    using Listener = std::function<void(const ServedRequest&)>;

    // Serves on `port` (0: any free port). Throws std::runtime_error when it cannot bind.
    OperatorServer(std::optional<nlohmann::json> kit, std::optional<nlohmann::json> campaigns,
                   int port, Listener listener);
    ~OperatorServer();

    int port() const { return port_; }
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void setKit(nlohmann::json kit);
    void setCampaigns(nlohmann::json campaigns);
    // Blocks until stop() is called from another thread.
    void wait();
    void stop();

  private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    std::mutex mu_;
    std::optional<nlohmann::json> kit_, campaigns_;  // guarded by mu_
    Listener listener_;
};

}  // namespace sim
