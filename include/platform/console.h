// The system console: where every log line of the library goes. Standard error by default, with
// a timestamp and process prefix as a system log adds; a host or a test may install its own sink,
// which then receives each line exactly as the library wrote it.
#pragma once

#include <functional>
#include <string_view>

namespace quenby::platform {

using ConsoleSink = std::function<void(std::string_view line)>;

// Writes one line. Thread-safe; lines from different threads never interleave.
void consoleWrite(std::string_view line);
// Installs a sink (null restores standard error) and answers the previous one.
ConsoleSink setConsoleSink(ConsoleSink sink);

}  // namespace quenby::platform
