// One WQL query from start to end: a record's, or a request's that tries one out.
#pragma once

#include <string>

#include "foundation/text.h"
#include "foundation/vector.h"

namespace kv {

/// Runs one query in a namespace (none: ROOT\CIMV2) and appends one table for each object that it gives to rows, which
/// stays the caller's: the object's properties, the system's own left out, as texts in the order of their enumeration.
///
/// "NO ERROR", or the text of FormatWMIError for the step that failed; the rows got before it stay. A
/// query that matches nothing is no error. Without a query nothing is touched, and the text is "wmiQuery is NULL".
///
/// COM is set up on the calling thread and torn down again; nothing is kept between calls, which may run on several
/// threads at once.
std::u16string WMIFunction(const OptionalText& nameSpace, const OptionalText& wmiQuery, Vector* rows);

}  // namespace kv
