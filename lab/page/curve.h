// A series as a line to draw: numbers in their unit, rates of counters, gaps where nothing came.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/page/units.h"
#include "lab/store/series.h"

namespace kv::lab {

struct CurvePoint {
    std::int64_t time = 0;
    double low = 0;  // several samples may stand in one point
    double high = 0;
    double number = 0;  // their average
    bool isOfMany = false;
};

struct Curve {
    std::vector<std::vector<CurvePoint>> pieces;  // each without gaps, and not empty
    double low = 0;                               // of all points
    double high = 0;
    double last = 0;  // the newest number by itself, not the average of its part

    bool isEmpty() const { return pieces.empty(); }
    std::size_t points() const;
};

/// The line through a series within a range, one point for each part of it that has samples. A counter's points are
/// rates; where its device has started again the line has a gap. A pause that is much longer than the usual one is a
/// gap, too.
Curve ReadCurve(Store& store, std::int64_t series, const Range& range, std::int64_t part, const Meaning& meaning);

/// What a drawing shows of a range: from the first sample of its lines on, but at least a minute.
Range DrawnRange(const Range& range, std::int64_t first);

/// A length of time that people name, milliseconds, such that a range has at most so many of it.
std::int64_t PartOf(const Range& range, std::int64_t parts);

/// Whether an axis for numbers from low to high begins at 0: for percents always, for others unless all are far from 0.
bool BeginsAtZero(double low, double high, Unit unit);

/// A rectangle of a drawing, and what its sides stand for. Y grows downward.
struct PlotArea {
    double width = 0;
    double height = 0;
    std::int64_t from = 0;
    std::int64_t to = 0;
    double low = 0;
    double high = 0;

    double X(std::int64_t time) const;
    double Y(double number) const;
};

/// The "d" of an SVG path along the line; a piece of one point is a short dash.
std::string LinePath(const Curve& curve, const PlotArea& area);

/// The "d" of a dot at each point, for a stroke with round ends.
std::string DotPath(const Curve& curve, const PlotArea& area);

/// The "d" of what lies between the smallest and the largest number of each point.
std::string BandPath(const Curve& curve, const PlotArea& area);

/// The "d" of what lies between the line and the area's lower side.
std::string FilledPath(const Curve& curve, const PlotArea& area);

}  // namespace kv::lab
