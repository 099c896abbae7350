// What every fuzz target shares: a silent console, files and HTTP that never leave the process,
// and one platform on virtual time, made once per process and reused by every input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/console.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/platform.h"

namespace quenby::fuzz {

inline std::string text(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

inline platform::Bytes bytes(const std::uint8_t* data, std::size_t size) {
    return platform::Bytes(data, data + size);
}

// Log lines cost more than the parsing they report on, and drown libFuzzer's own output.
inline void silenceConsole() {
    platform::setConsoleSink([](std::string_view) {});
}

// Files held in memory: the cache and state files of one input never reach the disk, and never
// survive into the next input unless the target wants them to.
class MemoryFileSystem final : public platform::FileSystem {
  public:
    std::optional<platform::Bytes> readFile(const std::string& path) const override {
        std::lock_guard lk(mu_);
        auto it = files_.find(path);
        if (it == files_.end()) return std::nullopt;
        return it->second;
    }
    std::optional<platform::Error> writeFile(const std::string& path, const platform::Bytes& data,
                                             bool) override {
        std::lock_guard lk(mu_);
        files_[path] = data;
        return std::nullopt;
    }
    bool fileExists(const std::string& path) const override {
        std::lock_guard lk(mu_);
        return files_.count(path) != 0;
    }
    void clear() {
        std::lock_guard lk(mu_);
        files_.clear();
    }

  private:
    mutable std::mutex mu_;
    std::map<std::string, platform::Bytes> files_;
};

// An HTTP client with a canned answer for every request. Asynchronous completions are held until
// the target runs them, so none runs inside the library's own call (which the real client never
// does either).
class CannedHttpClient final : public platform::HttpClient {
  public:
    // Answers every request whose URL starts with "http"; anything else fails as curl would.
    std::function<platform::HttpResponse(const platform::HttpRequest&)> answer =
        [](const platform::HttpRequest& r) {
            platform::HttpResponse res;
            if (r.url.rfind("http", 0) != 0) {
                res.error = platform::Error{"curl", 3, "URL using bad/illegal format"};
            } else {
                res.statusCode = 200;
                res.body = {0x89, 'P', 'N', 'G'};
            }
            return res;
        };

    void send(platform::HttpRequest request, Completion completion) override {
        if (!completion) return;
        std::lock_guard lk(mu_);
        pending_.push_back([this, request = std::move(request), c = std::move(completion)] {
            c(answer(request));
        });
    }
    platform::HttpResponse sendSync(const platform::HttpRequest& request) override {
        return answer(request);
    }
    // Runs every held completion, also those queued by the completions themselves.
    void deliver() {
        for (;;) {
            std::function<void()> next;
            {
                std::lock_guard lk(mu_);
                if (pending_.empty()) return;
                next = std::move(pending_.front());
                pending_.pop_front();
            }
            next();
        }
    }

  private:
    std::mutex mu_;
    std::deque<std::function<void()>> pending_;
};

// One platform on a virtual clock: documents and bundle in a private temporary directory (removed
// at exit), files in memory, canned HTTP. The calling thread becomes the host thread. Made once
// with `new` and kept for the whole process.
struct FuzzPlatform {
    std::string root;
    std::shared_ptr<MemoryFileSystem> files = std::make_shared<MemoryFileSystem>();
    std::shared_ptr<CannedHttpClient> http = std::make_shared<CannedHttpClient>();
    std::shared_ptr<platform::Platform> platform;

    // `bundle`: file name -> contents, written into the bundle directory.
    explicit FuzzPlatform(const std::map<std::string, std::string>& bundle = {});
};

// The console silenced and a platform made, once per process: `static auto* fp = quietPlatform();`.
inline FuzzPlatform* quietPlatform(const std::map<std::string, std::string>& bundle = {}) {
    silenceConsole();
    return new FuzzPlatform(bundle);
}

// 2026-03-01T09:00:00Z, the day the campaign samples are written around.
inline constexpr double kFuzzStart = 1772355600.0;

}  // namespace quenby::fuzz
