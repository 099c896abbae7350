#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>

#include "platform/crypto.h"

namespace quenby::platform {

namespace {

Error posixError(int err, const std::string& what) {
    return Error{"POSIX", err, std::string(std::strerror(err)) + ": " + what};
}

// Writes all of `data` to `fd`; answers errno on failure.
int writeAll(int fd, const Bytes& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        done += static_cast<std::size_t>(n);
    }
    return 0;
}

}  // namespace

std::optional<std::uint64_t> LocalFileSystem::fileSize(const std::string& path) const {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    return static_cast<std::uint64_t>(st.st_size);
}

std::optional<Bytes> LocalFileSystem::readFile(const std::string& path) const {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    Bytes out;
    out.reserve(static_cast<std::size_t>(st.st_size));
    std::uint8_t buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        out.insert(out.end(), buf, buf + n);
    }
    ::close(fd);
    return out;
}

std::optional<Error> LocalFileSystem::writeFile(const std::string& path, const Bytes& data,
                                                bool atomically) {
    if (!atomically) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return posixError(errno, path);
        int err = writeAll(fd, data);
        if (::close(fd) != 0 && err == 0) err = errno;
        if (err) return posixError(err, path);
        return std::nullopt;
    }
    // The temporary name has a fixed length: one grown from the final name would pass NAME_MAX
    // for legal names near it, and those files could never be written. It stays in the same
    // directory so that the rename is atomic. The pid keeps forked processes apart (they
    // inherit the generator's state), the random part threads; O_EXCL settles the rest.
    static thread_local std::mt19937_64 rng{std::random_device{}()};
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    std::string tmp;
    int fd = -1;
    for (int attempt = 0; attempt < 8 && fd < 0; ++attempt) {
        char name[40];
        std::snprintf(name, sizeof name, ".tmp-%08x-%016llx", static_cast<unsigned>(::getpid()),
                      static_cast<unsigned long long>(rng()));
        tmp = dir + name;
        fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) return posixError(errno, path);
    int err = writeAll(fd, data);
    if (!err && ::fsync(fd) != 0) err = errno;
    if (::close(fd) != 0 && !err) err = errno;
    if (!err && ::rename(tmp.c_str(), path.c_str()) != 0) err = errno;
    if (err) {
        ::unlink(tmp.c_str());
        return posixError(err, path);
    }
    return std::nullopt;
}

bool LocalFileSystem::fileExists(const std::string& path) const {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

std::string safeFileNameComponent(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        if (ch == '/') {
            out += "%2F";
        } else if (ch == '\0') {
            out += "%00";
        } else {
            out += ch;
        }
    }
    return out;
}

std::string boundedFileName(std::string_view prefix, std::string_view name,
                            std::string_view suffix) {
    std::string whole = std::string(prefix) + std::string(name) + std::string(suffix);
    if (whole.size() <= kMaxFileName) return whole;
    auto digest = sha1(name);
    std::string tail = "-" + hexString(digest.data(), digest.size()) + std::string(suffix);
    std::size_t room = kMaxFileName - std::min(kMaxFileName, prefix.size() + tail.size());
    return std::string(prefix) + std::string(name.substr(0, room)) + tail;
}

std::string joinPath(std::string_view dir, std::string_view name) {
    std::string out(dir);
    if (!out.empty() && out.back() == '/' && !name.empty() && name.front() == '/') {
        out.pop_back();
    } else if (!out.empty() && out.back() != '/' && !name.empty() && name.front() != '/') {
        out.push_back('/');
    }
    out += name;
    return out;
}

bool createDirectories(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return std::filesystem::is_directory(dir, ec);
}

}  // namespace quenby::platform
