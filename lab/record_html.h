// A record's values as HTML. All that comes from outside is escaped, and what is large is shown in part.
#pragma once

#include <fmt/format.h>
#include <iterator>
#include <json-c/json.h>
#include <string>
#include <string_view>
#include <utility>

namespace kv::lab {

/// Appends HTML of the program's own, with what stands in its placeholders as it is.
template <class... Arguments>
void Add(std::string& html, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(html), format, std::forward<Arguments>(arguments)...);
}

/// Text with the characters that HTML gives a meaning to replaced.
std::string Escape(std::string_view text);

/// The first bytes of a UTF-8 text, up to the end of a character.
std::string_view StartOfText(std::string_view text, std::size_t maxBytes);

/// A text, or its start and how much is missing.
void AddText(std::string& html, std::string_view text);

/// A JSON value: arrays of objects as a table with a row for each, other objects as one with a row for each member.
/// depth: of the value within its document, from 0.
void AddValue(std::string& html, json_object* value, int depth);

/// The members of a record or an answer, which is an object: plain ones on a line, the others each below its name. One
/// of a polled SNMP device has a heading with its policy, or else its OIDs, and its status, and its values in one
/// table.
void AddMembers(std::string& html, json_object* document);

}  // namespace kv::lab
