// Brings what a script has printed to the encoding of a record file, UTF-16LE without byte order mark, block by block:
// a converter holds a line's beginning and no more, whatever the length of the output. Does no input or output of its
// own.
#pragma once

#include <string>
#include <string_view>

#include "platform/process.h"

namespace kv {

struct ScriptOutputConverter {
    platform::ScriptOutputEncoding encoding = platform::ScriptOutputEncoding::utf8;  // unless its first bytes differ
    std::string pending;   // the cut end of the last block, at most 64 KiB
    bool isBegun = false;  // the first bytes have been looked at
    bool atStart = true;   // nothing has come out yet: a byte order mark may still come
};

/// Converts the next block and appends the result to utf16. Output that begins with FF FE, or whose second and fourth
/// byte alone are zero, is UTF-16LE whatever was expected; else a line is UTF-8 or, where it is not well-formed, in the
/// console's code page (WideFromConsoleBytes), and so is each piece of a line of more than 64 KiB. A line or character
/// that the block's end cuts waits for the next block. A leading byte order mark is dropped.
void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16);

/// Ends the output: half a unit becomes U+FFFD.
void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16);

}  // namespace kv
