// How a class is declared: a table with a row for each property, and one routine that gathers its objects.
//
// A class's gather reads the system and hands over one row record for each object. A property's read takes the value
// from such a record, and is called only if the query asks for the property. Its needs name the parts of the record
// that it reads, so that gather fills only those. Each class numbers its own needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "wql/cim_value.h"

namespace kv::wql {

namespace detail {

template <class Routine>
struct RowOfRoutine;
template <class Routine, class Value, class Row>
struct RowOfRoutine<Value (Routine::*)(const Row&) const> {
    using Type = Row;
};

}  // namespace detail

struct PropertyInfo {
    std::u16string_view name;
    CimType type = CimType::string;
    std::uint32_t needs = 0;   // bits; what gather must fill in
    std::string_view meaning;  // for readers of the table: unit and source; empty if Linux has no such value
    CimValue (*read)(const void* row, const PropertyInfo& property) = nullptr;  // null: the value is always NULL
    std::size_t index = 0;                                                      // for classes whose rows are lists

    /// A property for which Linux has no value: always NULL.
    constexpr PropertyInfo(std::u16string_view propertyName, CimType propertyType)
        : name(propertyName), type(propertyType) {}

    /// A property whose value a stateless routine takes from the row record: [](const Row& row) { return row.x; }
    template <class Read>
    constexpr PropertyInfo(std::u16string_view propertyName, CimType propertyType, std::uint32_t needed,
                           std::string_view whatItMeans, Read)
        : name(propertyName), type(propertyType), needs(needed), meaning(whatItMeans) {
        using Row = typename detail::RowOfRoutine<decltype(&Read::operator())>::Type;
        read = [](const void* row, const PropertyInfo&) { return CimValue(Read{}(*static_cast<const Row*>(row))); };
    }
};

/// Which values of a property can match WHERE.
struct Restriction {
    std::u16string_view property;
    std::vector<CimValue> values;  // of the property's type
};

/// Between which values a property must lie to match WHERE. The ends may match or not.
struct Range {
    std::u16string_view property;
    CimValue lowest = {};   // NULL: no lower end; for a datetime, microseconds since 1970
    CimValue highest = {};  // NULL: no upper end; below lowest, nothing can match
};

/// What a condition leaves the properties. With it a class can read only the objects that may match. It need not: other
/// rows are dropped anyway.
struct Leeway {
    std::vector<Restriction> restrictions;
    std::vector<Range> ranges;

    /// The values that a property may have; null if it may have any.
    const std::vector<CimValue>* valuesOf(std::u16string_view property) const;

    /// The range that a property may be in; without ends if it may have any value. Numbers are as the query has them,
    /// with a fraction or beyond the property's type.
    Range rangeOf(std::u16string_view property) const;
};

/// One run of a class's gather.
struct Gathering {
    std::uint32_t needs = 0;           // of all properties that the query asks for, in SELECT or in WHERE
    Leeway leeway;                     // of WHERE as a whole
    std::vector<Leeway> alternatives;  // of each way in which WHERE may match; one if there are none or too many

    /// Takes one object; the record is read before this returns. False when no more objects are wanted.
    std::function<bool(const void* row)> row;

    std::size_t kept = 0;      // objects so far that match WHERE
    bool isOnlyClass = false;  // the query is for objects of this class only, not for those of a superclass

    /// Whether more objects are wanted: for a gather that may read long between two objects.
    std::function<bool()> wantsMore = [] { return true; };

    /// Takes a line for the log, UTF-8, such as that a mount was left out.
    std::function<void(std::string text)> notice;

    bool asksFor(std::uint32_t need) const { return (needs & need) != 0; }

    /// What WHERE as a whole leaves a property, as of Leeway.
    const std::vector<CimValue>* valuesOf(std::u16string_view property) const { return leeway.valuesOf(property); }
    Range rangeOf(std::u16string_view property) const { return leeway.rangeOf(property); }
};

/// Whether a query asks what the class demands of WHERE, told without reading anything: ok, or the failure with which
/// its gather would end, and a notice. Of the gathering only what WHERE leaves the properties and `notice` are used.
using DemandRoutine = WmiStatus (*)(const Gathering& gathering);

/// ok, even if there are no objects. A failure ends the query with that status, after the rows so far. An exception
/// ends it with wmi_status::failed and a notice.
using GatherRoutine = WmiStatus (*)(const Gathering& gathering);

struct ClassInfo {
    std::u16string_view name;
    std::u16string_view superclass;  // empty for a class without one
    std::span<const PropertyInfo>
        properties;                  // the inherited ones too, in ascending order of name without regard to case
    GatherRoutine gather = nullptr;  // null: an abstract class, whose objects are those of its subclasses
    std::u16string_view keys = {};   // the properties that tell its objects apart, with commas between them; empty for
                                     // an abstract class and for one that has a single object
    std::string_view meaning = {};   // one line for readers of the list of classes: what its objects are; empty for an
                                     // abstract class
    DemandRoutine demand = nullptr;  // null: every query will do
};

}  // namespace kv::wql
