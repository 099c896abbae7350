#include "sim/server.h"

#include <httplib.h>

#include <stdexcept>

namespace sim {

OperatorServer::OperatorServer(std::optional<nlohmann::json> kit,
                               std::optional<nlohmann::json> campaigns, int port, Listener listener)
    : server_(std::make_unique<httplib::Server>()),
      kit_(std::move(kit)),
      campaigns_(std::move(campaigns)),
      listener_(std::move(listener)) {
    auto handle = [this](const httplib::Request& req, httplib::Response& res) {
        ServedRequest r{req.method, req.target, req.body, {}};
        for (const auto& [k, v] : req.headers) {
            if (k == "REMOTE_ADDR" || k == "REMOTE_PORT" || k == "LOCAL_ADDR" || k == "LOCAL_PORT")
                continue;
            r.headers.emplace_back(k, v);
        }
        if (listener_) listener_(r);
        std::optional<nlohmann::json> answer;
        if (req.method == "GET") {
            std::lock_guard lk(mu_);
            if (req.path == "/kit") answer = kit_;
            if (req.path == "/campaigns") answer = campaigns_;
        } else {
            answer = nlohmann::json{{"ok", true}};
        }
        if (!answer) {
            res.status = 404;
            res.set_content("{\"error\":\"not found\"}", "application/json");
            return;
        }
        res.set_content(answer->dump(), "application/json");
    };
    server_->Get(".*", handle);
    server_->Post(".*", handle);
    server_->Put(".*", handle);
    server_->Delete(".*", handle);
    port_ = port > 0 ? (server_->bind_to_port("127.0.0.1", port) ? port : -1)
                     : server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port));
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    while (!server_->is_running()) std::this_thread::yield();
}

OperatorServer::~OperatorServer() {
    stop();
}

void OperatorServer::setKit(nlohmann::json kit) {
    std::lock_guard lk(mu_);
    kit_ = std::move(kit);
}

void OperatorServer::setCampaigns(nlohmann::json campaigns) {
    std::lock_guard lk(mu_);
    campaigns_ = std::move(campaigns);
}

void OperatorServer::wait() {
    if (thread_.joinable()) thread_.join();
}

void OperatorServer::stop() {
    server_->stop();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

}  // namespace sim
