#include <cstdio>
#include <fmt/format.h>
#include <functional>
#include <new>
#include <numeric>
#include <string>
#include <utility>

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

/// A character takes one or two bytes in most documents, in UTF-16 always two. A mark takes two more.
constexpr std::uint64_t largestFile = 2 * std::uint64_t{largestJsonDocument} + 2;

constexpr const char* tooLarge = "the document is larger than 35 million characters";

/// How many 16-bit units a UTF-8 text gives.
std::size_t UnitsOfUtf8(std::string_view bytes) {
    const auto units = [](char byte) { return ((byte & 0xC0) == 0x80 ? 0 : 1) + ((byte & 0xF8) == 0xF0 ? 1 : 0); };
    return std::transform_reduce(bytes.begin(), bytes.end(), std::size_t{0}, std::plus<>(), units);
}

/// The text of a file's bytes; false, with the reason, when their encoding is not read.
bool DecodeFile(std::string_view bytes, std::u16string& text, std::string& reason) {
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
    // Every JSON document in UTF-16 has zero bytes, those of its braces at least, and begins with an ASCII character.
    const std::size_t zero = marked ? std::string_view::npos : bytes.find('\0');
    if (zero != std::string_view::npos && zero > 1) {
        reason = fmt::format("the file has a NUL character at offset {}", zero);
        return false;
    }
    if (zero != std::string_view::npos) {
        text = TextFromUtf16LittleEndian(bytes);
        return true;
    }
    if (marked) bytes.remove_prefix(3);
    if (UnitsOfUtf8(bytes) > largestJsonDocument) {
        reason = tooLarge;
        return false;
    }
    if (!platform::IsValidUtf8(bytes)) {
        reason = "the file is neither UTF-16LE nor UTF-8";
        return false;
    }
    text = platform::WideFromUtf8(bytes);
    return true;
}

JsonReadResult FileFailure(std::string message, platform::Error error = platform::error::success) {
    return {.ok = false, .message = std::move(message), .fileError = error};
}

void FoldLineEnds(std::u16string& text) {
    std::size_t kept = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isPairsFirst = text[at] == u'\r' && at + 1 < text.size() && text[at + 1] == u'\n';
        if (!isPairsFirst) text[kept++] = text[at];
    }
    text.resize(kept);
}

JsonReadResult ReadDocument(HashTable* table, const std::string& name, std::string bytes, KeyFilter isRepetitionTold) {
    std::u16string text;
    std::string reason;
    if (!DecodeFile(bytes, text, reason)) return FileFailure(name + ": " + reason);
    bytes = {};
    FoldLineEnds(text);
    JsonReadResult result = JSONTextToHash(table, text, isRepetitionTold);
    if (!result.message.empty()) result.message = name + ": " + result.message;
    return result;
}

/// The whole path of a file, for who reads standard error and does not know the working directory.
std::string WholeName(std::u16string_view fileName) {
    std::u16string path(fileName);
    std::u16string directory;
    if (!IsWholePath(path) && platform::Files().wgetcwd(directory) == 0) path = directory + u"\\" + path;
    return platform::Utf8FromWide(platform::Files().NativePath(path));
}

}  // namespace

JsonReadResult JSONFileToHash(HashTable* table, std::u16string_view fileName, KeyFilter isRepetitionTold) {
    Log4("\t Inside JSONFileToHash() \n");
    const std::string name = platform::Utf8FromWide(fileName);
    std::string bytes;
    const platform::Error error = ReadWholeFile(fileName, bytes, largestFile);
    if (error == platform::error::moreData) return FileFailure(name + ": " + tooLarge);
    if (error != platform::error::success) {
        const std::string words = platform::MessageInLine(error);
        static_cast<void>(std::fprintf(stderr, "json_object_from_file: error reading file %s: %s\n",
                                       WholeName(fileName).c_str(), words.c_str()));
        return FileFailure(name + ": " + words + " (error " + std::to_string(error) + ")", error);
    }
    const std::size_t size = bytes.size();
    try {
        JsonReadResult result = ReadDocument(table, name, std::move(bytes), isRepetitionTold);
        platform::ReleaseFreeMemoryAfter(size);
        return result;
    } catch (const std::bad_alloc&) {
        return FileFailure(name + ": the document is too large for the memory");
    }
}

}  // namespace kv
