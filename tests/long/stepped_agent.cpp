#include "tests/long/stepped_agent.h"

#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <map>
#include <poll.h>
#include <random>
#include <semaphore>
#include <set>
#include <span>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "collection/record_file.h"
#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
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
using model::Step;

// From the working directory.
const fs::path conf = "../conf", data = "data", zipdata = "zipdata", taken = "../../taken",
               difference = "../../difference";

std::string PlanBytes(int version) { return WideBytes(PlanText("WorkFlows", {"plan" + std::to_string(version)})); }

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

void RunStarter() {
    StopBefore(true);
    RemoveUnfinishedRecordFiles();
    VerifyLastFileNum();
    LoadConfFiles();
}

[[noreturn]] void RunWriter() {
    for (;;) {
        StopBefore(true);
        const std::u16string text = DecimalText(threads.recordsBegun++);
        WriteRecordFile(PrepareDataDirectory("RunWriter"), {.name = u"record", .source = u"query"}, text);
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

/// Has a routine run before an operation, with its arguments, until the process ends.
template <class Operations, class Operation, class Routine>
void Before(Operation Operations::*operation, Routine routine) {
    auto& current = platform::CurrentOperations<Operations>().*operation;
    current = [real = current, routine](auto&&... arguments) {
        routine(arguments...);
        return real(arguments...);
    };
}

void InstallStops() {
    using Files = platform::FileOperations;
    const auto step = [](auto&&...) { StopBefore(true); };
    Before(&Files::CreateFileW, [](auto path, auto access, auto&&...) {
        if (access != platform::FileAccess::read) StopBefore(IsInModel(path) && !MayExist(path));
    });
    Before(&Files::WriteFile, [](auto, const void* bytes, std::size_t size) {
        const std::string_view start(static_cast<const char*>(bytes), std::min<std::size_t>(size, 10));
        StopBefore(start == PlanBytes(0).substr(0, 10));
    });
    Before(&Files::FlushFileBuffers, [](auto) { StopBefore(false); });
    Before(&Files::MoveFileExW, step);
    Before(&Files::CopyFileW, step);
    Before(&Files::DeleteFileW, [](auto path) { StopBefore(IsInModel(path) && MayExist(path)); });
    Before(&platform::RegistryOperations::RegSetValueExW,
           [](auto, std::u16string_view name, auto&&...) { StopBefore(name.starts_with(u"MALastCreated")); });
    Before(&platform::HttpOperations::WinHttpSendRequest, step);
    auto& creator = platform::CurrentOperations<platform::ThreadOperations>();
    creator.CreateThread = [](auto...) { return platform::ThreadHandle{1}; };  // no timers: the writer is one
    static VirtualClock clock;
    clock.onSleep = [](std::uint32_t) { StopBefore(true); };
}

std::string RecordIn(std::string_view bytes) { return platform::Utf8FromWide(TextFromUtf16LittleEndian(bytes)); }

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

// ---- the server

/// What the server does with the next request, and the version of the plan that it has.
struct {
    std::atomic<Answer> answer;
    std::atomic<int> plan;
} server;

void SendAnswer(Socket connection, std::string_view status, std::string_view body = {}) {
    SendText(connection, fmt::format("HTTP/1.1 {}\r\nContent-Length: {}\r\n\r\n{}", status, body.size(), body));
}

void Serve(Socket connection) {
    std::string head, body;
    for (char c; !head.ends_with("\r\n\r\n") && ReceiveBytes(connection, &c, 1) == 1;) head += c;
    if (server.answer == Answer::away) return;
    if (head.starts_with("GET"))
        return SendAnswer(connection, "200 OK", lab::MakeArchive({{"queryconf.txt", PlanBytes(server.plan)}}));
    body.resize(std::stoul(head.substr(head.find("Content-Length: ") + 16)));
    for (std::size_t got = 0, read = 1; got < body.size() && read > 0; got += read)
        read = ReceiveBytes(connection, body.data() + got, body.size() - got);
    if (server.answer == Answer::refuses) return SendAnswer(connection, "503 Service Unavailable");
    TestFolder::Write(taken / std::to_string(TestFolder::FilesIn(taken).size()), body);
    if (server.answer == Answer::accepts) SendAnswer(connection, "200 OK");
}

[[noreturn]] void ServeForever(Socket listener) {
    for (;;) {
        const Socket connection = AcceptConnection(listener);
        Serve(connection);
        CloseSocket(connection);
    }
}

// ---- beside the model

/// What model::Describe(state) should say.
std::string Observed(const model::State& state) {
    std::set<std::string> files;
    for (const std::string& name : TestFolder::FilesIn(data))
        files.insert(name.ends_with(".tmp") ? name : name + "=" + RecordIn(TestFolder::Read(data / name)));
    for (const std::string& name : TestFolder::FilesIn(zipdata))
        files.insert("zip " + name +
                     (name.ends_with(".tmp") ? "" : fmt::format(": {}", fmt::join(RecordsInZip(zipdata / name), " "))));
    std::map<std::string, int> times;
    for (const std::string& name : TestFolder::FilesIn(taken))
        for (const std::string& record : RecordsInZip(taken / name)) ++times[record];
    for (const auto& [record, count] : times) files.insert(fmt::format("{} at server x{}", record, std::min(count, 2)));
    std::uint32_t storedRecord = 1, storedZip = 1;
    GetMALastCreatedJSONNum(storedRecord);
    GetMALastCreatedZIPNum(storedZip);
    const bool isUp = state.starter == model::Starter::up;
    return fmt::format(
        model::describedState, fmt::join(files, ", "), isUp ? agentState.gv_ocLastCreatedJSONNum.load() : 0,
        isUp ? agentState.gv_ocLastCreatedZIPNum.load() : 0, storedRecord, storedZip, VersionIn(conf / "queryconf.txt"),
        VersionIn(conf / "backup/queryconf.txt"), VersionIn(conf / "backup/queryconf.txt.new"),
        VersionIn(conf / "download/queryconf.txt"), LoadedVersion());
}

/// Makes the agent take a step that leads to `after`; why it differs from that, or nothing.
std::string Take(Step step, const model::State& after) {
    server.answer = step.answer;
    server.plan = after.plansServed;
    Thread* const actors[] = {&threads.starter, &threads.writer, &threads.uploader, &threads.planner};
    if (!actors[static_cast<int>(step.actor)]->TakeStep()) return "the agent's thread ends or hangs";
    if (step.actor == Actor::starter && after.starter == model::Starter::up) {
        if (!threads.starter.hasEnded) return "the start takes more steps";
        threads.recordsBegun = static_cast<int>(model::RecordsBegun(after));
        threads.writer.Start(RunWriter);
        threads.uploader.Start(RunUploader);
        threads.planner.Start(RunPlanner);
    }
    const std::string expected = Describe(after), observed = Observed(after);
    return expected == observed ? "" : "model: " + expected + "\nagent: " + observed;
}

/// Goes on between two steps of the model, to die at any file operation.
void GoOnALittle(std::mt19937& random) {
    for (Thread* actor : {&threads.writer, &threads.uploader, &threads.planner})
        for (auto operations = random() % 6; operations > 0 && threads.starter.hasEnded && !actor->isAtStep;
             --operations)
            actor->GoOn();
}

/// An agent from its start to a crash or the end of a trace; where it differs from the model, or nothing.
std::string Live(Socket listener, std::span<const Step> steps, model::State state, const model::Limits& limits,
                 unsigned seed) {
    std::thread(ServeForever, listener).detach();
    InstallStops();
    threads.starter.Start(RunStarter);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        state = After(state, steps[i], limits);
        if (const std::string text = Take(steps[i], state); !text.empty())
            return "after " + Describe(model::Trace(&steps[0], &steps[i] + 1)) + "\n" + text;
    }
    std::mt19937 random(seed);
    GoOnALittle(random);
    return "";
}

}  // namespace

SteppedAgent::SteppedAgent() {
    int port = 0;
    listener_ = ListenOnLoopback(port);
    agentState.gv_ServerPort = port;
    agentState.gv_agentKey.Publish(u"K7");
    agentState.gv_LastAccessName.Publish(u"127.0.0.1");
    agentState.gv_httpsEnabled = 0;
    agentState.gv_writeInterval = 0;  // a pass follows when the uploader has slept once
    logState.gv_logLevel = 0;
}

std::string SteppedAgent::Follow(const model::Trace& trace, const model::Limits& limits, unsigned seed) {
    for (const fs::path& part : {data, zipdata, taken, conf, folder / "state"}) {
        fs::remove_all(part);
        fs::create_directories(part);
    }
    Write(conf / "queryconf.txt", PlanBytes(0));
    model::State state;
    for (auto begin = trace.begin(); begin != trace.end();) {
        auto end = std::find_if(begin, trace.end(), [](Step step) { return step.actor == Actor::crash; });
        Write(difference, "the child process ends by itself");
        const pid_t child = fork();
        if (child == 0) {
            Write(difference, Live(listener_, {begin, end}, state, limits, seed));
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        if (const std::string text = Read(difference); !text.empty()) return Describe(trace) + "\n" + text;
        if (end != trace.end()) ++end;  // the crash
        for (; begin != end; ++begin) state = After(state, *begin, limits);
    }
    return "";
}

}  // namespace kv::test
