// Property lists (the bundle's configuration files), read into and written from JSON values.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/types.h"

namespace quenby::platform {

// Parses an XML or binary property list. Dictionaries become objects, arrays arrays, strings,
// integers, reals and booleans themselves; a date becomes its seconds since 1970 (a number) and
// data a binary value. Nothing, and the reason in `error` when given, for malformed input, nesting
// deeper than 512 levels, a string or key holding a NUL character, or a binary list whose shared
// objects would expand to more than a million values. Safe on any bytes: this is the entry point
// for files from outside.
std::optional<nlohmann::json> parsePropertyList(const Bytes& data, std::string* error = nullptr);
// The same for the file at `path`; the reason names the file.
std::optional<nlohmann::json> readPropertyListFile(const std::string& path,
                                                   std::string* error = nullptr);

// An XML property list of `value`. JSON nulls are left out (a property list has no null).
std::string toXmlPropertyList(const nlohmann::json& value);
// The same in the binary form ("bplist00").
Bytes toBinaryPropertyList(const nlohmann::json& value);

}  // namespace quenby::platform
