// What a person reads: the folded timeline, the map and the run report of the bundled example;
// and what a long run costs.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <regex>
#include <sstream>

#include <fmt/format.h>

#include "common/timeline.h"
#include "support/test_support.h"

using host::OrderedJson;
using host::Timeline;
using host::TimelineEntry;
using quenby::test::countOf;
using quenby::test::TempDir;

namespace {

OrderedJson region(const std::string& id, const std::string& name, double accuracy = -2) {
    OrderedJson r = {{"class", "QZWBeaconRegion"}, {"identifier", id}, {"name", name}};
    OrderedJson info = {{"QZWEvent", 4}, {"QZWRegion", r}};
    if (accuracy > -2) info["QZWIBeacons"] = {{{"identifier", id}, {"accuracy", accuracy}, {"rssi", -70}}};
    return info;
}
OrderedJson ranged(double t, const std::string& id, const std::string& name, double accuracy) {
    return {{"t", t}, {"type", "notification"}, {"name", "QZWManagerDidRangeBeaconsInRegion"},
            {"userInfo", region(id, name, accuracy)}};
}
OrderedJson placeRanged(double t, int id, const std::string& name) {
    return {{"t", t}, {"type", "delegate"}, {"name", "lurewave:didDetectPlace:onEvent:"},
            {"place", {{"id", id}, {"name", name}, {"type", 0}}}, {"event", 0}};
}
OrderedJson entered(double t, const std::string& id, const std::string& name) {
    return {{"t", t}, {"type", "notification"}, {"name", "QZWManagerDidEnterRegion"},
            {"userInfo", region(id, name)}};
}

std::vector<std::string> lines(const std::vector<TimelineEntry>& entries) {
    std::vector<std::string> out;
    for (const auto& e : entries) out.push_back(Timeline::format(e, false));
    return out;
}

struct Run {
    int status = -1;
    std::string out, err;
};

Run shell(const std::string& command, const TempDir& dir) {
    Run r;
    int raw = std::system((command + " > " + dir.file("out") + " 2> " + dir.file("err")).c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = quenby::test::readFile(dir.file("out")).value_or("");
    r.err = quenby::test::readFile(dir.file("err")).value_or("");
    return r;
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// The simulator's peak resident memory over a run, in kB (-1: it failed, or ran past a minute).
long peakKb(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"timeout", "-k", "5", "60", QUENBY_SIM_TOOL};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    // AddressSanitizer's quarantine holds freed memory up to 256 MB, which would read as growth.
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (!std::string_view(*e).starts_with("ASAN_OPTIONS=")) env.push_back(*e);
    const char* asan = getenv("ASAN_OPTIONS");
    env.push_back("ASAN_OPTIONS=" + (asan ? std::string(asan) + ":" : "") + "quarantine_size_mb=1");
    std::vector<char*> envp;
    for (auto& v : env) envp.push_back(v.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t out;
    posix_spawn_file_actions_init(&out);
    posix_spawn_file_actions_addopen(&out, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int spawned = posix_spawnp(&pid, "timeout", &out, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&out);
    if (spawned != 0) return -1;
    int status = 0;
    rusage usage{};  // the simulator's too: timeout waits for it
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1;
    return usage.ru_maxrss;
}

bool have(const char* tool) {
    return std::system((std::string("command -v ") + tool + " > /dev/null 2>&1").c_str()) == 0;
}

}  // namespace

TEST(Timeline, FoldsEachRegionsRangingWhereItBeganUntilTheRegionGoesQuiet) {
    std::vector<OrderedJson> records = {
        placeRanged(10, 1, "Front door"),  // the campaign layer's place event comes first
        ranged(10, "door", "Front door", 3.0),
        entered(11, "coffee", "Coffee shelf"),  // another line does not break the fold
        placeRanged(11, 1, "Front door"),
        ranged(11, "door", "Front door", 1.25),
        ranged(11, "coffee", "Coffee shelf", 4.0),
        ranged(12, "door", "Front door", -1),  // unknown accuracy is no nearest
        ranged(12, "coffee", "Coffee shelf", 6.0),
        ranged(22, "door", "Front door", 0.5),  // within the quiet gap: still the same run
        // The same report, as the delegate hears it.
        OrderedJson::parse(R"({"t": 22, "type": "delegate", "name": "zonewise:didRangeBeacons:inRegion:",
                               "region": {"identifier": "door", "name": "Front door"}})"),
        OrderedJson::parse(R"({"t": 23, "type": "location", "call": "requestStateForRegion",
                               "region": {"class": "circle"}})"),
        ranged(33, "door", "Front door", 9.0),  // 11 s of silence: a new run, of one report
        placeRanged(40, 3, ""),                 // a place without a name is named by its id
        placeRanged(41, 3, ""),
    };
    EXPECT_EQ(lines(Timeline::of(records)),
              (std::vector<std::string>{
                  "    10.000s  ranging      door \"Front door\"  x4 over 10.0–22.0 s, nearest 0.5 m",
                  "    11.000s  notification QZWManagerDidEnterRegion coffee \"Coffee shelf\"",
                  "    11.000s  ranging      coffee \"Coffee shelf\"  x2 over 11.0–12.0 s, nearest 4.0 m",
                  "    23.000s  location     requestStateForRegion circle",
                  "    33.000s  notification QZWManagerDidRangeBeaconsInRegion door \"Front door\"",
                  "    40.000s  ranging      place 3  x2 over 40.0–41.0 s",
              }));

    // A region ranged at a single instant keeps its own lines; unfolded, every record is a line.
    std::vector<std::string> out;
    Timeline verbose(false, [&](const TimelineEntry& e) { out.push_back(Timeline::format(e, true)); });
    for (const auto& r : records) verbose.add(r);
    verbose.flush();
    EXPECT_EQ(out.size(), records.size());
    EXPECT_EQ(out[0], "    10.000s  delegate     lurewave:didDetectPlace:onEvent: place "
                      "{\"id\":1,\"name\":\"Front door\",\"type\":0} event 0");
    verbose.add({{"t", 40}, {"type", "delegate"}, {"name", "zonewise:didRangeBeacons:inRegion:"},
                 {"beacons", {{{"identifier", "door"}, {"accuracy", 1.25}}}},
                 {"region", {{"identifier", "door"}, {"name", "Front door"}}}});
    EXPECT_EQ(out.back(), "    40.000s  delegate     zonewise:didRangeBeacons:inRegion: door "
                          "\"Front door\" [ door 1.25 m ]");
    verbose.add(
        {{"t", 41}, {"type", "server"}, {"method", "POST"}, {"path", "/x"}, {"body", "{\"a\":1}"}});
    EXPECT_EQ(out.back(), "    41.000s  server       POST /x  {\"a\":1}\n{\n  \"a\": 1\n}");

    // A live host prints each event as it comes: the fold before it closes first, and a fold
    // never outlasts its span.
    out.clear();
    Timeline live(true, [&](const TimelineEntry& e) { out.push_back(Timeline::format(e, false)); },
                  true, 2.0);
    for (double t : {10.0, 11.0, 12.0, 13.0}) live.add(ranged(t, "door", "Front door", t - 9));
    live.add(entered(13.5, "coffee", "Coffee shelf"));
    EXPECT_EQ(out, (std::vector<std::string>{
                       "    10.000s  ranging      door \"Front door\"  x2 over 10.0–11.0 s, nearest 1.0 m",
                       "    12.000s  ranging      door \"Front door\"  x2 over 12.0–13.0 s, nearest 3.0 m",
                       "    13.500s  notification QZWManagerDidEnterRegion coffee \"Coffee shelf\"",
                   }));
}

TEST(Timeline, ADocumentReadsAsOneLineWhateverItHolds) {
    std::string fits = "{\"k\":\"" + std::string(112, 'x') + "\"}";  // 120 characters: kept whole
    for (const auto& [document, reads] : std::vector<std::pair<std::string, std::string>>{
             {R"({"app_id":"A","beacon_status_events":[{"last_seen":"2026-03-01T09:00:58Z",)"
              R"("major":1,"minor":2,"uuid":"U"},{"first_seen":"2026-03-01T09:01:00Z","major":3,"minor":4}]})",
              "beacon status: 1/2 last seen 09:00:58 3/4 first seen 09:01:00"},
             {R"({"lurewave_events":[{"campaign_id":"c","event_type":"found","place_id":"2"},)"
              R"({"campaign_id":"c","event_type":"viewed","place_id":"2"}],"zonewise_events":[{)"
              R"("region_sessions":[{"region_major":1,"region_minor":1}],)"
              R"("geo_region_sessions":[{"region_id":"lot"}]}]})",
              "lurewave events: found c at place 2, viewed c at place 2; visits: beacon region 1/1, "
              "geofence lot"},
             {R"({"ios_token":"7a1f"})", "push token 7a1f"},
             // Shapes nobody sends still read, and never throw.
             {"not json", "not json"}, {fits, fits}, {"[1,2]", "[1,2]"},
             {R"({"zonewise_events":[5,{"region_sessions":"x"}],"a_events":[1,{"event_type":3}]})",
              "a events: ?; visits: none"}})
        EXPECT_EQ(Timeline::summarizeDocument(document), reads);
    EXPECT_EQ(Timeline::summarizeDocument(std::string(200, 'x')).size(), 120u);
}

TEST(LurewaveSim, BundledExampleTellsItsStoryInAShortTimelineAMapAndAReport) {
    TempDir dir;
    std::string sim = std::string(QUENBY_SIM_TOOL) + " run " + QUENBY_SOURCE_DIR "/examples/shopper.json";
    std::string svg = dir.file("shopper.svg"), html = dir.file("shopper.html");
    auto folded = shell(sim + " --svg " + svg + " --report " + html, dir);
    ASSERT_EQ(folded.status, 0) << folded.err;
    auto json = shell(sim + " --json", dir);
    auto verbose = shell(sim + " --verbose", dir);
    ASSERT_EQ(json.status, 0);
    auto text = split(folded.out);
    EXPECT_LT(text.size(), 60u) << folded.out;
    EXPECT_GT(split(verbose.out).size(), 300u) << "--verbose folds nothing";
    EXPECT_EQ(folded.err, "");
    EXPECT_EQ(folded.out.find("ERROR"), std::string::npos) << "a clean first run";
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ(text[text.size() - 2], "  map: " + svg);
    EXPECT_EQ(text.back(), "  report: " + html);

    // Nothing of the story is lost: every enter, exit, campaign event and received document.
    std::map<std::string, std::size_t> inTrace;
    std::size_t posts = 0;
    for (const auto& l : split(json.out)) {
        auto r = nlohmann::json::parse(l);
        if (r["type"] == "notification") inTrace[r["name"]]++;
        if (r["type"] == "server" && r["method"] == "POST") posts++;
        EXPECT_NE(r["type"], "ranging") << "the JSON trace is not folded";
    }
    for (const char* n : {"QZWManagerDidEnterRegion", "QZWManagerDidExitRegion",
                          "QZWManagerDidTriggerAnalyticsEvent"})
        EXPECT_EQ(countOf(folded.out, n), inTrace[n]) << n;
    EXPECT_EQ(inTrace["QZWManagerDidTriggerAnalyticsEvent"], 3u) << "found, viewed, fulfilled";
    EXPECT_EQ(countOf(folded.out, " server       POST "), posts);
    EXPECT_NE(folded.out.find("ranging      coffee \"Coffee shelf\"  x"), std::string::npos);

    // The map: every event where it happened, named places, a legend, a scale and north.
    std::string map = quenby::test::readFile(svg).value_or("");
    EXPECT_EQ(countOf(map, "class=\"marker enter\""), inTrace["QZWManagerDidEnterRegion"]);
    EXPECT_EQ(countOf(map, "class=\"marker exit\""), inTrace["QZWManagerDidExitRegion"]);
    for (const char* kind : {"found", "viewed", "fulfilled"})
        EXPECT_EQ(countOf(map, std::string("class=\"marker ") + kind + "\""), 1u) << kind;
    for (const char* s : {">Front door<", ">Coffee shelf<", ">Checkout<", ">Car park · r 30 m<",
                          "class=\"north\"", ">found 104 s<"})
        EXPECT_NE(map.find(s), std::string::npos) << s;
    EXPECT_TRUE(std::regex_search(
        map, std::regex(R"(<g class="scale"><path d="M16\.0,[\d.]+ v6 h[\d.]+ v-6" fill="none" )"
                        R"(stroke="#0f172a" stroke-width="2"/><text x="[\d.]+" y="[\d.]+" )"
                        R"(text-anchor="middle" fill="#0f172a">20 m</text></g>)")));
    // No label covers another, by the map's own estimate of a label's box (0.58 em a character).
    std::vector<std::array<double, 4>> boxes;
    std::regex label(
        R"re(<text x="([\d.]+)" y="([\d.]+)" font-size="(\d+)"[^>]*>([^<]*)</text>)re");
    for (std::sregex_iterator i(map.begin(), map.end(), label), end; i != end; ++i) {
        double x = std::stod((*i)[1]), y = std::stod((*i)[2]), em = std::stod((*i)[3]);
        std::string s = (*i)[4];
        auto chars = std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; });
        std::array<double, 4> b{x, y - 0.8 * em, x + 0.58 * em * static_cast<double>(chars),
                                y + 0.25 * em};
        for (const auto& o : boxes)
            EXPECT_FALSE(b[0] < o[2] && o[0] < b[2] && b[1] < o[3] && o[1] < b[3]) << s;
        boxes.push_back(b);
    }
    EXPECT_GT(boxes.size(), 8u);
    for (const char* s : {"enter", "exit", "found", "viewed", "fulfilled", "beacon", "geofence"})
        EXPECT_NE(map.find(std::string("fill=\"#1f2937\">") + s + "</text>"), std::string::npos) << s;
    if (have("rsvg-convert")) {
        auto png = shell("rsvg-convert " + svg + " -o " + dir.file("map.png"), dir);
        EXPECT_EQ(png.status, 0) << "a well-formed SVG: " << png.err;
    } else {
        ADD_FAILURE() << "rsvg-convert is missing: scripts/install-deps.sh installs librsvg2-bin";
    }

    // The report: self-contained, with the map, the stories, the timeline and every document.
    std::string page = quenby::test::readFile(html).value_or("");
    EXPECT_FALSE(std::regex_search(page, std::regex(R"((src|href)\s*=|url\(|@import)")))
        << "nothing to fetch";
    EXPECT_NE(page.find("<svg"), std::string::npos);
    EXPECT_NE(page.find("<h3>coffee-20</h3>\n<ol>\n<li><span class=\"t\">104.0 s</span> found at "
                        "Coffee shelf (place 2)</li>"),
              std::string::npos);
    EXPECT_NE(page.find("fulfilled at Checkout (place 3)</li>"), std::string::npos);
    EXPECT_EQ(countOf(page, "<details>"), posts);
    EXPECT_EQ(countOf(page, "<tr class="), text.size() - 8) << "the timeline's lines, no summary";
    EXPECT_NE(page.find("<td class=\"what\">GET /kit</td>"), std::string::npos) << "unfolded";
    for (auto [n, what] : {std::pair{inTrace["QZWManagerDidRangeBeaconsInRegion"], "ranging reports"},
                           {inTrace["QZWManagerDidEnterRegion"], "entered"},
                           {posts + 3, "requests served"}})
        EXPECT_NE(page.find(fmt::format("<li><b>{}</b>{}</li>", n, what)), std::string::npos) << what;

    if (!have("chromium")) {
        ADD_FAILURE() << "chromium is missing: scripts/install-deps.sh installs it";
        return;
    }
    // In a real browser: no console message, and at a phone's width nothing overflows sideways.
    std::string probe = page;
    probe.insert(probe.rfind("</body>"),
                 "<script>document.body.dataset.overflow = "
                 "document.documentElement.scrollWidth > window.innerWidth;</script>");
    quenby::test::writeFile(dir.file("probe.html"), probe);
    quenby::test::writeFile(dir.file("broken.html"), "<p>x</p><script>nosuch();</script>");
    auto browse = [&](const std::string& file, const char* size) {
        return shell("timeout 60 chromium --headless --no-sandbox --disable-gpu "
                     "--enable-logging=stderr --v=0 --window-size=" +
                         std::string(size) + " --dump-dom file://" + file,
                     dir);
    };
    auto phone = browse(dir.file("probe.html"), "390,844");
    ASSERT_EQ(phone.status, 0) << phone.err;
    EXPECT_EQ(phone.err.find(":CONSOLE"), std::string::npos) << phone.err;
    EXPECT_NE(phone.out.find("data-overflow=\"false\""), std::string::npos);
    EXPECT_NE(phone.out.find("id=\"timeline\""), std::string::npos);
    EXPECT_NE(phone.out.find("class=\"map\""), std::string::npos);
    auto laptop = browse(dir.file("probe.html"), "1366,900");
    EXPECT_NE(laptop.out.find("data-overflow=\"false\""), std::string::npos);
    auto broken = browse(dir.file("broken.html"), "390,844");
    EXPECT_NE(broken.err.find(":CONSOLE"), std::string::npos) << "the console check sees errors";
}

TEST(LurewaveSim, WithoutAWalkTheReportSaysSoAndThereIsNoMap) {
    TempDir dir;
    quenby::test::writeFile(
        dir.file("s.json"),
        R"({"start": "2026-03-01T09:00:00Z", "host": "proximity",
            "bundle": {"Info.plist": {"NSLocationAlwaysUsageDescription": "x"}},
            "steps": [{"at": 0, "call": "start"}], "until": 5})");
    auto r = shell(std::string(QUENBY_SIM_TOOL) + " run " + dir.file("s.json") + " --svg " +
                       dir.file("m.svg") + " --report " + dir.file("r.html"),
                   dir);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("  map: none, the scenario has no walk\n"), std::string::npos);
    EXPECT_FALSE(quenby::test::readFile(dir.file("m.svg")));
    std::string page = quenby::test::readFile(dir.file("r.html")).value_or("");
    EXPECT_NE(page.find("This scenario has no walk, so there is no map"), std::string::npos);
    EXPECT_EQ(page.find("<svg"), std::string::npos);
    EXPECT_NE(page.find("zonewise:didFailWithError: {&quot;domain&quot;:&quot;curl&quot;,&quot;code&quot;:3,"
                        "&quot;description&quot;:&quot;URL using bad/illegal format or missing URL"),
              std::string::npos)
        << "the timeline tells the run";

    // An output that cannot be written fails the run.
    auto bad = shell(std::string(QUENBY_SIM_TOOL) + " run " + dir.file("s.json") + " --report " +
                         dir.file("no/such/dir/r.html"),
                     dir);
    EXPECT_EQ(bad.status, 4);
    EXPECT_NE(bad.err.find("cannot write"), std::string::npos);
}

// Hours of ranging cost no more memory than minutes: the trace prints each record and forgets it.
TEST(LurewaveSim, MemoryStaysFlatOverHoursOfRanging) {
    TempDir dir;
    auto standBy = [&](int seconds) {
        std::string file = dir.file(fmt::format("s{}.json", seconds));
        quenby::test::writeFile(file, fmt::format(R"({{
            "start": "2026-03-01T09:00:00Z", "host": "proximity",
            "device": {{"applicationState": "active"}},
            "bundle": {{"Info.plist": {{"NSLocationAlwaysUsageDescription": "x"}},
                        "Zonewise.plist": {{"ZWKitURL": "{{server}}/kit", "ZWAPIToken": "t"}}}},
            "server": {{"kit": {{"kit": {{"id": 1, "ibeacons": [{{"uuid": "{0}", "major": 1,
                                                             "minor": 1, "identifier": "b"}}]}}}}}},
            "steps": [{{"at": 0, "call": "start"}},
                      {{"at": 1, "walk": {{"origin": [40, -75], "path": [[1, 0, 0], [1, 0, {1}]],
                        "beacons": [{{"uuid": "{0}", "major": 1, "minor": 1, "at": [0, 0]}}]}}}}],
            "until": {1}}})",
            "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", seconds));
        return peakKb({"run", file, "--documents", dir.file(fmt::format("docs{}", seconds))});
    };
    long minutes = standBy(600), hours = standBy(3 * 3600);
    ASSERT_GT(minutes, 0);
    ASSERT_GT(hours, 0);
    EXPECT_LT(hours - minutes, 12 * 1024) << "kB more for three hours than for ten minutes";
}
