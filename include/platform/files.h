// Files of the documents directory (and anything else the library reads or writes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace quenby::platform {

class FileSystem {
  public:
    FileSystem() = default;
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;
    virtual ~FileSystem() = default;

    // Whole contents; nothing when the file is missing or cannot be read. Any thread.
    virtual std::optional<Bytes> readFile(const std::string& path) const = 0;
    // Replaces the whole file. Atomically: written to a temporary file beside it (a short name of
    // its own, so any legal name can be written this way), flushed and renamed over it, so a
    // reader or a crash sees the old or the new contents, never a mix.
    // Otherwise truncated and written in place. Answers the failure, if any. Any thread.
    virtual std::optional<Error> writeFile(const std::string& path, const Bytes& data,
                                           bool atomically) = 0;
    virtual bool fileExists(const std::string& path) const = 0;
    // Size in bytes without reading the file; nothing when it is missing or cannot be read. The
    // default reads it, which suits file systems held in memory.
    virtual std::optional<std::uint64_t> fileSize(const std::string& path) const {
        auto data = readFile(path);
        return data ? std::optional<std::uint64_t>(data->size()) : std::nullopt;
    }
};

class LocalFileSystem final : public FileSystem {
  public:
    std::optional<Bytes> readFile(const std::string& path) const override;
    std::optional<Error> writeFile(const std::string& path, const Bytes& data,
                                   bool atomically) override;
    bool fileExists(const std::string& path) const override;
    std::optional<std::uint64_t> fileSize(const std::string& path) const override;
};

// `text` made safe as (part of) a file name: "/" becomes "%2F" and NUL "%00", so that a name
// taken from outside never leaves its directory.
std::string safeFileNameComponent(std::string_view text);

// The longest file name the library writes: NAME_MAX of the common Linux file systems.
inline constexpr std::size_t kMaxFileName = 255;

// `prefix` + `name` + `suffix` when that fits kMaxFileName bytes. Otherwise the start of `name`,
// then "-" and the hex SHA-1 of the whole `name`, then `suffix`, kMaxFileName bytes in all: two
// long names that differ anywhere still name two files, and the same name always the same file.
// `name` should already be safe (safeFileNameComponent).
std::string boundedFileName(std::string_view prefix, std::string_view name,
                            std::string_view suffix);

// `dir` + "/" + `name`, without doubling a trailing slash of `dir`.
std::string joinPath(std::string_view dir, std::string_view name);
// Creates `dir` and its parents; false when that fails.
bool createDirectories(const std::string& dir);

}  // namespace quenby::platform
