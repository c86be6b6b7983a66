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
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

/// What happens at a chosen operation.
enum Fault : std::int64_t { none, killBefore, killAfter, fails, writesHalf, isSlow };

enum Operation : std::int64_t {
    opens = 1,
    writes = 2,
    renames = 4,
    unlinks = 8,
    syncs = 16,
    makesFolder = 32,
    reads = 64
};

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
#define REAL(name) static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

std::int64_t Count(const timespec& time) { return time.tv_sec * second + time.tv_nsec; }

timespec Spec(std::int64_t count) {
    const std::int64_t seconds = count / second - (count % second < 0 ? 1 : 0);
    return {seconds, static_cast<long>(count - seconds * second)};
}

int RealTime(clockid_t clock, timespec* time) {
    REAL(clock_gettime);
    return real(clock, time);
}

std::int64_t MachineTime(clockid_t clock) {
    timespec time{};
    RealTime(clock, &time);
    return Count(time);
}

std::int64_t FastMonotonic(std::int64_t machine) {
    return control->monotonic +
           static_cast<std::int64_t>(static_cast<double>(machine - control->realStart) * control->rate);
}

std::int64_t FastWall(std::int64_t machine) { return FastMonotonic(machine) + control->wallOffset; }

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

/// One operation on a file of the root: counts it, and does to it what was chosen.
class Step {
  public:
    Step(Operation kind, bool isCounted) {
        if (!isCounted || (kind == reads && (control->kinds & reads) == 0)) return;
        if (!IsChosen(control->count.fetch_add(1), kind)) return;
        ++control->struck;
        fault_ = control->fault;
        if (fault_ == killBefore) raise(SIGKILL);
        if (fault_ == isSlow) {
            REAL(nanosleep);
            const timespec pause = Spec(control->number);
            real(&pause, nullptr);
        }
    }
    bool Fails() const { return fault_ == fails; }
    bool WritesHalf() const { return fault_ == writesHalf; }
    template <class Result>
    Result Failure(Result result) const {
        errno = static_cast<int>(control->number);
        return result;
    }
    template <class Result>
    Result Done(Result result) const {
        if (fault_ == killAfter) raise(SIGKILL);
        return result;
    }

  private:
    std::int64_t fault_ = none;
};

template <class Opening>
int Opened(const char* path, int flags, Opening open) {
    const bool isMine = IsRoots(path);
    const Step step(opens, isMine && (flags & (O_CREAT | O_TRUNC)) != 0);
    if (step.Fails()) return step.Failure(-1);
    const int descriptor = open();
    if (descriptor >= 0 && descriptor < 4096) isRoots[descriptor] = isMine;
    return step.Done(descriptor);
}

template <class Write>
ssize_t Written(int descriptor, size_t size, Write write) {
    const Step step(writes, IsRootsFile(descriptor));
    if (step.Fails()) return step.Failure(ssize_t{-1});
    if (step.WritesHalf()) return size > 1 ? write(size / 2) : step.Failure(ssize_t{-1});
    return step.Done(write(size));
}

/// A copy of a record that is about to get its final name, under a name that is given up unless it gets it.
class Witness {
  public:
    Witness(const char* from, std::string_view to) {
        const std::size_t name = to.rfind('/');
        if (!IsRoots(from) || name == std::string_view::npos || !to.ends_with(".txt")) return;
        const std::string_view folder = to.substr(0, name);
        if (folder != "data" && !folder.ends_with("/data")) return;
        static std::atomic<int> copies{0};
        copy_ = witness + std::string(to.substr(name)) + "." + std::to_string(getpid()) + "." +
                std::to_string(copies.fetch_add(1));
        const int source = open(from, O_RDONLY | O_CLOEXEC);
        if (source < 0) {
            copy_.clear();
            return;
        }  // the renaming will fail, too
        const int target = open((copy_ + ".part").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        isRoots[source] = false;  // this reading is ours, not the agent's
        char block[65536];
        for (ssize_t count = 0; (count = read(source, block, sizeof block)) > 0;) {
            if (write(target, block, static_cast<size_t>(count)) == count) continue;
            perror("a copy of a record cannot be written");
            abort();
        }
        close(source);
        close(target);
    }
    void Keep() const {
        if (!copy_.empty()) rename((copy_ + ".part").c_str(), copy_.c_str());
    }

  private:
    std::string copy_;
};

template <class Rename>
int Renamed(const char* from, const char* to, Rename rename) {
    const Step step(renames, IsRoots(to));
    if (step.Fails()) return step.Failure(-1);
    const Witness copy(from, to);
    const int result = rename();
    if (result == 0) copy.Keep();
    return step.Done(result);
}

/// Times of files are the machine's: here as the fast clock would have set them.
template <class Status>
int WithFastTimes(int result, Status* status) {
    if (result != 0 || control == nullptr) return result;
    for (timespec* time : {&status->st_atim, &status->st_mtim, &status->st_ctim})
        *time = Spec(FastWall(Count(*time) - wallMinusMonotonic));
    return result;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    REAL(open);
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    return Opened(path, flags, [&] { return real(path, flags, mode); });
}

int open64(const char* path, int flags, ...) {
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    return open(path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    REAL(openat);
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    const bool isElsewhere = path[0] != '/' && folder != AT_FDCWD;  // below a folder that was opened to look into
    return Opened(isElsewhere ? nullptr : path, flags, [&] { return real(folder, path, flags, mode); });
}

int close(int descriptor) {
    REAL(close);
    if (descriptor >= 0 && descriptor < 4096) isRoots[descriptor] = false;
    return real(descriptor);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
    REAL(write);
    return Written(descriptor, size, [&](size_t count) { return real(descriptor, bytes, count); });
}

ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
    REAL(pwrite64);
    return Written(descriptor, size, [&](size_t count) { return real(descriptor, bytes, count, offset); });
}

ssize_t read(int descriptor, void* bytes, size_t size) {
    REAL(read);
    const Step step(reads, IsRootsFile(descriptor));
    return step.Fails() ? step.Failure(ssize_t{-1}) : step.Done(real(descriptor, bytes, size));
}

ssize_t pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
    REAL(pread64);
    const Step step(reads, IsRootsFile(descriptor));
    return step.Fails() ? step.Failure(ssize_t{-1}) : step.Done(real(descriptor, bytes, size, offset));
}

int rename(const char* from, const char* to) {
    REAL(rename);
    return Renamed(from, to, [&] { return real(from, to); });
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) {
    REAL(renameat2);
    return Renamed(from, to, [&] { return real(fromFolder, from, toFolder, to, flags); });
}

int unlink(const char* path) {
    REAL(unlink);
    const Step step(unlinks, IsRoots(path));
    return step.Fails() ? step.Failure(-1) : step.Done(real(path));
}

int fsync(int descriptor) {
    REAL(fsync);
    const Step step(syncs, IsRootsFile(descriptor));
    return step.Fails() ? step.Failure(-1) : step.Done(real(descriptor));
}

int fdatasync(int descriptor) {
    REAL(fdatasync);
    const Step step(syncs, IsRootsFile(descriptor));
    return step.Fails() ? step.Failure(-1) : step.Done(real(descriptor));
}

int mkdir(const char* path, mode_t mode) {
    REAL(mkdir);
    const Step step(makesFolder, IsRoots(path));
    return step.Fails() ? step.Failure(-1) : step.Done(real(path, mode));
}

int clock_gettime(clockid_t clock, timespec* time) {
    const int result = RealTime(clock, time);
    if (result != 0 || control == nullptr) return result;
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            *time = Spec(FastWall(MachineTime(CLOCK_MONOTONIC)));
            break;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_MONOTONIC_RAW:
            *time = Spec(FastMonotonic(MachineTime(CLOCK_MONOTONIC)));
            break;
        case CLOCK_BOOTTIME:
            *time = Spec(FastMonotonic(MachineTime(CLOCK_MONOTONIC)) + control->asleep);
            break;
        default:  // processor time
            break;
    }
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
    REAL(nanosleep);
    const timespec shortened = Spec(Shortened(Count(*duration)));
    return real(&shortened, left);
}

int usleep(useconds_t microseconds) {
    const timespec duration = Spec(std::int64_t{microseconds} * 1000);
    return nanosleep(&duration, nullptr);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* end) {
    REAL(pthread_cond_clockwait);
    if (control == nullptr) return real(condition, mutex, clock, end);
    timespec now{};
    clock_gettime(clock, &now);
    const timespec machineEnd = Spec(MachineTime(CLOCK_MONOTONIC) + Shortened(Count(*end) - Count(now)));
    return real(condition, mutex, CLOCK_MONOTONIC, &machineEnd);
}

int ppoll(pollfd* watched, nfds_t count, const timespec* limit, const sigset_t* signals) {
    REAL(ppoll);
    if (limit == nullptr) return real(watched, count, nullptr, signals);
    const timespec shortened = Spec(Shortened(Count(*limit)));
    return real(watched, count, &shortened, signals);
}

int poll(pollfd* watched, nfds_t count, int milliseconds) {
    const timespec limit = Spec(std::int64_t{milliseconds} * 1'000'000);
    return ppoll(watched, count, milliseconds < 0 ? nullptr : &limit, nullptr);
}

int fstat(int descriptor, struct stat* status) {
    REAL(fstat);
    return WithFastTimes(real(descriptor, status), status);
}

int stat(const char* path, struct stat* status) {
    REAL(stat);
    return WithFastTimes(real(path, status), status);
}

int lstat(const char* path, struct stat* status) {
    REAL(lstat);
    return WithFastTimes(real(path, status), status);
}

int fstatat(int folder, const char* path, struct stat* status, int flags) {
    REAL(fstatat);
    return WithFastTimes(real(folder, path, status, flags), status);
}

}  // extern "C"
