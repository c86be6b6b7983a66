// Collection from a workflow entry to record files, with real scripts run by the real command interpreter.
#include <cstring>
#include <gmock/gmock.h>
#include <thread>
#include <vector>

#include "collection/record_file.h"
#include "collection/script_output.h"
#include "foundation/registry_store.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/wmi.h"
#include "tests/collection/collection_test.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;
using namespace std::string_view_literals;

/// What comes of script output that arrives in these blocks.
std::u16string Convert(platform::ScriptOutputEncoding encoding, const std::vector<std::string_view>& blocks) {
    ScriptOutputConverter converter;
    converter.encoding = encoding;
    std::string bytes;
    for (const std::string_view block : blocks) {
        FeedScriptOutput(converter, block, bytes);
        EXPECT_LE(converter.pending.size(), 3u);
    }
    FinishScriptOutput(converter, bytes);
    return TextFromUtf16LittleEndian(bytes);
}

TEST(ScriptOutput, BecomesUtf16WithoutByteOrderMarkWhereverItIsCutInTwo) {
    constexpr auto utf8 = platform::ScriptOutputEncoding::utf8;
    constexpr auto utf16 = platform::ScriptOutputEncoding::utf16LittleEndian;
    struct Row {
        const char* title;
        platform::ScriptOutputEncoding encoding;
        std::string_view bytes;
        std::u16string_view expected;
    };
    for (const Row& row : std::vector<Row>{
             {"ASCII and a NUL", utf8, "a\0b\n"sv, u"a\0b\n"sv},
             {"two, three and four bytes", utf8, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.", u"\u00e9\u20ac\U0001f600."},
             {"only the first is a mark", utf8, "\xEF\xBB\xBF\xEF\xBB\xBFx", u"\uFEFFx"},
             {"a stray trail byte", utf8, "a\x80z", u"a\uFFFDz"},
             {"a lead byte before ASCII", utf8, "\xC3(", u"\uFFFD("},
             {"cut at the end", utf8, "ab\xE2\x82", u"ab\uFFFD"},
             {"a surrogate written as UTF-8", utf8, "\xED\xA0\x80z", u"\uFFFDz"},
             {"UTF-16 with its mark", utf16, "\xFF\xFE\x61\x00\xAC\x20"sv, u"a\u20ac"},
             {"half a unit at the end", utf16, "a\0b"sv, u"a\uFFFD"},
         }) {
        SCOPED_TRACE(row.title);
        for (std::size_t cut = 0; cut <= row.bytes.size(); ++cut)
            EXPECT_EQ(Convert(row.encoding, {row.bytes.substr(0, cut), row.bytes.substr(cut)}), row.expected) << cut;
    }
}

TEST_F(Collection, ScriptOutputBecomesARecordWhateverTheEnd) {
    struct Row {
        const char* title;
        std::string body;
        std::string record;
        const char* logged;
    };
    for (const Row& row : std::vector<Row>{
             {"arguments in order", printArguments, "K,Disks,100,-5,b c", "Output File Found"},
             {"nothing printed", "exit 0", "", "Error Code : 0 "},
             {"standard error is no record", "echo bad >&2", "", "Error Code : 0 "},
             {"failed", "echo half\nexit 3", "half", "Error Code : 3 "},
         }) {
        SCOPED_TRACE(row.title);
        const std::string record = RunScript(row.body, u"K Disks 100 -5 \"b c\"");
        EXPECT_EQ(record, row.record.empty() ? "" : row.record + lineEnd);
        EXPECT_TRUE(Logged(row.logged));
    }
    EXPECT_EQ(DataFiles(), 4) << "nothing but the records is left";
}

TEST_F(Collection, OutputThatGrowsFasterThanItIsReadEndsWhereItStood) {
    platform::FileOperations files = platform::Files();
    files.ReadFile = [](platform::FileHandle, void* buffer, std::size_t size, std::size_t& read) {
        std::memset(buffer, 'y', size);
        return read = size, platform::error::success;
    };
    const platform::ScopedOperations<platform::FileOperations> scoped(files);
    WriteScript("fast.bat", "echo yyy");
    ExecuteScript(u"fast.bat", u"", u"true");
    EXPECT_EQ(fs::file_size(data / "Agent_K_1.txt"), 2 * (3 + lineEnd.size()));
}

TEST_F(Collection, TheExitCodeDecidesOverSuccess) {
    WriteScript("exit.bat", "exit 0");
    platform::ProcessOperations processes = platform::Processes();
    const std::u16string line = processes.ComposeScriptLine({u"", u"..\\conf\\scripts\\exit.bat", u"", std::nullopt});
    std::u16string remarks;
    for (const auto& [code, result] :
         std::vector<std::pair<std::uint32_t, int>>{{0, 1}, {1641, 1}, {3010, 1}, {1, 0}, {1640, 0}, {0xC0000005, 0}}) {
        processes.GetExitCodeProcess = [exitCode = code](platform::ProcessHandle, std::uint32_t& out) {
            return out = exitCode, platform::error::success;
        };
        const platform::ScopedOperations<platform::ProcessOperations> scoped(processes);
        EXPECT_EQ(execute(std::nullopt, line, remarks, 2, true), result) << code;
        EXPECT_EQ(remarks.rfind(u"Error Code : ", 0), 0u);
    }
    EXPECT_EQ(execute(u"no such directory", line, remarks, 2, true), 0);
    EXPECT_EQ(execute(u"..\\conf", line, remarks, 0, true), 1) << "not waited for";
    EXPECT_EQ(fs::current_path(), bin) << "the working directory is put back";
}

TEST_F(Collection, OnlyScriptsBelowTheScriptsDirectoryRun) {
    WriteScript("sub..dir/deep.bat", "echo ran");
    for (const char16_t* name :
         {u"/bin/true", u"..\\..\\..\\outside.sh", u"", u"sub..dir/../../../../outside.sh", u"c:x.sh"})
        ExecuteScript(name, u"", u"true");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 0u) << "none came as far as taking a number";
    EXPECT_TRUE(Logged("..\\..\\..\\outside.sh names nothing below the scripts directory"));
    ExecuteScript(u"sub..dir\\deep.bat", u"", u"true");
    EXPECT_EQ(Record(1), "ran" + lineEnd);
    ExecuteScript(u"missing.sh", u"", u"yes");
    EXPECT_TRUE(Logged("missing.sh")) << "the failed command is named";
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 1u) << "unwanted output takes no number";
}

TEST_F(Collection, AFullDiskCostsTheRecordInHandOnly) {
    {
        platform::FileOperations files = platform::Files();
        files.WriteFile = [real = files.WriteFile](auto file, const void* bytes, std::size_t size) {
            return size == 100000 ? platform::error::diskFull : real(file, bytes, size);
        };
        const platform::ScopedOperations<platform::FileOperations> full(files);
        Write(bin / "big", std::string(115536, 'x'));
        EXPECT_EQ(RunScript(printFile + "big"), "(none)") << "full after the first block of 65536 bytes";
    }
    EXPECT_EQ(DataFiles(), 0);
    EXPECT_TRUE(Logged("Error code : 112"));
    EXPECT_EQ(RunScript("echo again"), "again" + lineEnd);
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 2u);

    fs::remove_all(data);
    Write(data, "a file where the data directory should be");
    EXPECT_EQ(RunScript("echo lost"), "(none)");
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    EXPECT_TRUE(Logged("Agent_K_4.txt cannot be written, its record is lost"));
}

TEST_F(Collection, AWorkflowRunsItsRecordsInOrderByKind) {
    const VirtualClock clock;
    agentState.gv_timeDiff = 3600;
    WriteScript("args.bat", printArguments);
    platform::WmiOperations wmi = platform::Wmi();
    wmi.ExecQuery = [](auto&&...) { return platform::wmi_status::invalidClass; };
    const platform::ScopedOperations<platform::WmiOperations> refusing(wmi);
    HashTable* const plan = MakeHashTable().release();
    ASSERT_TRUE(JSONTextToHash(plan,
                               uR"({"WorkFlows":[{"wfname":"w","recordSetName":[
        {"wmiQuery":"SELECT * FROM D","script":"args.bat","Name":"Disks","PROTOCOL":"SPOLL"},
        {"wmiQuery":7,"Name":"Broken"}, "no record", {"OTHER":"kind"}, {"wmiQuery":"SELECT"}, {"script":["x"]},
        {"script":"args.bat","PROTOCOL":"SPOLL","Name":"N","params":"p","response_needed":"true"},
        {"PROTOCOL":"SPOLL","DEVICE_NAME":"router"}]}, {"wfname":"v","recordSetName":"x"}]})")
                    .ok);
    agentState.gv_sortVec = GetHashVector(plan, u"WorkFlows");
    for (std::int32_t index : {0, 1, 2}) CollectAndSaveData(&index);
    agentState.gv_collectData = 0;
    std::int32_t first = 0;
    CollectAndSaveData(&first);
    FreeAllHashTable(plan);
    EXPECT_THAT(Record(1), StartsWith("{ \"MSPCUSTOMERID\": \"Acme\", \"AGENTKEY\": \"K\", "
                                      "\"DATACOLLECTTIME\": \"1772705107\", "
                                      "\"ERRORMSG\": \"FAILED:SELECT * FROM D ERRORCODE:80041010 MESSAGE:"));
    EXPECT_THAT(Record(1), EndsWith("\", \"Disks\": [ ] }"));
    EXPECT_EQ(Record(2), "K,N,1772705107,3600,p" + lineEnd);
    EXPECT_EQ(Record(3),
              "{ \"PROTOCOL\": \"SPOLL\", \"MSPCUSTOMERID\": \"Acme\", \"ID\": \"\", "
              "\"DATACOLLECTTIME\": \"1772705107\", \"STATUS\": \"FAILURE\", \"OID\": \"\" }");
    EXPECT_EQ(DataFiles(), 3);
    for (const char* line : {"a WMI record without the text wmiQuery", "a WMI record without the text Name",
                             "a script record without the text script", "something in recordSetName is no record",
                             "Without OID nothing is asked", "workflow v has no list recordSetName",
                             "no workflow stands at index [2]", "Data not collected as connection to CS is lost"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
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
    agentState.gv_agentKey.publish(u"my_key");
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 900u) << "of a key with underscores, too";
    std::u16string theirs;
    std::thread other([&theirs] { theirs = NextRecordPath(u"data"); });
    const std::u16string ours = NextRecordPath(u"data");
    other.join();
    EXPECT_NE(ours, theirs) << "two threads never take one number";
    EXPECT_EQ(DataFiles(), 8);
    EXPECT_TRUE(Logged("Agent_K_9.out was left unfinished"));
}

}  // namespace
}  // namespace kv::test
