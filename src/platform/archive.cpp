#include "platform/archive.h"

namespace quenby::platform {

namespace {

// Builds the value as the library's DOM reader does, refusing to go deeper than the limit before
// the reader recurses into a container.
class DepthLimitedSax {
  public:
    explicit DepthLimitedSax(Json& out) : dom_(out, false) {}

    bool null() { return dom_.null(); }
    bool boolean(bool v) { return dom_.boolean(v); }
    bool number_integer(Json::number_integer_t v) { return dom_.number_integer(v); }
    bool number_unsigned(Json::number_unsigned_t v) { return dom_.number_unsigned(v); }
    bool number_float(Json::number_float_t v, const std::string& s) {
        return dom_.number_float(v, s);
    }
    bool string(Json::string_t& v) { return dom_.string(v); }
    bool binary(Json::binary_t& v) { return dom_.binary(v); }
    bool start_object(std::size_t n) { return deeper() && dom_.start_object(n); }
    bool key(Json::string_t& k) { return dom_.key(k); }
    bool end_object() {
        --depth_;
        return dom_.end_object();
    }
    bool start_array(std::size_t n) { return deeper() && dom_.start_array(n); }
    bool end_array() {
        --depth_;
        return dom_.end_array();
    }
    bool parse_error(std::size_t pos, const std::string& tok,
                     const nlohmann::detail::exception& e) {
        error_ = e.what();
        return dom_.parse_error(pos, tok, e);
    }
    bool tooDeep() const { return tooDeep_; }
    const std::string& error() const { return error_; }

  private:
    bool deeper() {
        if (++depth_ > kMaxJsonDepth) {
            tooDeep_ = true;
            return false;
        }
        return true;
    }
    nlohmann::detail::json_sax_dom_parser<Json> dom_;
    int depth_ = 0;
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
        ok = Json::sax_parse(data.begin(), data.end(), &sax, nlohmann::detail::input_format_t::cbor,
                             true);
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
