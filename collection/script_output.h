// Brings what a script has printed to the encoding of a record file, UTF-16LE without byte order mark, block by block:
// a converter holds a few bytes and no more, whatever the length of the output. Does no input or output of its own.
#pragma once

#include <string>
#include <string_view>

#include "platform/process.h"

namespace kv {

struct ScriptOutputConverter {
    platform::ScriptOutputEncoding encoding = platform::ScriptOutputEncoding::utf8;
    std::string pending;  // the cut end of the last block, at most 3 bytes
    bool atStart = true;  // nothing has come out yet: a byte order mark may still come
};

/// Converts the next block and appends the result to utf16. UTF-8 that is ill-formed becomes U+FFFD; a sequence that
/// the block's end cuts waits for the next block. A leading byte order mark is dropped.
void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16);

/// Ends the output: a sequence still cut becomes U+FFFD.
void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16);

}  // namespace kv
