#include "lab/page/curve.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <iterator>
#include <optional>

namespace kv::lab {

namespace {

/// What a counter's rate is between two parts; NaN where it cannot be told.
double Rate(const Part& before, const Part& part, const Meaning& meaning) {
    const double seconds = static_cast<double>(part.last - before.last) / 1000;
    double growth = part.high - before.high;
    const double whole = std::ldexp(1.0, meaning.counterBits);
    // Beyond half of its reach a counter that is lower than before has wrapped; else its device has started again.
    if (growth < 0 && before.high > whole / 2 && part.high < whole / 2) growth += whole;
    return growth < 0 || seconds <= 0 ? NAN : growth / seconds * meaning.factor;
}

std::vector<CurvePoint> CounterPoints(const std::vector<Part>& parts, const Meaning& meaning) {
    std::vector<CurvePoint> points;
    for (std::size_t at = 1; at < parts.size(); ++at) {
        const double rate = Rate(parts[at - 1], parts[at], meaning);
        points.push_back({parts[at].last, rate, rate, rate});
    }
    return points;
}

std::vector<CurvePoint> GaugePoints(const std::vector<Part>& parts, const Meaning& meaning) {
    std::vector<CurvePoint> points;
    for (const Part& part : parts)
        points.push_back(
            {part.last, part.low * meaning.factor, part.high * meaning.factor, part.average * meaning.factor});
    return points;
}

/// Pauses longer than this are gaps, milliseconds.
std::int64_t LongestPause(const std::vector<CurvePoint>& points) {
    std::vector<std::int64_t> pauses;
    for (std::size_t at = 1; at < points.size(); ++at) pauses.push_back(points[at].time - points[at - 1].time);
    if (pauses.empty()) return 0;
    const auto middle = pauses.begin() + static_cast<std::ptrdiff_t>(pauses.size() / 2);
    std::nth_element(pauses.begin(), middle, pauses.end());
    constexpr double usualPauses = 2.6;
    return static_cast<std::int64_t>(static_cast<double>(*middle) * usualPauses);
}

void AddPoint(std::string& path, char command, double x, double y) {
    fmt::format_to(std::back_inserter(path), "{}{:.1f} {:.1f}", command, x, y);
}

void AddPiece(std::string& path, const std::vector<CurvePoint>& piece, const PlotArea& area) {
    for (std::size_t at = 0; at < piece.size(); ++at)
        AddPoint(path, at == 0 ? 'M' : 'L', area.X(piece[at].time), area.Y(piece[at].number));
    if (piece.size() == 1) path += "h3";
}

}  // namespace

Curve MakeCurve(const std::vector<Part>& parts, const Meaning& meaning) {
    const std::vector<CurvePoint> points =
        meaning.kind == ValueKind::counter ? CounterPoints(parts, meaning) : GaugePoints(parts, meaning);
    const std::int64_t longestPause = LongestPause(points);
    Curve curve;
    std::optional<std::int64_t> before;
    for (const CurvePoint& point : points) {
        if (std::isnan(point.number)) {
            before.reset();
            continue;
        }
        if (!before || point.time - *before > longestPause) curve.pieces.emplace_back();
        const bool isFirst = curve.pieces.size() == 1 && curve.pieces[0].empty();
        curve.low = isFirst ? point.low : std::min(curve.low, point.low);
        curve.high = isFirst ? point.high : std::max(curve.high, point.high);
        curve.pieces.back().push_back(point);
        before = point.time;
    }
    return curve;
}

double PlotArea::X(std::int64_t time) const {
    return static_cast<double>(time - from) / static_cast<double>(std::max<std::int64_t>(to - from, 1)) * width;
}

double PlotArea::Y(double number) const {
    if (high <= low) return height / 2;
    return (high - number) / (high - low) * height;
}

std::string LinePath(const Curve& curve, const PlotArea& area) {
    std::string path;
    for (const std::vector<CurvePoint>& piece : curve.pieces) AddPiece(path, piece, area);
    return path;
}

std::string FilledPath(const Curve& curve, const PlotArea& area) {
    std::string path;
    for (const std::vector<CurvePoint>& piece : curve.pieces) {
        if (piece.size() < 2) continue;
        AddPiece(path, piece, area);
        fmt::format_to(std::back_inserter(path), "V{0:.1f}H{1:.1f}z", area.height, area.X(piece.front().time));
    }
    return path;
}

}  // namespace kv::lab
