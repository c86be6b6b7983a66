// What the writer and the reader of zip archives hand out.
#pragma once

namespace kv {

/// What a zip handle is for.
enum class ZipKind { reader = 1, writer = 2 };

struct ZipHandleRecord {
    ZipKind kind;
    void* object;
};

/// An archive being written or read; freed by CloseZip or CloseUnzip. Null is none.
using ZipHandle = ZipHandleRecord*;

}  // namespace kv
