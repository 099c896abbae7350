#include "proximity/QZWAPIRequest.h"

#include "proximity/QZWDevice.h"
#include "proximity/QZWLogger.h"

using quenby::platform::HttpRequest;
using quenby::platform::HttpResponse;

QZWAPIRequest::QZWAPIRequest(std::shared_ptr<quenby::platform::Platform> platform,
                             std::optional<std::string> apiToken)
    : platform_(std::move(platform)),
      apiToken_(std::move(apiToken)),
      cache_(platform_->files, platform_->documentsDirectory, "zonewise-", false,
             quenby::platform::kMaxKitAnswerBytes) {}

HttpRequest QZWAPIRequest::newRequest(const std::optional<Url>& url,
                                      const std::string& method) const {
    HttpRequest req;
    req.method = method;
    // No URL: the transfer fails in the HTTP layer, as a request for nothing does.
    req.url = url ? url->absoluteString() : std::string();
    req.setHeader("AUTHORIZATION", quenby::platform::tokenAuthorization(apiToken_));
    req.setHeader("X-ZW-AppID", QZWDevice(platform_->device).getUUID());
    req.setHeader("X-ZW-FrameworkVersion", std::string(kZonewiseFrameworkVersion));
    if (method == "POST") {
        req.setHeader("Content-Type", "application/json");
        req.setHeader("Accept", "application/json");
    }
    return req;
}

void QZWAPIRequest::get(const std::optional<Url>& url, Handler handler) const {
    HttpRequest req = newRequest(url, "GET");
    req.maxResponseBytes = quenby::platform::kMaxKitAnswerBytes;
    // The first transmission's answer is dropped: every kit GET reaches the server twice.
    platform_->http->send(req, nullptr);
    platform_->http->send(
        std::move(req), [self = *this, url, handler = std::move(handler)](HttpResponse res) {
            self.processResponseDataErrorUrlHandler(res.body, std::move(res.error), url, handler);
        });
}

QZWAPIRequest::PostResult QZWAPIRequest::post(const std::optional<Url>& url,
                                              std::string body) const {
    HttpRequest req = newRequest(url, "POST");
    req.body = std::move(body);
    HttpResponse res = platform_->http->sendSync(req);
    return {std::move(res.error), std::move(res.body)};
}

void QZWAPIRequest::processResponseDataErrorUrlHandler(const Bytes& data,
                                                       std::optional<Error> error,
                                                       const std::optional<Url>& url,
                                                       const Handler& handler) const {
    // The status code is not looked at: any non-empty answer is the new kit document.
    if (!data.empty() && !error) {
        if (url) writeToDiskFromURL(data, *url);
        if (handler) handler(std::nullopt, parseResponse(data));
        return;
    }
    if (!error) error = Error{"Zonewise", 204, "No Data"};
    QZWLogger::logFormat(QZWLogLevelError, "API Request Failed with Error: {}", error->toString());
    std::optional<Bytes> cached;
    if (url) cached = readFromDisk(*url);
    if (handler) handler(std::move(error), parseResponse(cached));
}

std::optional<QZWAPIRequest::Json> QZWAPIRequest::parseResponse(const std::optional<Bytes>& data) {
    if (!data) return std::nullopt;
    std::string why;
    auto parsed = quenby::platform::parseJson(*data, &why);
    if (!parsed) QZWLogger::logFormat(QZWLogLevelError, "API JSON Error:{}", why);
    return parsed;
}

std::string QZWAPIRequest::fileNameFrom(const Url& url) const {
    return cache_.fileNameFrom(url);
}

std::string QZWAPIRequest::pathToFileForURL(const Url& url) const {
    return cache_.pathFor(url);
}

void QZWAPIRequest::writeToDiskFromURL(const Bytes& data, const Url& url) const {
    if (auto err = cache_.write(data, url)) {
        QZWLogger::logFormat(QZWLogLevelError, "API Data Write to Cache Failed with Error: {}",
                             err->toString());
    }
}

std::optional<QZWAPIRequest::Bytes> QZWAPIRequest::readFromDisk(const Url& url) const {
    auto data = cache_.read(url);
    if (data)
        QZWLogger::logFormat(QZWLogLevelInfo, "API Data Loaded from Cache: {}",
                             cache_.pathFor(url));
    return data;
}
