// A record's values as HTML. All that comes from outside is escaped, and large values are shown only in part.
#pragma once

#include <fmt/format.h>
#include <iterator>
#include <json-c/json.h>
#include <string>
#include <string_view>
#include <utility>

namespace kv::lab {

/// Appends the program's own HTML. The arguments are not escaped.
template <class... Arguments>
void Add(std::string& html, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(html), format, std::forward<Arguments>(arguments)...);
}

/// A text whose characters with a meaning in HTML, and control characters, are replaced.
std::string Escape(std::string_view text);

/// The start of a UTF-8 text, at most maxBytes, that ends with a whole character.
std::string_view StartOfText(std::string_view text, std::size_t maxBytes);

/// Appends a text, or its start and how much is missing.
void AddText(std::string& html, std::string_view text);

/// Appends a JSON value: an array of objects as a table with a row for each, any other object as a table with a row for
/// each member. depth is that of the value within its document, from 0.
void AddValue(std::string& html, json_object* value, int depth);

/// What else is known of a document.
struct DocumentContext {
    std::string requestId = {};  // of the request that it answers, which may name a member; empty for a record
    std::string plotQuery = {};  // for the plots of its numbers, encoded; empty when they have no plots
};

/// Appends the members of a record or an answer, which is an object: plain ones on a line, each other one below its
/// name. For a polled SNMP device there is a heading with its policy, or else its OIDs, and its status, and one table
/// with its values. A number of a known unit has it beside it, and a known OID its name.
void AddMembers(std::string& html, json_object* document, const DocumentContext& context);

}  // namespace kv::lab
