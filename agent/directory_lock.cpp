#include "agent/directory_lock.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/bin_directory.h"
#include "agent/log_file.h"
#include "agent/server_details.h"
#include "agent/service.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace error = platform::error;

constexpr std::uint32_t lookMilliseconds = 1000;
constexpr std::uint64_t largestNumber = 16;  // bytes of a process number in the file

enum class Standing { none, waitsForBin, waitsForAgent, holds };
std::atomic<Standing> standing{Standing::none};

std::u16string_view BinPath() {
    const OptionalText& path = agentState.gv_ocAgentBinPath;
    return path ? std::u16string_view(*path) : std::u16string_view();
}

Error TryLock() {
    static platform::DirectoryLock lock;  // never closed: it ends with the process
    return Files().LockDirectory(BinPath(), InstallDirectoryOf(BinPath()), lockFileName, lock);
}

/// Whether another process has the lock; also while a backup or a scanner keeps the file to itself.
bool IsTaken(Error result) { return result == error::lockViolation || result == error::sharingViolation; }

/// For those that have to wait. The number always takes the same room, so that nothing of a longer one stays behind.
void WriteProcessNumber() {
    const std::u16string path = ConcatStrings(BinPath(), lockFileName);
    OpenFile file;
    Error result = file.Open(path, platform::FileAccess::write, platform::FileShare::readWrite,
                             platform::FileDisposition::openAlways);
    if (result == error::success)
        result = Files().WriteText(file.handle, fmt::format("{:<10}\n", platform::Processes().GetCurrentProcessId()));
    if (result != error::success)
        Log1("\t WaitForDirectory :: The process number cannot be written to %s: %s (error %d)\n", path,
             platform::MessageInLine(result), result);
}

/// The number in the file of a bin directory; 0 when it cannot be read. The process may have ended.
std::uint32_t RecordedProcess(std::u16string_view binPath) {
    std::string content;
    std::uint32_t number = 0;
    if (ReadWholeFile(ConcatStrings(binPath, lockFileName), content, largestNumber) == error::success)
        std::from_chars(content.data(), content.data() + content.size(), number);
    return number;
}

bool IsAgent(std::uint32_t processId) {
    std::u16string name;
    const Error result = platform::Processes().GetProcessName(processId, name);
    return processId != 0 && result == error::success && name == u"MonitoringAgent";
}

/// "process 1234", or words for it when its number is not known.
std::string HolderName() {
    std::uint32_t number = 0;
    if (FindWorkingAgent(BinPath(), number) != error::success) number = RecordedProcess(BinPath());
    return number != 0 ? "process " + std::to_string(number) : "another process";
}

void TellOfWait() {
    const std::string holder = HolderName();
    const std::u16string directory = Files().NativePath(BinPath());
    Log1(
        "\t WaitForDirectory :: The agent of %s works in %s already. This one collects and sends nothing until that "
        "ends\n",
        holder, directory);
    std::fprintf(stderr,
                 "MonitoringAgent: the agent of %s works in %s already; this one collects and sends nothing until that "
                 "ends\n",
                 holder.c_str(), platform::Utf8FromWide(directory).c_str());
    TellServiceManager("waits: the agent of " + holder + " works in the same directory");
}

void TellOfObstacle(Error result) {
    RunGuarded("ReopenLog", ReopenLog);  // the agent that worked here may have begun another one
    Log1("\t WaitForDirectory :: The directory cannot be locked now: %s (error %d). This one goes on waiting\n",
         platform::MessageInLine(result), result);
}

/// The bin directory may have gone, or be another one, since this process entered it.
void EnterBinDirectoryAgain() {
    RunGuarded("WaitForBinDirectory", [] { static_cast<void>(WaitForBinDirectory()); });
}

/// Whatever else goes wrong may be over at the next look; to go on without the lock could be beside that agent.
void WaitForLock() {
    Error told = error::success;
    for (Error result = error::lockViolation; result != error::success; result = TryLock()) {
        if (!IsTaken(result) && std::exchange(told, result) != result)
            RunGuarded("WaitForDirectory", [result] { TellOfObstacle(result); });
        if (!IsTaken(result)) EnterBinDirectoryAgain();
        platform::Clock().Sleep(lookMilliseconds);
    }
}

void TakeOver() {
    EnterBinDirectoryAgain();
    RunGuarded("WriteProcessNumber", WriteProcessNumber);
    RunGuarded("ReopenLog", ReopenLog);
    Log1("\t WaitForDirectory :: That agent has ended. This one begins its work\n");
    RunGuarded("ReloadSettings", ReloadSettings);
    RunGuarded("TellServiceManager", [] { TellServiceManager("begins its work: the agent before it has ended"); });
}

}  // namespace

void WaitForDirectory() {
    Log3("\t Inside WaitForDirectory() \n");
    standing = Standing::waitsForBin;
    if (WaitForBinDirectory()) RunGuarded("ReloadSettings", ReloadSettings);
    const Error result = TryLock();
    if (result != error::success && !IsTaken(result)) {
        standing = Standing::none;
        Log1("\t WaitForDirectory :: %s cannot be locked: %s (error %d). A second agent would not be noticed\n",
             BinPath(), platform::MessageInLine(result), result);
        return;
    }
    if (result == error::success) {
        standing = Standing::holds;
        return WriteProcessNumber();
    }
    standing = Standing::waitsForAgent;
    RunGuarded("TellOfWait", TellOfWait);
    WaitForLock();
    TakeOver();
    standing = Standing::holds;
}

bool HoldsDirectory() { return standing == Standing::holds; }
bool WaitsForAgent() { return standing == Standing::waitsForAgent; }
bool WaitsForDirectory() { return WaitsForAgent() || standing == Standing::waitsForBin; }

/// The recorded number is the surest; of what the system tells, only an agent counts.
Error FindWorkingAgent(std::u16string_view binPath, std::uint32_t& processId) {
    std::vector<std::uint32_t> holders;
    const Error result = Files().FindDirectoryLock(binPath, InstallDirectoryOf(binPath), lockFileName, holders);
    processId = 0;
    if (result == error::fileNotFound) return result;
    const std::uint32_t recorded = RecordedProcess(binPath);
    if (holders.empty() || std::find(holders.begin(), holders.end(), recorded) != holders.end())
        holders.insert(holders.begin(), recorded);
    const auto agent = std::find_if(holders.begin(), holders.end(), IsAgent);
    if (agent == holders.end()) return result == error::success ? error::fileNotFound : result;
    processId = *agent;
    return error::success;
}

}  // namespace kv
