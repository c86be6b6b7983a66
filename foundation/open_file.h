// Open files and searches that end with their scope. Each belongs to one thread.
#pragma once

#include <string_view>
#include <utility>

#include "platform/files.h"

namespace kv {

/// A file that is open or not; closed at the end of its life at the latest.
struct OpenFile {
    platform::FileHandle handle = 0;  // 0 while no file is open

    OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { Close(); }

    /// Success, or the system's error. No file is open before.
    [[nodiscard]] platform::Error Open(std::u16string_view path, platform::FileAccess access, platform::FileShare share,
                                       platform::FileDisposition disposition) {
        return platform::Files().CreateFileW(path, access, share, disposition, handle);
    }

    /// Success, also when there is nothing to close, or the system's error: the handle is gone all the same.
    platform::Error Close() {
        const platform::FileHandle closing = std::exchange(handle, 0);
        return closing == 0 ? platform::error::success : platform::Files().CloseHandle(closing);
    }
};

/// A search for names that match a pattern:
///     for (FileSearch search(pattern); search.hasFile(); search.Next()) use(search.file);
/// After the last file, error is noMoreFiles, or says why the search ended early.
struct FileSearch {
    platform::FindData file;  // the present one, while hasFile()
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
    /// Goes on to the next file; only while hasFile().
    void Next() { error = platform::Files().FindNextFileW(handle_, file); }

  private:
    platform::FindHandle handle_ = 0;
};

}  // namespace kv
