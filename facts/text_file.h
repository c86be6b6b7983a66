// A text as a file, for libraries that parse files only.
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>

namespace kv::facts {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Opens a text for reading. It has to stay where it is until the file is closed. Throws std::system_error.
inline File OpenText(std::string_view text) {
    static char nothing = 0;  // an empty text may have no address
    char* const start = text.empty() ? &nothing : const_cast<char*>(text.data());
    File file(fmemopen(start, text.size(), "r"));
    if (!file) throw std::system_error(errno, std::generic_category(), "fmemopen");
    return file;
}

}  // namespace kv::facts
