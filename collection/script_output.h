// Converts what a script has printed to the encoding of a record file, UTF-16LE without byte order mark, block by
// block. Between blocks a converter holds only the line that the last block cut, up to 64 KiB, however long the output
// is. It reads and writes no file.
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

/// Converts the next block and appends the result to utf16. Output that begins with FF FE is UTF-16LE, whatever was
/// expected, and so is output of which bytes 2 and 4 are zero and bytes 1 and 3 are not. In any other, each line
/// is UTF-8 or, if it is not well-formed, in the console's code page (WideFromConsoleBytes); a line of more than 64 KiB
/// is judged in pieces. A line or character that the block's end cuts waits for the next block. A leading byte order
/// mark is dropped.
void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16);

/// Ends the output: half a unit becomes U+FFFD.
void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16);

}  // namespace kv
