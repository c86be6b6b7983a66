#include "platform/console_tool.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

#include "platform/linux/linux.h"
#include "platform/utf.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

constexpr int maximumLinks = 40;  // as many as the system follows

volatile std::sig_atomic_t isInterrupted = 0;

/// 0, or the errno.
int WriteAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) return errno;
        if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

/// Writes to a device, a pipe or the like. 0, or the errno.
int WriteStraight(const fs::path& path, std::string_view bytes) {
    const int file = open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (file < 0) return errno;
    const int failure = WriteAll(file, bytes);
    return close(file) != 0 && failure == 0 ? errno : failure;
}

/// Writes beside the file and renames. 0, or the errno.
int ReplaceFile(const fs::path& path, std::string_view bytes) {
    std::string partial = path.string() + ".XXXXXX";
    const int file = mkostemp(partial.data(), O_CLOEXEC);  // a new file of mode 0600
    if (file < 0) return errno;
    int failure = WriteAll(file, bytes);
    if (failure == 0 && fsync(file) != 0) failure = errno;
    if (close(file) != 0 && failure == 0) failure = errno;
    if (failure == 0 && std::rename(partial.c_str(), path.c_str()) != 0) failure = errno;
    if (failure != 0) unlink(partial.c_str());
    return failure;
}

/// What a link finally leads to, whether that exists or not.
fs::path BehindLinks(fs::path path) {
    std::error_code noLink;
    for (int links = 0; links < maximumLinks; ++links) {
        const fs::path target = fs::read_symlink(path, noLink);
        if (noLink) break;
        path = path.parent_path() / target;
    }
    return path;
}

bool IsStandardOutput(const struct stat& target) {
    struct stat output {};
    return fstat(STDOUT_FILENO, &output) == 0 && output.st_dev == target.st_dev && output.st_ino == target.st_ino;
}

/// 0, or the errno.
int WriteOutput(const fs::path& path, std::string_view bytes) {
    struct stat target {};
    if (stat(path.c_str(), &target) != 0) return errno == ENOENT ? ReplaceFile(BehindLinks(path), bytes) : errno;
    if (IsStandardOutput(target)) return WriteAll(STDOUT_FILENO, bytes);  // appends where >> was asked for
    return S_ISREG(target.st_mode) ? ReplaceFile(BehindLinks(path), bytes) : WriteStraight(path, bytes);
}

/// Or the number of a user without a name.
std::string UserName(uid_t id) {
    const passwd* const user = getpwuid(id);
    return user != nullptr ? user->pw_name : std::to_string(id);
}

}  // namespace

std::string_view RegistryPlace() {
    return "The registry is the file registry.db in /var/lib/kvagent, or in the directory that KVAGENT_STATE_DIR "
           "names.";
}

std::string_view RegistryOwner() { return "root"; }

std::string_view DeniedAccessText() {
    return geteuid() == 0 ? "the file system (is it immutable?) or a security module denies it even to root"
                          : "it takes the rights of root";
}

std::string_view ServiceRestartCommand() { return "systemctl restart corvinel-monitoring-agent"; }

std::string RegistryFile() { return StateDirectory() + "/registry.db"; }

std::optional<FilePermissions> GetFilePermissions(std::u16string_view path) {
    struct stat facts {};
    if (stat(NativePathOf(path).c_str(), &facts) != 0) return std::nullopt;
    FilePermissions permissions;
    char mode[8];
    static_cast<void>(std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(facts.st_mode & 07777)));
    permissions.mode = mode;
    const passwd* const owner = getpwuid(facts.st_uid);
    permissions.owner = UserName(facts.st_uid);
    permissions.isOwnerTrusted = facts.st_uid == 0 || facts.st_uid == geteuid();
    permissions.othersRead = (facts.st_mode & (S_IROTH | S_IXOTH)) != 0;
    const bool isOwnGroup = owner != nullptr && owner->pw_gid == facts.st_gid;
    permissions.othersWrite = (facts.st_mode & S_IWOTH) != 0 || ((facts.st_mode & S_IWGRP) != 0 && !isOwnGroup);
    permissions.isExecutable = (facts.st_mode & S_IXUSR) != 0;
    return permissions;
}

std::string MissingRegistryDirectory() {
    std::error_code unused;  // what may not be looked at is not known to be missing
    const fs::file_type type = fs::status(StateDirectory(), unused).type();
    return type == fs::file_type::directory || type == fs::file_type::none ? std::string() : StateDirectory();
}

std::string RegistryFileFault(Error failure) {
    constexpr const char* next =
        "; move it away, then import a saved copy (kvreg import), or install the agent again and run kvagentctl setup";
    const std::string file = RegistryFile();
    struct stat facts {};
    const bool isSeen = stat(file.c_str(), &facts) == 0;
    if (isSeen && !S_ISREG(facts.st_mode))
        return (S_ISDIR(facts.st_mode) ? "is a directory" : "is not a file") + std::string(next);
    if (failure == error::databaseCorrupt) return std::string("is damaged, or not a registry of this version") + next;
    if (failure == error::diskFull) return "cannot grow, because its disk is full; make room there";
    if (failure == error::busy) return "is held by another program; try again";
    if (failure != error::accessDenied && failure != error::writeProtect) return {};
    struct statvfs system {};
    if (statvfs(StateDirectory().c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0)
        return "is on a file system that is mounted read-only; mount it for writing";
    return "is closed to the user " + UserName(geteuid()) + "; " + std::string(DeniedAccessText());
}

bool InputIsTerminal() { return isatty(STDIN_FILENO) == 1; }

void WatchForInterrupt() {
    struct sigaction action {};
    action.sa_handler = [](int) { isInterrupted = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool WasInterrupted() { return isInterrupted != 0; }

InterruptWatch::InterruptWatch() {
    isInterrupted = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { isInterrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);  // a write that was begun goes on
    sigaction(SIGINT, &action, nullptr);
}

InterruptWatch::~InterruptWatch() { std::signal(SIGINT, SIG_DFL); }

std::size_t OutputColumns() {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1) return 0;
    constexpr std::size_t usual = 80;
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

bool OutputHasReader() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) <= 0 || (output.revents & POLLERR) == 0;
}

std::string WriteFileWhole(const std::string& name, std::string_view bytes) {
    const int failure = WriteOutput(name, bytes);
    return failure == 0 ? std::string() : std::generic_category().message(failure);
}

bool ReplacesFile(const std::string& name) {
    struct stat target {};
    return stat(name.c_str(), &target) == 0 && S_ISREG(target.st_mode) && !IsStandardOutput(target);
}

bool LeadsToRegistryFile(const std::string& name) {
    std::error_code failure;
    const fs::path target = BehindLinks(name);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    const fs::path registry = BehindLinks(RegistryFile());
    for (const char* part : {"", "-wal", "-shm", "-journal"}) {
        const fs::path file = registry.string() + part;
        if (fs::equivalent(target, file, failure)) return true;
        const bool isNamed = target.filename() == file.filename();
        if (isNamed && fs::equivalent(folder, file.parent_path(), failure)) return true;
    }
    return false;
}

TemporaryFolder::TemporaryFolder() {
    std::error_code unknown;
    const fs::path above = fs::temp_directory_path(unknown);
    std::string name = ((unknown ? fs::path("/tmp") : above) / "kvagent-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "no folder can be made in " + above.string());
    path_ = WideFromUtf8(name);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(Utf8FromWide(path_), ignored);
}

}  // namespace platform
