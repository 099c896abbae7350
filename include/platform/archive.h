// Keyed archives: a JSON value as self-describing bytes (CBOR, with dates as seconds since 1970).
// Lossless for every JSON value, deterministic (object keys sorted), and read back with a depth
// limit so that a damaged or hostile blob cannot exhaust the stack.
#pragma once

#include <optional>
#include <string>

#include "platform/json.h"
#include "platform/types.h"

namespace quenby::platform {

Bytes archiveJson(const Json& value);
// Nothing for bytes that are not a complete archive or nest deeper than kMaxJsonDepth.
std::optional<Json> unarchiveJson(const Bytes& data, std::string* error = nullptr);

}  // namespace quenby::platform
