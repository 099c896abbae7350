#include "platform/plist.h"

#include <plist/plist.h>

#include <cstring>
#include <limits>
#include <memory>

#include "platform/files.h"

namespace quenby::platform {

namespace {

constexpr int kMaxDepth = 512;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr double kPlistEpoch = 978307200.0;

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

bool toJson(plist_t node, int depth, nlohmann::json& out, std::string& error) {
    if (depth > kMaxDepth) {
        error = "property list nested too deeply";
        return false;
    }
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            out = b != 0;
            return true;
        }
        case PLIST_UINT: {
            // Negative XML integers are stored two's-complement in the unsigned field.
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                out = static_cast<int64_t>(v);
            } else {
                out = v;
            }
            return true;
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            out = d;
            return true;
        }
        case PLIST_STRING:
        case PLIST_KEY: {
            char* s = nullptr;
            if (plist_get_node_type(node) == PLIST_STRING) {
                plist_get_string_val(node, &s);
            } else {
                plist_get_key_val(node, &s);
            }
            out = s ? std::string(s) : std::string();
            std::free(s);
            return true;
        }
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            out = kPlistEpoch + sec + usec / 1e6;
            return true;
        }
        case PLIST_DATA: {
            char* d = nullptr;
            uint64_t len = 0;
            plist_get_data_val(node, &d, &len);
            nlohmann::json::binary_t bin(std::vector<std::uint8_t>(
                reinterpret_cast<std::uint8_t*>(d), reinterpret_cast<std::uint8_t*>(d) + len));
            std::free(d);
            out = nlohmann::json::binary(std::move(bin));
            return true;
        }
        case PLIST_UID: {
            uint64_t v = 0;
            plist_get_uid_val(node, &v);
            out = v;
            return true;
        }
        case PLIST_ARRAY: {
            out = nlohmann::json::array();
            uint32_t n = plist_array_get_size(node);
            for (uint32_t i = 0; i < n; ++i) {
                nlohmann::json item;
                if (!toJson(plist_array_get_item(node, i), depth + 1, item, error)) return false;
                out.push_back(std::move(item));
            }
            return true;
        }
        case PLIST_DICT: {
            out = nlohmann::json::object();
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            if (!it) return true;
            for (;;) {
                char* key = nullptr;
                plist_t val = nullptr;
                plist_dict_next_item(node, it, &key, &val);
                if (!val) {
                    std::free(key);
                    break;
                }
                nlohmann::json item;
                bool ok = toJson(val, depth + 1, item, error);
                if (ok) out[key ? key : ""] = std::move(item);
                std::free(key);
                if (!ok) {
                    std::free(it);
                    return false;
                }
            }
            std::free(it);
            return true;
        }
        default:
            error = "unsupported property list node";
            return false;
    }
}

plist_t fromJson(const nlohmann::json& v) {
    switch (v.type()) {
        case nlohmann::json::value_t::object: {
            plist_t d = plist_new_dict();
            for (const auto& [k, item] : v.items()) {
                if (item.is_null()) continue;
                plist_dict_set_item(d, k.c_str(), fromJson(item));
            }
            return d;
        }
        case nlohmann::json::value_t::array: {
            plist_t a = plist_new_array();
            for (const auto& item : v) {
                if (item.is_null()) continue;
                plist_array_append_item(a, fromJson(item));
            }
            return a;
        }
        case nlohmann::json::value_t::string:
            return plist_new_string(v.get_ref<const std::string&>().c_str());
        case nlohmann::json::value_t::boolean:
            return plist_new_bool(v.get<bool>() ? 1 : 0);
        case nlohmann::json::value_t::number_integer:
            return plist_new_uint(static_cast<uint64_t>(v.get<int64_t>()));
        case nlohmann::json::value_t::number_unsigned:
            return plist_new_uint(v.get<uint64_t>());
        case nlohmann::json::value_t::number_float:
            return plist_new_real(v.get<double>());
        case nlohmann::json::value_t::binary: {
            const auto& b = v.get_binary();
            return plist_new_data(reinterpret_cast<const char*>(b.data()), b.size());
        }
        default:
            return plist_new_string("");
    }
}

}  // namespace

std::optional<nlohmann::json> parsePropertyList(const Bytes& data, std::string* error) {
    std::string err;
    auto fail = [&](std::string why) -> std::optional<nlohmann::json> {
        if (error) *error = std::move(why);
        return std::nullopt;
    };
    if (data.empty()) return fail("empty property list");
    if (data.size() > std::numeric_limits<uint32_t>::max()) return fail("property list too large");
    plist_t root = nullptr;
    auto len = static_cast<uint32_t>(data.size());
    const char* p = reinterpret_cast<const char*>(data.data());
    if (plist_is_binary(p, len)) {
        plist_from_bin(p, len, &root);
    } else {
        plist_from_xml(p, len, &root);
    }
    if (!root) return fail("not a property list");
    PlistPtr owner(root);
    nlohmann::json out;
    if (!toJson(root, 0, out, err)) return fail(err);
    return out;
}

std::optional<nlohmann::json> readPropertyListFile(const std::string& path, std::string* error) {
    auto bytes = LocalFileSystem().readFile(path);
    if (!bytes) {
        if (error) *error = "cannot read " + path;
        return std::nullopt;
    }
    return parsePropertyList(*bytes, error);
}

std::string toXmlPropertyList(const nlohmann::json& value) {
    PlistPtr root(fromJson(value));
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(root.get(), &xml, &len);
    std::string out(xml ? xml : "", len);
    plist_to_xml_free(xml);
    return out;
}

}  // namespace quenby::platform
