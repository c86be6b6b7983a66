// Open files and searches that end with their scope. Each belongs to one thread.
#pragma once

#include <string_view>
#include <utility>

#include "platform/files.h"

namespace kv {

/// An open file, closed at the end of its life at the latest.
struct OpenFile {
    platform::FileHandle handle = 0;

    OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { Close(); }

    [[nodiscard]] platform::Error Open(std::u16string_view path, platform::FileAccess access, platform::FileShare share,
                                       platform::FileDisposition disposition) {
        return platform::Files().CreateFileW(path, access, share, disposition, handle);
    }

    /// Success when there is nothing to close.
    platform::Error Close() {
        const platform::FileHandle closing = std::exchange(handle, 0);
        return closing == 0 ? platform::error::success : platform::Files().CloseHandle(closing);
    }
};

/// A search for names that match a pattern:
///     for (FileSearch search(pattern); search.hasFile(); search.Next()) use(search.file);
/// After its last file error is noMoreFiles, or why the search ended early.
struct FileSearch {
    platform::FindData file;  // the present one, while hasFile
    platform::Error error = platform::error::success;

    explicit FileSearch(std::u16string_view pattern) {
        error = platform::Files().FindFirstFileW(pattern, file, handle_);
    }
    FileSearch(const FileSearch&) = delete;
    FileSearch& operator=(const FileSearch&) = delete;
    ~FileSearch() {
        if (handle_ != 0) platform::Files().FindClose(handle_);
    }

    [[nodiscard]] bool hasFile() const { return error == platform::error::success; }
    void Next() { error = platform::Files().FindNextFileW(handle_, file); }

  private:
    platform::FindHandle handle_ = 0;
};

}  // namespace kv
