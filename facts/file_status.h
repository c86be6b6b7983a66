// What the system tells of a file without opening it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kv::facts {

enum class FileKind { regular, folder, characterDevice, blockDevice, pipe, socket, brokenLink };

/// By statx(2) and faccessat(2). Times in microseconds since 1970.
struct FileStatus {
    FileKind kind = FileKind::regular;
    std::uint64_t size = 0;      // bytes
    std::uint64_t diskSize = 0;  // bytes that it takes on the disk
    std::int64_t accessed = 0;
    std::int64_t modified = 0;
    std::optional<std::int64_t> created;  // absent when the file system does not keep it
    std::optional<int> mount;             // the number of its mount; absent before Linux 5.8
    bool isCompressed = false;            // by its file system
    bool isEncrypted = false;
    bool isReadable = false;  // by this process
    bool isWriteable = false;
    bool isExecutable = false;
};

/// Reads the status of a file, or of that to which a link leads. 0, or an errno number: ENOENT, ENOTDIR, ELOOP or
/// ENAMETOOLONG when there is no such file, EACCES when a folder on the way may not be searched. Starts no automounter.
int ReadFileStatus(const std::string& path, FileStatus& status);

/// Whether such a number says that there is no such file.
bool IsAbsence(int failure);

}  // namespace kv::facts
