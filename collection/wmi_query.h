// One WQL query from start to end: a record's, or a request's that tries one out.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/text.h"
#include "foundation/vector.h"
#include "platform/wmi.h"

namespace kv {

/// How a query ended.
struct WmiOutcome {
    platform::WmiStatus status = platform::wmi_status::ok;
    std::u16string_view text = {};  // of a failure: what FormatWMIError is to say about it; as long as the query's text
    std::u16string refusal = {};    // what is wrong with a query that is refused, as far as the system tells
    std::vector<std::u16string> notices = {};  // such as that a part of the system was left out
};

/// Takes an object, which is valid until this returns.
using WmiObjectSink = std::function<void(platform::WmiHandle object)>;

/// Takes one property of an object.
using WmiPropertySink = std::function<void(const std::u16string& name, const platform::Variant& value)>;

/// Runs one query on the calling thread and hands over each object that it gives. Objects that came before a failure
/// were handed over. What went wrong, and what was left out, is logged. May throw what the sink throws, and
/// std::bad_alloc.
WmiOutcome RunWmiQuery(std::u16string_view nameSpace, std::u16string_view query, const WmiObjectSink& take);

/// Hands over the properties of an object, without the system's own, in the order of their enumeration. False with a
/// log line when they cannot be had.
bool TakeProperties(platform::WmiHandle object, const WmiPropertySink& take);

/// Runs one query in a namespace (null: ROOT\CIMV2). For each object that it gives one table is appended to rows, which
/// stays the caller's: the object's properties, without the system's own, as texts in the order of their enumeration.
///
/// Gives "NO ERROR", or the text of FormatWMIError for the step that failed; rows that came before it stay. A query
/// that matches nothing is not an error. Without a query nothing is touched, and the text is "wmiQuery is NULL".
///
/// COM is set up on the calling thread and torn down again. Nothing is kept between calls, which may run on several
/// threads at once.
std::u16string WMIFunction(const OptionalText& nameSpace, const OptionalText& wmiQuery, Vector* rows);

/// What is wrong with a query, found without running it, as a text for people; empty when nothing is. Absent on a
/// system where only a run tells, as far as the namespace can be opened. COM is used as by WMIFunction.
std::optional<std::u16string> WMIQueryFault(const OptionalText& nameSpace, std::u16string_view wmiQuery);

}  // namespace kv
