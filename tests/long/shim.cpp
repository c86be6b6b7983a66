// Preloaded into an unchanged agent by the long gate: a clock that runs faster than the machine's and can be set, a
// fault or SIGKILL at chosen file operations, and a copy of each record at the moment in which it is complete.
//
//   KV_LONG_CONTROL  a file that the gate shares with the process: the record Control
//   KV_LONG_ROOT     the folder whose files are counted and fail
//   KV_LONG_WITNESS  where copies of complete records go
//
// The programs that the agent starts do not inherit it.
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <system_error>
#include <unistd.h>

namespace {

/// What happens at a chosen operation.
enum Fault : std::int64_t { none, killBefore, killAfter, fails, writesHalf, isSlow };

enum Operation { opens = 1, writes = 2, renames = 4, unlinks = 8, syncs = 16, makesFolder = 32, reads = 64 };

/// The layout is known to agent.py. Times are nanoseconds.
struct Control {
    double rate;                      // of both clocks
    std::int64_t realStart;           // CLOCK_MONOTONIC of the machine when the fast clock started
    std::int64_t monotonic;           // the fast CLOCK_MONOTONIC then
    std::int64_t wallOffset;          // wall clock minus monotonic clock: the gate sets the clock with it
    std::int64_t asleep;              // what CLOCK_BOOTTIME is ahead of CLOCK_MONOTONIC
    std::atomic<std::int64_t> count;  // of operations
    std::int64_t fault;
    std::int64_t number;       // errno of a failure, nanoseconds of a slow operation
    std::int64_t from, until;  // the operations from this one, before that one ...
    std::int64_t kinds;        // ... of these kinds ...
    std::int64_t perMillion;   // ... and of them this share, chosen by the seed
    std::int64_t seed;
    std::int64_t struck;  // how many were
};

constexpr std::int64_t second = 1'000'000'000;

Control* control = nullptr;
std::string root;
std::string witness;
std::int64_t wallMinusMonotonic = 0;  // of the machine
std::atomic<bool> isRoots[4096];      // descriptors of the root's files

/// The system's own routine, which the one of this name here stands before.
#define REAL(name)                                                                             \
    ([] {                                                                                      \
        static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)); \
        return real;                                                                           \
    }())

std::int64_t Count(const timespec& time) { return time.tv_sec * second + time.tv_nsec; }

timespec Spec(std::int64_t count) {
    const std::int64_t seconds = count / second - (count % second < 0 ? 1 : 0);
    return {seconds, static_cast<long>(count - seconds * second)};
}

std::int64_t MachineTime(clockid_t clock) {
    timespec time{};
    REAL(clock_gettime)(clock, &time);
    return Count(time);
}

std::int64_t FastMonotonic(std::int64_t machine) {
    return control->monotonic +
           static_cast<std::int64_t>(static_cast<double>(machine - control->realStart) * control->rate);
}

std::int64_t Shortened(std::int64_t duration) {
    return control == nullptr ? duration : static_cast<std::int64_t>(static_cast<double>(duration) / control->rate);
}

void Start() {
    const char* const file = getenv("KV_LONG_CONTROL");
    const char* const folder = getenv("KV_LONG_ROOT");
    const char* const copies = getenv("KV_LONG_WITNESS");
    unsetenv("LD_PRELOAD");
    if (file == nullptr || folder == nullptr || copies == nullptr) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // it does not outlive its drill
    root = folder;
    witness = copies;
    wallMinusMonotonic = MachineTime(CLOCK_REALTIME) - MachineTime(CLOCK_MONOTONIC);
    const int descriptor = open(file, O_RDWR | O_CLOEXEC);
    void* const page = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (page == MAP_FAILED) {
        fputs("the gate's control file cannot be read\n", stderr);
        _exit(70);
    }
    control = static_cast<Control*>(page);
}

const bool isStarted = (Start(), true);

/// The agent works in a folder of the root, and names most of its files from there.
bool IsRoots(const char* path) {
    if (control == nullptr || path == nullptr) return false;
    char here[PATH_MAX];
    if (path[0] != '/' && getcwd(here, sizeof here) == nullptr) return false;
    return std::string_view(path[0] == '/' ? path : here).substr(0, root.size()) == root;
}

bool IsRootsFile(int descriptor) {
    return control != nullptr && descriptor >= 0 && descriptor < 4096 && isRoots[descriptor];
}

bool IsChosen(std::int64_t number, Operation kind) {
    if (control->fault == none || number < control->from || number >= control->until || (control->kinds & kind) == 0)
        return false;
    std::uint64_t mixed = static_cast<std::uint64_t>(number + control->seed * 1'000'003) * 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 29)) * 0xBF58476D1CE4E5B9U;
    return static_cast<std::int64_t>((mixed >> 20) % 1'000'000) < control->perMillion;
}

/// Counts an operation on a file of the root; the fault that is chosen for it.
Fault Strike(Operation kind, bool isCounted) {
    if (!isCounted || (kind == reads && (control->kinds & reads) == 0)) return none;
    if (!IsChosen(control->count.fetch_add(1), kind)) return none;
    ++control->struck;
    const auto fault = static_cast<Fault>(control->fault);
    if (fault == killBefore) raise(SIGKILL);
    if (fault == isSlow) {
        const timespec pause = Spec(control->number);
        REAL(nanosleep)(&pause, nullptr);
    }
    return fault;
}

/// Does an operation, or fails in its place.
template <class Call>
auto Do(Fault fault, Call call) -> decltype(call()) {
    if (fault == fails) {
        errno = static_cast<int>(control->number);
        return -1;
    }
    const auto result = call();
    if (fault == killAfter) raise(SIGKILL);
    return result;
}

template <class Opening>
int Opened(const char* path, int flags, Opening open) {
    const bool isMine = IsRoots(path);
    const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0;
    return Do(Strike(opens, isMine && changes), [&] {
        const int descriptor = open();
        if (descriptor >= 0 && descriptor < 4096) isRoots[descriptor] = isMine;
        return descriptor;
    });
}

template <class Write>
ssize_t Written(int descriptor, size_t size, Write write) {
    const Fault fault = Strike(writes, IsRootsFile(descriptor));
    if (fault == writesHalf && size > 1) return write(size / 2);
    return Do(fault == writesHalf ? fails : fault, [&] { return write(size); });
}

/// The name for a copy of a record that is about to get its final name; empty for another file.
std::string CopyName(const char* from, std::string_view to) {
    const std::size_t name = to.rfind('/');
    if (!IsRoots(from) || name == std::string_view::npos || !to.ends_with(".txt")) return "";
    const std::string_view folder = to.substr(0, name);
    if (folder != "data" && !folder.ends_with("/data")) return "";
    static std::atomic<int> copies{0};
    return witness + std::string(to.substr(name)) + "." + std::to_string(getpid()) + "." +
           std::to_string(copies.fetch_add(1));
}

/// Keeps a copy of a record that has got its final name.
template <class Rename>
int RenamedBeforeWitness(const char* from, const std::string& copy, Rename rename) {
    const std::string part = copy + ".part";
    std::error_code error;
    std::filesystem::copy_file(from, part, error);
    const int result = rename();
    if (result == 0 && (error || ::rename(part.c_str(), copy.c_str()) != 0)) {
        fprintf(stderr, "the record %s is not copied: %s\n", from, error.message().c_str());
        abort();
    }
    return result;
}

template <class Rename>
int Renamed(const char* from, const char* to, Rename rename) {
    return Do(Strike(renames, IsRoots(to)), [&] {
        const std::string copy = CopyName(from, to);
        return copy.empty() ? rename() : RenamedBeforeWitness(from, copy, rename);
    });
}

/// Times of files are the machine's: here as the fast clock would have set them.
template <class Status>
int WithFastTimes(int result, Status* status) {
    if (result != 0 || control == nullptr) return result;
    for (timespec* time : {&status->st_atim, &status->st_mtim, &status->st_ctim})
        *time = Spec(FastMonotonic(Count(*time) - wallMinusMonotonic) + control->wallOffset);
    return result;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    return Opened(path, flags, [&] { return REAL(open)(path, flags, mode); });
}

int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int openat(int folder, const char* path, int flags, ...) {
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    const bool isElsewhere = path[0] != '/' && folder != AT_FDCWD;  // below a folder that was opened to look into
    return Opened(isElsewhere ? nullptr : path, flags, [&] { return REAL(openat)(folder, path, flags, mode); });
}

int close(int descriptor) {
    if (descriptor >= 0 && descriptor < 4096) isRoots[descriptor] = false;
    return REAL(close)(descriptor);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
    return Written(descriptor, size, [&](size_t count) { return REAL(write)(descriptor, bytes, count); });
}

ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
    return Written(descriptor, size, [&](size_t count) { return REAL(pwrite64)(descriptor, bytes, count, offset); });
}

ssize_t read(int descriptor, void* bytes, size_t size) {
    return Do(Strike(reads, IsRootsFile(descriptor)), [&] { return REAL(read)(descriptor, bytes, size); });
}

ssize_t pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
    return Do(Strike(reads, IsRootsFile(descriptor)), [&] { return REAL(pread64)(descriptor, bytes, size, offset); });
}

int rename(const char* from, const char* to) {
    return Renamed(from, to, [&] { return REAL(rename)(from, to); });
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) {
    return Renamed(from, to, [&] { return REAL(renameat2)(fromFolder, from, toFolder, to, flags); });
}

int unlink(const char* path) {
    return Do(Strike(unlinks, IsRoots(path)), [&] { return REAL(unlink)(path); });
}

int fsync(int descriptor) {
    return Do(Strike(syncs, IsRootsFile(descriptor)), [&] { return REAL(fsync)(descriptor); });
}

int fdatasync(int descriptor) {
    return Do(Strike(syncs, IsRootsFile(descriptor)), [&] { return REAL(fdatasync)(descriptor); });
}

int mkdir(const char* path, mode_t mode) {
    return Do(Strike(makesFolder, IsRoots(path)), [&] { return REAL(mkdir)(path, mode); });
}

int clock_gettime(clockid_t clock, timespec* time) {
    const int result = REAL(clock_gettime)(clock, time);
    if (result != 0 || control == nullptr) return result;
    const std::int64_t monotonic = FastMonotonic(MachineTime(CLOCK_MONOTONIC));
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)
        *time = Spec(monotonic + control->wallOffset);
    else if (clock == CLOCK_BOOTTIME)
        *time = Spec(monotonic + control->asleep);
    else if (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_MONOTONIC_RAW)
        *time = Spec(monotonic);  // the others count processor time
    return 0;
}

int gettimeofday(timeval* __restrict time, void* __restrict) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

time_t time(time_t* result) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

int nanosleep(const timespec* duration, timespec* left) {
    const timespec shortened = Spec(Shortened(Count(*duration)));
    return REAL(nanosleep)(&shortened, left);
}

int usleep(useconds_t microseconds) {
    const timespec duration = Spec(std::int64_t{microseconds} * 1000);
    return nanosleep(&duration, nullptr);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* end) {
    if (control == nullptr) return REAL(pthread_cond_clockwait)(condition, mutex, clock, end);
    timespec now{};
    clock_gettime(clock, &now);
    const timespec machineEnd = Spec(MachineTime(CLOCK_MONOTONIC) + Shortened(Count(*end) - Count(now)));
    return REAL(pthread_cond_clockwait)(condition, mutex, CLOCK_MONOTONIC, &machineEnd);
}

int ppoll(pollfd* watched, nfds_t count, const timespec* limit, const sigset_t* signals) {
    const timespec shortened = limit == nullptr ? timespec{} : Spec(Shortened(Count(*limit)));
    return REAL(ppoll)(watched, count, limit == nullptr ? nullptr : &shortened, signals);
}

int poll(pollfd* watched, nfds_t count, int milliseconds) {
    const timespec limit = Spec(std::int64_t{milliseconds} * 1'000'000);
    return ppoll(watched, count, milliseconds < 0 ? nullptr : &limit, nullptr);
}

int fstat(int descriptor, struct stat* status) { return WithFastTimes(REAL(fstat)(descriptor, status), status); }

int stat(const char* path, struct stat* status) { return WithFastTimes(REAL(stat)(path, status), status); }

int lstat(const char* path, struct stat* status) { return WithFastTimes(REAL(lstat)(path, status), status); }

int fstatat(int folder, const char* path, struct stat* status, int flags) {
    return WithFastTimes(REAL(fstatat)(folder, path, status, flags), status);
}

}  // extern "C"
