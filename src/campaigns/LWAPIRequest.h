// The campaign layer's HTTP client: GET, POST and DELETE with the layer's headers, JSON bodies,
// and either an error or the decoded answer for the completion.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/http.h"
#include "platform/json.h"
#include "platform/platform.h"
#include "platform/url.h"

inline constexpr const char* kLurewaveFrameworkVersion = "0.2.1";

class LWAPIRequest {
  public:
    using Json = quenby::platform::Json;
    using Error = quenby::platform::Error;
    // An error, or the decoded answer (nothing when it is not JSON). On a background context.
    using Completion = std::function<void(std::optional<Error>, std::optional<Json>)>;

    LWAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                 std::optional<std::string> apiToken);

    std::optional<std::string> currentDeviceUUID() const;
    // "AUTHORIZATION", "X-LW-FrameworkVersion", "X-LW-AppID", "Content-Type", in this order.
    void setHeaders(quenby::platform::HttpRequest& request) const;
    void getHandler(const std::optional<std::string>& url, Completion completion) const;
    void postDataHandler(const std::optional<std::string>& url, const std::optional<Json>& data,
                         Completion completion) const;
    void deleteDataHandler(const std::optional<std::string>& url, const std::optional<Json>& data,
                           Completion completion) const;
    void processResponseDataErrorUrlHandler(const quenby::platform::Bytes& data,
                                            std::optional<Error> error,
                                            const Completion& completion) const;
    static std::optional<Json> parseResponse(const quenby::platform::Bytes& data);

  private:
    void send(const std::string& method, const std::optional<std::string>& url,
              const std::optional<Json>& data, Completion completion) const;

    std::shared_ptr<quenby::platform::Platform> platform_;
    std::optional<std::string> apiToken_;
};
