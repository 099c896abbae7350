#include "platform/archive.h"

#include <vector>

namespace quenby::platform {

namespace {

// Builds the value from the reader's events, refusing to go deeper than the limit before the
// reader recurses into a container (the library's own DOM reader has no limit).
class DepthLimitedSax {
  public:
    explicit DepthLimitedSax(Json& out) : root_(out) {}

    bool null() { return put(nullptr) != nullptr; }
    bool boolean(bool v) { return put(v) != nullptr; }
    bool number_integer(Json::number_integer_t v) { return put(v) != nullptr; }
    bool number_unsigned(Json::number_unsigned_t v) { return put(v) != nullptr; }
    bool number_float(Json::number_float_t v, const std::string&) { return put(v) != nullptr; }
    bool string(Json::string_t& v) { return put(std::move(v)) != nullptr; }
    bool binary(Json::binary_t& v) { return put(Json(std::move(v))) != nullptr; }
    bool start_object(std::size_t) { return open(Json::object()); }
    bool key(Json::string_t& k) {
        key_ = std::move(k);
        return true;
    }
    bool end_object() { return close(); }
    bool start_array(std::size_t) { return open(Json::array()); }
    bool end_array() { return close(); }
    bool parse_error(std::size_t, const std::string&, const Json::exception& e) {
        error_ = e.what();
        return false;
    }
    bool tooDeep() const { return tooDeep_; }
    const std::string& error() const { return error_; }

  private:
    // Only the innermost open container grows, so the pointers to its ancestors stay valid.
    Json* put(Json v) {
        if (open_.empty()) {
            root_ = std::move(v);
            return &root_;
        }
        Json& parent = *open_.back();
        if (parent.is_object()) {
            Json& slot = parent[key_];
            slot = std::move(v);
            return &slot;
        }
        parent.push_back(std::move(v));
        return &parent.back();
    }
    bool open(Json container) {
        if (open_.size() >= static_cast<std::size_t>(kMaxJsonDepth)) {
            tooDeep_ = true;
            return false;
        }
        open_.push_back(put(std::move(container)));
        return true;
    }
    bool close() {
        open_.pop_back();
        return true;
    }

    Json& root_;
    std::vector<Json*> open_;
    Json::string_t key_;
    bool tooDeep_ = false;
    std::string error_;
};

}  // namespace

Bytes archiveJson(const Json& value) {
    return Json::to_cbor(value);
}

std::optional<Json> unarchiveJson(const Bytes& data, std::string* error) {
    Json out;
    DepthLimitedSax sax(out);
    bool ok = false;
    try {
        ok = Json::sax_parse(data.begin(), data.end(), &sax, Json::input_format_t::cbor, true);
    } catch (const Json::exception& e) {
        if (error) *error = e.what();
        return std::nullopt;
    }
    if (!ok) {
        if (error) *error = sax.tooDeep() ? "archive nested too deeply" : sax.error();
        return std::nullopt;
    }
    return out;
}

}  // namespace quenby::platform
