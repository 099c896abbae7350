#include "campaigns/LWAPIRequest.h"

#include "platform/console.h"

using quenby::platform::HttpRequest;
using quenby::platform::HttpResponse;

LWAPIRequest::LWAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                           std::optional<std::string> apiToken)
    : platform_(std::move(platform)), apiToken_(std::move(apiToken)) {}

std::optional<std::string> LWAPIRequest::currentDeviceUUID() const {
    return platform_->device->identifierForVendorString();
}

void LWAPIRequest::setHeaders(HttpRequest& request) const {
    request.setHeader("AUTHORIZATION", quenby::platform::tokenAuthorization(apiToken_));
    request.setHeader("X-LW-FrameworkVersion", std::string(kLurewaveFrameworkVersion));
    request.setHeader("X-LW-AppID", currentDeviceUUID());
    request.setHeader("Content-Type", "application/json");
}

void LWAPIRequest::getHandler(const std::optional<std::string>& url, Completion completion) const {
    send("GET", url, std::nullopt, std::move(completion));
}

void LWAPIRequest::postDataHandler(const std::optional<std::string>& url,
                                   const std::optional<Json>& data, Completion completion) const {
    send("POST", url, data, std::move(completion));
}

void LWAPIRequest::deleteDataHandler(const std::optional<std::string>& url,
                                     const std::optional<Json>& data, Completion completion) const {
    send("DELETE", url, data, std::move(completion));
}

void LWAPIRequest::send(const std::string& method, const std::optional<std::string>& url,
                        const std::optional<Json>& data, Completion completion) const {
    HttpRequest req;
    req.method = method;
    req.url = url.value_or("");
    // The repository GETs only the feed; it POSTs and DELETEs only push tokens.
    req.maxResponseBytes = method == "GET" ? quenby::platform::kMaxFeedAnswerBytes
                                           : quenby::platform::kMaxPushAnswerBytes;
    setHeaders(req);
    if (data && method != "GET") {
        try {
            req.body = data->dump();
        } catch (const Json::exception& e) {
            // Sent all the same, without a body.
            quenby::platform::consoleWrite(std::string("Lurewave: Error generating json. ") +
                                           e.what());
        }
    }
    platform_->http->send(
        std::move(req), [self = *this, completion = std::move(completion)](HttpResponse res) {
            self.processResponseDataErrorUrlHandler(res.body, std::move(res.error), completion);
        });
}

void LWAPIRequest::processResponseDataErrorUrlHandler(const quenby::platform::Bytes& data,
                                                      std::optional<Error> error,
                                                      const Completion& completion) const {
    if (!completion) return;
    if (!data.empty() && !error) {
        completion(std::nullopt, parseResponse(data));
    } else if (!error) {
        completion(Error{"Lurewave", 204, "No Data"}, std::nullopt);
    } else {
        completion(std::move(error), std::nullopt);
    }
}

std::optional<LWAPIRequest::Json> LWAPIRequest::parseResponse(const quenby::platform::Bytes& data) {
    return quenby::platform::parseJson(data);
}
