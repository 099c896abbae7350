// The file copy of the last answer from each URL, which stands in for the server when a request
// fails. One file per URL path in the documents directory (see cacheFileName).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/files.h"
#include "platform/http.h"
#include "platform/url.h"

namespace quenby::platform {

class ResponseCache {
  public:
    ResponseCache(std::shared_ptr<FileSystem> files, std::string directory, std::string prefix,
                  bool atomicWrites)
        : files_(std::move(files)),
          dir_(std::move(directory)),
          prefix_(std::move(prefix)),
          atomic_(atomicWrites) {}

    std::string fileNameFrom(const Url& url) const { return cacheFileName(prefix_, url, ".data"); }
    std::string pathFor(const Url& url) const { return joinPath(dir_, fileNameFrom(url)); }
    std::optional<Error> write(const Bytes& data, const Url& url) const {
        return files_->writeFile(pathFor(url), data, atomic_);
    }
    // Nothing when there is no file or it is empty.
    std::optional<Bytes> read(const Url& url) const {
        auto data = files_->readFile(pathFor(url));
        if (!data || data->empty()) return std::nullopt;
        return data;
    }

  private:
    std::shared_ptr<FileSystem> files_;
    std::string dir_, prefix_;
    bool atomic_;
};

// Sends `request` twice: once with its answer dropped, then once for `completion`. Both API
// layers' asynchronous requests reach their servers twice; hosts' servers rely on seeing both.
inline void sendTwice(HttpClient& http, HttpRequest request, HttpClient::Completion completion) {
    http.send(request, nullptr);
    http.send(std::move(request), std::move(completion));
}

}  // namespace quenby::platform
