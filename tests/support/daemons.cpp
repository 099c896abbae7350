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

extern char** environ;

namespace quenby::testing {

namespace {
using Clock = std::chrono::steady_clock;

std::string makeTempDir(const char* prefix) {
    std::string t = std::filesystem::temp_directory_path().string() + "/" + prefix + "XXXXXX";
    if (!mkdtemp(t.data())) return {};
    return t;
}
}  // namespace

bool waitFor(const std::function<bool()>& pred, double seconds) {
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        if (pred()) return true;
        if (Clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// ---------------------------------------------------------------------------------------------
// Child

std::unique_ptr<Child> Child::spawn(const std::vector<std::string>& argv,
                                    const std::map<std::string, std::string>& env) {
    std::unique_ptr<Child> c(new Child());
    std::string dir = makeTempDir("quenby-child-");
    c->outputFile_ = dir + "/output";

    std::map<std::string, std::string> all;
    for (char** e = environ; *e; ++e) {
        std::string kv(*e);
        auto eq = kv.find('=');
        if (eq != std::string::npos) all[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (const auto& [k, v] : env) all[k] = v;
    std::vector<std::string> envStrings;
    for (const auto& [k, v] : all) envStrings.push_back(k + "=" + v);
    std::vector<char*> envp, args;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argvCopy = argv;
    for (auto& s : argvCopy) args.push_back(s.data());
    args.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, c->outputFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setpgroup(&attr, 0);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    int rc = posix_spawnp(&c->pid_, args[0], &fa, &attr, args.data(), envp.data());
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
    std::error_code ec;
    if (!outputFile_.empty())
        std::filesystem::remove_all(std::filesystem::path(outputFile_).parent_path(), ec);
}

bool Child::running() {
    return !wait(0).has_value();
}

void Child::signal(int sig) {
    if (pid_ > 0 && !status_) ::kill(-pid_, sig);
}

std::optional<int> Child::wait(double seconds) {
    if (status_ || pid_ <= 0) return status_;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return status_;
        }
        if (r < 0) {
            status_ = -1;
            return status_;
        }
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
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
    if (sentinel_ > 0) {
        waitpid(sentinel_, nullptr, 0);
        sentinel_ = -1;
    }
    if (sentinelPipe_ >= 0) {
        ::close(sentinelPipe_);
        sentinelPipe_ = -1;
    }
}

std::string Child::output() const {
    std::ifstream in(outputFile_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// ---------------------------------------------------------------------------------------------
// PrivateBus

std::unique_ptr<PrivateBus> PrivateBus::start(std::string* whyNot) {
    std::unique_ptr<PrivateBus> bus(new PrivateBus());
    bus->dir_ = makeTempDir("quenby-bus-");
    if (bus->dir_.empty()) {
        if (whyNot) *whyNot = "cannot make a temporary directory";
        return nullptr;
    }
    std::string socket = bus->dir_ + "/bus";
    bus->address_ = "unix:path=" + socket;
    std::string config = bus->dir_ + "/bus.conf";
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

PrivateBus::~PrivateBus() {
    daemon_.reset();
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
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

// ---------------------------------------------------------------------------------------------
// DbusMock

std::unique_ptr<DbusMock> DbusMock::start(const PrivateBus& bus, bool systemBus,
                                          const std::string& templateName,
                                          const std::string& busName, std::string* whyNot) {
    std::unique_ptr<DbusMock> m(new DbusMock());
    m->bus_ = &bus;
    m->busName_ = busName;
    std::map<std::string, std::string> env{
        {systemBus ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS", bus.address()}};
    std::vector<std::string> argv{"/usr/bin/python3", "-m", "dbusmock"};
    argv.push_back(systemBus ? "--system" : "--session");
    argv.insert(argv.end(), {"-t", templateName});
    m->child_ = Child::spawn(argv, env);
    if (!m->child_) {
        if (whyNot) *whyNot = "cannot run /usr/bin/python3";
        return nullptr;
    }
    if (!bus.waitForName(busName)) {
        if (whyNot) {
            *whyNot =
                "python3-dbusmock (" + templateName + ") did not come up: " + m->child_->output();
        }
        return nullptr;
    }
    return m;
}

DbusMock::~DbusMock() = default;

void DbusMock::kill() {
    if (!child_) return;
    child_->signal(SIGKILL);
    child_->wait(5.0);
    bus_->waitForNameGone(busName_);
}

// ---------------------------------------------------------------------------------------------

int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    close(fd);
    return port;
}

}  // namespace quenby::testing
