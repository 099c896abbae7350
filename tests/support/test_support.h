// Helpers for tests: temporary directories, console capture, a platform on virtual time.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/console.h"
#include "platform/platform.h"

namespace quenby::test {

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const;

  private:
    std::string path_;
};

// Captures every console line written while it lives.
class ConsoleCapture {
  public:
    ConsoleCapture();
    ~ConsoleCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;
    // Lines that start with `prefix`.
    std::vector<std::string> withPrefix(const std::string& prefix) const;
    void clear();

  private:
    mutable std::mutex mu_;
    std::vector<std::string> lines_;
    platform::ConsoleSink previous_;
};

inline constexpr const char* kTestVendorId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
// 2026-03-01T09:00:00Z
inline constexpr double kTestStart = 1772355600.0;

// A platform on a virtual clock starting at kTestStart, with documents and bundle directories of
// its own and a fixed vendor identifier (none when `vendorId` is empty).
struct VirtualPlatform {
    explicit VirtualPlatform(std::string vendorId = kTestVendorId,
                             std::shared_ptr<platform::FileSystem> files = nullptr);
    TempDir documents;
    TempDir bundle;
    std::shared_ptr<platform::Platform> platform;
    platform::Scheduler& scheduler() { return *platform->scheduler; }
    // Writes `value` as an XML property list named `name` into the bundle directory.
    void writeBundlePlist(const std::string& name, const nlohmann::json& value);
};

void writeFile(const std::string& path, const std::string& contents);
// Every row of `sql` on the database file at `path`, as objects keyed by column name (values as
// SQLite holds them).
std::vector<nlohmann::json> queryRows(const std::string& path, const std::string& sql);
std::optional<std::string> readFile(const std::string& path);
// How many times `what` stands in `text`, not overlapping.
std::size_t countOf(const std::string& text, const std::string& what);

}  // namespace quenby::test

namespace quenby::test {

// The local file system, with writes that fail on demand.
class FaultyFileSystem final : public platform::FileSystem {
  public:
    std::atomic<bool> failWrites{false};
    std::optional<platform::Bytes> readFile(const std::string& path) const override {
        return local_.readFile(path);
    }
    std::optional<platform::Error> writeFile(const std::string& path, const platform::Bytes& data,
                                             bool atomically) override {
        if (failWrites) return platform::Error{"POSIX", 28, "No space left on device: " + path};
        return local_.writeFile(path, data, atomically);
    }
    bool fileExists(const std::string& path) const override { return local_.fileExists(path); }

  private:
    platform::LocalFileSystem local_;
};

// Restores the proximity logger's threshold when it goes.
class LogLevelGuard {
  public:
    explicit LogLevelGuard(int level);
    ~LogLevelGuard();

  private:
    int saved_;
};

}  // namespace quenby::test
