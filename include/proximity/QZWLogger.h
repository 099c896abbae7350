// The proximity and analytics layers' console logger: eight syslog-style levels and one
// process-wide threshold (Error by default).
#pragma once

#include <cstdint>
#include <string_view>

#include <fmt/format.h>

enum QZWLogLevel : int {
    QZWLogLevelEmergency = 0,
    QZWLogLevelAlert = 1,
    QZWLogLevelCritical = 2,
    QZWLogLevelError = 3,
    QZWLogLevelWarning = 4,
    QZWLogLevelNotice = 5,
    QZWLogLevelInfo = 6,
    QZWLogLevelDebug = 7,
};

class QZWLogger {
  public:
    // Formats and writes the message when `level` is at most the threshold. Levels outside 0..7
    // have no output format, so nothing is written for them. Any thread.
    template <class... Args>
    static void logFormat(int level, fmt::format_string<Args...> format, Args&&... args) {
        if (!passes(level)) return;
        write(level, fmt::format(format, std::forward<Args>(args)...));
    }
    static void log(int level, std::string_view message) {
        if (passes(level)) write(level, message);
    }
    // The threshold is held in one signed byte: larger values wrap as a byte does.
    static void setLevel(int level);
    static std::int8_t level();
    static bool passes(int level) { return level <= QZWLogger::level(); }

  private:
    static void write(int level, std::string_view message);
};
