// One WQL query from start to end: a record's, or a request's that tries one out.
#pragma once

#include <optional>
#include <string>

#include "foundation/text.h"
#include "foundation/vector.h"

namespace kv {

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
