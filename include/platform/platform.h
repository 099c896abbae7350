// Everything outside the process, in one object that a host passes to the library: time and
// threads, HTTP, files, the bundle, the device identifier. A component receives the pieces it uses
// at construction and keeps them.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/application.h"
#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/device.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/location_manager.h"
#include "platform/scheduler.h"

namespace quenby::platform {

struct Platform {
    std::shared_ptr<Scheduler> scheduler;
    std::shared_ptr<HttpClient> http;
    std::shared_ptr<FileSystem> files;
    std::shared_ptr<DeviceInfo> device;
    // Region monitoring and ranging; fed by the host (see LocationService).
    std::shared_ptr<LocationService> location;
    // The host application: state, background tasks, delegate slot, notifications, alerts.
    std::shared_ptr<Application> application;
    // Where databases, caches and the state file live. Exists once the platform is made.
    std::string documentsDirectory;
    // The host application's bundle (configuration files, "Info.plist").
    Bundle mainBundle{"."};
    // The library's own bundle, consulted when the host's has no such resource.
    std::optional<Bundle> libraryBundle;

    struct Options {
        // Names the application: the default documents directory and the vendor identifier.
        std::string applicationId = "lurewave";
        // Default: the directory of the running executable.
        std::optional<std::string> bundleDirectory;
        std::optional<std::string> libraryBundleDirectory;
        // Default: $XDG_DATA_HOME/<applicationId>, or ~/.local/share/<applicationId>.
        std::optional<std::string> documentsDirectory;
        // Default: the system clock. Give a VirtualClock for tests and simulations.
        std::shared_ptr<Clock> clock;
        // Defaults: libcurl, the local file system, the Linux vendor identifier.
        std::shared_ptr<HttpClient> http;
        std::shared_ptr<FileSystem> files;
        std::shared_ptr<DeviceInfo> device;
        // Default: a service fed by the host, with "authorized always".
        std::shared_ptr<LocationService> location;
    };

    // Fills what the options leave out with the Linux defaults. The calling thread becomes the
    // host thread.
    static std::shared_ptr<Platform> create(Options options);
};

}  // namespace quenby::platform
