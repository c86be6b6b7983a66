// Collection from a workflow entry to record files, with real scripts run by the real command interpreter.
#include <algorithm>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "collection/collect.h"
#include "collection/record_file.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

class Collection : public TestAgent {
  protected:
    Collection() {
        agentState.gv_agentKey.publish(u"K");
        agentState.gv_custID = u"Acme";
    }
    ~Collection() override { FreeAllHashTable(plan_); }

    void WriteScript(const std::string& name, const std::string& body) {
        Write(conf / "scripts" / name, "#!/bin/sh\n" + body + "\n");
        fs::permissions(conf / "scripts" / name, fs::perms::owner_all);
    }

    /// Runs a new script with its output wanted and gives its record's text in UTF-8, or "(none)".
    std::string RunScript(const std::string& body, std::u16string_view parameters = u"") {
        WriteScript("script.sh", body);
        EXPECT_EQ(ExecuteScript(u"script.sh", parameters, u"TRUE"), 0);
        return Record(agentState.gv_ocLastCreatedJSONNum);
    }

    std::string Record(std::uint32_t number) const {
        const fs::path path = data / ("Agent_K_" + std::to_string(number) + ".txt");
        return fs::exists(path) ? platform::Utf8FromWide(TextFromUtf16LittleEndian(Read(path))) : "(none)";
    }

    std::set<std::string> DataFiles() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(data)) names.insert(entry.path().filename());
        return names;
    }

    /// Makes the workflow entries of a JSON array the schedule and runs the one at an index.
    void Collect(std::u16string_view workflows, std::int32_t index = 0) {
        FreeAllHashTable(plan_);
        plan_ = MakeHashTable().release();
        ASSERT_TRUE(JSONTextToHash(plan_, u"{\"WorkFlows\":" + std::u16string(workflows) + u"}").ok);
        agentState.gv_sortVec = GetHashVector(plan_, u"WorkFlows");
        CollectAndSaveData(&index);
    }

  private:
    HashTable* plan_ = nullptr;
};

bool IsRunning(const std::string& pid) {
    std::string line;
    std::getline(std::ifstream("/proc/" + pid + "/stat") >> std::ws, line);
    return !line.empty() && line.at(line.rfind(')') + 2) != 'Z';
}

/// Makes every write to a record file after the first so many fail, as on a full disk; the log goes on.
platform::FileOperations DiskFullAfter(int writes) {
    platform::FileOperations files = platform::Files();
    const auto record = std::make_shared<platform::FileHandle>(0);
    files.CreateFileW = [real = files.CreateFileW, record](std::u16string_view path, auto access, auto share,
                                                           auto disposition, platform::FileHandle& file) {
        const platform::Error error = real(path, access, share, disposition, file);
        if (path.ends_with(u".tmp")) *record = file;
        return error;
    };
    files.WriteFile = [real = files.WriteFile, record, writes](auto file, const void* bytes, std::size_t size) mutable {
        if (file != *record || writes-- > 0) return real(file, bytes, size);
        return platform::error::diskFull;
    };
    return files;
}

TEST_F(Collection, ScriptOutputBecomesARecordWhateverTheEnd) {
    struct Row {
        const char* title;
        const char* body;
        std::string record;
        const char* logged;
    };
    for (const Row& row : std::vector<Row>{
             {"arguments in order", "printf '%s|' \"$@\"", "K|Disks|100|-5|a|b c|", "Output File Found"},
             {"nothing printed", "true", "", "Error Code : 0 "},
             {"standard error is no record", "echo bad >&2", "", "Error Code : 0 "},
             {"failed", "echo half; exit 3", "half\n", "Error Code : 3 "},
             {"ended by a signal", "echo half; kill -9 $$", "half\n", "Unable to create a output file for the command"},
             {"bytes that are no UTF-8", "printf 'a\\303(\\377z'", "a\uFFFD(\uFFFDz", "Error Code : 0 "},
             {"a child left behind", "(sleep 1; echo late) & echo done", "done\n", "left behind goes on writing"},
         }) {
        SCOPED_TRACE(row.title);
        EXPECT_EQ(RunScript(row.body, u"K Disks 100 -5 a \"b c\""), row.record);
        EXPECT_TRUE(Logged(row.logged));
    }
    EXPECT_EQ(DataFiles().size(), 7u) << "nothing but the records is left";
}

TEST_F(Collection, AHundredMegabytesBecomeOneRecord) {
    WriteScript("big.sh", "head -c 104857599 /dev/zero | tr '\\0' x; printf '\\303'; printf '\\251'");
    ExecuteScript(u"big.sh", u"", u"true");
    ASSERT_EQ(fs::file_size(data / "Agent_K_1.txt"), 2 * 104857600u);
    std::ifstream record(data / "Agent_K_1.txt");
    record.seekg(-4, std::ios::end);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(record), {}), std::string("x\0\xE9\0", 4));
}

TEST_F(Collection, AScriptIsEndedWithAllItStartedAtTheLimit) {
    std::uint32_t limit = 0;
    platform::ProcessOperations hasty = platform::Processes();
    hasty.WaitForSingleObject = [&limit, real = hasty.WaitForSingleObject](platform::ProcessHandle process,
                                                                           std::uint32_t milliseconds) {
        limit = std::max(limit, milliseconds);
        return real(process, std::min(milliseconds, 300u));
    };
    const platform::ScopedOperations<platform::ProcessOperations> scoped(hasty);
    EXPECT_EQ(RunScript("trap '' TERM; echo begun; echo $$ >pids; sleep 600 & echo $! >>pids; wait; echo never"),
              "begun\n");
    EXPECT_EQ(limit, 120000u);
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    std::istringstream pids(Read(bin / "pids"));
    int count = 0;
    for (std::string pid; pids >> pid; ++count) {
        for (int tries = 0; tries < 50 && IsRunning(pid); ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_FALSE(IsRunning(pid)) << pid;
    }
    EXPECT_EQ(count, 2);
}

TEST_F(Collection, TheExitCodeDecidesOverSuccess) {
    for (const auto& [code, result] : std::vector<std::pair<std::uint32_t, int>>{
             {0, 1}, {1641, 1}, {3010, 1}, {1, 0}, {1640, 0}, {255, 0}, {0xC0000005, 0}}) {
        platform::ProcessOperations processes = platform::Processes();
        processes.GetExitCodeProcess = [exitCode = code](platform::ProcessHandle, std::uint32_t& out) {
            out = exitCode;
            return platform::error::success;
        };
        const platform::ScopedOperations<platform::ProcessOperations> scoped(processes);
        WriteScript("exit.sh", "true");
        const std::u16string line =
            processes.ComposeScriptLine({u"", u"..\\conf\\scripts\\exit.sh", u"", std::nullopt});
        std::u16string remarks;
        EXPECT_EQ(execute(std::nullopt, line, remarks, 2, true), result) << code;
        EXPECT_EQ(remarks.rfind(u"Error Code : ", 0), 0u);
        EXPECT_EQ(execute(u"no such directory", line, remarks, 2, true), 0);
        EXPECT_EQ(execute(u"..\\conf", line, remarks, 0, true), 1) << "not waited for";
        EXPECT_EQ(fs::current_path(), bin) << "the working directory is put back";
    }
}

TEST_F(Collection, OnlyScriptsBelowTheScriptsDirectoryRun) {
    WriteScript("here.sh", "echo ran");
    fs::copy(conf / "scripts" / "here.sh", folder / "outside.sh");
    fs::create_directories(conf / "scripts" / "sub..dir");
    fs::copy(conf / "scripts" / "here.sh", conf / "scripts" / "sub..dir" / "deep");
    const std::u16string absolute = platform::WideFromUtf8((folder / "outside.sh").string());
    for (const std::u16string& name : {absolute, std::u16string(u"..\\..\\..\\outside.sh"), std::u16string(u""),
                                       std::u16string(u"sub..dir/../../../../outside.sh"), std::u16string(u"c:x.sh")}) {
        ExecuteScript(name, u"", u"true");
    }
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 0u);
    EXPECT_TRUE(Logged("..\\..\\..\\outside.sh names nothing below the scripts directory"));
    ExecuteScript(u"sub..dir\\deep", u"", u"true");
    EXPECT_EQ(Record(1), "ran\n");
    ExecuteScript(u"missing.sh", u"", u"true");
    EXPECT_TRUE(Logged("missing.sh")) << "the failed command is named";
    ExecuteScript(u"here.sh", u"", u"yes");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 2u) << "unwanted output takes no number";
}

TEST_F(Collection, AFullDiskCostsTheRecordInHandOnly) {
    {
        const platform::ScopedOperations<platform::FileOperations> full(DiskFullAfter(1));
        EXPECT_EQ(RunScript("head -c 200000 /dev/zero"), "(none)");
    }
    {
        const platform::ScopedOperations<platform::FileOperations> full(DiskFullAfter(0));
        ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    }
    EXPECT_TRUE(DataFiles().empty());
    EXPECT_TRUE(Logged("There is not enough space on the disk."));
    EXPECT_EQ(RunScript("echo again"), "again\n");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 3u);

    fs::remove_all(data);
    Write(data, "a file where the data directory should be");
    EXPECT_EQ(RunScript("echo lost"), "(none)");
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    EXPECT_TRUE(Logged("Agent_K_5.txt cannot be written, its record is lost"));
}

TEST_F(Collection, AWorkflowRunsItsRecordsInOrderByKind) {
    const VirtualClock clock;
    agentState.gv_timeDiff = 3600;
    WriteScript("args.sh", "echo \"$1,$2,$3,$4,$5\"");
    Collect(
        uR"([{"wfname":"w","recordSetName":[
        {"wmiQuery":"SELECT * FROM D","script":"args.sh","Name":"Disks","PROTOCOL":"SPOLL"},
        {"wmiQuery":7,"Name":"Broken"}, "no record", {"OTHER":"kind"}, {"wmiQuery":"SELECT"}, {"script":["x"]},
        {"script":"args.sh","PROTOCOL":"SPOLL","Name":"N","params":"p","response_needed":"true"},
        {"PROTOCOL":"SPOLL","DEVICE_NAME":"router"}]}])");
    EXPECT_EQ(Record(1),
              "{ \"MSPCUSTOMERID\": \"Acme\", \"AGENTKEY\": \"K\", \"DATACOLLECTTIME\": \"1772705107\", "
              "\"ERRORMSG\": \"WMI queries are not built yet on this system\", \"Disks\": [ ] }");
    EXPECT_EQ(Record(2), "K,N,1772705107,3600,p\n");
    EXPECT_EQ(DataFiles().size(), 2u);
    for (const char* line : {"a WMI record without the text wmiQuery", "a WMI record without the text Name",
                             "a script record without the text script", "something in recordSetName is no record",
                             "device router is not polled"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
}

TEST_F(Collection, AWorkflowThatCannotRunSaysSo) {
    constexpr std::u16string_view workflows = uR"([{"wfname":"w"},{"wfname":"v","recordSetName":"x"}])";
    for (std::int32_t index = 0; index < 3; ++index) Collect(workflows, index);
    agentState.gv_collectData = 0;
    Collect(uR"([{"recordSetName":[{"wmiQuery":"SELECT","Name":"N"}]}])");
    for (const char* line : {"workflow w has no list recordSetName", "workflow v has no list recordSetName",
                             "no workflow stands at index [2]", "Data not collected as connection to CS is lost"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
    EXPECT_FALSE(fs::exists(data));
}

TEST_F(Collection, NumbersGoOnBehindTheFilesOnDisk) {
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 1u) << "neither a value nor files";
    SetMALastCreatedJSONNum(3);
    SetMALastCreatedZIPNum(40);
    for (const char* name :
         {"Agent_K_7.txt", "Agent_K_5.txt", "Agent_my_key_900.txt", "Agent_K_99999999999.txt", "Agent_K_4294967295.txt",
          "Agent_K_6x.txt", "Agent_K_8.tmp", "Agent_K_9.out", "note.txt"}) {
        Write(data / name, "");
    }
    fs::create_directories(data / "Agent_K_50.txt");
    Write(zipdata / "Agent_K_12.zip", "");
    RemoveUnfinishedRecordFiles();
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 7u);
    EXPECT_EQ(agentState.gv_ocLastCreatedZIPNum, 40u) << "numbers are only ever raised";
    std::uint32_t stored = 0;
    GetMALastCreatedJSONNum(stored);
    EXPECT_EQ(stored, 7u);
    EXPECT_EQ(NextRecordPath(u"data"), u"data\\Agent_K_8");
    agentState.gv_ocLastCreatedJSONNum = 6;
    EXPECT_EQ(NextRecordPath(u"data"), u"data\\Agent_K_8") << "the unsent record 7 is not written over";
    EXPECT_EQ(DataFiles().size(), 8u);
    EXPECT_TRUE(Logged("Agent_K_9.out was left unfinished"));
}

TEST_F(Collection, TwoCollectorsNeverTakeOneNumber) {
    std::vector<std::u16string> names(1000);
    const auto take = [&names](std::size_t begin) {
        for (std::size_t index = begin; index < begin + 500; ++index) names[index] = NextRecordPath(u"data");
    };
    std::thread other(take, 500);
    take(0);
    other.join();
    EXPECT_EQ(std::set<std::u16string>(names.begin(), names.end()).size(), 1000u);
}

}  // namespace
}  // namespace kv::test
