#include "lab/page/curve.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <iterator>
#include <optional>

namespace kv::lab {

namespace {

std::vector<CurvePoint> PointsOf(const std::vector<Part>& parts, const Meaning& meaning) {
    std::vector<CurvePoint> points;
    for (const Part& part : parts)
        points.push_back({part.last, part.low * meaning.factor, part.high * meaning.factor,
                          part.average * meaning.factor, part.first < part.last || part.low < part.high});
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

Curve CurveThrough(const std::vector<CurvePoint>& points) {
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

void AddPoint(std::string& path, char command, double x, double y) {
    fmt::format_to(std::back_inserter(path), "{}{:.1f} {:.1f}", command, x, y);
}

void AddPiece(std::string& path, const std::vector<CurvePoint>& piece, const PlotArea& area) {
    for (std::size_t at = 0; at < piece.size(); ++at)
        AddPoint(path, at == 0 ? 'M' : 'L', area.X(piece[at].time), area.Y(piece[at].number));
    if (piece.size() == 1) path += "h3";
}

}  // namespace

Curve ReadCurve(Store& store, std::int64_t series, const Range& range, std::int64_t part, const Meaning& meaning) {
    const bool isCounter = meaning.kind == ValueKind::counter;
    Curve curve = CurveThrough(PointsOf(
        isCounter ? ReadRates(store, series, range, part, meaning.counterBits) : ReadParts(store, series, range, part),
        meaning));
    if (curve.isEmpty()) return curve;
    const double last =
        isCounter ? ReadLatestRate(store, series, range, meaning.counterBits) : ReadLatestNumber(store, series, range);
    curve.last = std::isnan(last) ? curve.pieces.back().back().number : last * meaning.factor;
    return curve;
}

std::size_t Curve::points() const {
    std::size_t count = 0;
    for (const std::vector<CurvePoint>& piece : pieces) count += piece.size();
    return count;
}

Range DrawnRange(const Range& range, std::int64_t first) {
    constexpr std::int64_t shortest = 60'000;
    return {std::max(range.from, std::min(first, range.to - shortest)), range.to};
}

std::int64_t PartOf(const Range& range, std::int64_t parts) {
    constexpr std::int64_t hour = 3600;
    for (const std::int64_t seconds : {1, 2, 5, 10, 15, 20, 30, 60, 120, 300, 600, 900, 1200, 1800})
        if (range.to - range.from <= parts * seconds * 1000) return seconds * 1000;
    const std::int64_t hours = (range.to - range.from) / (parts * hour * 1000) + 1;
    return hours * hour * 1000;
}

bool BeginsAtZero(double low, double high, Unit unit) {
    return low >= 0 && (unit == Unit::percent || high - low >= low / 2);
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

std::string DotPath(const Curve& curve, const PlotArea& area) {
    std::string path;
    for (const std::vector<CurvePoint>& piece : curve.pieces)
        for (const CurvePoint& point : piece) {
            AddPoint(path, 'M', area.X(point.time), area.Y(point.number));
            path += "h0";
        }
    return path;
}

std::string BandPath(const Curve& curve, const PlotArea& area) {
    std::string path;
    for (const std::vector<CurvePoint>& piece : curve.pieces) {
        char command = 'M';
        for (const CurvePoint& point : piece) {
            AddPoint(path, command, area.X(point.time), area.Y(point.high));
            command = 'L';
        }
        for (auto point = piece.rbegin(); point != piece.rend(); ++point)
            AddPoint(path, 'L', area.X(point->time), area.Y(point->low));
        path += 'z';
    }
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
