// The map of a walk as an SVG document: geofences, beacons, the path with time marks, a marker
// where each enter, exit, find, view and fulfil happened, a legend, a scale bar and a north arrow.
// Everything is in metres east (x) and north (y) of the walk's origin; times are seconds since the
// run began.
#pragma once

#include <string>
#include <vector>

namespace sim {

struct MapScene {
    struct Fence {
        double x, y, radius;
        std::string label;
    };
    struct Beacon {
        double x, y;
        std::string label;
    };
    struct Point {
        double x, y, t;
    };
    enum class Mark { Enter, Exit, Find, View, Fulfil };
    struct Marker {
        Mark kind;
        double x, y, t;
        std::string label;  // what happened, for the marker's tooltip
    };
    std::vector<Fence> fences;
    std::vector<Beacon> beacons;
    std::vector<Point> path;
    std::vector<Marker> markers;
};

// A complete SVG document (with its XML declaration) or, with `embedded`, an <svg> element to
// place in an HTML page, which then scales to the page's width.
std::string renderMap(const MapScene& scene, bool embedded = false);

// Text made safe for XML and HTML content and attribute values.
std::string escapeXml(const std::string& text);

// The distance for a scale bar or the interval for time marks: the largest of 1, 2 and 5 times a
// power of ten that does not pass `limit`.
double niceStep(double limit);

}  // namespace sim
