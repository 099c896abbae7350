#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <mutex>

#include "platform/console.h"
#include "platform/http.h"
#include "platform/scheduler.h"

namespace quenby::platform {

namespace {

bool equalsNoCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

void globalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Sink {
    Bytes* body;
    std::size_t limit;
    bool overflow = false;
};

size_t onData(char* ptr, size_t size, size_t nmemb, void* user) {
    auto* sink = static_cast<Sink*>(user);
    size_t n = size * nmemb;
    if (sink->body->size() + n > sink->limit) {
        sink->overflow = true;
        return 0;  // aborts the transfer
    }
    sink->body->insert(sink->body->end(), ptr, ptr + n);
    return n;
}

HttpResponse perform(const HttpRequest& req) {
    globalInit();
    HttpResponse res;
    CURL* h = curl_easy_init();
    if (!h) {
        res.error = Error{"curl", CURLE_FAILED_INIT, "could not start an HTTP exchange"};
        return res;
    }
    char errbuf[CURL_ERROR_SIZE] = {0};
    Sink sink{&res.body, req.maxResponseBytes};
    curl_slist* headers = nullptr;
    for (const auto& [name, value] : req.headers) {
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    }
    // libcurl would otherwise ask for 100-continue and wait before sending larger bodies.
    headers = curl_slist_append(headers, "Expect:");

    curl_easy_setopt(h, CURLOPT_URL, req.url.c_str());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errbuf);
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &onData);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
    // An answer that announces a larger size is refused before its first byte; the write callback
    // still guards answers of unknown size and compressed ones that expand past the cap.
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(req.maxResponseBytes));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::clamp(req.timeoutSeconds, 0.001, 86400.0) * 1000));
    if (req.method == "GET") {
        curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, req.method.c_str());
        if (!req.body.empty() || req.method == "POST" || req.method == "PUT") {
            static const char kEmpty[] = "";
            curl_easy_setopt(h, CURLOPT_POSTFIELDS, req.body.empty() ? kEmpty : req.body.data());
            curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(req.body.size()));
        }
    }

    CURLcode rc = curl_easy_perform(h);
    if (rc == CURLE_OK) {
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &res.statusCode);
    } else {
        bool tooLarge = sink.overflow || rc == CURLE_FILESIZE_EXCEEDED;
        std::string text =
            tooLarge    ? "response larger than " + std::to_string(req.maxResponseBytes) + " bytes"
            : errbuf[0] ? std::string(errbuf)
                        : std::string(curl_easy_strerror(rc));
        // The callers' own failure paths may not log; a refused answer is worth one line anyway,
        // as it points at a server gone wrong rather than at the network.
        if (tooLarge)
            consoleWrite("HTTP answer refused, " + text + ": " + req.method + " " + req.url);
        res.error = Error{"curl", static_cast<long>(rc), text};
        res.body = Bytes();  // gives the memory back, not just the size
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(h);
    return res;
}

}  // namespace

void HttpRequest::setHeader(const std::string& name, std::optional<std::string> value) {
    std::erase_if(headers, [&](const auto& h) { return equalsNoCase(h.first, name); });
    if (value) headers.emplace_back(name, std::move(*value));
}

const std::string* HttpRequest::header(const std::string& name) const {
    for (const auto& h : headers) {
        if (equalsNoCase(h.first, name)) return &h.second;
    }
    return nullptr;
}

CurlHttpClient::CurlHttpClient(std::weak_ptr<Scheduler> scheduler)
    : scheduler_(std::move(scheduler)) {
    globalInit();
}

void CurlHttpClient::send(HttpRequest request, Completion completion) {
    auto sched = scheduler_.lock();
    if (!sched) return;
    sched->submitBackground([req = std::move(request), done = std::move(completion)] {
        HttpResponse res = perform(req);
        if (done) done(std::move(res));
    });
}

HttpResponse CurlHttpClient::sendSync(const HttpRequest& request) {
    return perform(request);
}

}  // namespace quenby::platform
