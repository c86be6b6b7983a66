// What numeric values mean: their unit, whether they only grow, and how they read. Known are properties of WMI classes,
// names that end as scripts and WMI end them, and OIDs of common MIBs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kv::lab {

enum class Unit { none, bytes, percent, seconds, hertz, bitsPerSecond, perSecond, bytesPerSecond };

enum class ValueKind {
    gauge,    // goes up and down: shown as it is
    counter,  // only grows until it begins again: shown as its rate in one second
};

struct Meaning {
    Unit unit = Unit::none;  // of a counter's rate: bytesPerSecond or perSecond
    ValueKind kind = ValueKind::gauge;
    double factor = 1;     // what a number is multiplied with to be in the unit
    int counterBits = 64;  // after which a counter begins again
};

/// The meaning of a member of a series: of its property, which is its last word, or of its OID.
Meaning MeaningOf(std::string_view member);

/// A member for people: an OID that is known by its name, "ifInOctets 2" for .1.3.6.1.2.1.2.2.1.10.2.
std::string MemberTitle(std::string_view member);

/// The property of a member, and what stands before it: "FreeSpace" and "/" of "/ FreeSpace". An OID is a property.
struct MemberParts {
    std::string_view row;
    std::string_view property;
};
MemberParts SplitMember(std::string_view member);

/// A member for people in its parts: "ifInOctets" and "2", "FreeSpace" and "/". Of rows with one key the second is
/// "eth0 #2".
struct ShownMember {
    std::string row;
    std::string property;
};
ShownMember ShowMember(std::string_view member);

/// What is expected of a value before its numbers tell.
enum class Course {
    moves,    // percents, rates, what is free or used
    unknown,  // anything else
    stands,   // totals, sizes, limits, and numbers that name something
};
Course UsualCourse(std::string_view member);

/// A stored number in its unit; a counter's as it is. Agents write a 64-bit counter from 2^63 on with a sign.
double MeantNumber(double number, const Meaning& meaning);

/// A number in its unit for people: "75.7 GB", "12 %", "3 h 20 min", "112,159". More digits than usual: "75.66 GB".
std::string ValueText(double number, Unit unit, int moreDigits = 0);

/// The same, short enough for an axis.
std::string AxisText(double number, Unit unit, int moreDigits = 0);

/// The texts of numbers that stand together, by ValueText or AxisText: with so many digits, all alike, that numbers
/// that differ read differently.
std::vector<std::string> DistinctTexts(const std::vector<double>& numbers, Unit unit,
                                       std::string (*text)(double, Unit, int));

/// "bytes", "percent" and so on, empty for Unit::none: for tables and tools.
std::string_view UnitName(Unit unit);

}  // namespace kv::lab
