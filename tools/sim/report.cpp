#include "sim/report.h"

#include <map>

#include <fmt/format.h>

#include "common/timeline.h"

namespace sim {

namespace {

using OrderedJson = nlohmann::ordered_json;
using host::Timeline;
using host::TimelineEntry;

std::string str(const OrderedJson& r, const char* key) {
    auto it = r.find(key);
    if (it == r.end()) return {};
    return it->is_string() ? it->get<std::string>() : it->dump();
}

const OrderedJson& member(const OrderedJson& r, const char* key) {
    static const OrderedJson none;
    auto it = r.is_object() ? r.find(key) : r.end();
    return it == r.end() ? none : *it;
}

std::string plainId(const OrderedJson& v) {
    return v.is_string() ? v.get<std::string>() : v.dump();
}

std::string regionLabel(const OrderedJson& region) {
    std::string id = str(region, "identifier"), name = str(region, "name");
    if (name.empty()) return id;
    return id.empty() ? name : id + " \"" + name + "\"";
}

// The analytics event a record announces: {"campaign_id", "event_type", "place_id"}, or null.
const OrderedJson& campaignEvent(const OrderedJson& r) {
    static const OrderedJson none;
    if (str(r, "type") != "notification" || str(r, "name") != "QZWManagerDidTriggerAnalyticsEvent")
        return none;
    const auto& details = member(member(r, "userInfo"), "QZWAnalyticsEventDetails");
    return details.is_object() && details.contains("campaign_id") ? details : none;
}

struct Step {
    double t;
    std::string what;
};

}  // namespace

RunDigest::RunDigest(bool markers, bool report)
    : markers_(markers),
      report_(report),
      folder_(true, [this](const host::TimelineEntry& e) { timeline_.push_back(e); }) {}

void RunDigest::add(const OrderedJson& r) {
    std::lock_guard lk(mu_);
    ++records_;
    std::string type = str(r, "type"), name = str(r, "name");
    if (type == "server") received_[str(r, "method") + " " + str(r, "path")]++;
    if (!markers_ && !report_) return;
    auto learn = [&](const OrderedJson& place) {
        if (place.is_object() && place.contains("id") && member(place, "name").is_string())
            places_.emplace(plainId(place["id"]), place["name"].get<std::string>());
    };
    learn(member(r, "place"));
    learn(member(member(r, "campaign"), "foundAt"));
    double t = r.value("t", 0.0);
    if (markers_ && type == "notification" &&
        (name == "QZWManagerDidEnterRegion" || name == "QZWManagerDidExitRegion")) {
        bool enter = name == "QZWManagerDidEnterRegion";
        events_.push_back({t, enter ? MapScene::Mark::Enter : MapScene::Mark::Exit,
                           fmt::format("{} {}", enter ? "entered" : "left",
                                       regionLabel(member(member(r, "userInfo"), "QZWRegion"))),
                           {}, {}, {}});
    } else if (const auto& e = campaignEvent(r); !e.is_null()) {
        std::string what = str(e, "event_type");
        std::optional<MapScene::Mark> kind;
        if (what == "found") kind = MapScene::Mark::Find;
        if (what == "viewed") kind = MapScene::Mark::View;
        if (what == "fulfilled") kind = MapScene::Mark::Fulfil;
        events_.push_back({t, kind, {}, plainId(member(e, "campaign_id")), what,
                           plainId(member(e, "place_id")), e.contains("place_id")});
    }
    if (!report_) return;
    if (type == "notification" && name == "QZWManagerDidEnterRegion") counts_["entered"]++;
    if (type == "notification" && name == "QZWManagerDidExitRegion") counts_["left"]++;
    if (type == "notification" && name == "QZWManagerDidRangeBeaconsInRegion")
        counts_["ranging reports"]++;
    if (type == "server") {
        counts_["requests served"]++;
        if (std::string body = str(r, "body"); !body.empty())
            documents_.push_back({t, str(r, "method"), str(r, "path"), std::move(body)});
    }
    if (type == "log") counts_["log lines"]++;
    if (const auto& e = campaignEvent(r); !e.is_null())
        counts_["campaign " + str(e, "event_type")]++;
    folder_.add(r);
}

std::map<std::string, int> RunDigest::received() const {
    std::lock_guard lk(mu_);
    return received_;
}

std::vector<MapScene::Marker> RunDigest::markers(
    const std::function<std::pair<double, double>(double)>& positionAt) const {
    std::lock_guard lk(mu_);
    std::vector<MapScene::Marker> out;
    for (const auto& e : events_) {
        if (!e.mark) continue;
        std::string label = e.label;
        if (label.empty()) {
            auto named = places_.find(e.place);
            label = fmt::format("{} {} at {}", e.type, e.campaign,
                                named == places_.end() ? "place " + e.place : named->second);
        }
        auto [x, y] = positionAt(e.t);
        out.push_back({*e.mark, x, y, e.t, fmt::format("{}, {:.1f} s", label, e.t)});
    }
    return out;
}

std::string RunDigest::placeLabel(const std::string& p) const {
    auto it = places_.find(p);
    return it == places_.end() ? "place " + p : it->second + " (place " + p + ")";
}

namespace {

std::string h(const std::string& s) {
    return escapeXml(s);
}

const char* kStyle = R"(
:root { color-scheme: light; --ink: #0f172a; --muted: #64748b; --line: #e2e8f0; --accent: #2563eb; }
* { box-sizing: border-box; }
body { margin: 0; font: 15px/1.5 system-ui, sans-serif; color: var(--ink); background: #f1f5f9; }
main { max-width: 1040px; margin: 0 auto; padding: 16px; }
header, section { background: #fff; border: 1px solid var(--line); border-radius: 10px;
                  padding: 16px 20px; margin-bottom: 16px; }
h1 { font-size: 1.5rem; margin: 0 0 4px; overflow-wrap: anywhere; }
h2 { font-size: 1.15rem; margin: 0 0 12px; }
h3 { font-size: 1rem; margin: 0 0 6px; }
.sub, .empty { color: var(--muted); margin: 0; }
.stats { display: flex; flex-wrap: wrap; gap: 8px; list-style: none; padding: 0; margin: 12px 0 0; }
.stats li { background: #f8fafc; border: 1px solid var(--line); border-radius: 8px; padding: 4px 10px; }
.stats b { font-size: 1.1rem; margin-right: 4px; }
svg.map { display: block; width: 100%; height: auto; }
.story { border-left: 4px solid var(--accent); padding-left: 12px; margin-bottom: 12px; }
.story ol { margin: 0; padding-left: 20px; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-size: 0.9rem; table-layout: fixed; }
col.t { width: 5.5em; } col.kind { width: 7.5em; }
th, td { text-align: left; padding: 4px 8px; border-bottom: 1px solid var(--line); vertical-align: top; }
td.what { overflow-wrap: anywhere; }
td.t, .t { font-variant-numeric: tabular-nums; white-space: nowrap; color: var(--muted); }
tr.server td.what, tr.notification td.what { color: #1e3a8a; }
tr.log td.what { color: #7c2d12; }
.fold { color: var(--muted); white-space: nowrap; }
details { border: 1px solid var(--line); border-radius: 8px; margin-bottom: 8px; }
summary { cursor: pointer; padding: 6px 10px; overflow-wrap: anywhere; }
pre { margin: 0; padding: 10px; background: #f8fafc; border-top: 1px solid var(--line);
      white-space: pre-wrap; overflow-wrap: anywhere; font-size: 0.85rem; }
@media (max-width: 600px) {
  main { padding: 8px; }
  header, section { padding: 12px; }
  col.kind, th.kind, td.kind { display: none; }
  /* The map keeps a size its labels can be read at, and pans sideways. */
  svg.map { min-width: 640px; }
}
)";

}  // namespace

std::string RunDigest::renderReport(const std::string& scenario, const std::string& started,
                                    double duration, const std::optional<MapScene>& map) {
    std::lock_guard lk(mu_);
    folder_.flush();
    // Each campaign's story, in the order the campaigns first appear.
    std::vector<std::pair<std::string, std::vector<Step>>> stories;
    auto story = [&](const std::string& id) -> std::vector<Step>& {
        for (auto& s : stories)
            if (s.first == id) return s.second;
        return stories.emplace_back(id, std::vector<Step>{}).second;
    };
    for (const auto& e : events_) {
        if (!e.label.empty()) continue;
        story(e.campaign)
            .push_back({e.t, e.hasPlace ? e.type + " at " + placeLabel(e.place) : e.type});
    }

    std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
    out += fmt::format("<title>Run report: {}</title>\n<style>{}</style>\n</head>\n<body>\n<main>\n",
                       h(scenario), kStyle);

    out += fmt::format(
        "<header id=\"summary\">\n<h1>{}</h1>\n<p class=\"sub\">Simulated run from {}, {:.0f} s of "
        "virtual time, {} trace records.</p>\n<ul class=\"stats\">\n",
        h(scenario), h(started), duration, records_);
    for (const char* k : {"entered", "left", "ranging reports", "campaign found", "campaign viewed",
                          "campaign fulfilled", "requests served", "log lines"}) {
        out += fmt::format("<li><b>{}</b>{}</li>\n", counts_[k], k);
    }
    out += "</ul>\n</header>\n";

    out += "<section id=\"map\">\n<h2>Map</h2>\n";
    out += map ? "<div class=\"scroll\">\n" + renderMap(*map, true) + "</div>\n"
               : "<p class=\"empty\">This scenario has no walk, so there is no map: the "
                 "timeline below tells the whole run.</p>\n";
    out += "</section>\n";

    out += "<section id=\"campaigns\">\n<h2>Campaigns</h2>\n";
    if (stories.empty()) out += "<p class=\"empty\">No campaign was found in this run.</p>\n";
    for (const auto& [id, steps] : stories) {
        out += fmt::format("<article class=\"story\">\n<h3>{}</h3>\n<ol>\n", h(id));
        for (const auto& s : steps)
            out += fmt::format("<li><span class=\"t\">{:.1f} s</span> {}</li>\n", s.t, h(s.what));
        out += "</ol>\n</article>\n";
    }
    out += "</section>\n";

    out += "<section id=\"timeline\">\n<h2>Timeline</h2>\n<div class=\"scroll\">\n<table>\n"
           "<colgroup><col class=\"t\"><col class=\"kind\"><col></colgroup>\n"
           "<thead><tr><th>time</th><th class=\"kind\">kind</th><th>what happened</th></tr>"
           "</thead>\n<tbody>\n";
    for (const TimelineEntry& e : timeline_) {
        std::string fold;
        if (e.count > 1) {
            fold = fmt::format(" <span class=\"fold\">x{} over {:.1f}–{:.1f} s", e.count, e.from,
                               e.to);
            if (e.nearest) fold += fmt::format(", nearest {:.1f} m", *e.nearest);
            fold += "</span>";
        }
        out += fmt::format(
            "<tr class=\"{0}\"><td class=\"t\">{1:.1f} s</td><td class=\"kind\">{0}</td>"
            "<td class=\"what\">{2}{3}</td></tr>\n",
            h(e.type), e.from, h(e.text), fold);
    }
    out += "</tbody>\n</table>\n</div>\n</section>\n";

    out += "<section id=\"documents\">\n<h2>Documents received</h2>\n";
    if (documents_.empty()) out += "<p class=\"empty\">The server received no document.</p>\n";
    for (const Document& d : documents_) {
        const std::string& body = d.body;
        auto parsed = OrderedJson::parse(body, nullptr, false);
        out += fmt::format(
            "<details>\n<summary><span class=\"t\">{:.1f} s</span> <b>{} {}</b> {}</summary>\n"
            "<pre>{}</pre>\n</details>\n",
            d.t, h(d.method), h(d.path), h(Timeline::summarizeDocument(body)),
            h(parsed.is_discarded() ? body
                                    : parsed.dump(2, ' ', false,
                                                  nlohmann::json::error_handler_t::replace)));
    }
    out += "</section>\n</main>\n</body>\n</html>\n";
    return out;
}

}  // namespace sim
