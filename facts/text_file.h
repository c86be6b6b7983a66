// A text as a file, for libraries that only parse files.
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>

#include "platform/owned_handle.h"

namespace kv::facts {

using File = std::unique_ptr<std::FILE, platform::ReleasedBy<std::fclose>>;

/// Opens a text for reading. The text must stay in place until the file is closed. Throws std::system_error when the
/// file cannot be opened, as when memory runs out.
inline File OpenText(std::string_view text) {
    static char nothing = 0;  // an empty text may have no address
    char* const start = text.empty() ? &nothing : const_cast<char*>(text.data());
    File file(fmemopen(start, text.size(), "r"));
    if (!file) throw std::system_error(errno, std::generic_category(), "fmemopen");
    return file;
}

}  // namespace kv::facts
