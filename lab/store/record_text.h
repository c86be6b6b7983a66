// The text of a record in its forms: as it comes in a zip, as a tree, as one line for a terminal, as part of a JSON
// answer.
#pragma once

#include <cstdint>
#include <json-c/json.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store/store.h"
#include "platform/owned_handle.h"

namespace kv::lab {

using Json = std::unique_ptr<json_object, platform::ReleasedBy<json_object_put>>;

struct ParsedJson {
    bool valid = false;
    bool tooLarge = false;  // it is JSON, and has more values than are read
    Json value;             // null stands for JSON's null
};

/// The deepest nesting of a document.
inline constexpr int maxJsonDepth = 100;

/// The most values of a document that is read. An empty object takes about 800 bytes of memory and two of text.
inline constexpr std::size_t maxJsonValues = 500'000;

/// Whether a text is one document by the strict rules that is not nested more deeply, of any size.
bool IsJson(std::string_view text);

/// Parses one document by the strict rules, with white space around it allowed. Not valid if it is nested more deeply.
ParsedJson ParseJson(std::string_view text);

/// A text as a JSON value, owned by the caller.
json_object* JsonText(std::string_view text);

/// A document's text without blanks. Slashes are not escaped.
std::string PlainJson(json_object* document);

/// A record file's bytes (UTF-16LE) as UTF-8; what is not valid text, and NUL, becomes U+FFFD. Says whether it is JSON.
RecordText DecodeRecord(const std::string& file, std::string_view bytes);

/// UTF-8 with each ill-formed sequence, and NUL, replaced by U+FFFD.
std::string CleanUtf8(std::string_view text);

/// A text without control characters, each of which becomes a blank: it stays on one line and cannot steer a terminal.
std::string OneLine(std::string_view text);

/// A file's name without its folders.
std::string BaseName(std::string_view path);

/// "2026-03-05 09:05:07Z" from milliseconds since 1970.
std::string UtcText(std::int64_t time);

/// Number, agent, zip, record file, time and values with tabs between, without a line end.
std::string RecordLine(const Record& record);

}  // namespace kv::lab
