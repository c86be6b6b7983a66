// Collection from a workflow to record files, with real scripts and the real command interpreter.
#include <cstring>
#include <gmock/gmock.h>
#include <thread>
#include <tuple>

#include "collection/record_file.h"
#include "collection/script_output.h"
#include "foundation/agent_health.h"
#include "foundation/registry_store.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/wmi.h"
#include "tests/collection/collection_test.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using namespace std::string_view_literals;

/// The text of script output that arrives in these blocks.
std::u16string ConvertOutput(platform::ScriptOutputEncoding encoding, const std::vector<std::string_view>& blocks) {
    ScriptOutputConverter converter;
    converter.encoding = encoding;
    std::string bytes;
    for (const std::string_view block : blocks) {
        FeedScriptOutput(converter, block, bytes);
        EXPECT_LE(converter.pending.size(), 65536u);
    }
    FinishScriptOutput(converter, bytes);
    return TextFromUtf16LittleEndian(bytes);
}

TEST(ScriptOutput, BecomesUtf16WithoutItsMarkWhereverItIsCut) {
    const Replaced latin1(&platform::ProcessOperations::WideFromConsoleBytes, [](std::string_view bytes) {
        std::u16string text;
        for (const char byte : bytes) text += static_cast<unsigned char>(byte);
        return text;
    });
    const std::string longLine(70'000, 'x');
    const std::u16string longText(70'000, u'x');
    constexpr auto utf8 = platform::ScriptOutputEncoding::utf8;
    constexpr auto utf16 = platform::ScriptOutputEncoding::utf16LittleEndian;
    for (const auto& [title, encoding, bytes, expected] :
         std::vector<std::tuple<const char*, platform::ScriptOutputEncoding, std::string_view, std::u16string_view>>{
             {"ASCII and a NUL", utf8, "a\0b\n"sv, u"a\0b\n"sv},
             {"two, three and four bytes", utf8, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.", u"\u00e9\u20ac\U0001f600."},
             {"only the first mark goes", utf8, "\xEF\xBB\xBF\xEF\xBB\xBFx", u"\uFEFFx"},
             {"each line is judged alone", utf8, "\xC3\xA9\n\xC3\xA9\x84(\n\xE2\x82\xAC",
              u"\u00e9\n\u00C3\u00A9\u0084(\n\u20ac"},
             {"cut at the end", utf8, "ab\xE2\x82", u"ab\u00E2\u0082"},
             {"a surrogate written as UTF-8", utf8, "\xED\xA0\x80z", u"\u00ED\u00A0\u0080z"},
             {"UTF-16 with its mark", utf16, "\xFF\xFE\x61\x00\xAC\x20"sv, u"a\u20ac"},
             {"half a unit at the end", utf16, "a\0b"sv, u"a\uFFFD"},
             {"a mark shows UTF-16", utf8, "\xFF\xFE\xAC\x20\n\0"sv, u"\u20ac\n"},
             {"only a mark", utf8, "\xFF\xFE", u""},
             {"zeros show UTF-16", utf8, "{\0}\0\xFF\xFE"sv, u"{}\uFEFF"},
             {"two bytes are too few to show it", utf8, "{\0"sv, u"{\0"sv},
             {"a mark in a later line", utf8, "abcd\n\xFF\xFE", u"abcd\n\u00FF\u00FE"},
             {"a long line", utf8, longLine, longText},
         }) {
        SCOPED_TRACE(title);
        const std::size_t step = 1 + bytes.size() / 10;
        for (std::size_t cut = 0; cut <= bytes.size(); cut += step)
            EXPECT_EQ(ConvertOutput(encoding, {bytes.substr(0, cut), bytes.substr(cut)}), expected) << cut;
    }
}

TEST_F(Collection, ScriptOutputBecomesARecordWhateverTheExitCode) {
    RunEach({{"arguments in order", printArguments, "K,Disks,100,-5,b c" + lineEnd, "Output File Found"},
             {"no output", "exit 0", "", "Error Code : 0 "},
             {"standard error is dropped", "echo bad >&2", "", "Error Code : 0 "},
             {"a failed script", "echo half\nexit 3", "half" + lineEnd, "Error Code : 3 "}},
            u"K Disks 100 -5 \"b c\"");
    EXPECT_EQ(CountDataFiles(), 4) << "only the records are left";
}

TEST_F(Collection, OutputIsReadUpToItsSizeAtTheEnd) {
    const Replaced endless(&platform::FileOperations::ReadFile, [](auto, void* buffer, auto size, std::size_t& read) {
        std::memset(buffer, 'y', size);
        read = size;
        return platform::error::success;
    });
    WriteScript("fast.bat", "echo yyy");
    ExecuteScript(u"fast.bat", u"", u"true");
    EXPECT_EQ(fs::file_size(data / "Agent_K_1.txt"), 2 * (3 + lineEnd.size()));
}

TEST_F(Collection, AScriptIsEndedWhenItPrintsTooMuch) {
    std::uint64_t printed = 268435456;  // 256 MiB
    int ended = 0;
    int waits = 0;
    const Replaced sizes(&platform::FileOperations::GetFileSizeEx,
                         [&, real = platform::Files().GetFileSizeEx](auto file, std::uint64_t& size) {
                             const platform::Error error = real(file, size);
                             if (size == 1 + lineEnd.size()) size = printed;
                             return error;
                         });
    platform::ProcessOperations processes = platform::Processes();
    processes.WaitForSingleObject = [&, real = processes.WaitForSingleObject](auto process, std::uint32_t) {
        const platform::Error error = real(process, 20'000);  // it prints everything before the first timeout
        return ++waits == 1 ? platform::error::waitTimeout : error;
    };
    processes.TerminateProcess = [&](auto) {
        ++ended;
        return platform::error::success;
    };
    const platform::ScopedOperations scoped(processes);
    EXPECT_EQ(RunScript("echo y"), "y" + lineEnd);
    EXPECT_EQ(ended, 0);
    EXPECT_FALSE(Logged("its record is cut"));
    printed += 1;
    waits = 0;
    EXPECT_EQ(RunScript("echo y", u"K Name"), "y" + lineEnd);
    EXPECT_EQ(ended, 1);
    for (const char* part : {"script.bat", "Name", "as it has printed more than 268435456 bytes into", "Agent_K_2.out",
                             "the script printed 268435457 bytes; its record is cut after 268435456"})
        EXPECT_TRUE(Logged(part)) << part;
}

TEST_F(Collection, TheExitCodeDecidesWhetherACommandSucceeded) {
    WriteScript("exit.bat", "exit 0");
    const std::u16string line =
        platform::Processes().ComposeScriptLine({u"", u"..\\conf\\scripts\\exit.bat", u"", std::nullopt});
    std::u16string remarks;
    for (const auto& [code, result] :
         std::vector<std::pair<std::uint32_t, int>>{{0, 1}, {1641, 1}, {3010, 1}, {1, 0}, {1640, 0}, {0xC0000005, 0}}) {
        const Replaced exits(&platform::ProcessOperations::GetExitCodeProcess, [code = code](auto, std::uint32_t& out) {
            out = code;
            return platform::error::success;
        });
        EXPECT_EQ(execute(std::nullopt, line, remarks, 2, true), result) << code;
        EXPECT_EQ(remarks.rfind(u"Error Code : ", 0), 0u);
    }
    EXPECT_EQ(execute(u"no such directory", line, remarks, 2, true), 0);
    EXPECT_EQ(execute(u"..\\conf", line, remarks, 0, true), 1) << "it does not wait";
    EXPECT_EQ(fs::current_path(), bin) << "the former working directory";
}

TEST_F(Collection, RunsOnlyScriptsBelowTheScriptsDirectory) {
    WriteScript("sub..dir/deep.bat", "echo ran");
    for (const char16_t* name :
         {u"/bin/true", u"..\\..\\..\\outside.sh", u"", u"sub..dir/../../../../outside.sh", u"c:x.sh"})
        ExecuteScript(name, u"", u"true");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 0u) << "each is refused before it takes a number";
    EXPECT_TRUE(Logged("..\\..\\..\\outside.sh does not name a file below the scripts directory"));
    ExecuteScript(u"sub..dir\\deep.bat", u"", u"true");
    EXPECT_EQ(Record(1), "ran" + lineEnd);
    ExecuteScript(u"missing.sh", u"", u"yes", u"Lost");
    const std::string failure = ReadLastEvents().failure;
    EXPECT_THAT(failure, testing::StartsWith("the script missing.sh of the record Lost failed: "));
    EXPECT_THAT(failure, testing::EndsWith("missing.sh does not exist"));
    EXPECT_TRUE(Logged(failure));
    WriteScript("bad.bat", "exit 3");
    ExecuteScript(u"bad.bat", u"", u"yes", u"Bad");
    EXPECT_TRUE(Logged("the script bad.bat of the record Bad failed: Error Code : 3 \n"));
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 1u) << "unwanted output takes no number";
}

TEST_F(Collection, RunsOnlyScriptsThatTheAdministratorAllows) {
    const std::tuple<const char16_t*, const char16_t*, bool> rows[] = {
        {u"disks.bat", u"DISKS.bat", false},
        {u"disks.bat", u".\\disks.bat", true},
        {u"./disks.bat", u"disks.bat", true},
        {u"*/*", u".//disks.bat", false},
        {u"*/*", u"./sub//.\\deep.bat", true},
        {u"x, dis?s.*", u"disks.bat", true},
        {u"*.bat", u"sub\\deep.bat", false},
        {u"sub\\*.bat", u"sub/deep.bat", true},
        {u"", u"disks.bat", false},
        {u"*", u"di\"sks.bat", false},
        {u"*k*", u"disks.bat", true},
        {u"disks.ba", u"disks.bat", false},
    };
    WriteScript("disks.bat", "echo ran");
    WriteScript("sub/deep.bat", "echo ran");
    int refused = 0;
    for (const auto& [setting, script, runs] : rows) {
        writeValue(platform::RootKey::localMachine, monitoringKeyPath, u"AllowedScripts", setting,
                   platform::RegistryType::text);
        const std::uint32_t before = agentState.gv_ocLastCreatedJSONNum;
        ExecuteScript(script, u"", u"true", u"Disks");
        EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, before + (runs ? 1 : 0))
            << platform::Utf8FromWide(setting) << " for " << platform::Utf8FromWide(script);
        refused += runs ? 0 : 1;
        EXPECT_EQ(agentHealth.queriesFailed, static_cast<unsigned>(refused));
    }
    EXPECT_EQ(ReadLastEvents().failure,
              "the script disks.bat of the record Disks is not run: AllowedScripts does not have it");
    EXPECT_EQ(TimesLogged("of the record Disks is not run: "), refused);
    EXPECT_TRUE(Logged("the script DISKS.bat of the record Disks is not run: AllowedScripts does not have it"));
    EXPECT_EQ(Record(agentState.gv_ocLastCreatedJSONNum), "ran" + lineEnd);
}

TEST_F(Collection, TheExtensionDecidesAboutTheScriptHost) {
    platform::ProcessOperations processes = platform::Processes();
    std::u16string host;
    processes.ComposeScriptLine = [&host](const platform::ScriptCommand& command) { return host = command.scriptHost; };
    processes.CreateProcessW = [](auto&&...) { return platform::error::fileNotFound; };
    const platform::ScopedOperations scoped(processes);
    for (const char16_t* name : {u"a.js", u"a.JS", u"a.b.VbS", u"a.vbe", u"a.WSF", u"x.jse", u"x.vbs.bat", u"vbs"}) {
        ExecuteScript(name, u"", u"no");
        EXPECT_EQ(host, name[0] == u'a' ? u"cscript.exe //T:120 //U //Nologo" : u"");
    }
}

TEST_F(Collection, AFullDiskLosesOnlyTheRecordThatIsWritten) {
    {
        const Replaced full(&platform::FileOperations::WriteFile,
                            [real = platform::Files().WriteFile](auto file, const void* bytes, std::size_t size) {
                                return size == 100000 ? platform::error::diskFull : real(file, bytes, size);
                            });
        const std::string firstBlock = std::string(65535, 'x') + "\n";
        Write(bin / "big", firstBlock + std::string(50000, 'x'));
        EXPECT_EQ(RunScript(printFile + "big"), firstBlock);
        EXPECT_TRUE(Logged("Agent_K_1.txt is sent as it is, cut after 131072 bytes"));
        Write(bin / "big", std::string(50000, 'x'));
        EXPECT_EQ(RunScript(printFile + "big"), "(absent)") << "the first block is refused";
    }
    EXPECT_EQ(CountDataFiles(), 1);
    EXPECT_TRUE(Logged("Agent_K_2.out cannot be made a record file and is lost"));
    EXPECT_TRUE(Logged("Error code : 112"));
    {
        const Replaced throwing(&platform::FileOperations::GetFileUseState,
                                [](auto&&...) -> platform::Error { throw std::bad_alloc(); });
        EXPECT_EQ(RunScript("echo again"), "again" + lineEnd);
    }
    EXPECT_EQ(CountDataFiles(), 2) << "its output is deleted";
    EXPECT_TRUE(Logged("ExecuteScript :: ended early"));
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 3u);

    fs::remove_all(data);
    Write(data, "a file where the data directory should be");
    EXPECT_EQ(RunScript("echo lost"), "(absent)");
    EXPECT_TRUE(Logged("Agent_K_4.txt cannot be written, its record is lost"));
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    EXPECT_TRUE(Logged("Agent_K_5.txt cannot be written, its record is lost"));
    EXPECT_THAT(ReadLastEvents().failure, testing::HasSubstr("Agent_K_5.txt cannot be written and is lost: "));
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    EXPECT_FALSE(Logged("Agent_K_6.txt cannot be written")) << "the same again";
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM Y", u"X");
    EXPECT_TRUE(Logged("Agent_K_7.txt cannot be written")) << "another record of that name";
    fs::remove_all(data);
    ExecuteWMIQuery(std::nullopt, u"SELECT * FROM X", u"X");
    EXPECT_TRUE(Logged("the record X is written again. 2 of it were lost in the last "));
    EXPECT_EQ(agentHealth.recordsWritten, 3U);
    EXPECT_EQ(agentHealth.recordsLost, 5U);
}

TEST_F(Collection, AWorkflowRunsItsRecordsInOrder) {
    const VirtualClock clock;
    agentState.gv_timeDiff = 3600;
    WriteScript("args.bat", printArguments);
    const Replaced refusing(&platform::WmiOperations::ExecQuery,
                            [](auto&&...) { return platform::wmi_status::invalidClass; });
    HashTable* const plan = MakeHashTable().release();
    ASSERT_TRUE(JSONTextToHash(plan,
                               uR"({"WorkFlows":[{"wfname":"w","recordSetName":[
        {"wmiQuery":"SELECT * FROM D","script":"args.bat","Name":"Disks","PROTOCOL":"SPOLL"},
        {"wmiQuery":[],"Name":"Broken"}, {"wmiQuery":"x","Name":"AGENTKEY"}, "no record", {"OTHER":"kind"}, {"wmiQuery":"SELECT"}, {"script":["x"]},
        {"script":"args.bat","PROTOCOL":"SPOLL","Name":7,"params":false,"response_needed":true},
        {"PROTOCOL":"SPOLL","DEVICE_NAME":"router"}]}, {"wfname":"v","recordSetName":"x"}]})")
                    .ok);
    agentState.gv_sortVec = GetHashVector(plan, u"WorkFlows");
    for (std::int32_t index : {0, 1, 2}) CollectAndSaveData(&index);
    agentState.gv_collectData = 0;
    std::int32_t first = 0;
    CollectAndSaveData(&first);
    FreeAllHashTable(plan);
    EXPECT_THAT(Record(1), testing::StartsWith("{ \"MSPCUSTOMERID\": \"Acme\", \"AGENTKEY\": \"K\", "
                                               "\"DATACOLLECTTIME\": \"1772705107\", "
                                               "\"ERRORMSG\": \"FAILED:SELECT * FROM D ERRORCODE:80041010 MESSAGE:"));
    EXPECT_THAT(Record(1), testing::EndsWith("\", \"Disks\": [ ] }"));
    EXPECT_EQ(Record(2), "K,7,1772705107,3600,false" + lineEnd);
    EXPECT_EQ(Record(3),
              "{ \"PROTOCOL\": \"SPOLL\", \"MSPCUSTOMERID\": \"Acme\", \"ID\": \"\", "
              "\"DATACOLLECTTIME\": \"1772705107\", \"STATUS\": \"FAILURE\", \"OID\": \"\" }");
    EXPECT_EQ(CountDataFiles(), 3);
    EXPECT_EQ(agentHealth.workflowsRun, 1U);
    EXPECT_EQ(agentHealth.queriesFailed, 2U);
    EXPECT_EQ(ReadLastEvents().failure.find("the poll of "), 0U) << ReadLastEvents().failure;
    for (const char* line :
         {"a WMI record without the text wmiQuery", "a WMI record without the text Name",
          "a script record without the text script", "script is not a text, a whole number",
          "skipped, because AGENTKEY is another member of it", "an element of recordSetName is not a record",
          "Without OID nothing is asked", "workflow v has no list recordSetName", "there is no workflow at index [2]",
          "Data not collected as connection to CS is lost"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
}

TEST_F(Collection, ANumberThatCannotBeReadIsWaitedFor) {
    SetMALastCreatedJSONNum(300);
    SetMALastCreatedZIPNum(40);
    const VirtualClock clock;
    int left = 3;
    const Replaced failing(&platform::RegistryOperations::RegQueryValueExW,
                           [&left, query = platform::Registry().RegQueryValueExW](auto&&... asked) {
                               return left-- > 0 ? platform::error::readFault : query(asked...);
                           });
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 300U);
    EXPECT_EQ(agentState.gv_ocLastCreatedZIPNum, 40U);
    EXPECT_THAT(ReadLastEvents().obstacle, testing::StartsWith("the last used numbers"));
}

TEST_F(Collection, NumbersContinueAfterTheFilesOnDisk) {
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 1u) << "without a stored number and files";
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
    EXPECT_EQ(agentState.gv_ocLastCreatedZIPNum, 40u) << "a number is never lowered";
    std::uint32_t stored = 0;
    GetMALastCreatedJSONNum(stored);
    EXPECT_EQ(stored, 7u);
    EXPECT_EQ(NextRecordPath(u"data"), u"data\\Agent_K_8");
    agentState.gv_ocLastCreatedJSONNum = 6;
    EXPECT_EQ(NextRecordPath(u"data"), u"data\\Agent_K_8") << "the unsent record 7 stays";
    agentState.gv_agentKey.Publish(u"my_key");
    VerifyLastFileNum();
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 900u) << "a key with underscores";
    std::u16string theirs;
    std::thread other([&theirs] { theirs = NextRecordPath(u"data"); });
    const std::u16string ours = NextRecordPath(u"data");
    other.join();
    EXPECT_NE(ours, theirs) << "each thread takes its own number";
    EXPECT_EQ(CountDataFiles(), 8);
    EXPECT_TRUE(Logged("Agent_K_9.out was left unfinished"));
}

}  // namespace
}  // namespace kv::test
