// Real outside daemons for integration tests: child processes that are always stopped, a private
// D-Bus daemon, python-dbusmock templates on it, and gpsd through gpsfake. Every wait has a
// deadline in seconds; nothing here sleeps for a fixed time to let something happen.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace quenby::testing {

// Polls `pred` until it holds or `seconds` pass; answers pred().
bool waitFor(const std::function<bool()>& pred, double seconds = 10.0);

// A child process in a process group of its own. Its standard output and error go to a file
// (output()). The destructor stops the whole group: SIGTERM, then SIGKILL after two seconds; the
// group is killed too when this process dies without running it.
class Child {
  public:
    // Runs argv[0] (searched on PATH) with the current environment plus `env`.
    static std::unique_ptr<Child> spawn(const std::vector<std::string>& argv,
                                        const std::map<std::string, std::string>& env = {});
    ~Child();

    bool running();
    // Sends `sig` to the group.
    void signal(int sig);
    // Waits up to `seconds` for the child to end; its exit status (128 + signal when killed), or
    // nothing when it still runs.
    std::optional<int> wait(double seconds);
    // Stops the group (SIGTERM, then SIGKILL) and reaps the child.
    void stop();
    // Everything the child wrote so far.
    std::string output() const;

  private:
    Child() = default;
    void guardGroup();
    pid_t pid_ = -1;
    pid_t sentinel_ = -1;    // in the child's group, killing it once this process is gone
    int sentinelPipe_ = -1;  // its only write end
    std::optional<int> status_;
    quenby::test::TempDir dir_;  // holds the output
};

// A dbus-daemon of the test's own, on a socket in a temporary directory.
class PrivateBus {
  public:
    // Nothing when the sandbox cannot run dbus-daemon; `whyNot` says why.
    static std::unique_ptr<PrivateBus> start(std::string* whyNot);
    const std::string& address() const { return address_; }
    // True once `name` has an owner on this bus (within `seconds`).
    bool waitForName(const std::string& name, double seconds = 10.0) const;
    // True once `name` has no owner (within `seconds`).
    bool waitForNameGone(const std::string& name, double seconds = 10.0) const;
    // Runs dbus-send against this bus; answers its output, nothing when it failed.
    std::optional<std::string> send(const std::vector<std::string>& args) const;

  private:
    PrivateBus() = default;
    bool hasOwner(const std::string& name) const;
    quenby::test::TempDir dir_;  // outlives the daemon
    std::unique_ptr<Child> daemon_;
    std::string address_;
};

// python3 -m dbusmock with a template, on the private bus playing the system bus (bluez5) or the
// session bus (notification_daemon). Started with the system interpreter, which sees Debian's
// python3-dbusmock.
class DbusMock {
  public:
    // Nothing when the mock did not come up; `whyNot` says why.
    static std::unique_ptr<DbusMock> start(const PrivateBus& bus, bool systemBus,
                                           const std::string& templateName,
                                           const std::string& busName, std::string* whyNot);
    // Kills the mock at once (the daemon it plays disappears from the bus) and waits until its
    // name is gone.
    void kill();
    Child& process() { return *child_; }

  private:
    DbusMock() = default;
    const PrivateBus* bus_ = nullptr;
    std::string busName_;
    std::unique_ptr<Child> child_;
};

using TempDir = quenby::test::TempDir;

// A free TCP port on 127.0.0.1 (bound and released; good enough for a test's own daemons).
int freePort();

}  // namespace quenby::testing
