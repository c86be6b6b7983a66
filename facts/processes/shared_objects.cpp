#include "facts/processes/shared_objects.h"

#include <filesystem>
#include <string>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// The lines below the heading.
std::uint64_t CountLines(std::string_view text) {
    std::uint64_t count = 0;
    for (std::string_view line; TakeLine(text, line);) ++count;
    return count == 0 ? 0 : count - 1;
}

/// Adds the files of /dev/shm, where the C library keeps those of POSIX.
bool AddFiles(SharedObjects& objects) {
    std::error_code failure;
    for (fs::directory_iterator at("/dev/shm", failure), end; !failure && at != end; at.increment(failure)) {
        std::error_code gone;
        if (!at->is_regular_file(gone)) continue;
        ++(at->path().filename().string().starts_with("sem.") ? objects.semaphores : objects.memories);
    }
    return !failure || failure == std::errc::no_such_file_or_directory;
}

}  // namespace

std::uint64_t CountSemaphores(std::string_view text) {
    std::uint64_t count = 0;
    std::string_view line;
    TakeLine(text, line);
    while (TakeLine(text, line)) {
        for (int field = 0; field < 3; ++field) TakeField(line);  // key, id and permissions
        count += NumberOf(TakeField(line)).value_or(0);
    }
    return count;
}

std::optional<SharedObjects> CountSharedObjects() {
    const std::optional<std::string> semaphores = ReadFileIfThere("/proc/sysvipc/sem");
    const std::optional<std::string> memories = ReadFileIfThere("/proc/sysvipc/shm");
    if (!semaphores || !memories) return std::nullopt;
    SharedObjects objects{CountSemaphores(*semaphores), CountLines(*memories)};
    return AddFiles(objects) ? std::optional(objects) : std::nullopt;
}

}  // namespace kv::facts
