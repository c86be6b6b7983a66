#include "tools/kvagentctl/agent_process.h"

#include <algorithm>
#include <utility>

#include "commandline/program.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/registry_failure.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"

namespace kv::control {

LogLines::LogLines(std::function<void(std::string_view line)> take, unsigned level) {
    const std::lock_guard lock(logState.streamMutex);
    logState.listener = std::move(take);
    logState.gv_logLevel = level;
}

LogLines::~LogLines() {
    logState.gv_logLevel = 0;
    const std::lock_guard lock(logState.streamMutex);
    logState.listener = nullptr;
}

void RequireReadableRegistry(platform::Error result) {
    if (!platform::MissingRegistryDirectory().empty()) throw commandline::NotFoundError(MissingRegistryText());
    if (result != platform::error::success && !IsGone(result))
        throw std::runtime_error("the registry cannot be read: " + RegistryFailureText(result));
}

void RefuseDirectory(const std::string& name) {
    if (IsDirectory(platform::WideFromUtf8(name)))
        throw commandline::UsageError(name + " is a directory; a plan is a file");
}

std::vector<SlavePlan> PlansOfSlaves(std::u16string_view bin) {
    const std::u16string slaves = ConcatStrings(bin, conf_path::slavesDirectory);
    std::vector<SlavePlan> plans;
    for (FileSearch search(slaves + u"*"); search.hasFile(); search.Next()) {
        const std::u16string& slave = search.file.fileName;
        const std::u16string path = slaves + slave + u"\\" + std::u16string(conf_path::planName);
        if (search.file.isDirectory && !slave.starts_with(u'.') && MayExist(path)) plans.push_back({slave, path});
    }
    return plans;
}

std::string_view WithoutRoutine(std::string_view line) {
    constexpr std::string_view mark = "::";
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t name = line.find_first_not_of(blanks);
    const std::size_t at = line.find(mark);
    // A routine's name has no blank in it; one may stand behind it.
    if (name < at && at != line.npos && line.find_first_of(blanks, name) + 1 >= at)
        line.remove_prefix(at + mark.size());
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    return line.substr(0, line.find_last_not_of(blanks) + 1);
}

}  // namespace kv::control
