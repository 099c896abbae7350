#include "platform/platform.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace quenby::platform {

namespace {

std::string executableDirectory() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return ".";
    return exe.parent_path().string();
}

std::string defaultDocumentsDirectory(const std::string& appId) {
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
        return joinPath(xdg, appId);
    }
    if (const char* home = std::getenv("HOME"); home && *home) {
        return joinPath(joinPath(home, ".local/share"), appId);
    }
    return joinPath(std::filesystem::temp_directory_path().string(), appId);
}

}  // namespace

std::shared_ptr<Platform> Platform::create(Options o) {
    auto p = std::make_shared<Platform>();
    if (!o.clock) o.clock = std::make_shared<SystemClock>();
    p->scheduler = Scheduler::create(std::move(o.clock));
    p->http = o.http ? std::move(o.http) : std::make_shared<CurlHttpClient>(p->scheduler);
    p->files = o.files ? std::move(o.files) : std::make_shared<LocalFileSystem>();
    p->documentsDirectory = o.documentsDirectory ? std::move(*o.documentsDirectory)
                                                 : defaultDocumentsDirectory(o.applicationId);
    createDirectories(p->documentsDirectory);
    p->device = o.device ? std::move(o.device)
                         : std::make_shared<LinuxDeviceInfo>(
                               o.applicationId, joinPath(p->documentsDirectory, ".vendor-id"));
    p->application = Application::create(p->scheduler);
    p->location = o.location ? std::move(o.location) : LocationService::create(p->scheduler);
    p->mainBundle =
        Bundle(o.bundleDirectory ? std::move(*o.bundleDirectory) : executableDirectory());
    if (o.libraryBundleDirectory) p->libraryBundle = Bundle(std::move(*o.libraryBundleDirectory));
    return p;
}

}  // namespace quenby::platform
