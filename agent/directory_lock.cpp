#include "agent/directory_lock.h"

#include <atomic>
#include <cstdio>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/text.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/service_host.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace error = platform::error;

constexpr std::uint32_t lookMilliseconds = 1000;
constexpr std::uint64_t largestNumber = 16;  // bytes of a process number in the file

enum class Standing { none, waits, holds };
std::atomic<Standing> standing{Standing::none};

/// The locked file, open until the process ends. Used by the main thread alone.
struct {
    std::u16string path;
    platform::FileHandle file = 0;
} held;

std::u16string LockPath() { return ConcatStrings(agentState.gv_ocAgentBinPath.value_or(u""), u"agent.lock"); }

/// Puts this process's number into the file, for those that have to wait. It always takes the same room, so that
/// nothing of a longer one stays behind.
void WriteProcessNumber(platform::FileHandle file) {
    Files().WriteText(file, fmt::format("{:<10}\n", platform::Processes().GetCurrentProcessId()));
}

/// lockViolation while another process has the lock.
Error TryLock(std::u16string_view path) {
    platform::FileHandle file = 0;
    Error result = Files().CreateFileW(path, platform::FileAccess::readWrite, platform::FileShare::readWrite,
                                       platform::FileDisposition::openAlways, file);
    if (result != error::success) return result;
    result = Files().LockFileEx(file);
    if (result != error::success) {
        Files().CloseHandle(file);
        return result;
    }
    held.path = path;
    held.file = file;
    WriteProcessNumber(file);
    return error::success;
}

/// "process 1234", or words for it when its number cannot be read.
std::string HolderOf(std::u16string_view path) {
    std::string content;
    const Error result = ReadWholeFile(path, content, largestNumber);
    const std::string number = content.substr(0, content.find(' '));
    return result == error::success && !number.empty() ? "process " + number : "another process";
}

void TellOfWait(std::u16string_view path) {
    const std::string holder = HolderOf(path);
    const std::u16string directory = Files().NativePath(agentState.gv_ocAgentBinPath.value_or(u""));
    Log1(
        "\t WaitForDirectory :: The agent of %s works in %s already. This one collects and sends nothing until that "
        "ends\n",
        holder, directory);
    std::fprintf(stderr,
                 "MonitoringAgent: the agent of %s works in %s already; this one collects and sends nothing until that "
                 "ends\n",
                 holder.c_str(), platform::Utf8FromWide(directory).c_str());
    if (agentState.gv_serviceStatusHandle != 0)
        platform::ServiceHost().SetStatusText(agentState.gv_serviceStatusHandle,
                                              "waits: the agent of " + holder + " works in the same directory");
}

/// Whether it was locked by an earlier call.
bool HasLock(std::u16string_view path) {
    if (held.file == 0) return false;
    if (held.path == path) return true;
    Files().CloseHandle(std::exchange(held.file, 0));
    return false;
}

}  // namespace

void WaitForDirectory() {
    Log3("\t Inside WaitForDirectory() \n");
    const std::u16string path = LockPath();
    Error result = HasLock(path) ? error::success : TryLock(path);
    if (result == error::lockViolation) {
        standing = Standing::waits;
        TellOfWait(path);
        for (; result == error::lockViolation; result = TryLock(path)) platform::Clock().Sleep(lookMilliseconds);
        Log1("\t WaitForDirectory :: That agent has ended. This one begins its work\n");
    }
    standing = result == error::success ? Standing::holds : Standing::none;
    if (result != error::success)
        Log1("\t WaitForDirectory :: %s cannot be locked: %s (error %d). A second agent would not be noticed\n", path,
             platform::MessageInLine(result), result);
}

bool HoldsDirectory() { return standing == Standing::holds; }
bool WaitsForDirectory() { return standing == Standing::waits; }

}  // namespace kv
