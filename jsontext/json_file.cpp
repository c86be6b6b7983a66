#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "jsontext/hash_json.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

/// The text of a file's bytes; false, with the reason, when they are in no form that is read.
bool TextOfFile(std::string_view bytes, std::u16string& text, std::string& reason) {
    using namespace std::string_view_literals;
    if (bytes.starts_with("\xFF\xFE"sv)) {
        text = TextFromUtf16LittleEndian(bytes.substr(2));
        return true;
    }
    if (bytes.starts_with("\xFE\xFF"sv)) {
        reason = "the file is UTF-16 with the high byte first; UTF-16LE or UTF-8 is expected";
        return false;
    }
    const bool marked = bytes.starts_with("\xEF\xBB\xBF"sv);
    // Every JSON document in UTF-16 has zero bytes, those of its braces at least.
    if (!marked && bytes.find('\0') != std::string_view::npos) {
        text = TextFromUtf16LittleEndian(bytes);
        return true;
    }
    if (marked) bytes.remove_prefix(3);
    if (!platform::IsValidUtf8(bytes)) {
        reason = "the file is neither UTF-16LE nor UTF-8";
        return false;
    }
    text = platform::WideFromUtf8(bytes);
    return true;
}

JsonReadResult FileFailure(std::string message) { return {.ok = false, .message = std::move(message)}; }

void EndLinesInLineFeeds(std::u16string& text) {
    std::size_t kept = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isPairsFirst = text[at] == u'\r' && at + 1 < text.size() && text[at + 1] == u'\n';
        if (!isPairsFirst) text[kept++] = text[at];
    }
    text.resize(kept);
}

JsonReadResult DocumentOfFile(HashTable* table, const std::string& name, std::string_view bytes) {
    std::u16string text;
    std::string reason;
    if (!TextOfFile(bytes, text, reason)) return FileFailure(name + ": " + reason);
    EndLinesInLineFeeds(text);
    JsonReadResult result = JSONTextToHash(table, text);
    if (!result.message.empty()) result.message = name + ": " + result.message;
    return result;
}

}  // namespace

JsonReadResult JSONFileToHash(HashTable* table, std::u16string_view fileName) {
    Log4("\t Inside JSONFileToHash() \n");
    const std::string name = platform::Utf8FromWide(fileName);
    std::string bytes;
    if (const platform::Error error = ReadWholeFile(fileName, bytes)) {
        const std::string words = platform::MessageInLine(error);
        static_cast<void>(
            std::fprintf(stderr, "json_object_from_file: error reading file %s: %s\n", name.c_str(), words.c_str()));
        return FileFailure(name + ": " + words + " (error " + std::to_string(error) + ")");
    }
    try {
        return DocumentOfFile(table, name, bytes);
    } catch (const std::bad_alloc&) {
        return FileFailure(name + ": the document is too large for the memory");
    }
}

}  // namespace kv
