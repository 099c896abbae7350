// The status layer's HTTP requests: the synchronous batch POST, and asynchronous GET and POST
// that keep a file copy of each answer ("tallyline-%@.data").
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/http.h"
#include "platform/json.h"
#include "platform/platform.h"
#include "platform/response_cache.h"
#include "platform/url.h"

inline constexpr const char* kTallylineFrameworkVersion = "1";

class QTLAPIRequest {
  public:
    using Json = quenby::platform::Json;
    using Url = quenby::platform::Url;
    using Error = quenby::platform::Error;
    using Bytes = quenby::platform::Bytes;
    using Handler = std::function<void(std::optional<Error>, std::optional<Json>)>;

    QTLAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                  std::optional<std::string> apiToken);

    quenby::platform::HttpRequest newApiRequest(const std::optional<Url>& url) const;
    quenby::platform::HttpRequest newPostRequest(const std::optional<Url>& url) const;
    // The transport error, or nothing once the exchange completed (any status).
    std::optional<Error> postSync(const std::optional<Url>& url, const std::string& body) const;
    // Asynchronous; each sends the request twice (the first answer dropped). `handler` runs on a
    // background context of its own.
    void get(const std::optional<Url>& url, Handler handler) const;
    void post(const std::optional<Url>& url, const std::string& body, Handler handler) const;

    void processResponseData(const Bytes& data, std::optional<Error> error,
                             const std::optional<Url>& url, const Handler& handler) const;
    // Nothing for absent data or text that is not JSON.
    static std::optional<Json> parseResponse(const std::optional<Bytes>& data);
    std::string fileNameFrom(const Url& url) const { return cache_.fileNameFrom(url); }
    void writeToDisk(const Bytes& data, const Url& url) const { cache_.write(data, url); }
    std::optional<Bytes> readFromDisk(const Url& url) const { return cache_.read(url); }

  private:
    void send(quenby::platform::HttpRequest req, const std::optional<Url>& url,
              Handler handler) const;

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::optional<std::string> apiToken_;
    quenby::platform::ResponseCache cache_;
};
