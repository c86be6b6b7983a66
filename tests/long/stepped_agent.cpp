#include "tests/long/stepped_agent.h"

#include <chrono>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <functional>
#include <map>
#include <poll.h>
#include <semaphore>
#include <set>
#include <thread>
#include <unistd.h>

#include "collection/record_file.h"
#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "lab/store/archive.h"
#include "platform/http.h"
#include "platform/threads.h"
#include "queryconf/config_reload.h"
#include "tests/queryconf/plan_test.h"
#include "tests/support/virtual_clock.h"

extern "C" {
int __real_poll(pollfd* files, nfds_t count, int milliseconds);

/// The linker puts it in the place of poll. The transport watches for 50 milliseconds of real time whether a server
/// that has hung up resets the connection, too. This one does so at once or never.
int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    return __real_poll(files, count, count == 1 && files->events == 0 ? 0 : milliseconds);
}

/// In the place of the system's, also for SQLite: a process that dies loses nothing that it has written, and power does
/// not fail here.
int fsync(int) { return 0; }
int fdatasync(int) { return 0; }
}

namespace kv::test {

namespace {

namespace fs = std::filesystem;
using model::Actor;
using model::Answer;
using platform::Error;

/// A thread of the agent, which stops before each operation that changes a file, the registry or the server.
class Thread {
  public:
    /// Runs up to the first operation.
    void Start(void (*body)()) {
        std::thread([this, body] {
            current = this;
            body();
            hasEnded = true;
            stopped_.release();
        }).detach();
        Wait();
    }

    /// False when it does not get to its next operation within a minute of real time.
    bool GoOn() {
        goOn_.release();
        return Wait();
    }

    /// Makes operations up to the end of one that counts as a step.
    bool TakeStep() {
        while (!isAtStep)
            if (hasEnded || !GoOn()) return false;
        return !hasEnded && GoOn();
    }

    /// Called by the thread itself before an operation.
    void Stop(bool atStep) {
        isAtStep = atStep;
        stopped_.release();
        goOn_.acquire();
    }

    static thread_local Thread* current;
    bool isAtStep = false, hasEnded = false;

  private:
    bool Wait() { return stopped_.try_acquire_for(std::chrono::minutes(1)); }

    std::binary_semaphore goOn_{0}, stopped_{0};
};
thread_local Thread* Thread::current = nullptr;

struct {
    Thread starter, writer, uploader, planner;
    int recordsBegun = 0;
} threads;

void StopBefore(bool step) {
    if (Thread::current) Thread::current->Stop(step);
}

std::u16string RecordText(int index) { return u"{\"record\":" + DecimalText(index) + u"}"; }

void RunStarter() {
    RemoveUnfinishedRecordFiles();
    VerifyLastFileNum();
    LoadConfFiles();
}

[[noreturn]] void RunWriter() {
    for (;;) {
        StopBefore(true);
        const int index = threads.recordsBegun++;
        WriteRecordFile(PrepareDataDirectory("RunWriter"), {.name = u"record", .source = u"query"}, RecordText(index));
    }
}

void RunUploader() { StripTxtFiles(nullptr); }

[[noreturn]] void RunPlanner() {
    for (;;) {
        StopBefore(false);
        RequestingConfigDetailstoCS(u"/plan");
        ReloadQueryConfDetails(u"K7");
        ReloadAndScheduleQueryData();
    }
}

/// The archive of a new plan comes and goes within one step of the model.
bool IsInModel(std::u16string_view path) { return !path.ends_with(u"queryconf.zip"); }

platform::FileOperations SteppedFiles() {
    platform::FileOperations files = platform::Files();
    static std::set<platform::FileHandle> planFiles;
    files.CreateFileW = [real = files.CreateFileW](std::u16string_view path, auto access, auto share, auto disposition,
                                                   auto& file) {
        const bool writes = access == platform::FileAccess::write || access == platform::FileAccess::readWrite;
        if (writes) StopBefore(IsInModel(path) && !MayExist(path));
        const Error error = real(path, access, share, disposition, file);
        planFiles.erase(file);
        if (writes && path.ends_with(u"queryconf.txt")) planFiles.insert(file);
        return error;
    };
    files.WriteFile = [real = files.WriteFile](auto file, auto... rest) {
        StopBefore(planFiles.contains(file));
        return real(file, rest...);
    };
    files.FlushFileBuffers = [](auto) {
        StopBefore(false);
        return platform::error::success;
    };
    files.MoveFileExW = [real = files.MoveFileExW](auto... arguments) {
        StopBefore(true);
        return real(arguments...);
    };
    files.CopyFileW = [real = files.CopyFileW](auto... arguments) {
        StopBefore(true);
        return real(arguments...);
    };
    files.DeleteFileW = [real = files.DeleteFileW](std::u16string_view path) {
        StopBefore(IsInModel(path) && MayExist(path));
        return real(path);
    };
    return files;
}

/// Installs operations that stop before what they do. They stay until the process ends.
void InstallSteps() {
    platform::CurrentOperations<platform::FileOperations>() = SteppedFiles();
    auto& registry = platform::CurrentOperations<platform::RegistryOperations>();
    registry.RegSetValueExW = [real = registry.RegSetValueExW](auto key, std::u16string_view name, auto... rest) {
        StopBefore(name.starts_with(u"MALastCreated"));
        return real(key, name, rest...);
    };
    auto& http = platform::CurrentOperations<platform::HttpOperations>();
    http.WinHttpSendRequest = [real = http.WinHttpSendRequest](auto... arguments) {
        StopBefore(true);
        return real(arguments...);
    };
    auto& creator = platform::CurrentOperations<platform::ThreadOperations>();
    creator.CreateThread = [](auto...) { return platform::ThreadHandle{1}; };  // no timers: the writer is one
    static VirtualClock clock;
    clock.onSleep = [](std::uint32_t) { StopBefore(true); };
}

std::string RecordIn(std::string_view bytes) {
    const std::u16string text = TextFromUtf16LittleEndian(bytes);
    for (int index = 0; index < static_cast<int>(model::mostRecords); ++index)
        if (text == RecordText(index)) return std::to_string(index);
    return "damaged";
}

/// Each file of a zip with what it holds.
std::set<std::string> RecordsInZip(const fs::path& path) {
    std::set<std::string> records;
    lab::ReadArchive(TestFolder::Read(path), [&](const std::string& name, std::string_view content) {
        records.insert(name.substr(name.rfind('/') + 1) + "=" + RecordIn(content));
    });
    return records;
}

int VersionIn(const fs::path& path) {
    if (!fs::exists(path)) return model::noPlan;
    const std::string bytes = TestFolder::Read(path);
    for (int version = 0; version < 10; ++version)
        if (bytes == PlanBytes(version)) return version;
    return model::halfPlan;
}

int LoadedVersion() {
    const Vector* list =
        agentState.gv_queryConfHash ? GetHashVector(agentState.gv_queryConfHash, u"WorkFlows") : nullptr;
    if (!list || !list->head) return model::noPlan;
    const std::u16string name = GetHashText(reinterpret_cast<const HashTable*>(list->head->value), u"wfname");
    return name.back() - u'0';
}

void SendAnswer(Socket connection, std::string_view status, std::string_view body) {
    SendText(connection, fmt::format("HTTP/1.1 {}\r\nContent-Length: {}\r\n\r\n{}", status, body.size(), body));
}

void KeepZip(const std::string& head, const std::string& body, const fs::path& takenFolder) {
    const std::size_t start = head.find("FILENAME=") + 9;
    const std::string name = head.substr(start, head.find_first_of(" &", start) - start);
    int time = 1;
    while (fs::exists(takenFolder / fmt::format("{}.{}", name, time))) ++time;
    TestFolder::Write(takenFolder / fmt::format("{}.{}", name, time), body);
}

void Serve(Socket connection, const SharedMemory& shared, const fs::path& takenFolder) {
    std::string head, body;
    for (char c; !head.ends_with("\r\n\r\n") && ReceiveBytes(connection, &c, 1) == 1;) head += c;
    const Answer answer = shared.answer;
    if (answer == Answer::away) return;
    if (head.starts_with("GET"))
        return SendAnswer(connection, "200 OK", lab::MakeArchive({{"queryconf.txt", PlanBytes(shared.plansServed)}}));
    const std::size_t size = std::stoul(head.substr(head.find("Content-Length: ") + 16));
    body.resize(size);
    for (std::size_t got = 0, read = 1; got < size && read > 0; got += read)
        read = ReceiveBytes(connection, body.data() + got, size - got);
    if (answer == Answer::refuses) return SendAnswer(connection, "503 Service Unavailable", "");
    KeepZip(head, body, takenFolder);
    if (answer == Answer::accepts) SendAnswer(connection, "200 OK", "");
}

}  // namespace

std::string PlanBytes(int version) { return WideBytes(PlanText("WorkFlows", {"plan" + std::to_string(version)})); }

void ServeForever(Socket listener, const SharedMemory& shared, const std::filesystem::path& takenFolder) {
    for (;;) {
        const Socket connection = AcceptConnection(listener);
        Serve(connection, shared, takenFolder);
        CloseSocket(connection);
    }
}

SteppedAgent::SteppedAgent(AgentFolders folders, SharedMemory& shared) : folders_(std::move(folders)), shared_(shared) {
    agentState.gv_writeInterval = 0;  // a pass follows when the uploader has slept once
    InstallSteps();
}

std::string SteppedAgent::Take(model::Step step, const model::State& after) {
    shared_.answer = step.answer;
    shared_.plansServed = after.plansServed;
    Thread* const actors[] = {&threads.starter, &threads.writer, &threads.uploader, &threads.planner};
    Thread& actor = *actors[static_cast<int>(step.actor)];
    static bool isStarted = false;
    if (!std::exchange(isStarted, true))
        actor.Start(RunStarter);
    else if (!actor.TakeStep())
        return "the agent's thread ends or hangs";
    if (after.starter == model::Starter::up && step.actor == Actor::starter) {
        if (!threads.starter.hasEnded) return "the start takes more steps";
        threads.recordsBegun = static_cast<int>(model::RecordsBegun(after));
        threads.writer.Start(RunWriter);
        threads.uploader.Start(RunUploader);
        threads.planner.Start(RunPlanner);
    }
    const std::string expected = Describe(after), observed = Observed(after);
    return expected == observed ? "" : "model: " + expected + "\nagent: " + observed;
}

void SteppedAgent::GoOnALittle(std::mt19937& random) {
    for (Thread* actor : {&threads.writer, &threads.uploader, &threads.planner})
        for (auto operations = random() % 6; operations > 0 && threads.starter.hasEnded && !actor->isAtStep;
             --operations)
            actor->GoOn();
}

std::string SteppedAgent::Observed(const model::State& state) const {
    std::set<std::string> files;
    for (const std::string& name : TestFolder::FilesIn(folders_.data))
        files.insert(name.ends_with(".tmp") ? name : name + "=" + RecordIn(TestFolder::Read(folders_.data / name)));
    for (const std::string& name : TestFolder::FilesIn(folders_.zipdata))
        files.insert(name.ends_with(".tmp")
                         ? "zip " + name
                         : fmt::format("zip {}: {}", name, fmt::join(RecordsInZip(folders_.zipdata / name), " ")));
    std::map<std::string, int> taken;
    for (const std::string& name : TestFolder::FilesIn(folders_.taken))
        for (const std::string& record : RecordsInZip(folders_.taken / name)) ++taken[record];
    for (const auto& [record, times] : taken) files.insert(fmt::format("{} at server x{}", record, std::min(times, 2)));
    std::uint32_t storedRecord = 1, storedZip = 1;
    GetMALastCreatedJSONNum(storedRecord);
    GetMALastCreatedZIPNum(storedZip);
    const bool isUp = state.starter == model::Starter::up;
    return fmt::format(model::describedState, fmt::join(files, ", "),
                       isUp ? agentState.gv_ocLastCreatedJSONNum.load() : 0,
                       isUp ? agentState.gv_ocLastCreatedZIPNum.load() : 0, storedRecord, storedZip,
                       VersionIn(folders_.conf / "queryconf.txt"), VersionIn(folders_.conf / "backup/queryconf.txt"),
                       VersionIn(folders_.conf / "backup/queryconf.txt.new"),
                       VersionIn(folders_.conf / "download/queryconf.txt"), LoadedVersion());
}

}  // namespace kv::test
