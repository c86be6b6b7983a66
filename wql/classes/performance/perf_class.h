// Performance classes. One table of counters makes two classes: Win32_PerfRawData_<name> with the counters as they are,
// and Win32_PerfFormattedData_<name> with figures computed from their growth since an earlier sample.
//
// Each class keeps its own samples. Each query of the formatted class takes one; the newest that is at least a second
// older is the base of its figures. A shorter time says nothing, so a query within a second of the last sample keeps no
// sample, unless it reads what the last one did not. Without a base (the first query, a new object, a counter that went
// back) the figure covers the time since the object began, at the start of the system or of the process, or, where
// nothing tells that, after the class's last sample, which did not have it. Samples of objects that a query asks for
// and does not find are dropped.
//
// Some of the kernel's counters wrap at 32 bits. Growth between two samples takes that into account. Figures since the
// system's start and the raw class cannot.
//
// The figures of _Total come from those of the objects, not from a sum of counters, which would jump whenever a disk
// appears or a process ends. Objects that belong to groups, such as the processors of a node, have a total of each
// group too. What an object lacks by nature is left out of a total. Where the user may not see a part of it, the total
// is NULL.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Times are in units of 100 ns.
inline constexpr std::uint64_t unitsPerSecond = 10'000'000;
inline constexpr std::uint64_t unitsPerMillisecond = 10'000;

/// What a counter holds, and how its formatted figure is made.
enum class CounterKind {
    value,                   // the figure is the value
    label,                   // the same, but it has no sum: 0 in _Total
    level,                   // the same; the mean in _Total
    rate,                    // growth a second
    percentOfTime,           // growth, a time, in percent of the base's growth, at most 100
    percentOfTimeLeft,       // what percentOfTime leaves of 100
    percentOfTimestamp,      // growth, a time, in percent of the elapsed time, at most 100
    percentOfTimestampLeft,  // what percentOfTimestamp leaves of 100; in the raw class the time that is left
    percentOfOperations,     // as percentOfTimestamp, for the sum of all operations' times, so it may exceed 100
    percentOfProcessors,     // growth, a time, in percent of the elapsed time, at most 100 for each processor
    fraction,                // the value in percent of the base
    freeShare,               // likewise of bytes, rounded down; the raw class gives megabytes
    averageTime,             // growth, a time in seconds, divided by the base's growth
    averageAmount,           // growth divided by the base's growth
    averageOfMany,           // the same; the raw class's base has 64 bits
    queueLength,             // growth, the sum of all operations' times, divided by the elapsed time
    elapsedTime,             // seconds since the value, a moment since the system's start; NULL in _Total
};

using CounterRead = std::optional<std::uint64_t> (*)(const void* row);

/// A row of the table of counters, which may be in any order.
struct CounterInfo {
    std::u16string_view name;
    CimType type = CimType::uint64;  // in both classes
    CounterKind kind = CounterKind::value;
    std::uint32_t needs = 0;      // like those of a property
    std::string_view meaning;     // unit and source; empty if Linux has no such value
    CounterRead value = nullptr;  // null: always NULL
    CounterRead base = nullptr;   // for percentages of a base's growth, fractions and averages
    std::uint64_t period = 0;     // the number at which the value wraps to 0; 0 if it never does

    /// A counter for which Linux has no value. Its kind tells whether it has a base.
    constexpr CounterInfo(std::u16string_view counterName, CimType counterType,
                          CounterKind counterKind = CounterKind::value)
        : name(counterName), type(counterType), kind(counterKind) {}

    /// A counter whose value, and base if its kind has one, stateless routines take from the row record.
    template <class Read, class ReadBase = std::nullptr_t>
    constexpr CounterInfo(std::u16string_view counterName, CimType counterType, CounterKind counterKind,
                          std::uint32_t needed, std::string_view whatItMeans, Read read, ReadBase readBase = {},
                          std::uint64_t wholePeriod = 0)
        : name(counterName),
          type(counterType),
          kind(counterKind),
          needs(needed),
          meaning(whatItMeans),
          value(ReadBy(read)),
          base(ReadBy(readBase)),
          period(wholePeriod) {}

  private:
    static constexpr CounterRead ReadBy(std::nullptr_t) { return nullptr; }

    template <class Read>
    static constexpr CounterRead ReadBy(Read) {
        using Row = typename detail::RowOfRoutine<decltype(&Read::operator())>::Type;
        return [](const void* row) { return std::optional<std::uint64_t>(Read{}(*static_cast<const Row*>(row))); };
    }
};

/// The counters of two tables, as one.
template <std::size_t firstCount, std::size_t secondCount>
constexpr auto Joined(const CounterInfo (&first)[firstCount], const CounterInfo (&second)[secondCount]) {
    return [&]<std::size_t... i, std::size_t... j>(std::index_sequence<i...>, std::index_sequence<j...>) {
        return std::array{first[i]..., second[j]...};
    }
    (std::make_index_sequence<firstCount>(), std::make_index_sequence<secondCount>());
}

/// One counter of one object at one moment.
struct CounterState {
    std::uint64_t time = 0;  // since the system's start
    std::uint64_t value = 0;
    std::uint64_t base = 0;
};

/// A figure as an amount and its divisor, so that the average of all objects can be made from their averages.
struct Quotient {
    double amount = 0;
    double per = 0;
};

/// What happened between two moments. Without an earlier moment, or if the value or the base went back, what happened
/// since the birth (a moment since the system's start), taken as at least a second. A time that went back a little, as
/// the kernel's idle times do, counts as unchanged. A value that went back by more than half of its period has wrapped,
/// and so has grown.
Quotient QuotientBetween(CounterKind kind, const CounterState* before, const CounterState& now, std::uint64_t birth,
                         std::uint64_t period = 0);

/// The figure of one object; 0 if there is nothing to divide by. Percentages of time are at most 100, those of
/// processors at most 100 for each; those of operations have no limit.
double FigureOf(CounterKind kind, const Quotient& quotient, unsigned processors);

/// The figure of all objects together: the sum; for levels and percentages of time, except of processors, the mean; for
/// fractions and averages, that of all amounts over all that they are divided by.
double TotalOf(CounterKind kind, const std::vector<Quotient>& quotients, unsigned processors);

/// All counters of one object at one moment, in the order of the table.
struct Readings {
    std::uint64_t time = 0;   // since the system's start, in units of 100 ns
    std::uint32_t needs = 0;  // of the query that they were read for
    std::vector<std::uint64_t> values;
    std::vector<std::uint64_t> bases;  // empty in a class whose counters have no bases

    static constexpr std::uint64_t unread = UINT64_MAX;

    /// A counter's state; absent if it was not asked for, or could not be read.
    std::optional<CounterState> stateOf(std::size_t counter) const;
};
using ReadingsPtr = std::shared_ptr<const Readings>;

/// The samples that can be the base of the newest one's figures, newest first. Adds the newest to the samples, unless
/// one of the last second holds as much, and drops those that no later query can need.
std::vector<ReadingsPtr> TakeBases(std::vector<ReadingsPtr>& samples, const ReadingsPtr& newest);

/// An object that has counters.
struct PerfObject {
    std::string name;              // UTF-8
    std::string group;             // UTF-8; its total is "<group>,_Total". Empty: none
    std::string key;               // differs between the objects of a class
    std::uint64_t generation = 0;  // differs between objects that have the same key one after the other
    std::uint64_t birth = 0;       // when it began to count: 100 ns since the system's start
    bool isBirthKnown = true;      // false: some time after that
    bool isInTotal = true;         // whether _Total counts it
    std::uint32_t unseen = 0;      // the needs that it has counters for, which this user may not see
};

struct PerfSampling;

/// The row record of one object.
struct PerfRow {
    const PerfSampling* sampling = nullptr;
    PerfObject object;
    ReadingsPtr now;
    std::vector<ReadingsPtr> bases;  // newest first
    bool isTotal = false;            // of the object's group, or of all if it has none
};

struct PerfClass;

/// One reading of a class's objects; the class's routine fills it.
struct PerfSampling {
    const PerfClass& perfClass;
    std::uint32_t needs = 0;
    std::uint64_t systemStart = 0;  // in units of 100 ns since 1601
    unsigned processors = 1;        // for percentOfProcessors
    std::vector<PerfRow> rows;
    bool lacksObjects = false;  // this user may not see all

    /// Whether WHERE names an object. Set only if no others are read; there is no _Total then.
    std::function<bool(const std::string& key)> isAsked;

    explicit PerfSampling(const PerfClass& sampledClass) : perfClass(sampledClass) {}

    /// Adds an object, and reads the counters that are asked for from its row record.
    void Add(PerfObject object, const void* row, std::uint64_t time);
};

struct PerfClass {
    std::u16string_view name;  // what follows Win32_PerfRawData_
    std::string_view meaning;  // one line for readers of the list of classes
    std::span<const CounterInfo> counters;
    WmiStatus (*read)(const Gathering& gathering, PerfSampling& sampling) = nullptr;
    bool isSingle = false;        // there is one object, without a name
    bool hasTotal = false;        // the totals of groups, and _Total, follow the objects
    std::uint32_t nameNeeds = 0;  // the needs of Name
};

/// A class's samples. Any thread may call Exchange.
struct PerfHistory {
    struct Object {
        std::uint64_t generation = 0;
        std::vector<ReadingsPtr> samples;  // oldest first
        std::uint64_t birth = 0;           // as far as it is known
    };
    std::mutex mutex;
    std::unordered_map<std::string, Object> objects;
    std::uint64_t lastTime = 0;  // of the newest sample of all objects

    /// Gives each row its bases, adds the rows' samples, and drops those of objects that were asked for and are gone.
    void Exchange(PerfSampling& sampling);
};

/// The time since the system's start, including sleep, in units of 100 ns.
std::uint64_t TimeSinceStart();

namespace detail {

WmiStatus GatherPerformance(const PerfClass& perfClass, PerfHistory* history, const Gathering& gathering);

template <const PerfClass& perfClass>
WmiStatus GatherRaw(const Gathering& gathering) {
    return GatherPerformance(perfClass, nullptr, gathering);
}

template <const PerfClass& perfClass>
WmiStatus GatherFormatted(const Gathering& gathering) {
    static PerfHistory& history = *new PerfHistory;  // a query that is stuck may outlive the program's statics
    return GatherPerformance(perfClass, &history, gathering);
}

/// The classes of a family, and what they refer to.
struct PerfDeclaration {
    std::vector<ClassInfo> classes;
    std::deque<std::u16string> names;
    std::deque<std::string> meanings;
    std::deque<std::vector<PropertyInfo>> tables;

    void Add(const PerfClass& perfClass, GatherRoutine raw, GatherRoutine formatted);
    std::span<const PropertyInfo> AddTable(const PerfClass& perfClass, bool isRaw);
};

}  // namespace detail

/// Both classes of each of these, made at the first call.
template <const PerfClass&... perfClasses>
std::span<const ClassInfo> DeclarePerfClasses() {
    static const detail::PerfDeclaration& declaration = *[] {
        auto* made = new detail::PerfDeclaration;
        (made->Add(perfClasses, detail::GatherRaw<perfClasses>, detail::GatherFormatted<perfClasses>), ...);
        return made;
    }();
    return declaration.classes;
}

}  // namespace kv::wql
