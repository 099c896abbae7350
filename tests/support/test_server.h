// A real HTTP server on 127.0.0.1 for tests: records every request it receives and answers from
// a table of routes.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace quenby::test {

struct ReceivedRequest {
    std::string method;
    std::string target;  // path and query, as sent
    std::string path;    // decoded path without the query
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The value of header `name` (compared without regard to case); "" when missing.
    std::string header(const std::string& name) const;
    bool hasHeader(const std::string& name) const;
};

struct Reply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
};

class TestServer {
  public:
    using Handler = std::function<Reply(const ReceivedRequest&)>;

    // Listens on an ephemeral port, or on `port` when given (throws when it is taken).
    explicit TestServer(int port = 0);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:PORT" followed by `pathAndQuery`.
    std::string url(const std::string& pathAndQuery) const;

    // Answers `method` at `path` (exact, without the query). Unrouted requests get 404.
    void on(const std::string& method, const std::string& path, Reply reply);
    void on(const std::string& method, const std::string& path, Handler handler);

    std::vector<ReceivedRequest> requests() const;
    std::vector<ReceivedRequest> requestsTo(const std::string& path) const;
    void clearRequests();

    // Closes the listening socket: later connections are refused.
    void stop();

  private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mu_;
    std::map<std::pair<std::string, std::string>, Handler> routes_;  // guarded by mu_
    std::vector<ReceivedRequest> received_;                          // guarded by mu_
};

// A port on 127.0.0.1 where nothing listens (bound and closed again).
int refusedPort();

}  // namespace quenby::test
