#include "zip/zip_reader.h"

namespace kv {

void UnzipFiles(std::u16string_view /*zipPath*/, std::u16string_view /*directory*/) {}

}  // namespace kv
