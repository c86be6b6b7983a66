#include "lab/store/record_text.h"

#include <algorithm>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include "foundation/file_utils.h"
#include "jsontext/strict_json.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr std::string_view whiteSpace = " \t\r\n";

/// NUL, which databases and terminals take for the end of a text, becomes U+FFFD as what is not valid does.
std::string GoodUtf8(std::u16string wide) {
    std::replace(wide.begin(), wide.end(), u'\0', u'\xFFFD');
    return platform::Utf8FromWide(wide);
}

}  // namespace

bool IsJson(std::string_view text) {
    const JsonShape shape = ShapeOf(text);
    return shape.fault.empty() && shape.depth <= std::size_t{maxJsonDepth};
}

ParsedJson ParseJson(std::string_view text) {
    const std::size_t start = text.find_first_not_of(whiteSpace);
    if (start == std::string_view::npos) return {};
    const std::string document(text.substr(start, text.find_last_not_of(whiteSpace) + 1 - start));
    // json-c takes more than JSON where it is not strict, and where it is, its version 0.18 takes ASCII alone.
    const JsonShape shape = ShapeOf(document);
    if (!shape.fault.empty() || shape.depth > std::size_t{maxJsonDepth}) return {};
    if (shape.values > maxJsonValues) return {false, true, nullptr};
    const std::unique_ptr<json_tokener, platform::ReleasedBy<json_tokener_free>> tokener(
        json_tokener_new_ex(maxJsonDepth));
    // The closing NUL is read, too: without it a bare number would count as unfinished.
    Json value(json_tokener_parse_ex(tokener.get(), document.c_str(), -1));
    if (json_tokener_get_error(tokener.get()) != json_tokener_success) return {};
    return {true, false, std::move(value)};
}

json_object* JsonText(std::string_view text) {
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

std::string PlainJson(json_object* document) {
    return json_object_to_json_string_ext(document, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

RecordText DecodeRecord(const std::string& file, std::string_view bytes) {
    std::u16string wide = TextFromUtf16LittleEndian(bytes);
    if (bytes.size() % 2 != 0) wide += u'\xFFFD';
    std::string text = GoodUtf8(std::move(wide));
    const bool isJson = IsJson(text);
    return {file, std::move(text), isJson};
}

std::string CleanUtf8(std::string_view text) { return GoodUtf8(platform::WideFromUtf8(text)); }

std::string OneLine(std::string_view text) {
    std::string line;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        // U+0080 to U+009F are control characters too: C2 and a byte below A0.
        const bool wideControl =
            byte == 0xC2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        if (wideControl) ++at;
        line += byte < 0x20 || byte == 0x7F || wideControl ? ' ' : text[at];
    }
    return line;
}

std::string BaseName(std::string_view path) { return std::string(path.substr(path.find_last_of("/\\") + 1)); }

std::string UtcText(std::int64_t time) {
    return fmt::format("{:%Y-%m-%d %H:%M:%S}Z", fmt::gmtime(static_cast<std::time_t>(time / 1000)));
}

std::string RecordLine(const Record& record) {
    std::string values = record.content.text;
    if (record.content.isJson) {
        const ParsedJson parsed = ParseJson(values);
        if (parsed.valid) values = PlainJson(parsed.value.get());
    }
    return fmt::format("{}\t{}\t{}\t{}\t{}\t{}", record.number, OneLine(record.agent), OneLine(record.zip),
                       OneLine(BaseName(record.content.file)), UtcText(record.time), OneLine(values));
}

}  // namespace kv::lab
