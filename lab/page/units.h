// What numeric values mean: their unit, whether they only grow, and how they read. Known are properties of WMI classes,
// names that end as scripts and WMI end them, and OIDs of common MIBs.
#pragma once

#include <string>
#include <string_view>

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

/// A stored number in its unit; a counter's as it is. Agents write a 64-bit counter from 2^63 on with a sign.
double MeantNumber(double number, const Meaning& meaning);

/// A number in its unit for people: "75.7 GB", "12 %", "3 h 20 min", "112,159".
std::string ValueText(double number, Unit unit);

/// The same, short enough for an axis.
std::string AxisText(double number, Unit unit);

/// "bytes", "percent" and so on, empty for Unit::none: for tables and tools.
std::string_view UnitName(Unit unit);

}  // namespace kv::lab
