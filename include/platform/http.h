// HTTP exchanges. The status code of an answer is reported but no layer of the library looks at
// it: any completed exchange is a success, and only a transport failure is an error.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/types.h"

namespace quenby::platform {

class Scheduler;

// The "AUTHORIZATION" value every layer sends: Token token="<token>" ("(null)" without one).
inline std::string tokenAuthorization(const std::optional<std::string>& token) {
    return "Token token=\"" + token.value_or("(null)") + "\"";
}

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    // Sent in this order, names as written. setHeader() replaces a header of the same name
    // (compared without regard to case); a null value removes it.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  // bytes, as sent
    double timeoutSeconds = 60.0;
    // Larger answers fail with a transport error instead of exhausting memory.
    std::size_t maxResponseBytes = 128u << 20;

    void setHeader(const std::string& name, std::optional<std::string> value);
    const std::string* header(const std::string& name) const;
};

struct HttpResponse {
    std::optional<Error> error;  // set when the exchange did not complete
    long statusCode = 0;
    Bytes body;
};

class HttpClient {
  public:
    using Completion = std::function<void(HttpResponse)>;

    HttpClient() = default;
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    virtual ~HttpClient() = default;

    // Sends in the background; `completion` (may be null) runs on a background context of its
    // own, never on the caller's thread. The scheduler's settle() waits for both.
    virtual void send(HttpRequest request, Completion completion) = 0;
    // Blocks the calling thread until the exchange ends.
    virtual HttpResponse sendSync(const HttpRequest& request) = 0;
};

// libcurl, TLS verification on, redirects followed.
class CurlHttpClient final : public HttpClient {
  public:
    explicit CurlHttpClient(std::weak_ptr<Scheduler> scheduler);
    void send(HttpRequest request, Completion completion) override;
    HttpResponse sendSync(const HttpRequest& request) override;

  private:
    std::weak_ptr<Scheduler> scheduler_;
};

}  // namespace quenby::platform
