#include "collection/script.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "collection/execute.h"
#include "collection/record_file.h"
#include "collection/record_members.h"
#include "collection/script_output.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/server_limit.h"
#include "foundation/system_error.h"
#include "foundation/time_utils.h"
#include "platform/files.h"
#include "platform/process.h"

namespace kv {

namespace {

constexpr std::uint32_t minuteLimit = 2;
constexpr std::size_t blockSize = 64 * 1024;

/// Bytes. More cannot be meant for a record; the limit is there for a script gone wrong.
constexpr std::uint64_t longestOutput = 256 * 1024 * 1024;

// The host's own limit is 120 seconds; it prints 16-bit text.
constexpr std::u16string_view scriptHost = u"cscript.exe //T:120 //U //Nologo";
constexpr std::array<std::u16string_view, 4> scriptHostExtensions = {u".js", u".vbe", u".vbs", u".wsf"};

/// The program that runs a script, by the script's extension; empty when it runs by itself.
std::u16string_view ScriptHostFor(std::u16string_view fileName) {
    const std::size_t dot = fileName.rfind(u'.');
    if (dot == fileName.npos) return {};
    const std::u16string_view extension = fileName.substr(dot);
    const bool hosted = std::any_of(scriptHostExtensions.begin(), scriptHostExtensions.end(),
                                    [&](auto known) { return CompareIgnoreCase(extension, known) == 0; });
    return hosted ? scriptHost : std::u16string_view();
}

/// What the script has printed by now, and no more: a process that it left behind may print faster than this reads.
platform::Error BytesToConvert(platform::FileHandle output, std::uint64_t& size) {
    const platform::Error error = platform::Files().GetFileSizeEx(output, size);
    if (size > longestOutput) {
        Log1("ExecuteScript : the script printed %d bytes; its record is cut after %d \n", size, longestOutput);
        size = longestOutput;
    }
    return error;
}

platform::Error ConvertAll(platform::FileHandle from, platform::FileHandle to,
                           platform::ScriptOutputEncoding encoding) {
    ScriptOutputConverter converter;
    converter.encoding = encoding;
    const platform::FileOperations& files = platform::Files();
    std::uint64_t left = 0;
    if (const platform::Error error = BytesToConvert(from, left)) return error;
    std::vector<char> block(blockSize);
    std::string converted;
    std::size_t read = 0;
    do {
        platform::Error error = files.ReadFile(from, block.data(), std::min<std::uint64_t>(left, block.size()), read);
        if (error != platform::error::success) return error;
        left -= read;
        converted.clear();
        if (read != 0) {
            FeedScriptOutput(converter, std::string_view(block.data(), read), converted);
        } else {
            FinishScriptOutput(converter, converted);
        }
        error = files.WriteFile(to, converted.data(), converted.size());
        if (error != platform::error::success) return error;
    } while (read != 0);
    return platform::error::success;
}

/// Whether a record that has filled the disk has a beginning that can be sent.
bool IsCut(platform::FileHandle record, const std::u16string& path) {
    std::uint64_t size = 0;
    if (platform::Files().GetFileSizeEx(record, size) != platform::error::success || size == 0) return false;
    Log1("ExecuteScript : the disk is full; the record %s.txt is sent as it is, cut after %d bytes \n", path, size);
    return true;
}

/// Writes the record file of an open output file under a temporary name and renames it when it is complete.
platform::Error WriteConverted(platform::FileHandle output, const std::u16string& path,
                               platform::ScriptOutputEncoding encoding) {
    const std::u16string temporary = path + u".tmp";
    OpenFile record;
    platform::Error error = record.Open(temporary, platform::FileAccess::write, platform::FileShare::none,
                                        platform::FileDisposition::createAlways);
    if (error != platform::error::success) return error;
    error = ConvertAll(output, record.handle, encoding);
    if (error == platform::error::success) error = platform::Files().FlushFileBuffers(record.handle);
    if (error == platform::error::diskFull && IsCut(record.handle, path)) error = platform::error::success;
    const platform::Error closed = record.Close();
    if (error == platform::error::success) error = closed;
    if (error == platform::error::success)
        error = platform::Files().MoveFileExW(temporary, path + u".txt", platform::MoveTarget::isReplaced);
    if (error != platform::error::success) platform::Files().DeleteFileW(temporary);
    return error;
}

/// The file of what a script has printed. One that is there is deleted in the end, whatever ends its use.
struct ScriptOutput {
    const std::u16string path;
    OpenFile file;
    platform::Error error;  // of opening it

    /// A process that the script left behind may still be writing to it.
    explicit ScriptOutput(std::u16string outputPath)
        : path(std::move(outputPath)),
          error(file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                          platform::FileDisposition::openExisting)) {}
    ScriptOutput(const ScriptOutput&) = delete;
    ScriptOutput& operator=(const ScriptOutput&) = delete;
    ~ScriptOutput() {
        file.Close();
        RunGuarded("ExecuteScript", [this] {
            if (isThere() && platform::Files().DeleteFileW(path) != platform::error::success)
                Log1("ExecuteScript : the output %s is still in use and stays \n", path);
        });
    }

    bool isThere() const { return error != platform::error::fileNotFound && error != platform::error::pathNotFound; }
};

/// Why a shell could not make an output file, which only its own messages would tell.
platform::Error WhyAbsent(const std::u16string& path) {
    OpenFile probe;
    const platform::Error error = probe.Open(path, platform::FileAccess::write, platform::FileShare::none,
                                             platform::FileDisposition::createAlways);
    if (error != platform::error::success) return error;
    probe.Close();
    platform::Files().DeleteFileW(path);
    return error;
}

/// Turns what the script has printed by now into its record file. path is the record's without extension; the output is
/// beside it as ".out" and is deleted. When the output file is absent, no record is made, and the record counts as lost
/// if the file could not be made either.
void MakeRecordOfOutput(const std::u16string& path, const RecordIdentity& record,
                        platform::ScriptOutputEncoding encoding) {
    const ScriptOutput output(path + u".out");
    const std::u16string file = path + u".txt";
    if (!output.isThere()) {
        if (const platform::Error error = WhyAbsent(output.path))
            TellRecordOutcome("ExecuteScript", record, file, error);
        return;
    }
    platform::Error error = output.error;
    if (error == platform::error::success) error = WriteConverted(output.file.handle, path, encoding);
    const bool isNewLoss = TellRecordOutcome("ExecuteScript", record, file, error);
    RunGuarded("ExecuteScript", [&] {
        if (isNewLoss) {
            Log1("ExecuteScript : the output %s cannot be made a record file and is lost \n", output.path);
            LogLastSystemError(error);
        } else if (error == platform::error::success &&
                   platform::Files().GetFileUseState(output.path) == platform::error::sharingViolation) {
            Log1(
                "ExecuteScript : a process that the script left behind goes on writing; its output after %s is lost "
                "\n",
                path);
        }
    });
}

/// Key, name, time, time difference and the record's own parameters. A text that is absent leaves its two blanks.
std::u16string ScriptParameters(const HashTable* record) {
    const std::int64_t difference = agentState.gv_timeDiff;
    std::u16string text(agentState.gv_agentKey.view());
    text += u" " + ReadMember(record, u"Name").value_or(u"");
    text += u" " + DecimalText(GetNowSeconds() + difference);
    text += u" " + DecimalText(difference);
    return text += u" " + ReadMember(record, u"params").value_or(u"");
}

/// Whether a script may be run; a line when not. A double quote does not belong to a file's name, and is dropped from
/// it on the way: what runs could be another file than the one that is allowed.
bool MayRun(std::u16string_view fileName, const OptionalText& recordName) {
    if (!StaysBelowDirectory(fileName)) {
        Log1("ExecuteScript : %s does not name a file below the scripts directory and is not run \n", fileName);
        NoteFailedQuery("the script %s of the record %s is not run: it is not below the scripts directory", fileName,
                        recordName);
        return false;
    }
    const ServerLimit limit = LimitOfScripts();
    const std::u16string names[] = {std::u16string(fileName)};
    std::optional<std::u16string> refusal = limit.Refusal(names);
    if (limit.isSet() && !refusal && FindChar(fileName, u'"') != std::u16string_view::npos)
        refusal = u"its name has a quote";
    if (refusal) {
        Log1("ExecuteScript : the script %s of the record %s is not run: %s \n", fileName, recordName, *refusal);
        NoteFailedQuery("the script %s of the record %s is not run: %s", fileName, recordName, *refusal);
    }
    return !refusal;
}

/// The last line about a script's run, or that its file is absent.
std::u16string ReasonOfFailure(const std::u16string& path, std::u16string remarks) {
    if (!CheckFileExists(path)) return ConcatStrings(platform::Files().NativePath(path), u" does not exist");
    while (!remarks.empty() && (remarks.back() == u'\n' || remarks.back() == u' ')) remarks.pop_back();
    return remarks;
}

}  // namespace

void CollectScript(const HashTable* record) {
    const OptionalText script = ReadMember(record, u"script");
    if (!script) {
        Log1("\t CollectAndSaveData :: a script record without the text script is skipped \n");
        return;
    }
    ExecuteScript(*script, ScriptParameters(record), ReadMember(record, u"response_needed"),
                  MemberText(record, u"Name"));
}

int ExecuteScript(std::u16string_view fileName, std::u16string_view commandLineParam, const OptionalText& viewOutput,
                  const OptionalText& recordName) {
    Log3("\t Inside ExecuteScript() \n");
    if (!MayRun(fileName, recordName)) return 0;
    platform::ScriptCommand command;
    command.scriptHost = ScriptHostFor(fileName);
    command.path = agentState.gv_ocAgentBinPath.value_or(u"") + u"..\\conf\\scripts\\";
    command.path += fileName;
    command.arguments = commandLineParam;
    OptionalText record;
    std::optional<OutputBound> bound;
    if (CompareIgnoreCase(viewOutput, u"true") == 0) {
        record = NextRecordPath(PrepareDataDirectory("ExecuteScript"));
        command.outputPath = *record + u".out";
        bound = OutputBound{*command.outputPath, longestOutput};
    }
    const std::u16string processString = platform::Processes().ComposeScriptLine(command);
    Log2("ExecuteScript : processString - %s\n", processString);
    std::u16string remarks;
    const bool succeeded = execute(std::nullopt, processString, remarks, minuteLimit, true, bound) == 1;
    if (!succeeded) {
        Log1("ExecuteScript : Unable to create a output file for the command %s and the remarks is %s \n",
             processString, remarks);
        const std::u16string reason = ReasonOfFailure(command.path, remarks);
        Log1("ExecuteScript : the script %s of the record %s failed: %s \n", fileName, recordName, reason);
        NoteFailedQuery("the script %s of the record %s failed: %s", fileName, recordName, reason);
    }
    if (!record) return 0;
    const std::u16string name = recordName.value_or(std::u16string(fileName));
    MakeRecordOfOutput(*record, {.name = name, .source = fileName},
                       platform::Processes().GetScriptOutputEncoding(command.scriptHost));
    if (!succeeded) return 0;
    if (CheckFileExists(*record + u".txt")) {
        Log2("ExecuteScript: Output File Found \n");
    } else {
        Log1("ExecuteScript: File Not Found !\n");
    }
    return 0;
}

}  // namespace kv
