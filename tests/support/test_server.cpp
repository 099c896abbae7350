#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace quenby::test {

namespace {
bool equalsNoCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}
}  // namespace

std::string ReceivedRequest::header(const std::string& name) const {
    for (const auto& [k, v] : headers) {
        if (equalsNoCase(k, name)) return v;
    }
    return {};
}

bool ReceivedRequest::hasHeader(const std::string& name) const {
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& h) { return equalsNoCase(h.first, name); });
}

TestServer::TestServer(int port) : server_(std::make_unique<httplib::Server>()) {
    auto handle = [this](const httplib::Request& req, httplib::Response& res) {
        ReceivedRequest r;
        r.method = req.method;
        r.target = req.target;
        r.path = req.path;
        for (const auto& [k, v] : req.headers) {
            // httplib adds these itself; they were not sent by the client.
            if (k == "REMOTE_ADDR" || k == "REMOTE_PORT" || k == "LOCAL_ADDR" || k == "LOCAL_PORT")
                continue;
            r.headers.emplace_back(k, v);
        }
        r.body = req.body;
        Handler h;
        {
            std::lock_guard lk(mu_);
            received_.push_back(r);
            auto it = routes_.find({r.method, r.path});
            if (it != routes_.end()) h = it->second;
        }
        Reply reply = h ? h(r) : Reply{404, "not found", "text/plain"};
        res.status = reply.status;
        res.set_content(reply.body, reply.contentType.c_str());
    };
    server_->Get(".*", handle);
    server_->Post(".*", handle);
    server_->Put(".*", handle);
    server_->Delete(".*", handle);
    if (port > 0) {
        port_ = server_->bind_to_port("127.0.0.1", port) ? port : -1;
    } else {
        port_ = server_->bind_to_any_port("127.0.0.1");
    }
    if (port_ <= 0) throw std::runtime_error("test server could not bind");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // Readiness of a real socket server, not a wait on the library's work.
    while (!server_->is_running()) std::this_thread::yield();
}

TestServer::~TestServer() {
    stop();
}

void TestServer::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

std::string TestServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

void TestServer::on(const std::string& method, const std::string& path, Reply reply) {
    on(method, path, Handler([reply](const ReceivedRequest&) { return reply; }));
}

void TestServer::on(const std::string& method, const std::string& path, Handler handler) {
    std::lock_guard lk(mu_);
    routes_[{method, path}] = std::move(handler);
}

std::vector<ReceivedRequest> TestServer::requests() const {
    std::lock_guard lk(mu_);
    return received_;
}

std::vector<ReceivedRequest> TestServer::requestsTo(const std::string& path) const {
    std::lock_guard lk(mu_);
    std::vector<ReceivedRequest> out;
    for (const auto& r : received_) {
        if (r.path == path) out.push_back(r);
    }
    return out;
}

void TestServer::clearRequests() {
    std::lock_guard lk(mu_);
    received_.clear();
}

int refusedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

}  // namespace quenby::test
