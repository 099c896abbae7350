#include "proximity/QZWLogger.h"

#include <atomic>
#include <string>

#include "platform/console.h"

namespace {
std::atomic<std::int8_t> gThreshold{QZWLogLevelError};

constexpr const char* kPrefixes[] = {
    "Zonewise[Emergency] ", "Zonewise[Alert] ",  "Zonewise[Critical] ", "Zonewise[Error] ",
    "Zonewise[Warning] ",   "Zonewise[Notice] ", "Zonewise[Info] ",     "Zonewise[Debug] ",
};
}  // namespace

void QZWLogger::setLevel(int level) {
    gThreshold = static_cast<std::int8_t>(static_cast<std::uint8_t>(level));
}

std::int8_t QZWLogger::level() {
    return gThreshold.load();
}

void QZWLogger::write(int level, std::string_view message) {
    if (level < QZWLogLevelEmergency || level > QZWLogLevelDebug) return;
    std::string line = kPrefixes[level];
    line += message;
    quenby::platform::consoleWrite(line);
}
