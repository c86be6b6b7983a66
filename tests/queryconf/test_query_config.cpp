// The plan after loading: own and slave files, backups, reloads and faulty files.
#include <gmock/gmock.h>
#include <regex>

#include "foundation/agent_health.h"
#include "foundation/open_file.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "queryconf/config_reload.h"
#include "tests/queryconf/plan_test.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

class QueryConfig : public PlanTest {
  protected:
    fs::path SlaveFile(const std::string& agent) const { return conf / "slaves" / agent / "queryconf.txt"; }

    static void WritePlan(const fs::path& path, const std::string& key, const std::vector<std::string>& names) {
        WriteWide(path, PlanText(key, names));
    }
    static void WriteWide(const fs::path& path, std::string_view text) { Write(path, WideBytes(text)); }

    /// The plan as JSON, last key first. A workflow of WritePlan is only its name.
    static std::string Plan() {
        static const std::regex workflow(
            R"re(\{ "recordSetName": \[ \], "interval": 5, "order": \d, "wfname": ("\w+") \})re");
        if (!agentState.gv_queryConfHash) return "null";
        return std::regex_replace(platform::Utf8FromWide(HashToJSONString(agentState.gv_queryConfHash)), workflow,
                                  "$1");
    }
    /// The names of the scheduled workflows in order.
    static std::string Scheduled() {
        std::string names;
        for (const VectorElement* each = agentState.gv_sortVec->head; each; each = each->next)
            names += platform::Utf8FromWide(GetHashText(reinterpret_cast<const HashTable*>(each->value), u"wfname"));
        return names;
    }
};

TEST_F(QueryConfig, AMasterLoadsItsSlavesAndReloadsOneAgentOnly) {
    WritePlan(conf / "queryconf.txt", "WorkFlows", {"a", "b"});
    agentState.gv_masterAgent = u"Yes";
    LoadConfFiles();
    EXPECT_TRUE(fs::is_directory(conf / "slaves"));

    WritePlan(SlaveFile("S"), "WorkFlows_S", {"c"});
    WritePlan(SlaveFile("T"), "WorkFlows_T", {"d"});
    WritePlan(SlaveFile("."), "WorkFlows_.", {"the entries . and .. are passed over"});
    const bool caseCounts = !fs::exists(SlaveFile("s"));
    if (caseCounts) WritePlan(SlaveFile("s"), "WorkFlows_s", {"names that differ only in case are one slave"});
    WritePlan(conf / "backup" / "U" / "queryconf.txt", "WorkFlows_U", {"a slave without a file is not restored"});
    fs::create_directories(SlaveFile("U").parent_path());
    FreePlan();
    LoadConfFiles();
    EXPECT_EQ(Plan(), R"({ "WorkFlows_T": [ "d" ], "WorkFlows_S": [ "c" ], "WorkFlows": [ "a", "b" ] })");
    EXPECT_EQ(agentState.gv_loadqueryconf, 1);
    EXPECT_EQ(Scheduled(), "abcd");
    EXPECT_EQ(Logged("slave s differs from another only in case and is passed over"), caseCounts);

    const Vector* own = GetHashVector(agentState.gv_queryConfHash, u"WorkFlows");
    WritePlan(SlaveFile("S"), "WorkFlows_s", {"e", "f"});
    LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    const std::string reloaded =
        R"({ "WorkFlows_S": [ "e", "f" ], "WorkFlows_T": [ "d" ], "WorkFlows": [ "a", "b" ] })";
    EXPECT_EQ(Plan(), reloaded);
    EXPECT_EQ(GetHashVector(agentState.gv_queryConfHash, u"WorkFlows"), own);
    EXPECT_EQ(Scheduled(), "abcd") << "the schedule keeps its workflows";
    WritePlan(SlaveFile("S"), "WorkFlows", {"x"});
    LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    EXPECT_EQ(Plan(), reloaded);
    EXPECT_TRUE(Logged("WorkFlows belongs to another file and is left out"));

    FreePlan();
    agentState.gv_masterAgent = u"no";
    LoadConfFiles();
    EXPECT_EQ(Plan(), R"({ "WorkFlows": [ "a", "b" ] })");
}

TEST_F(QueryConfig, AMissingFileIsRestoredFromItsBackup) {
    WritePlan(conf / "backup" / "queryconf.txt", "WorkFlows", {"a"});
    WritePlan(conf / "backup" / "S" / "queryconf.txt", "WorkFlows_S", {"b"});
    fs::create_directories(conf / "slaves" / "S");
    LoadQueryConfig(u"", std::nullopt);
    LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    EXPECT_EQ(Plan(), R"({ "WorkFlows_S": [ "b" ], "WorkFlows": [ "a" ] })");
    EXPECT_EQ(Read(SlaveFile("S")), Read(conf / "backup" / "S" / "queryconf.txt"));

    fs::remove(conf / "queryconf.txt");
    platform::FileOperations files = platform::Files();
    files.CopyFileW = [](std::u16string_view, std::u16string_view to) {
        Write(platform::Files().NativePath(to).c_str(), "{ \"Wor");
        return platform::error::diskFull;
    };
    const platform::ScopedOperations scoped(files);
    LoadQueryConfig(u"", std::nullopt);
    EXPECT_FALSE(fs::exists(conf / "queryconf.txt"));
    EXPECT_EQ(Plan(), R"({ "WorkFlows_S": [ "b" ], "WorkFlows": [ "a" ] })");
}

TEST_F(QueryConfig, AFaultyFileLeavesThePlanInUse) {
    VirtualClock clock;
    struct Row {
        const char* title;
        std::optional<std::string> file;
        const char* logged;
        platform::Error opened = platform::error::success;
    };
    for (const Row& row : std::vector<Row>{
             {"a missing file", std::nullopt, "backup\\queryconf.txt. Error is [3]"},
             {"too many open files", "new", "(error 4); the plan in use stays", platform::error::tooManyOpenFiles},
             {"malformed", "{\n\"WorkFlows\" []}", "separator ':' expected at offset 14 (line 2)"},
             {"without its list", "{}", "queryconf.txt has no array WorkFlows"},
             {"not a list", "{\"WorkFlows\":{}}", "the value of WorkFlows is not an array: it is left out"},
         }) {
        SCOPED_TRACE(row.title);
        WritePlan(conf / "queryconf.txt", "WorkFlows", {"a"});
        LoadQueryConfig(u"", std::nullopt);
        fs::remove(conf / "queryconf.txt");
        if (row.file) WriteWide(conf / "queryconf.txt", *row.file);
        if (row.opened) WritePlan(conf / "backup" / "queryconf.txt", "WorkFlows", {"older"});
        {
            const platform::ScopedOperations scoped(
                row.opened ? Failing(&platform::FileOperations::CreateFileW, row.opened) : platform::Files());
            LoadQueryConfig(u"", std::nullopt);
        }
        fs::remove_all(conf / "backup");
        EXPECT_TRUE(Logged(row.logged));
        EXPECT_EQ(Plan(), R"({ "WorkFlows": [ "a" ] })");
        EXPECT_EQ(Read(conf / "queryconf.txt"), row.file ? WideBytes(*row.file) : "");
    }
    WritePlan(conf / "queryconf.txt", "WorkFlows", {"b"});
    OpenFile writing;
    ASSERT_EQ(writing.Open(u"..\\conf\\queryconf.txt", platform::FileAccess::append, platform::FileShare::readWrite,
                           platform::FileDisposition::openExisting),
              0U);
    LoadQueryConfig(u"", std::nullopt);
    EXPECT_EQ(Plan(), R"({ "WorkFlows": [ "b" ] })");
}

TEST_F(QueryConfig, AnExceptionAtTheStartLeavesASchedulerForTheNextPlan) {
    VirtualClock clock;
    agentState.gv_masterAgent = u"YES";
    WritePlan(conf / "queryconf.txt", "WorkFlows", {"a"});
    for (const char* slave : {"S", "T"}) WritePlan(SlaveFile(slave), std::string("WorkFlows_") + slave, {slave});
    {
        platform::FileOperations files = platform::Files();
        files.CreateFileW = [next = files.CreateFileW](std::u16string_view path, auto&&... arguments) {
            if (path.ends_with(u"..\\conf\\queryconf.txt")) throw std::bad_alloc();
            return path.ends_with(u"S\\queryconf.txt") ? platform::error::accessDenied : next(path, arguments...);
        };
        const platform::ScopedOperations scoped(files);
        LoadConfFiles();
    }
    EXPECT_EQ(Scheduled(), "T");
    EXPECT_TRUE(Logged("LoadQueryConfig :: ended early"));
    EXPECT_TRUE(Logged("slaves\\S\\queryconf.txt: ")) << "the refusal is logged";
    LoadQueryConfig(u"", std::nullopt);
    EXPECT_TRUE(LoadUnreadPlans());
    EXPECT_FALSE(LoadUnreadPlans()) << "only once";
    ReloadAndScheduleQueryData();
    EXPECT_EQ(Scheduled(), "TaS");
}

TEST_F(QueryConfig, OnlyItsOwnPlanEndsWhatIsToldOfAnAgentWithoutOne) {
    const auto throwing = [](auto&&...) -> platform::Error { throw std::bad_alloc(); };
    for (const auto& [own, reason] : std::vector<std::pair<const char*, const char*>>{
             {"{", "queryconf.txt: unexpected end"},
             {"{}", "queryconf.txt: it has no array WorkFlows; the next start"},
             {nullptr, "queryconf.txt: its reading ended early"}}) {
        FreePlan();
        WriteWide(conf / "queryconf.txt", own ? own : "");
        {
            std::optional<Replaced<platform::FileOperations>> failing;
            if (!own) failing.emplace(&platform::FileOperations::CreateFileW, throwing);
            LoadConfFiles();
        }
        EXPECT_THAT(ReadLastEvents().obstacle, testing::HasSubstr(reason));
        WritePlan(SlaveFile("S"), "WorkFlows_S", {"c"});
        LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
        EXPECT_EQ(ReadLastEvents().obstacle, "") << "something is collected";
        EXPECT_THAT(ReadLastEvents().missingPlan, testing::StartsWith("nothing is collected for the agent itself: "));
        EXPECT_THAT(ReadLastEvents().missingPlan, testing::HasSubstr(reason));
        WritePlan(conf / "queryconf.txt", "WorkFlows", {"a"});
        LoadQueryConfig(u"", std::nullopt);
        EXPECT_EQ(ReadLastEvents().missingPlan, "");
    }
}

TEST_F(QueryConfig, LeavesOutOnlyWorkflowsThatCannotRun) {
    WriteWide(conf / "queryconf.txt", R"({"Version":7,"WorkFlows":["text",
        {"wfname":"none","recordSetName":[]},
        {"wfname":"zero","interval":0,"recordSetName":[]},
        {"wfname":"word","interval":"5","recordSetName":[]},
        {"wfname":"wide","interval":4294967301,"recordSetName":[]},
        {"wfname":"lone","interval":5,"recordSetName":{}},
        {"wfname":"cut","interval":1.5,"recordSetName":[{}]}]})");
    LoadConfFiles();
    EXPECT_EQ(Plan(), R"({ "WorkFlows": [ { "recordSetName": [ { } ], "interval": 1.000000, "wfname": "cut" } ] })");
    const std::string head = "\t LoadQueryConfig :: ..\\conf\\queryconf.txt :: ";
    EXPECT_TRUE(Logged(head + "the value of Version is not an array: it is left out"));
    std::string workflow = "workflow [0] of WorkFlows, wfname ";
    for (const char* fault : {"(null), is not an object", "none, has no interval", "zero, has an interval below 1",
                              "word, has an interval that is not a number",
                              "wide, has an interval that is not a number", "lone, has no array recordSetName"}) {
        EXPECT_TRUE(Logged(head + workflow + fault)) << fault;
        ++workflow[10];
    }
}

TEST_F(QueryConfig, NamesMisspeltMembers) {
    WriteWide(conf / "queryconf.txt", R"({"own":0,"own":1,"WorkFlows":[],
        "WorkFlows":[{"wfname":"w","interval":5,"intervall":6,"recordSetName":[7,
            {"wmiquery":"x","Name":"a"},
            {"wmiQuery":"x","Title":"a","Id":1},
            {"PROTOCOL":"POLL","OIDS":".1"},
            {"wmiQuery":"x","Name":"a","Names":"b","OWNER":"c"},
            {"PROTOCOL":"POLL","DEVICE_NAME":"d","OID":".1","POLICY_ID":7,"SNMP_TIMEOUT":1,"Name":"n"}]},
        {"wfname":"v","interval":5,"RecordSetNames":[]}]})");
    LoadQueryConfig(u"", std::nullopt);
    const std::string head = "queryconf.txt :: ", workflow = head + "workflow [0], wfname w, record ";
    for (const std::string& line :
         {head + "WorkFlows in line 1 is not used: it stands again in line 2",
          workflow + "[1], Name a: nobody reads wmiquery; did you mean wmiQuery?",
          workflow + "[1], Name a: wmiQuery, script and PROTOCOL are all missing, so that nothing is collected \n",
          workflow + "[2], Name (null): Name is missing, and nobody reads Title, Id \n",
          workflow + "[3], Name (null): nobody reads OIDS; did you mean OID?",
          workflow + "[3], Name (null): DEVICE_NAME is missing \n", workflow + "[3], Name (null): OID is missing \n",
          head + "workflow [1], wfname v: nobody reads RecordSetNames; did you mean recordSetName?"})
        EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(TimesLogged(head), 10) << "and two of what is left out";
}

}  // namespace
}  // namespace kv::test
