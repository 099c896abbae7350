#include "sim/map.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include <fmt/format.h>

namespace sim {

namespace {

using Mark = MapScene::Mark;

constexpr double kMaxWidth = 860, kMaxHeight = 640, kMinWidth = 600;
constexpr double kLegendRow = 26;

const char* markName(Mark m) {
    switch (m) {
        case Mark::Enter:
            return "enter";
        case Mark::Exit:
            return "exit";
        case Mark::Find:
            return "found";
        case Mark::View:
            return "viewed";
        case Mark::Fulfil:
            return "fulfilled";
    }
    return "?";
}

// One symbol per kind of event, centred on (x, y), about 14 px across.
std::string markShape(Mark m, double x, double y) {
    std::string at = fmt::format("transform=\"translate({:.1f},{:.1f})\"", x, y);
    switch (m) {
        case Mark::Enter:
            return fmt::format("<path {} d=\"M0,-7 L7,5 L-7,5 Z\" fill=\"#16a34a\" stroke=\"#fff\"/>",
                               at);
        case Mark::Exit:
            return fmt::format("<path {} d=\"M0,7 L7,-5 L-7,-5 Z\" fill=\"#dc2626\" stroke=\"#fff\"/>",
                               at);
        case Mark::Find:
            return fmt::format(
                "<path {} d=\"M0,-8 L2.4,-2.5 L8,-2.5 L3.5,1.2 L5,7 L0,3.6 L-5,7 L-3.5,1.2 L-8,-2.5 "
                "L-2.4,-2.5 Z\" fill=\"#facc15\" stroke=\"#854d0e\"/>",
                at);
        case Mark::View:
            return fmt::format(
                "<g {}><circle r=\"6\" fill=\"#fff\" stroke=\"#2563eb\" stroke-width=\"2.5\"/>"
                "<circle r=\"2\" fill=\"#2563eb\"/></g>",
                at);
        case Mark::Fulfil:
            return fmt::format(
                "<g {}><rect x=\"-6.5\" y=\"-6.5\" width=\"13\" height=\"13\" rx=\"2\" "
                "fill=\"#7c3aed\"/><path d=\"M-3.5,0 L-1,3 L4,-3.5\" fill=\"none\" stroke=\"#fff\" "
                "stroke-width=\"2\"/></g>",
                at);
    }
    return {};
}

// Time-mark intervals a reader counts in easily.
double timeStep(double duration) {
    for (double s : {5.0, 10.0, 15.0, 20.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0})
        if (duration / s <= 10) return s;
    return 3600.0 * std::ceil(duration / 36000.0);
}

std::string timeLabel(double t, bool minutes) {
    if (!minutes) return fmt::format("{:.0f} s", t);
    long s = std::lround(t);
    return s >= 3600 ? fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60)
                     : fmt::format("{}:{:02}", s / 60, s % 60);
}

// Labels go where they overlap nothing placed before them: the symbols first, then the labels in
// order of importance. Widths are estimated from the character count (sans-serif, about 0.58 em).
class Labels {
  public:
    struct Box {
        double x0, y0, x1, y1;
    };
    struct Placed {
        double x, y, size;
        std::string text, colour;
        double ax, ay;  // the point labelled, for a leader line when the label is far from it
    };

    Labels(double width, double height) : width_(width), height_(height) {}

    void reserve(double x, double y, double radius) {
        taken_.push_back({x - radius, y - radius, x + radius, y + radius});
    }

    // Places `text` near (ax, ay); a label that is not `required` is left out where it fits nowhere.
    void place(double ax, double ay, const std::string& text, double size, const std::string& colour,
               bool required) {
        double w = 0.58 * size * static_cast<double>(utf8Length(text)), g = 8, up = size * 0.8;
        std::vector<std::pair<double, double>> tries;  // baseline-left corners, nearest first
        for (int k = 0; k < 4; ++k) {
            double d = k * (size + 3);
            tries.push_back({ax - w / 2, ay - g - d});           // above
            tries.push_back({ax - w / 2, ay + g + up + d});      // below
            tries.push_back({ax + g + d, ay + up / 2});          // right
            tries.push_back({ax - g - w - d, ay + up / 2});      // left
        }
        for (const auto& [x, y] : tries) {
            Box b{x - 1, y - up - 1, x + w + 1, y + size * 0.25 + 1};
            if (b.x0 < 2 || b.y0 < 2 || b.x1 > width_ - 2 || b.y1 > height_ - 2) continue;
            if (std::any_of(taken_.begin(), taken_.end(), [&](const Box& t) {
                    return b.x0 < t.x1 && t.x0 < b.x1 && b.y0 < t.y1 && t.y0 < b.y1;
                }))
                continue;
            taken_.push_back(b);
            placed_.push_back({x, y, size, text, colour, ax, ay});
            return;
        }
        if (required) {
            auto [x, y] = tries.front();
            x = std::clamp(x, 2.0, std::max(2.0, width_ - w - 2));
            y = std::clamp(y, up + 2, height_ - 4);
            taken_.push_back({x, y - up, x + w, y + size * 0.25});
            placed_.push_back({x, y, size, text, colour, ax, ay});
        }
    }

    std::string svg() const {
        std::string out;
        for (const auto& p : placed_) {
            double cx = p.x + 0.29 * p.size * static_cast<double>(utf8Length(p.text)),
                   cy = p.y - p.size * 0.35;
            if (std::hypot(cx - p.ax, cy - p.ay) > 3 * p.size)
                out += fmt::format(
                    "<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" "
                    "stroke=\"#94a3b8\" stroke-width=\"0.8\"/>\n",
                    p.ax, p.ay, cx, cy);
            out += fmt::format(
                "<text x=\"{:.1f}\" y=\"{:.1f}\" font-size=\"{:g}\" fill=\"{}\" stroke=\"#fff\" "
                "stroke-width=\"3\" paint-order=\"stroke\">{}</text>\n",
                p.x, p.y, p.size, p.colour, escapeXml(p.text));
        }
        return out;
    }

  private:
    static std::size_t utf8Length(const std::string& s) {
        return static_cast<std::size_t>(std::count_if(
            s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    }
    double width_, height_;
    std::vector<Box> taken_;
    std::vector<Placed> placed_;
};

}  // namespace

std::string escapeXml(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                // Control characters are not allowed in XML 1.0 at all.
                if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') {
                    out += ' ';
                } else {
                    out += c;
                }
        }
    }
    return out;
}

double niceStep(double limit) {
    if (!(limit > 0) || !std::isfinite(limit)) return 1;
    double p = std::pow(10.0, std::floor(std::log10(limit)));
    for (double m : {5.0, 2.0, 1.0})
        if (m * p <= limit) return m * p;
    return p;
}

std::string renderMap(const MapScene& scene, bool embedded) {
    // The area to show: everything drawn, with a margin.
    double minX = 0, maxX = 0, minY = 0, maxY = 0;
    bool any = false;
    auto extend = [&](double x, double y, double r = 0) {
        if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(r)) return;
        if (!any) minX = maxX = x, minY = maxY = y, any = true;
        minX = std::min(minX, x - r);
        maxX = std::max(maxX, x + r);
        minY = std::min(minY, y - r);
        maxY = std::max(maxY, y + r);
    };
    for (const auto& p : scene.path) extend(p.x, p.y);
    for (const auto& b : scene.beacons) extend(b.x, b.y);
    for (const auto& f : scene.fences) extend(f.x, f.y, std::max(0.0, f.radius));
    double spanX = std::max(maxX - minX, 10.0), spanY = std::max(maxY - minY, 10.0);
    double margin = std::max(5.0, 0.08 * std::max(spanX, spanY));
    double cx = (minX + maxX) / 2, cy = (minY + maxY) / 2;
    spanX += 2 * margin;
    spanY += 2 * margin;
    double scale = std::min(kMaxWidth / spanX, kMaxHeight / spanY);  // pixels per metre
    double width = std::max(spanX * scale, kMinWidth), mapHeight = std::max(spanY * scale, 240.0);
    auto X = [&](double x) { return width / 2 + (x - cx) * scale; };
    auto Y = [&](double y) { return mapHeight / 2 - (y - cy) * scale; };  // north up

    struct Item {
        std::string shape, label;
    };
    std::vector<Item> legend = {
        {"<path d=\"M-9,0 L9,0\" stroke=\"#334155\" stroke-width=\"2.5\"/>", "path"},
        {"<circle r=\"3\" fill=\"#fff\" stroke=\"#334155\" stroke-width=\"1.5\"/>", "time mark"},
        {"<circle r=\"7\" fill=\"#dbeafe\" stroke=\"#2563eb\"/>", "geofence"},
        {"<circle r=\"5\" fill=\"#f59e0b\" stroke=\"#92400e\"/>", "beacon"},
    };
    for (Mark m : {Mark::Enter, Mark::Exit, Mark::Find, Mark::View, Mark::Fulfil})
        legend.push_back({markShape(m, 0, 0), markName(m)});
    const double itemWidth = 92;
    int perRow = std::max(1, static_cast<int>((width - 20) / itemWidth));
    int rows = static_cast<int>((legend.size() + perRow - 1) / perRow);
    double height = mapHeight + 12 + rows * kLegendRow;

    std::string out;
    if (!embedded) out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:.0f} {1:.0f}\" {2} "
        "font-family=\"sans-serif\" font-size=\"12\" role=\"img\" class=\"map\">\n"
        "<title>Map of the walk</title>\n",
        width, height,
        embedded ? std::string("width=\"100%\"")
                 : fmt::format("width=\"{:.0f}\" height=\"{:.0f}\"", width, height));
    out += fmt::format("<rect width=\"{:.0f}\" height=\"{:.0f}\" fill=\"#fff\"/>\n", width, height);
    out += fmt::format(
        "<rect x=\"0.5\" y=\"0.5\" width=\"{:.0f}\" height=\"{:.0f}\" fill=\"#f8fafc\" "
        "stroke=\"#cbd5e1\"/>\n",
        width - 1, mapHeight - 1);

    Labels labels(width, mapHeight);
    // The scale bar and the north arrow keep their corners.
    labels.reserve(24, mapHeight - 22, 24);
    labels.reserve(width - 24, 30, 22);
    std::string body;

    for (const auto& f : scene.fences) {
        double r = std::max(0.0, f.radius) * scale;
        body += fmt::format(
            "<circle class=\"fence\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"{:.1f}\" fill=\"#dbeafe\" "
            "fill-opacity=\"0.6\" stroke=\"#2563eb\"/>\n",
            X(f.x), Y(f.y), r);
    }

    std::vector<std::tuple<double, double, double>> ticks;  // x, y (pixels), t
    if (!scene.path.empty()) {
        body += "<polyline class=\"path\" fill=\"none\" stroke=\"#334155\" stroke-width=\"2.5\" "
                "stroke-linejoin=\"round\" stroke-linecap=\"round\" points=\"";
        for (const auto& p : scene.path) body += fmt::format("{:.1f},{:.1f} ", X(p.x), Y(p.y));
        body += "\"/>\n";
        // Time marks at round intervals, the start and the end included.
        double t0 = scene.path.front().t, t1 = scene.path.back().t;
        double step = timeStep(t1 - t0);
        std::vector<double> marks = {t0};
        for (double t = std::ceil(t0 / step) * step; t < t1; t += step)
            if (t - marks.back() >= step / 2) marks.push_back(t);
        if (t1 > t0) {
            if (t1 - marks.back() < step / 2 && marks.size() > 1) marks.pop_back();
            marks.push_back(t1);
        }
        std::size_t seg = 1;
        for (double t : marks) {
            while (seg + 1 < scene.path.size() && scene.path[seg].t < t) ++seg;
            double x = scene.path[0].x, y = scene.path[0].y;
            if (scene.path.size() > 1) {
                const auto &a = scene.path[seg - 1], &b = scene.path[seg];
                double f = b.t > a.t ? std::clamp((t - a.t) / (b.t - a.t), 0.0, 1.0) : 1.0;
                x = a.x + (b.x - a.x) * f;
                y = a.y + (b.y - a.y) * f;
            }
            ticks.emplace_back(X(x), Y(y), t);
            labels.reserve(X(x), Y(y), 3);
            body += fmt::format(
                "<circle class=\"time\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3\" fill=\"#fff\" "
                "stroke=\"#334155\" stroke-width=\"1.5\"/>\n",
                X(x), Y(y));
        }
    }

    for (const auto& b : scene.beacons) {
        labels.reserve(X(b.x), Y(b.y), 6);
        body += fmt::format(
            "<circle class=\"beacon\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"5\" fill=\"#f59e0b\" "
            "stroke=\"#92400e\"/>\n",
            X(b.x), Y(b.y));
    }

    // Events at one spot are set side by side rather than on top of each other.
    std::vector<std::pair<double, double>> placed;
    std::vector<std::tuple<double, double, const MapScene::Marker*>> drawn;
    for (const auto& m : scene.markers) {
        double x = X(m.x), y = Y(m.y);
        if (!std::isfinite(x) || !std::isfinite(y)) continue;
        for (bool clash = true; clash;) {
            clash = std::any_of(placed.begin(), placed.end(), [&](const auto& p) {
                return std::abs(p.first - x) < 13 && std::abs(p.second - y) < 13;
            });
            if (clash) x += 15;
        }
        placed.emplace_back(x, y);
        labels.reserve(x, y, 7);
        drawn.emplace_back(x, y, &m);
        body += fmt::format("<g class=\"marker {}\"><title>{}</title>{}</g>\n", markName(m.kind),
                            escapeXml(m.label), markShape(m.kind, x, y));
    }

    // Labels, most important first: places, then the campaign's moments, then the clock.
    for (const auto& f : scene.fences) {
        labels.place(X(f.x), Y(f.y) - std::max(0.0, f.radius) * scale,
                     fmt::format("{} · r {:g} m", f.label, std::round(f.radius * 10) / 10), 12,
                     "#1e3a8a", true);
    }
    for (const auto& b : scene.beacons) labels.place(X(b.x), Y(b.y), b.label, 12, "#78350f", true);
    for (const auto& [x, y, m] : drawn) {
        if (m->kind == Mark::Find || m->kind == Mark::View || m->kind == Mark::Fulfil)
            labels.place(x, y, fmt::format("{} {:.0f} s", markName(m->kind), m->t), 10, "#1f2937",
                         true);
    }
    bool minutes = !ticks.empty() && std::get<2>(ticks.back()) >= 600;
    for (const auto& [x, y, t] : ticks)
        labels.place(x, y, timeLabel(t, minutes), 10, "#475569", false);

    out += body + labels.svg();

    // Scale bar, bottom left: a round distance near a fifth of the map's width.
    double metres = niceStep(spanX / 5), bar = metres * scale, bx = 16, by = mapHeight - 16;
    out += fmt::format(
        "<g class=\"scale\"><path d=\"M{0:.1f},{1:.1f} v6 h{2:.1f} v-6\" fill=\"none\" "
        "stroke=\"#0f172a\" stroke-width=\"2\"/><text x=\"{3:.1f}\" y=\"{4:.1f}\" "
        "text-anchor=\"middle\" fill=\"#0f172a\">{5:g} m</text></g>\n",
        bx, by - 6, bar, bx + bar / 2, by - 10, metres);
    // North arrow, top right.
    double nx = width - 24;
    out += fmt::format(
        "<g class=\"north\"><path d=\"M{0:.1f},14 l7,20 l-7,-6 l-7,6 Z\" fill=\"#0f172a\"/>"
        "<text x=\"{0:.1f}\" y=\"48\" text-anchor=\"middle\" font-weight=\"bold\" "
        "fill=\"#0f172a\">N</text></g>\n",
        nx);

    out += "<g class=\"legend\">\n";
    for (std::size_t i = 0; i < legend.size(); ++i) {
        double lx = 20 + (i % perRow) * itemWidth,
               ly = mapHeight + 12 + (i / perRow) * kLegendRow + kLegendRow / 2;
        out += fmt::format(
            "<g transform=\"translate({:.1f},{:.1f})\">{}<text x=\"14\" y=\"4\" "
            "fill=\"#1f2937\">{}</text></g>\n",
            lx, ly, legend[i].shape, legend[i].label);
    }
    out += "</g>\n</svg>\n";
    return out;
}

}  // namespace sim
