// Property lists (the bundle's configuration files), read into and written from JSON values.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/types.h"

namespace quenby::platform {

// Parses an XML or binary property list. Dictionaries become objects, arrays arrays, strings,
// integers, reals and booleans themselves; a date becomes its seconds since 1970 (a number) and
// data a binary value. Nothing for malformed input or nesting deeper than 512 levels; the reason
// goes to `error` when given.
std::optional<nlohmann::json> parsePropertyList(const Bytes& data, std::string* error = nullptr);
std::optional<nlohmann::json> readPropertyListFile(const std::string& path,
                                                   std::string* error = nullptr);

// An XML property list of `value`. JSON nulls are left out (a property list has no null).
std::string toXmlPropertyList(const nlohmann::json& value);

}  // namespace quenby::platform
