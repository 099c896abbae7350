#include "platform/json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace quenby::platform {

namespace {

// What the JSON library would build from a text, read off its punctuation without parsing it.
// Upper bounds: a comma or an opener starts at most one value; a colon outside strings marks one
// object member.
struct Shape {
    int depth = 0;
    std::size_t values = 1, containers = 0, members = 0;

    // Heap bytes of the parsed document, measured on the JSON library in use: 16 per value, about
    // 64 more for the vector or tree of each array or object, about 80 more per object member
    // (the tree node with its key). Strings add at most their own length, which the callers'
    // caps on answers bound.
    std::size_t memory() const { return 16 * values + 64 * containers + 80 * members; }
};

Shape shapeOf(std::string_view text) {
    Shape s;
    int depth = 0;
    std::size_t commas = 0;
    const std::size_t n = text.size();
    for (std::size_t i = 0; i < n;) {
        switch (text[i++]) {
            case '"':
                // Most of a document's bytes are in strings: skipped in a tight loop of their own.
                while (i < n) {
                    char c = text[i++];
                    if (c == '\\') {
                        ++i;
                    } else if (c == '"') {
                        break;
                    }
                }
                break;
            case '[':
            case '{':
                ++s.containers;
                s.depth = std::max(s.depth, ++depth);
                break;
            case ']':
            case '}':
                --depth;
                break;
            case ',':
                ++commas;
                break;
            case ':':
                ++s.members;
                break;
            default:
                break;
        }
    }
    s.values += commas + s.containers;
    return s;
}

std::int64_t saturate(double d) {
    if (std::isnan(d)) return 0;
    if (d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
    if (d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(d);
}

}  // namespace

std::string validUtf8(std::string s) {
    bool ascii = std::all_of(s.begin(), s.end(), [](char c) { return (c & 0x80) == 0; });
    if (ascii) return s;
    try {
        (void)Json(s).dump();  // the JSON library's own UTF-8 check
        return s;
    } catch (const Json::type_error&) {
        return Json::parse(Json(s).dump(-1, ' ', false, Json::error_handler_t::replace))
            .get<std::string>();
    }
}

std::optional<Json> parseJson(std::string_view text, std::string* error, bool allowFragments) {
    auto fail = [&](std::string why) -> std::optional<Json> {
        if (error) *error = std::move(why);
        return std::nullopt;
    };
    Shape shape = shapeOf(text);
    if (shape.depth > kMaxJsonDepth) {
        return fail("JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
    if (shape.memory() > kMaxJsonMemory) {
        return fail("JSON document too large: " + std::to_string(shape.values) + " values, " +
                    std::to_string(shape.members) + " object members, about " +
                    std::to_string(shape.memory() >> 20) + " MiB once parsed (limit " +
                    std::to_string(kMaxJsonMemory >> 20) + " MiB)");
    }
    Json j;
    try {
        j = Json::parse(text.begin(), text.end());
    } catch (const Json::exception& e) {
        return fail(e.what());
    }
    if (!allowFragments && !j.is_object() && !j.is_array()) {
        return fail("JSON text did not start with array or object");
    }
    return j;
}

std::optional<Number> Number::fromJson(const Json& j) {
    switch (j.type()) {
        case Json::value_t::number_integer:
            return Number(static_cast<long long>(j.get<std::int64_t>()));
        case Json::value_t::number_unsigned:
            return Number(static_cast<unsigned long long>(j.get<std::uint64_t>()));
        case Json::value_t::number_float:
            return Number(j.get<double>());
        default:
            return std::nullopt;
    }
}

std::int64_t Number::longLongValue() const {
    if (auto* i = std::get_if<std::int64_t>(&v_)) return *i;
    if (auto* u = std::get_if<std::uint64_t>(&v_)) return static_cast<std::int64_t>(*u);
    return saturate(std::get<double>(v_));
}

std::int32_t Number::intValue() const {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(longLongValue()));
}

double Number::doubleValue() const {
    if (auto* i = std::get_if<std::int64_t>(&v_)) return static_cast<double>(*i);
    if (auto* u = std::get_if<std::uint64_t>(&v_)) return static_cast<double>(*u);
    return std::get<double>(v_);
}

Json Number::toJson() const {
    return std::visit([](auto v) { return Json(v); }, v_);
}

std::string Number::description() const {
    if (auto* i = std::get_if<std::int64_t>(&v_)) return std::to_string(*i);
    if (auto* u = std::get_if<std::uint64_t>(&v_)) return std::to_string(*u);
    double d = std::get<double>(v_);
    if (std::isnan(d)) return "nan";
    if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    return std::string(buf, r.ptr);
}

bool operator==(const Number& a, const Number& b) {
    if (a.isInteger() && b.isInteger()) {
        auto* ai = std::get_if<std::int64_t>(&a.v_);
        auto* bi = std::get_if<std::int64_t>(&b.v_);
        if (ai && bi) return *ai == *bi;
        auto* au = std::get_if<std::uint64_t>(&a.v_);
        auto* bu = std::get_if<std::uint64_t>(&b.v_);
        if (au && bu) return *au == *bu;
        // One signed, one unsigned.
        std::int64_t s = ai ? *ai : *bi;
        std::uint64_t u = au ? *au : *bu;
        return s >= 0 && static_cast<std::uint64_t>(s) == u;
    }
    return a.doubleValue() == b.doubleValue();
}

std::int32_t jsonIntValue(const Json* j) {
    if (!j) return 0;
    if (auto n = Number::fromJson(*j)) return n->intValue();
    if (j->is_boolean()) return j->get<bool>() ? 1 : 0;
    if (j->is_string()) {
        const auto& s = j->get_ref<const std::string&>();
        std::size_t i = 0;
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
        bool neg = false;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
        std::int64_t v = 0;
        for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
            v = v * 10 + (s[i] - '0');
            if (v > std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1) break;
        }
        if (neg) v = -v;
        v = std::clamp<std::int64_t>(v, std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max());
        return static_cast<std::int32_t>(v);
    }
    return 0;
}

double jsonDoubleValue(const Json* j) {
    if (!j) return 0;
    if (auto n = Number::fromJson(*j)) return n->doubleValue();
    if (j->is_boolean()) return j->get<bool>() ? 1 : 0;
    if (j->is_string()) {
        const auto& s = j->get_ref<const std::string&>();
        std::size_t i = s.find_first_not_of(" \t\r\n");
        if (i == std::string::npos) return 0;
        double v = 0;
        auto r = std::from_chars(s.data() + i + (s[i] == '+' ? 1 : 0), s.data() + s.size(), v);
        return r.ec == std::errc() ? v : 0;
    }
    return 0;
}

bool jsonBoolValue(const Json* j) {
    if (!j) return false;
    if (j->is_boolean()) return j->get<bool>();
    if (auto n = Number::fromJson(*j)) return n->doubleValue() != 0;
    if (!j->is_string()) return false;
    const auto& s = j->get_ref<const std::string&>();
    std::size_t i = s.find_first_not_of(" \t\r\n");
    if (i == std::string::npos) return false;
    if (s[i] == '+' || s[i] == '-') ++i;
    while (i < s.size() && s[i] == '0') ++i;
    if (i >= s.size()) return false;
    char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::optional<std::string> jsonString(const Json* j) {
    if (j && j->is_string()) return j->get<std::string>();
    return std::nullopt;
}

const Json* jsonMember(const Json* j, const char* key) {
    if (!j || !j->is_object()) return nullptr;
    auto it = j->find(key);
    return it == j->end() ? nullptr : &*it;
}

std::string describeJson(const Json& j) {
    if (j.is_string()) return j.get<std::string>();
    if (auto n = Number::fromJson(j)) return n->description();
    if (j.is_boolean()) return j.get<bool>() ? "1" : "0";
    if (j.is_null()) return "<null>";
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace quenby::platform
