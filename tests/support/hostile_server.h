// An HTTP server on 127.0.0.1 whose every answer is 120 MB of valid JSON (an array of zeros),
// generated as it is sent so that the serving side holds none of it: what a server gone wrong can
// send, without the test's own memory in the figure.
#pragma once

#include <httplib.h>

#include <algorithm>
#include <string>
#include <thread>

namespace quenby::test {

class HostileServer {
  public:
    static constexpr std::size_t kBytes = 120'000'001;  // odd: "[", then "0," pairs, then "0]"

    // "/kit" comes chunked (no size given: the client must stop reading by itself), and as
    // "application/octet-stream", which the server does not compress: compressing 120 MB would
    // cost the server seconds, and the client's count is of decompressed bytes either way. Every
    // other path announces its size.
    HostileServer() {
        server_.Get("/kit", [](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider(
                "application/octet-stream", [](std::size_t offset, httplib::DataSink& sink) {
                    if (offset < kBytes) return writeZeros(offset, kBytes - offset, sink);
                    sink.done();
                    return true;
                });
        });
        server_.Get(".*", [](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(kBytes, "application/json", writeZeros);
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // Readiness of a real socket server, not a wait on the library's work.
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~HostileServer() {
        server_.stop();
        thread_.join();
    }
    HostileServer(const HostileServer&) = delete;
    HostileServer& operator=(const HostileServer&) = delete;

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

  private:
    static bool writeZeros(std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        // Every byte after the "[" is "0" at an odd position and "," at an even one.
        static const std::string pattern = [] {
            std::string p(65538, '0');
            for (std::size_t i = 0; i < p.size(); i += 2) p[i] = ',';
            return p;
        }();
        length = std::min({length, std::size_t{65536}, kBytes - offset});
        if (offset == 0) return sink.write("[", 1);
        if (offset + length == kBytes)
            return sink.write(pattern.data() + offset % 2, length - 1) && sink.write("]", 1);
        return sink.write(pattern.data() + offset % 2, length);
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

}  // namespace quenby::test
