// Result codes of the zip writer and reader, each with its text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

using ZipResult = std::uint32_t;

// clang-format off
#define KV_ZIP_RESULTS(X)                                                               \
    X(ok,                 0x0,       "Success")                                         \
    X(noDuplicateHandle,  0x100,     "Culdn't duplicate handle")                        \
    X(noFile,             0x200,     "Couldn't create/open file")                       \
    X(noMemory,           0x300,     "Failed to allocate memory")                       \
    X(writeFailed,        0x400,     "Error writing to file")                           \
    X(notFound,           0x500,     "File not found in the zipfile")                   \
    X(moreData,           0x600,     "Still more data to unzip")                        \
    X(corrupt,            0x700,     "Zipfile is corrupt or not a zipfile")             \
    X(readFailed,         0x800,     "Error reading file")                              \
    X(badArguments,       0x10000,   "Caller: faulty arguments")                        \
    X(notMemory,          0x20000,   "Caller: can only get memory of a memory zipfile") \
    X(memoryTooSmall,     0x30000,   "Caller: not enough space allocated for memory zipfile") \
    X(previousError,      0x40000,   "Caller: there was a previous error")              \
    X(alreadyEnded,       0x50000,   "Caller: additions to the zip have already been ended") \
    X(sizeMismatch,       0x60000,   "Zip-bug: the anticipated size turned out wrong")  \
    X(partlyUnzipped,     0x70000,   "Caller: the file had already been partially unzipped") \
    X(wrongKind,          0x80000,   "Caller: mixing creation and opening of zip")      \
    X(notInitialised,     0x1000000, "Zip-bug: internal initialisation not completed")  \
    X(unseekable,         0x2000000, "Zip-bug: trying to seek the unseekable")          \
    X(changedMind,        0x4000000, "Zip-bug: tried to change mind, but not allowed")  \
    X(flateFailed,        0x5000000, "Zip-bug: an internal error during flation")
// clang-format on

namespace zip_result {
#define KV_DECLARE_ZIP_RESULT(name, number, text) inline constexpr ZipResult name = number;
KV_ZIP_RESULTS(KV_DECLARE_ZIP_RESULT)
#undef KV_DECLARE_ZIP_RESULT

/// Only from the reader; it has no text of its own.
inline constexpr ZipResult wrongPassword = 0x1000;
}  // namespace zip_result

/// The text of a code; a fixed one when the code is not known.
const char* ZipResultText(ZipResult code);

}  // namespace kv
