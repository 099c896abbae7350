#include "campaigns/LWPlace.h"

#include "campaigns/LWInteger.h"

using quenby::platform::Json;
using quenby::platform::jsonMember;

Json LWPlace::parsePlaceIds(const std::optional<std::string>& text) {
    if (!text) return Json::array();
    auto ids = quenby::platform::parseJson(*text);
    return ids && ids->is_array() ? std::move(*ids) : Json::array();
}

std::shared_ptr<const LWPlace> LWPlace::initWithRegion(const QZWRegion& region) {
    std::shared_ptr<LWPlace> p(new LWPlace());
    p->name_ = region.name();
    Json ids = parsePlaceIds(
        quenby::platform::jsonString(jsonMember(&region.attributes(), "lw_place_ids")));
    if (!ids.empty()) p->id_ = lurewave::jsonInt64Value(&ids[0]);
    p->type_ = region.kind() == QZWRegion::Kind::Circle ? 1 : 0;
    if (auto* b = dynamic_cast<const QZWBeacon*>(&region)) {
        p->proximity_ = b->proximity();
        p->accuracy_ = b->accuracy();
        p->rssi_ = b->rssi();
    }
    return p;
}

std::shared_ptr<const LWPlace> LWPlace::initWithDict(const Json& dict) {
    std::shared_ptr<LWPlace> p(new LWPlace());
    p->name_ = quenby::platform::jsonString(jsonMember(&dict, "name"));
    p->id_ = lurewave::jsonInt64Value(jsonMember(&dict, "id"));
    p->type_ = lurewave::jsonInt64Value(jsonMember(&dict, "type"));
    return p;
}

Json LWPlace::archive() const {
    Json a = {{"id", id_}, {"type", type_}};
    if (name_) a["name"] = *name_;
    return a;
}

std::string LWPlace::description() const {
    return "<LWPlace id=" + std::to_string(id_) + " name=\"" + name_.value_or("(null)") + "\">";
}
