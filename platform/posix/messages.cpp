#include "platform/posix/posix.h"
#include "platform/utf.h"

namespace platform {

namespace {

std::optional<std::u16string> FormatMessageW(Error code) {
    switch (code) {
#define KV_GIVE_TEXT(name, number, text) \
    case number:                         \
        return WideFromUtf8(text);
        KV_SYSTEM_ERRORS(KV_GIVE_TEXT)
#undef KV_GIVE_TEXT
        default:
            return std::nullopt;
    }
}

}  // namespace

MessageOperations PosixMessages() { return {.FormatMessageW = FormatMessageW}; }

}  // namespace platform
