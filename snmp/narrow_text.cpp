#include "snmp/narrow_text.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

std::string_view BufferBytes(const char* buffer, std::int32_t length) {
    return buffer && length > 0 ? std::string_view(buffer, static_cast<std::size_t>(length)) : std::string_view();
}

/// A copy of a token; null with a line when memory ran out.
char* TokenCopy(std::string_view token) {
    char* copy = new (std::nothrow) char[token.size() + 1];
    if (!copy) {
        TKLOG(1, "Memory allocation failed for retStr[i]\n");
        return nullptr;
    }
    copy[token.copy(copy, token.size())] = '\0';
    return copy;
}

/// Fills in the tokens and their lengths; false when memory ran out.
bool CopyTokens(std::string_view text, char delimiter, char** tokens, std::int32_t* lengths, std::int32_t count) {
    for (std::int32_t i = 0; i < count; ++i) {
        bool ended = false;
        lengths[i] = TokenLength(text.data(), static_cast<std::int32_t>(text.size()), delimiter, &ended);
        const auto size = static_cast<std::size_t>(lengths[i]);
        tokens[i] = TokenCopy(text.substr(0, size));
        if (!tokens[i]) return false;
        text.remove_prefix(size + (ended ? 1 : 0));
    }
    return true;
}

}  // namespace

std::int32_t TextLength(const char* text) { return text ? static_cast<std::int32_t>(std::strlen(text)) : 0; }

char* CopyText(char* target, const char* source) {
    if (!source) return nullptr;
    CopyBytes(target, source, TextLength(source) + 1);
    return target;
}

std::int8_t CompareText(const char* a, const char* b) {
    if (!a || !b) return static_cast<std::int8_t>((a ? 1 : 0) - (b ? 1 : 0));
    for (; *a != '\0' && *a == *b; ++a) ++b;
    return static_cast<std::int8_t>(*a - *b);
}

void CopyBytes(void* target, const void* source, std::int32_t count) {
    if (target && source && count > 0) std::memcpy(target, source, static_cast<std::size_t>(count));
}

const char* FindCharacter(const char* text, char character) { return text ? std::strchr(text, character) : nullptr; }

int AllocateAndCopyString(NarrowText& target, const char* text) {
    target.reset();
    if (!text) return 1;
    target.reset(new (std::nothrow) char[static_cast<std::size_t>(TextLength(text)) + 1]);
    if (!target) {
        TKLOG(1, "Memory allocation failed for *dest\n");
        return 99;
    }
    CopyText(target.get(), text);
    return 1;
}

std::int32_t CountDelimiters(const char* buffer, std::int32_t length, char delimiter) {
    const std::string_view bytes = BufferBytes(buffer, length);
    return static_cast<std::int32_t>(std::count(bytes.begin(), bytes.end(), delimiter));
}

std::int32_t TokenLength(const char* buffer, std::int32_t length, char delimiter, bool* ended) {
    const std::string_view bytes = BufferBytes(buffer, length);
    const std::size_t end = bytes.find(delimiter);
    *ended = end != bytes.npos;
    return static_cast<std::int32_t>(*ended ? end : bytes.size());
}

char ParseDelimiter(const char* buffer, std::int32_t length) {
    const std::string_view bytes = BufferBytes(buffer, length);
    const std::size_t at = bytes.find_first_of(" \t\r\v");
    return at == bytes.npos ? '\0' : bytes[at];
}

char** SplitString(const char* text, std::int32_t length, char delimiter, std::int32_t* count,
                   std::unique_ptr<std::int32_t[]>& lengths) {
    TKLOG(3, "\t Inside SplitString() \n");
    *count = 0;
    lengths.reset();
    if (!text) return nullptr;
    const std::int32_t tokens = CountDelimiters(text, length, delimiter) + 1;
    const auto room = static_cast<std::size_t>(tokens);
    char** array = new (std::nothrow) char* [room] {};
    if (!array) {
        TKLOG(1, "Memory allocation failure for retStr\n");
        return nullptr;
    }
    lengths.reset(new (std::nothrow) std::int32_t[room]{});
    if (!lengths) TKLOG(1, "Memory allocation failed for *retStrLen\n");
    if (!lengths || !CopyTokens(BufferBytes(text, length), delimiter, array, lengths.get(), tokens)) {
        FreeStringArray(array, tokens);
        return nullptr;
    }
    *count = tokens;
    return array;
}

void FreeStringArray(char** array, std::int32_t count) {
    for (std::int32_t i = 0; array && i < count; ++i) delete[] array[i];
    delete[] array;
}

}  // namespace kv::snmp
