#include "status/QTLAPIRequest.h"

#include "status/QTLBeacon.h"

using quenby::platform::HttpRequest;
using quenby::platform::HttpResponse;

QTLAPIRequest::QTLAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                             std::optional<std::string> apiToken)
    : platform_(std::move(platform)),
      apiToken_(std::move(apiToken)),
      cache_(platform_->files, platform_->documentsDirectory, "tallyline-", true,
             quenby::platform::kMaxStatusAnswerBytes) {}

HttpRequest QTLAPIRequest::newApiRequest(const std::optional<Url>& url) const {
    HttpRequest req;
    req.url = url ? url->absoluteString() : std::string();
    req.maxResponseBytes = quenby::platform::kMaxStatusAnswerBytes;
    req.setHeader("AUTHORIZATION", quenby::platform::tokenAuthorization(apiToken_));
    req.setHeader("X-TL-AppID", QTLDevice(platform_->device).getUUID());
    req.setHeader("X-TL-FrameworkVersion", std::string(kTallylineFrameworkVersion));
    return req;
}

HttpRequest QTLAPIRequest::newPostRequest(const std::optional<Url>& url) const {
    HttpRequest req = newApiRequest(url);
    req.method = "POST";
    req.setHeader("Accept", "application/json");
    req.setHeader("Content-Type", "application/json");
    return req;
}

namespace {

// A relative reference has no base to resolve against here, so no exchange can take place; the
// transport's own answer to such text is given without letting it guess a scheme and host.
std::optional<quenby::platform::Error> unreachable(
    const std::optional<quenby::platform::Url>& url) {
    if (!url || !url->isRelative()) return std::nullopt;
    return quenby::platform::Error{"curl", 3, "URL using bad/illegal format or missing URL"};
}

}  // namespace

std::optional<QTLAPIRequest::Error> QTLAPIRequest::postSync(const std::optional<Url>& url,
                                                            const std::string& body) const {
    if (auto error = unreachable(url)) return error;
    HttpRequest req = newPostRequest(url);
    req.body = body;
    return platform_->http->sendSync(req).error;
}

void QTLAPIRequest::get(const std::optional<Url>& url, Handler handler) const {
    send(newApiRequest(url), url, std::move(handler));
}

void QTLAPIRequest::post(const std::optional<Url>& url, const std::string& body,
                         Handler handler) const {
    HttpRequest req = newPostRequest(url);
    req.body = body;
    send(std::move(req), url, std::move(handler));
}

void QTLAPIRequest::send(HttpRequest req, const std::optional<Url>& url, Handler handler) const {
    if (auto error = unreachable(url)) {
        processResponseData({}, std::move(error), url, handler);
        return;
    }
    quenby::platform::sendTwice(
        *platform_->http, std::move(req),
        [self = *this, url, handler = std::move(handler)](HttpResponse res) {
            self.processResponseData(res.body, std::move(res.error), url, handler);
        });
}

void QTLAPIRequest::processResponseData(const Bytes& data, std::optional<Error> error,
                                        const std::optional<Url>& url,
                                        const Handler& handler) const {
    if (!data.empty() && !error) {
        if (url) writeToDisk(data, *url);
        if (handler) handler(std::nullopt, parseResponse(data));
        return;
    }
    if (!error) error = Error{"Tallyline", 204, "No Data"};
    std::optional<Bytes> cached;
    if (url) cached = readFromDisk(*url);
    if (handler) handler(std::move(error), parseResponse(cached));
}

std::optional<QTLAPIRequest::Json> QTLAPIRequest::parseResponse(const std::optional<Bytes>& data) {
    if (!data) return std::nullopt;
    return quenby::platform::parseJson(*data);
}
