#include "wql/classes/performance/perf_class.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numeric>
#include <set>
#include <unordered_set>

#include "facts/processes/process_files.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

/// 1970 on the clock of Windows, which begins in 1601.
constexpr std::uint64_t unixEpoch = 116'444'736'000'000'000;

constexpr double wholePercent = 100;

bool IsAverage(CounterKind kind) {
    return kind == CounterKind::fraction || kind == CounterKind::freeShare || kind == CounterKind::averageTime ||
           kind == CounterKind::averageAmount || kind == CounterKind::averageOfMany;
}

/// Whether a percentage is one of a time that is the same for all objects.
bool IsPercentOfTime(CounterKind kind) {
    return kind == CounterKind::percentOfTime || kind == CounterKind::percentOfTimestamp ||
           kind == CounterKind::percentOfTimeLeft || kind == CounterKind::percentOfTimestampLeft ||
           kind == CounterKind::percentOfOperations;
}

/// Whether the total of several objects is their mean.
bool HasMean(CounterKind kind) { return kind == CounterKind::level || IsPercentOfTime(kind); }

/// Whether readers of the raw class divide the counter's growth by that of the wall clock.
bool HasTimestamp(CounterKind kind) {
    return kind == CounterKind::percentOfTimestamp || kind == CounterKind::percentOfTimestampLeft ||
           kind == CounterKind::percentOfOperations;
}

std::optional<CimType> BaseTypeOf(CounterKind kind) {
    if (HasTimestamp(kind) || kind == CounterKind::averageOfMany) return uint64;
    if (IsAverage(kind)) return uint32;
    return std::nullopt;
}

double Difference(std::uint64_t later, std::uint64_t earlier) {
    return static_cast<double>(later) - static_cast<double>(earlier);
}

/// The growth of a value, which may have wrapped at its period.
std::uint64_t GrowthOf(std::uint64_t before, std::uint64_t now, std::uint64_t period) {
    return now >= before || period == 0 ? now - before : period - (before - now) % period;
}

/// The state from which a counter's growth is measured.
CounterState StartOf(CounterKind kind, const CounterState* before, const CounterState& now, std::uint64_t birth,
                     std::uint64_t period) {
    if (before != nullptr && before->base <= now.base) {
        const bool hasGrown = before->value <= now.value || GrowthOf(before->value, now.value, period) < period / 2;
        if (hasGrown) return *before;
        const bool isStill = IsPercentOfTime(kind) && before->value - now.value <= unitsPerSecond;
        if (isStill) return {before->time, now.value, before->base};
    }
    return {std::min(birth, now.time - std::min(now.time, unitsPerSecond))};
}

}  // namespace

Quotient QuotientBetween(CounterKind kind, const CounterState* before, const CounterState& now, std::uint64_t birth,
                         std::uint64_t period) {
    const CounterState start = StartOf(kind, before, now, birth, period);
    const double time = Difference(now.time, start.time);
    const auto growth = static_cast<double>(GrowthOf(start.value, now.value, period));
    const double baseGrowth = Difference(now.base, start.base);
    switch (kind) {
        case CounterKind::rate:
            return {growth * unitsPerSecond, time};
        case CounterKind::percentOfTime:
            return {growth * wholePercent, baseGrowth};
        case CounterKind::percentOfTimeLeft:
            return {(baseGrowth - growth) * wholePercent, baseGrowth};
        case CounterKind::percentOfTimestamp:
        case CounterKind::percentOfOperations:
        case CounterKind::percentOfProcessors:
            return {growth * wholePercent, time};
        case CounterKind::percentOfTimestampLeft:
            return {(time - growth) * wholePercent, time};
        case CounterKind::fraction:
        case CounterKind::freeShare:
            return {static_cast<double>(now.value) * wholePercent, static_cast<double>(now.base)};
        case CounterKind::averageTime:
            return {growth / unitsPerSecond, baseGrowth};
        case CounterKind::averageAmount:
        case CounterKind::averageOfMany:
            return {growth, baseGrowth};
        case CounterKind::queueLength:
            return {growth, time};
        case CounterKind::elapsedTime:
            return {Difference(std::max(now.time, now.value), now.value), unitsPerSecond};
        default:
            return {static_cast<double>(now.value), 1};
    }
}

double FigureOf(CounterKind kind, const Quotient& quotient, unsigned processors) {
    const double figure = quotient.per > 0 ? quotient.amount / quotient.per : 0;
    if (kind == CounterKind::percentOfOperations) return figure;
    if (IsPercentOfTime(kind)) return std::clamp(figure, 0.0, wholePercent);
    if (kind == CounterKind::percentOfProcessors) return std::min(figure, wholePercent * processors);
    return figure;
}

double TotalOf(CounterKind kind, const std::vector<Quotient>& quotients, unsigned processors) {
    if (kind == CounterKind::label || quotients.empty()) return 0;
    if (IsAverage(kind)) {
        const auto add = [](Quotient sum, const Quotient& part) {
            return Quotient{sum.amount + part.amount, sum.per + part.per};
        };
        return FigureOf(kind, std::accumulate(quotients.begin(), quotients.end(), Quotient{}, add), processors);
    }
    double sum = 0;
    for (const Quotient& quotient : quotients) sum += FigureOf(kind, quotient, processors);
    if (HasMean(kind)) return sum / static_cast<double>(quotients.size());
    return FigureOf(kind, {sum, 1}, processors);
}

std::optional<CounterState> Readings::stateOf(std::size_t counter) const {
    if (values[counter] == unread) return std::nullopt;
    return CounterState{time, values[counter], bases.empty() ? 0 : bases[counter]};
}

namespace {

bool Covers(const Readings& readings, std::uint32_t needs) { return (needs & ~readings.needs) == 0; }

/// Whether one of the bases is newer than a sample and holds all that the sample does.
bool IsOutdone(const Readings& sample, const std::vector<ReadingsPtr>& bases) {
    return std::any_of(bases.begin(), bases.end(), [&](const ReadingsPtr& base) {
        return base->time > sample.time && Covers(*base, sample.needs);
    });
}

}  // namespace

std::vector<ReadingsPtr> TakeBases(std::vector<ReadingsPtr>& samples, const ReadingsPtr& newest) {
    std::vector<ReadingsPtr> bases;
    bool isNeeded = true;
    for (auto at = samples.rbegin(); at != samples.rend(); ++at) {
        const bool isOldEnough = (*at)->time + unitsPerSecond <= newest->time;
        if (isOldEnough) bases.push_back(*at);
        if (!isOldEnough && Covers(**at, newest->needs)) isNeeded = false;
    }
    std::erase_if(samples, [&](const ReadingsPtr& sample) { return IsOutdone(*sample, bases); });
    if (isNeeded) {
        const auto isEarlier = [](const ReadingsPtr& left, const ReadingsPtr& right) {
            return left->time < right->time;
        };
        samples.insert(std::upper_bound(samples.begin(), samples.end(), newest, isEarlier), newest);
    }
    return bases;
}

void PerfSampling::Add(PerfObject object, const void* row, std::uint64_t time) {
    const auto readings = std::make_shared<Readings>();
    readings->time = time;
    readings->needs = needs;
    readings->values.reserve(perfClass.counters.size());
    for (const CounterInfo& counter : perfClass.counters) {
        const bool isRead = counter.value != nullptr && (counter.needs & ~needs) == 0;
        readings->values.push_back(isRead ? counter.value(row).value_or(Readings::unread) : Readings::unread);
        if (counter.base == nullptr) continue;
        readings->bases.resize(perfClass.counters.size());
        if (isRead) readings->bases[readings->values.size() - 1] = counter.base(row).value_or(0);
    }
    PerfRow& added = rows.emplace_back();
    added.sampling = this;
    added.object = std::move(object);
    added.now = readings;
}

void PerfHistory::Exchange(PerfSampling& sampling) {
    const std::lock_guard lock(mutex);
    std::unordered_set<std::string_view> keys;
    for (PerfRow& row : sampling.rows) {
        keys.insert(row.object.key);
        Object& object = objects[row.object.key];
        const bool isNew = object.samples.empty() || object.generation != row.object.generation;
        if (isNew) object = {row.object.generation, {}, row.object.isBirthKnown ? row.object.birth : lastTime};
        if (!row.object.isBirthKnown) row.object.birth = object.birth;
        row.bases = TakeBases(object.samples, row.now);
    }
    if (!sampling.isAsked) {
        if (sampling.rows.empty()) lastTime = TimeSinceStart();
        for (const PerfRow& row : sampling.rows) lastTime = std::max(lastTime, row.now->time);
    }
    std::erase_if(objects, [&](const auto& object) {
        return !keys.contains(object.first) && (!sampling.isAsked || sampling.isAsked(object.first));
    });
}

std::uint64_t TimeSinceStart() {
    constexpr std::uint64_t nanosecondsPerUnit = 100;
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * unitsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec) / nanosecondsPerUnit;
}

namespace {

const PerfRow& PerfRowAt(const void* row) { return *static_cast<const PerfRow*>(row); }

const CounterInfo& CounterOf(const PerfRow& row, const PropertyInfo& property) {
    return row.sampling->perfClass.counters[property.index];
}

/// The rows of which a row is made: its own, or those that a total sums up.
std::vector<const PerfRow*> PartsOf(const PerfRow& row) {
    if (!row.isTotal) return {&row};
    std::vector<const PerfRow*> parts;
    for (const PerfRow& part : row.sampling->rows) {
        const bool isOfGroup = row.object.group.empty() || part.object.group == row.object.group;
        if (isOfGroup && part.object.isInTotal) parts.push_back(&part);
    }
    return parts;
}

/// Whether this user may not see all of what a total sums up. A label has no sum.
bool LacksParts(const PerfRow& row, const std::vector<const PerfRow*>& parts, std::size_t counter) {
    const CounterInfo& info = row.sampling->perfClass.counters[counter];
    if (!row.isTotal || info.kind == CounterKind::label) return false;
    const auto isUnseen = [&](const PerfRow* part) { return (part->object.unseen & info.needs) != 0; };
    return row.sampling->lacksObjects || std::any_of(parts.begin(), parts.end(), isUnseen);
}

std::optional<Quotient> QuotientIn(const PerfRow& row, std::size_t counter) {
    const std::optional<CounterState> now = row.now->stateOf(counter);
    if (!now) return std::nullopt;
    std::optional<CounterState> before;
    for (auto base = row.bases.begin(); base != row.bases.end() && !before; ++base) before = (*base)->stateOf(counter);
    const CounterInfo& info = row.sampling->perfClass.counters[counter];
    return QuotientBetween(info.kind, before ? &*before : nullptr, *now, row.object.birth, info.period);
}

/// A figure, rounded and clamped to the type. A value wraps, as it does in the raw class. A free share is rounded down,
/// because df rounds up what is used.
CimValue WholeFigure(CimType type, CounterKind kind, double figure) {
    constexpr std::uint64_t most = UINT64_MAX;
    constexpr double inexactness = 1e-9;  // far more than a quotient is off, far less than any disk has in use
    const bool isLimited = type == uint32 && kind != CounterKind::value;
    const std::uint64_t limit = isLimited ? UINT32_MAX : most;
    const double rounded = kind == CounterKind::freeShare ? std::floor(figure + inexactness) : std::round(figure);
    return rounded < static_cast<double>(limit) ? static_cast<std::uint64_t>(rounded) : limit;
}

CimValue ReadFigure(const void* record, const PropertyInfo& property) {
    const PerfRow& row = PerfRowAt(record);
    const CounterKind kind = CounterOf(row, property).kind;
    const std::vector<const PerfRow*> parts = PartsOf(row);
    if (LacksParts(row, parts, property.index)) return {};
    std::vector<Quotient> quotients;
    for (const PerfRow* part : parts) {
        if (const std::optional<Quotient> quotient = QuotientIn(*part, property.index)) quotients.push_back(*quotient);
    }
    if (quotients.empty() || (row.isTotal && kind == CounterKind::elapsedTime)) return {};
    const unsigned processors = row.sampling->processors;
    const double figure =
        row.isTotal ? TotalOf(kind, quotients, processors) : FigureOf(kind, quotients.front(), processors);
    return WholeFigure(property.type, kind, figure);
}

/// A counter of one object as the raw class gives it. Absent for the share of what is smaller than a megabyte: 0 would
/// read as full.
std::optional<CounterState> RawStateOf(const Readings& readings, std::size_t counter, CounterKind kind) {
    constexpr std::uint64_t megabyte = std::uint64_t{1024} * 1024;
    std::optional<CounterState> state = readings.stateOf(counter);
    if (state && kind == CounterKind::freeShare) {
        state->value /= megabyte;
        state->base /= megabyte;
        if (state->base == 0) return std::nullopt;
    }
    if (state && kind == CounterKind::percentOfTimestampLeft)
        state->value = state->time - std::min(state->time, state->value);
    return state;
}

/// The same for any row. For _Total it is the sum over all objects, or the mean for percentages of time.
std::optional<CounterState> RawStateIn(const PerfRow& row, std::size_t counter) {
    const CounterKind kind = row.sampling->perfClass.counters[counter].kind;
    if (!row.isTotal) return RawStateOf(*row.now, counter, kind);
    const std::vector<const PerfRow*> parts = PartsOf(row);
    if (LacksParts(row, parts, counter)) return std::nullopt;
    CounterState total;
    std::uint64_t count = 0;
    for (const PerfRow* part : parts) {
        const std::optional<CounterState> state = RawStateOf(*part->now, counter, kind);
        if (!state) continue;
        total.value += state->value;
        total.base += state->base;
        ++count;
    }
    if (count == 0 || kind == CounterKind::elapsedTime) return std::nullopt;
    if (kind == CounterKind::label) total.value = 0;
    if (HasMean(kind)) total.value /= count;
    return total;
}

CimValue ReadRaw(const void* record, const PropertyInfo& property) {
    const PerfRow& row = PerfRowAt(record);
    const std::optional<CounterState> state = RawStateIn(row, property.index);
    if (!state) return {};
    const bool isMoment = CounterOf(row, property).kind == CounterKind::elapsedTime;
    return state->value + (isMoment ? row.sampling->systemStart : 0);
}

std::uint64_t WallTimeOf(const PerfRow& row) { return row.sampling->systemStart + row.now->time; }

CimValue ReadRawBase(const void* record, const PropertyInfo& property) {
    const PerfRow& row = PerfRowAt(record);
    const std::optional<CounterState> state = RawStateIn(row, property.index);
    if (!state) return {};
    return HasTimestamp(CounterOf(row, property).kind) ? WallTimeOf(row) : state->base;
}

CimValue ReadName(const void* record, const PropertyInfo&) { return PerfRowAt(record).object.name; }
CimValue ReadFrequency(const void*, const PropertyInfo&) { return unitsPerSecond; }
CimValue ReadTimeSinceStart(const void* record, const PropertyInfo&) { return PerfRowAt(record).now->time; }
CimValue ReadWallTime(const void* record, const PropertyInfo&) { return WallTimeOf(PerfRowAt(record)); }

using PropertyRead = CimValue (*)(const void* row, const PropertyInfo& property);

void AddProperty(std::vector<PropertyInfo>& table, std::u16string_view name, CimType type, PropertyRead read,
                 std::string_view meaning, std::uint32_t needs = 0, std::size_t index = 0) {
    PropertyInfo& property = table.emplace_back(name, type);
    property.read = read;
    property.meaning = meaning;
    property.needs = needs;
    property.index = index;
}

/// Adds the inherited properties. Only the raw class tells times, because figures are made from them.
void AddInherited(std::vector<PropertyInfo>& table, const PerfClass& perfClass, bool isRaw) {
    table.emplace_back(u"Caption", string);
    table.emplace_back(u"Description", string);
    const PropertyRead readName = perfClass.isSingle ? nullptr : ReadName;
    AddProperty(table, u"Name", string, readName, perfClass.isSingle ? "" : "the object's", perfClass.nameNeeds);
    const struct {
        std::u16string_view name;
        PropertyRead read;
        std::string_view meaning;
    } times[] = {
        {u"Frequency_Object", ReadFrequency, "units of Timestamp_Object in a second"},
        {u"Frequency_PerfTime", ReadFrequency, "units of Timestamp_PerfTime in a second"},
        {u"Frequency_Sys100NS", ReadFrequency, "units of Timestamp_Sys100NS in a second"},
        {u"Timestamp_Object", ReadWallTime, "100 ns since 1601"},
        {u"Timestamp_PerfTime", ReadTimeSinceStart, "100 ns since the system's start"},
        {u"Timestamp_Sys100NS", ReadWallTime, "100 ns since 1601"},
    };
    for (const auto& time : times) {
        AddProperty(table, time.name, uint64, isRaw ? time.read : nullptr, isRaw ? time.meaning : "");
    }
}

void AddCounter(std::vector<PropertyInfo>& table, std::u16string_view name, CimType type, PropertyRead read,
                const CounterInfo& counter, std::size_t index) {
    AddProperty(table, name, type, counter.value != nullptr ? read : nullptr, counter.meaning, counter.needs, index);
}

}  // namespace

namespace detail {

std::span<const PropertyInfo> PerfDeclaration::AddTable(const PerfClass& perfClass, bool isRaw) {
    std::vector<PropertyInfo>& table = tables.emplace_back();
    AddInherited(table, perfClass, isRaw);
    for (std::size_t index = 0; index < perfClass.counters.size(); ++index) {
        const CounterInfo& counter = perfClass.counters[index];
        AddCounter(table, counter.name, counter.type, isRaw ? ReadRaw : ReadFigure, counter, index);
        const std::optional<CimType> baseType = BaseTypeOf(counter.kind);
        if (!isRaw || !baseType) continue;
        names.push_back(std::u16string(counter.name) + u"_Base");
        AddCounter(table, names.back(), *baseType, ReadRawBase, counter, index);
    }
    std::sort(table.begin(), table.end(), [](const PropertyInfo& left, const PropertyInfo& right) {
        return CompareNames(left.name, right.name) < 0;
    });
    return table;
}

void PerfDeclaration::Add(const PerfClass& perfClass, GatherRoutine raw, GatherRoutine formatted) {
    for (const bool isRaw : {true, false}) {
        const std::u16string_view superclass = isRaw ? u"Win32_PerfRawData" : u"Win32_PerfFormattedData";
        names.push_back(std::u16string(superclass) + u'_' + std::u16string(perfClass.name));
        const std::u16string& name = names.back();
        meanings.push_back(std::string(perfClass.meaning) + (isRaw ? ", as counters" : ", as rates and shares"));
        classes.push_back({name, superclass, AddTable(perfClass, isRaw), isRaw ? raw : formatted,
                           perfClass.isSingle ? u"" : u"Name", meanings.back()});
    }
}

namespace {

std::set<std::string> GroupsOf(const PerfSampling& sampling) {
    std::set<std::string> groups;
    for (const PerfRow& row : sampling.rows) groups.insert(row.object.group);
    groups.erase("");
    return groups;
}

PerfRow TotalOfGroup(const PerfSampling& sampling, const std::string& group) {
    PerfRow total;
    total.sampling = &sampling;
    total.object.name = group.empty() ? "_Total" : group + ",_Total";
    total.object.group = group;
    total.now = sampling.rows.back().now;
    total.isTotal = true;
    return total;
}

}  // namespace

WmiStatus GatherPerformance(const PerfClass& perfClass, PerfHistory* history, const Gathering& gathering) {
    PerfSampling sampling(perfClass);
    sampling.needs = gathering.needs;
    sampling.systemStart =
        unixEpoch + static_cast<std::uint64_t>(facts::SystemStartMilliseconds()) * unitsPerMillisecond;
    const WmiStatus status = perfClass.read(gathering, sampling);
    if (IsFailure(status)) return status;
    if (history != nullptr) history->Exchange(sampling);
    for (const PerfRow& row : sampling.rows) {
        if (!gathering.row(&row)) return status;
    }
    if (!perfClass.hasTotal || sampling.isAsked || sampling.rows.empty()) return status;
    for (const std::string& group : GroupsOf(sampling)) {
        const PerfRow total = TotalOfGroup(sampling, group);
        if (!gathering.row(&total)) return status;
    }
    const PerfRow total = TotalOfGroup(sampling, "");
    gathering.row(&total);
    return status;
}

}  // namespace detail

}  // namespace kv::wql
