// The proximity layer's HTTP exchanges: the kit GET with its write-through file cache, which
// stands in for the server whenever a request fails, and the synchronous JSON POST of the
// analytics upload.
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

inline constexpr const char* kZonewiseFrameworkVersion = "1.0.3";

class QZWAPIRequest {
  public:
    using Json = quenby::platform::Json;
    using Url = quenby::platform::Url;
    using Error = quenby::platform::Error;
    using Bytes = quenby::platform::Bytes;
    // An error or none, and the parsed answer (or the cached copy after a failure) or none.
    using Handler = std::function<void(std::optional<Error>, std::optional<Json>)>;

    struct PostResult {
        std::optional<Error> error;  // set when the exchange did not complete
        Bytes body;
    };

    QZWAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                  std::optional<std::string> apiToken);

    // Asynchronous GET. Every call sends the request twice: once fire-and-forget, its answer
    // dropped, and once for real. `handler` runs on a background context of its own.
    void get(const std::optional<Url>& url, Handler handler) const;
    // Synchronous POST of `body` as JSON; the answer's body, or the transport error.
    PostResult post(const std::optional<Url>& url, std::string body) const;

    void processResponseDataErrorUrlHandler(const Bytes& data, std::optional<Error> error,
                                            const std::optional<Url>& url,
                                            const Handler& handler) const;
    // Nothing for absent data or text that is not JSON (logged).
    static std::optional<Json> parseResponse(const std::optional<Bytes>& data);
    std::string fileNameFrom(const Url& url) const;
    std::string pathToFileForURL(const Url& url) const;
    void writeToDiskFromURL(const Bytes& data, const Url& url) const;
    // The cached bytes; nothing when the file is missing or empty.
    std::optional<Bytes> readFromDisk(const Url& url) const;

    // The request with the layer's headers, for GET (or POST with the JSON headers).
    quenby::platform::HttpRequest newRequest(const std::optional<Url>& url,
                                             const std::string& method) const;

  private:
    std::shared_ptr<quenby::platform::Platform> platform_;
    std::optional<std::string> apiToken_;
    quenby::platform::ResponseCache cache_;
};
