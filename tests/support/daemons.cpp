#include "support/daemons.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

extern char** environ;

namespace quenby::testing {

bool waitFor(const std::function<bool()>& pred, double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::unique_ptr<Child> Child::spawn(const std::vector<std::string>& argv,
                                    const std::map<std::string, std::string>& env) {
    std::unique_ptr<Child> c(new Child());
    // Extra variables through env(1): what a program reads from its environment then always
    // wins over the inherited value, whichever end of the list it looks at first.
    std::vector<std::string> all;
    if (!env.empty()) all.push_back("env");
    for (const auto& [k, v] : env) all.push_back(k + "=" + v);
    all.insert(all.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (auto& s : all) args.push_back(s.data());
    args.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, c->dir_.file("output").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setpgroup(&attr, 0);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    int rc = posix_spawnp(&c->pid_, args[0], &fa, &attr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) return nullptr;
    c->guardGroup();
    return c;
}

// A test process that dies without running destructors (an abort, a sanitizer's halt, a kill -9)
// must not leave its daemons behind. A sentinel in the child's group holds the read end of a pipe
// whose only write end is this process's: when this process goes, the sentinel reads end of file
// and kills the whole group, grandchildren (gpsd under gpsfake) included.
void Child::guardGroup() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[0], 0);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, pid_);
    const char* argv[] = {"/bin/sh", "-c", "read _; kill -KILL 0", nullptr};
    int rc = posix_spawn(&sentinel_, "/bin/sh", &fa, &attr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    ::close(fds[0]);
    if (rc != 0) {
        sentinel_ = -1;
        ::close(fds[1]);
        return;
    }
    sentinelPipe_ = fds[1];
}

Child::~Child() {
    stop();
}

bool Child::running() {
    return !wait(0).has_value();
}

void Child::signal(int sig) {
    if (pid_ > 0 && !status_) ::kill(-pid_, sig);
}

std::optional<int> Child::wait(double seconds) {
    if (status_ || pid_ <= 0) return status_;
    waitFor(
        [&] {
            int st = 0;
            pid_t r = waitpid(pid_, &st, WNOHANG);
            if (r == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            if (r < 0) status_ = -1;
            return status_.has_value();
        },
        seconds);
    return status_;
}

void Child::stop() {
    if (pid_ <= 0) return;
    if (!status_) {
        ::kill(-pid_, SIGTERM);
        if (!wait(2.0)) {
            ::kill(-pid_, SIGKILL);
            wait(5.0);
        }
    }
    // Whatever the leader left behind in its group goes too, the sentinel with it.
    ::kill(-pid_, SIGKILL);
    if (sentinel_ > 0) waitpid(std::exchange(sentinel_, -1), nullptr, 0);
    if (sentinelPipe_ >= 0) ::close(std::exchange(sentinelPipe_, -1));
}

std::string Child::output() const {
    std::ifstream in(dir_.file("output"));
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::unique_ptr<PrivateBus> PrivateBus::start(std::string* whyNot) {
    std::unique_ptr<PrivateBus> bus(new PrivateBus());
    std::string socket = bus->dir_.file("bus");
    bus->address_ = "unix:path=" + socket;
    std::string config = bus->dir_.file("bus.conf");
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
                             "Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><type>session</type><listen>"
                          << bus->address_
                          << "</listen><policy context=\"default\"><allow send_destination=\"*\" "
                             "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                             "</policy></busconfig>\n";
    bus->daemon_ =
        Child::spawn({"dbus-daemon", "--nofork", "--nosyslog", "--config-file=" + config});
    if (!bus->daemon_) {
        if (whyNot)
            *whyNot = "dbus-daemon cannot be started (is the dbus-daemon package installed?)";
        return nullptr;
    }
    if (!waitFor([&] { return std::filesystem::exists(socket) || !bus->daemon_->running(); }) ||
        !bus->daemon_->running()) {
        if (whyNot) *whyNot = "dbus-daemon did not come up: " + bus->daemon_->output();
        return nullptr;
    }
    return bus;
}

std::optional<std::string> PrivateBus::send(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{"dbus-send", "--bus=" + address_, "--print-reply"};
    argv.insert(argv.end(), args.begin(), args.end());
    auto c = Child::spawn(argv);
    if (!c) return std::nullopt;
    auto status = c->wait(10.0);
    if (!status || *status != 0) return std::nullopt;
    return c->output();
}

bool PrivateBus::hasOwner(const std::string& name) const {
    auto out = send({"--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                     "org.freedesktop.DBus.NameHasOwner", "string:" + name});
    return out && out->find("boolean true") != std::string::npos;
}

bool PrivateBus::waitForName(const std::string& name, double seconds) const {
    return waitFor([&] { return hasOwner(name); }, seconds);
}

bool PrivateBus::waitForNameGone(const std::string& name, double seconds) const {
    return waitFor([&] { return !hasOwner(name); }, seconds);
}

std::unique_ptr<DbusMock> DbusMock::start(const PrivateBus& bus, bool systemBus,
                                          const std::string& templateName,
                                          const std::string& busName, std::string* whyNot) {
    std::unique_ptr<DbusMock> m(new DbusMock());
    m->bus_ = &bus;
    m->busName_ = busName;
    m->child_ = Child::spawn(
        {"/usr/bin/python3", "-m", "dbusmock", systemBus ? "--system" : "--session", "-t",
         templateName},
        {{systemBus ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS", bus.address()}});
    if (!m->child_) {
        if (whyNot) *whyNot = "cannot run /usr/bin/python3";
        return nullptr;
    }
    if (!bus.waitForName(busName)) {
        if (whyNot)
            *whyNot =
                "python3-dbusmock (" + templateName + ") did not come up: " + m->child_->output();
        return nullptr;
    }
    return m;
}

void DbusMock::kill() {
    if (!child_) return;
    child_->signal(SIGKILL);
    child_->wait(5.0);
    bus_->waitForNameGone(busName_);
}

int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), len) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

}  // namespace quenby::testing
