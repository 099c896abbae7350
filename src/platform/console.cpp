#include "platform/console.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>

namespace quenby::platform {

namespace {

std::mutex& consoleMutex() {
    static auto* mu = new std::mutex;
    return *mu;
}

ConsoleSink& currentSink() {
    static auto* sink = new ConsoleSink;
    return *sink;
}

void writeStderr(std::string_view line) {
    using namespace std::chrono;
    auto now = system_clock::now();
    std::time_t t = system_clock::to_time_t(now);
    auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    localtime_r(&t, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    std::fprintf(stderr, "%s.%03lld [%d] %.*s\n", stamp, static_cast<long long>(ms),
                 static_cast<int>(getpid()), static_cast<int>(line.size()), line.data());
}

}  // namespace

void consoleWrite(std::string_view line) {
    std::lock_guard lk(consoleMutex());
    if (currentSink()) {
        currentSink()(line);
    } else {
        writeStderr(line);
    }
}

ConsoleSink setConsoleSink(ConsoleSink sink) {
    std::lock_guard lk(consoleMutex());
    return std::exchange(currentSink(), std::move(sink));
}

}  // namespace quenby::platform
