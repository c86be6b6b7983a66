// What the writer and the reader of zip archives hand out.
#pragma once

#include "zip/zip_result.h"

namespace kv {

/// What a zip handle is for.
enum class ZipKind { reader = 1, writer = 2 };

struct ZipHandleRecord {
    ZipKind kind;
    void* object;
};

/// An archive that is being written or read; CloseZip or CloseUnzip frees it. Null when there is no archive.
using ZipHandle = ZipHandleRecord*;

/// The object behind a handle of one kind; null with the reason for a null handle or one of the other kind.
template <class Object>
Object* ObjectOf(ZipHandle zip, ZipKind kind, ZipResult& result) {
    result = zip == nullptr ? zip_result::badArguments : zip->kind != kind ? zip_result::wrongKind : zip_result::ok;
    return result == zip_result::ok ? static_cast<Object*>(zip->object) : nullptr;
}

}  // namespace kv
