// The file copy of the last answer from each URL, which stands in for the server when a request
// fails. One file per URL path in the documents directory (see cacheFileName).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/console.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/url.h"

namespace quenby::platform {

class ResponseCache {
  public:
    // Files larger than `maxBytes` (the cap on the answers it keeps) are not read back.
    ResponseCache(std::shared_ptr<FileSystem> files, std::string directory, std::string prefix,
                  bool atomicWrites, std::size_t maxBytes)
        : files_(std::move(files)),
          dir_(std::move(directory)),
          prefix_(std::move(prefix)),
          atomic_(atomicWrites),
          maxBytes_(maxBytes) {}

    std::string fileNameFrom(const Url& url) const { return cacheFileName(prefix_, url, ".data"); }
    std::string pathFor(const Url& url) const { return joinPath(dir_, fileNameFrom(url)); }
    std::optional<Error> write(const Bytes& data, const Url& url) const {
        return files_->writeFile(pathFor(url), data, atomic_);
    }
    // Nothing when there is no file, it is empty or it is larger than the cap. No answer over the
    // cap is ever written, but a file left by an older version or put there by hand could be any
    // size: its size is asked before it is read.
    std::optional<Bytes> read(const Url& url) const {
        std::string path = pathFor(url);
        auto size = files_->fileSize(path);
        if (size && *size > maxBytes_) {
            consoleWrite("Cache file ignored, larger than " + std::to_string(maxBytes_) +
                         " bytes: " + path);
            return std::nullopt;
        }
        auto data = files_->readFile(path);
        if (!data || data->empty() || data->size() > maxBytes_) return std::nullopt;
        return data;
    }

  private:
    std::shared_ptr<FileSystem> files_;
    std::string dir_, prefix_;
    bool atomic_;
    std::size_t maxBytes_;
};

// Sends `request` twice: once with its answer dropped, then once for `completion`. Both API
// layers' asynchronous requests reach their servers twice; hosts' servers rely on seeing both.
inline void sendTwice(HttpClient& http, HttpRequest request, HttpClient::Completion completion) {
    http.send(request, nullptr);
    http.send(std::move(request), std::move(completion));
}

}  // namespace quenby::platform
