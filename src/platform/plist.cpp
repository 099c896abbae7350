#include "platform/plist.h"

#include <plist/plist.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/files.h"

namespace quenby::platform {

namespace {

constexpr int kMaxDepth = 512;
constexpr std::size_t kMaxLevels = kMaxDepth;
// Values one binary list may expand to once its shared objects are copied apart, unless the file
// itself holds more objects than that.
constexpr std::uint64_t kMaxExpandedValues = 1u << 20;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr double kPlistEpoch = 978307200.0;

constexpr const char* kTooDeep = "property list nested too deeply";
// libplist keeps a string's length beside a NUL-terminated copy and asserts, aborting the process,
// when the two disagree; it also has no length-aware way to read a dictionary key. A NUL inside a
// string or key therefore refuses the whole file: keeping the bytes would hand the host a setting
// (a URL, a token) that every C API below it reads cut short at the NUL, so a different setting
// from the one in the file, and a configuration file has no business holding one.
constexpr const char* kNulInString = "property list string holds a NUL character";
constexpr const char* kDamagedBinary = "damaged binary property list";

// libplist builds and frees its trees recursively, so a list nested a few thousand levels deep
// overflows the stack inside the library before toJson could count the levels. Both scans below
// refuse such a list from the raw bytes, without recursion, before libplist sees it.

// XML: counts element nesting. Anything the scan cannot place (a declaration it does not know, an
// odd self-closing form, a closing tag that does not match) counts as deeper, never shallower, so
// the worst a strange file meets is a refusal, never a recursion the count missed.
bool scanXml(const std::uint8_t* d, std::size_t n, std::string& error) {
    // <plist> is one element and the top value a second, so a value 512 levels down is the 514th.
    constexpr std::size_t kMaxElements = kMaxLevels + 2;
    std::string_view text(reinterpret_cast<const char*>(d), n);
    std::vector<std::string_view> open;
    auto skipPast = [&](std::size_t from, std::string_view end) {
        auto at = text.find(end, from);
        return at == std::string_view::npos ? n : at + end.size();
    };
    std::size_t i = 0;
    while (i < n) {
        char c = text[i];
        if (c == '\0') {
            // Only the inside of the document: a writer may end the file with a terminator.
            if (!open.empty()) {
                error = kNulInString;
                return false;
            }
            ++i;
            continue;
        }
        if (c != '<') {
            ++i;
            continue;
        }
        std::string_view rest = text.substr(i);
        if (rest.starts_with("<!--")) {
            i = skipPast(i + 4, "-->");
        } else if (rest.starts_with("<![CDATA[")) {
            i = skipPast(i + 9, "]]>");
        } else if (rest.starts_with("<?")) {
            i = skipPast(i + 2, "?>");
        } else if (rest.starts_with("<!")) {
            // DOCTYPE and the like end at their first '>': markup inside an internal subset is
            // then counted as elements, which only errs towards deeper.
            i = skipPast(i + 2, ">");
        } else {
            bool closing = rest.size() > 1 && rest[1] == '/';
            std::size_t nameAt = i + (closing ? 2 : 1), j = nameAt;
            while (j < n && text[j] != '>' && text[j] != '/' &&
                   !std::isspace(static_cast<unsigned char>(text[j])) && text[j] != '\0') {
                ++j;
            }
            std::string_view name = text.substr(nameAt, j - nameAt);
            // Attribute values may hold '>'.
            char quote = 0;
            for (; j < n; ++j) {
                if (quote) {
                    if (text[j] == quote) quote = 0;
                } else if (text[j] == '"' || text[j] == '\'') {
                    quote = text[j];
                } else if (text[j] == '>') {
                    break;
                }
            }
            bool selfClosing = j < n && text[j - 1] == '/' && j - 1 >= nameAt;
            i = j < n ? j + 1 : n;
            if (closing) {
                if (!open.empty() && open.back() == name) open.pop_back();
            } else if (!selfClosing) {
                open.push_back(name);
                if (open.size() > kMaxElements) {
                    error = kTooDeep;
                    return false;
                }
            }
        }
    }
    return true;
}

// Binary: walks the object graph from the top object through the offset table, depth first with
// a stack of its own, remembering for every object how far it reaches below itself and how many
// values it expands to (libplist copies a shared object once per reference to it).
class BinaryScan {
  public:
    BinaryScan(const std::uint8_t* d, std::size_t n) : d_(d), n_(n) {}

    bool run(std::string& error) {
        if (!readTrailer()) return fail(error, kDamagedBinary);
        height_.assign(count_, 0);
        values_.assign(count_, 0);
        state_.assign(count_, kUnseen);
        struct Frame {
            std::uint64_t obj;
            std::vector<std::uint64_t> children;
            std::size_t next = 0;
        };
        std::vector<Frame> stack;
        auto enter = [&](std::uint64_t obj) {
            Frame f{obj, {}};
            if (!inspect(obj, f.children, error)) return false;
            state_[obj] = kOpen;
            stack.push_back(std::move(f));
            return true;
        };
        if (!enter(top_)) return false;
        while (!stack.empty()) {
            Frame& f = stack.back();
            std::size_t depth = stack.size() - 1;
            if (f.next < f.children.size()) {
                std::uint64_t child = f.children[f.next++];
                if (state_[child] == kOpen) return fail(error, "property list refers to itself");
                if (state_[child] == kDone) {
                    if (depth + 1 + height_[child] > kMaxLevels) return fail(error, kTooDeep);
                    continue;
                }
                if (depth + 1 > kMaxLevels) return fail(error, kTooDeep);
                if (!enter(child)) return false;
                continue;
            }
            std::uint32_t height = 0;
            std::uint64_t values = 1;
            for (auto c : f.children) {
                height = std::max(height, height_[c] + 1);
                values = std::min(values + values_[c], kSaturated);
            }
            height_[f.obj] = height;
            values_[f.obj] = values;
            state_[f.obj] = kDone;
            stack.pop_back();
        }
        if (values_[top_] > std::max<std::uint64_t>(kMaxExpandedValues, count_)) {
            return fail(error, "property list repeats its objects too often");
        }
        return true;
    }

  private:
    static constexpr std::uint8_t kUnseen = 0, kOpen = 1, kDone = 2;
    static constexpr std::uint64_t kSaturated = std::uint64_t{1} << 62;
    static constexpr std::size_t kTrailer = 32;

    static bool fail(std::string& error, const char* why) {
        error = why;
        return false;
    }

    std::uint64_t be(std::size_t at, unsigned width) const {
        std::uint64_t v = 0;
        for (unsigned k = 0; k < width; ++k) v = v << 8 | d_[at + k];
        return v;
    }

    bool readTrailer() {
        if (n_ < 8 + kTrailer) return false;
        std::size_t t = n_ - kTrailer;
        offsetSize_ = d_[t + 6];
        refSize_ = d_[t + 7];
        count_ = be(t + 8, 8);
        top_ = be(t + 16, 8);
        std::uint64_t table = be(t + 24, 8);
        end_ = t;
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
        if (count_ == 0 || top_ >= count_ || table < 8 || table >= end_) return false;
        if (count_ > (end_ - table) / offsetSize_) return false;
        table_ = static_cast<std::size_t>(table);
        return true;
    }

    // The references held by object `obj`; a string's characters checked for NUL.
    bool inspect(std::uint64_t obj, std::vector<std::uint64_t>& children,
                 std::string& error) const {
        std::uint64_t at = be(table_ + static_cast<std::size_t>(obj) * offsetSize_, offsetSize_);
        if (at < 8 || at >= end_) return fail(error, kDamagedBinary);
        std::size_t p = static_cast<std::size_t>(at);
        std::uint8_t marker = d_[p++];
        unsigned type = marker >> 4;
        bool container = type == 0xA || type == 0xC || type == 0xD;
        bool text = type == 0x5 || type == 0x6 || type == 0x7;
        if (!container && !text) return true;
        std::uint64_t length = marker & 0x0F;
        if (length == 0x0F) {
            // The length follows as an integer object of 1, 2, 4 or 8 bytes.
            if (p >= end_ || d_[p] >> 4 != 0x1 || (d_[p] & 0x0F) > 3) {
                return fail(error, kDamagedBinary);
            }
            unsigned width = 1u << (d_[p] & 0x0F);
            if (end_ - p - 1 < width) return fail(error, kDamagedBinary);
            length = be(p + 1, width);
            p += 1 + width;
        }
        std::size_t room = end_ - p;
        if (text) {
            unsigned unit = type == 0x6 ? 2 : 1;
            if (length > room / unit) return fail(error, kDamagedBinary);
            for (std::size_t k = 0; k < length; ++k) {
                bool nul = unit == 1 ? d_[p + k] == 0 : (d_[p + 2 * k] | d_[p + 2 * k + 1]) == 0;
                if (nul) return fail(error, kNulInString);
            }
            return true;
        }
        std::uint64_t refs = type == 0xD ? 2 * length : length;
        if (length > room / refSize_ || refs > room / refSize_) return fail(error, kDamagedBinary);
        children.reserve(static_cast<std::size_t>(refs));
        for (std::uint64_t k = 0; k < refs; ++k) {
            std::uint64_t ref = be(p + static_cast<std::size_t>(k) * refSize_, refSize_);
            if (ref >= count_) return fail(error, kDamagedBinary);
            children.push_back(ref);
        }
        return true;
    }

    const std::uint8_t* d_;
    std::size_t n_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    std::uint64_t count_ = 0, top_ = 0;
    std::size_t table_ = 0, end_ = 0;
    std::vector<std::uint32_t> height_;
    std::vector<std::uint64_t> values_;
    std::vector<std::uint8_t> state_;
};

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

bool toJson(plist_t node, int depth, nlohmann::json& out, std::string& error) {
    if (depth > kMaxDepth) {
        error = kTooDeep;
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
        case PLIST_STRING: {
            // Read with its length: the scans refuse a NUL before parsing, and this keeps any
            // other route to one from reaching libplist's assertion.
            uint64_t len = 0;
            const char* s = plist_get_string_ptr(node, &len);
            if (s && std::memchr(s, 0, len)) {
                error = kNulInString;
                return false;
            }
            out = s ? std::string(s, len) : std::string();
            return true;
        }
        case PLIST_KEY: {
            // libplist has no length-aware key accessor; the scans have refused every key that
            // would make it assert.
            char* s = nullptr;
            plist_get_key_val(node, &s);
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
    // libplist 2.2 reads only these two forms (no OpenStep or JSON), told apart the same way.
    if (plist_is_binary(p, len)) {
        if (!BinaryScan(data.data(), data.size()).run(err)) return fail(err);
        plist_from_bin(p, len, &root);
    } else {
        if (!scanXml(data.data(), data.size(), err)) return fail(err);
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
    auto value = parsePropertyList(*bytes, error);
    if (!value && error) *error = path + ": " + *error;
    return value;
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

Bytes toBinaryPropertyList(const nlohmann::json& value) {
    PlistPtr root(fromJson(value));
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(root.get(), &bin, &len);
    Bytes out(reinterpret_cast<std::uint8_t*>(bin), reinterpret_cast<std::uint8_t*>(bin) + len);
    plist_to_bin_free(bin);
    return out;
}

}  // namespace quenby::platform
