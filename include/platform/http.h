// HTTP exchanges. The status code of an answer is reported but no layer of the library looks at
// it: any completed exchange is a success, and only a transport failure is an error.
#pragma once

#include <cstddef>
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

// Caps on answers, by kind. A larger answer is a failed exchange: it takes the failure path of
// its request (the cached copy stands in where there is one) instead of the process's memory.
// Each is sized to the largest real document of its kind with a wide margin (README, "Caps on
// answers"); kMaxJsonMemory in json.h is sized from the largest of them.
//
// Kit: a beacon as kits write it takes about 250 bytes with a few attributes, a geofence about
// 200. A large estate, 10,000 beacons and 5,000 geofences, is under 4 MB; twice that room.
inline constexpr std::size_t kMaxKitAnswerBytes = std::size_t{8} << 20;
// Campaign feed: a campaign with its places takes about 300 bytes, its content (alert texts and
// an HTML body) 1-2 KB. 2,000 campaigns with their contents are under 4 MB; twice that room.
inline constexpr std::size_t kMaxFeedAnswerBytes = std::size_t{8} << 20;
// Push-token registration: the answer only says whether the token was taken.
inline constexpr std::size_t kMaxPushAnswerBytes = std::size_t{64} << 10;
// Status service: the upload's answer is not read and the asynchronous calls' answers are small
// acknowledgements; 1 MiB also holds any server's error page.
inline constexpr std::size_t kMaxStatusAnswerBytes = std::size_t{1} << 20;
// Every other answer (analytics uploads, the status logger's posts): not read past success.
inline constexpr std::size_t kMaxOtherAnswerBytes = std::size_t{1} << 20;

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    // Sent in this order, names as written. setHeader() replaces a header of the same name
    // (compared without regard to case); a null value removes it.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  // bytes, as sent
    double timeoutSeconds = 60.0;
    // Larger answers fail with a transport error (no body) instead of exhausting memory.
    std::size_t maxResponseBytes = kMaxOtherAnswerBytes;

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
