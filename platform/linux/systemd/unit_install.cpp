#include "platform/linux/systemd/unit_install.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/descriptor.h"
#include "platform/linux/linux.h"
#include "platform/linux/system_file.h"
#include "platform/linux/systemd/units.h"

namespace platform::systemd {

namespace {

constexpr mode_t unitFileMode = 0644;

/// A file with a temporary name, which is removed at the end.
class NewFile {
  public:
    explicit NewFile(const std::string& directory)
        : path_(directory + "/.unit-XXXXXX"), file_(mkostemp(path_.data(), O_CLOEXEC)) {}
    ~NewFile() {
        if (file_) unlink(path_.c_str());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    const char* path() const { return path_.c_str(); }

    /// False with errno set.
    bool Write(std::string_view text) {
        if (!file_ || fchmod(file_.get(), unitFileMode) != 0) return false;
        while (!text.empty()) {
            const ssize_t count = write(file_.get(), text.data(), text.size());
            if (count < 0 && errno != EINTR) return false;
            if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
        }
        return fsync(file_.get()) == 0;
    }

  private:
    std::string path_;
    Descriptor file_;
};

/// How a complete file gets its name: link(2) for one that must be new, or rename(2).
using NameFile = int (*)(const char* from, const char* to);

Error WriteUnitFile(const std::string& directory, const std::string& unit, const UnitDescription& description,
                    NameFile nameFile) {
    NewFile file(directory);
    const std::string path = directory + "/" + unit;
    if (!file.Write(UnitFileText(description)) || nameFile(file.path(), path.c_str()) != 0) {
        if (errno == EEXIST) return error::serviceExists;
        return errno == ENOENT ? error::pathNotFound : ErrorFromErrno(errno);
    }
    const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(opened.get());  // the name as well; without it nothing is lost but this after a power failure
    return error::success;
}

/// Does not wait again for a manager that did not answer: it will still do what it was asked, with the file gone.
void TakeBack(sd_bus* bus, const std::string& path, const std::string& unit, int failure) {
    const int disabled = DisableUnit(bus, unit);
    unlink(path.c_str());
    if (!IsLost(failure) && !IsLost(disabled)) ReloadManager(bus);
}

/// Whether it was written here: not a link to a file elsewhere, and not a file of an administrator's.
bool IsOwnFile(const std::string& path) {
    struct stat facts {};
    if (lstat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    const auto text = ReadSystemFile(path);
    return text && text->starts_with(unitFileMark);
}

}  // namespace

Error InstallUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                  const UnitDescription& description, bool startsWithSystem) {
    if (const Error failure = WriteUnitFile(directory, unit, description, link); failure != 0) return failure;
    int result = startsWithSystem ? EnableUnit(bus, unit) : 0;
    if (result >= 0) result = ReloadManager(bus);
    if (result < 0) TakeBack(bus, directory + "/" + unit, unit, result);
    return ErrorOfManager(result);
}

Error RewriteUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                  const UnitDescription& description) {
    const Error failure = WriteUnitFile(directory, unit, description, rename);
    return failure != 0 ? failure : ErrorOfManager(ReloadManager(bus));
}

Error RemoveUnit(sd_bus* bus, const std::string& directory, const UnitCondition& condition) {
    const std::string path = directory + "/" + condition.id;
    if (condition.fragmentPath != path || !IsOwnFile(path)) return error::accessDenied;
    if (const int result = DisableUnit(bus, condition.id); result < 0) return ErrorOfManager(result);
    if (unlink(path.c_str()) != 0) return ErrorFromErrno(errno);
    return ErrorOfManager(ReloadManager(bus));
}

}  // namespace platform::systemd
