// Which plan stands after loading: own and slave files, backups, reloads, and files that are not what they should be.
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "platform/files.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "queryconf/query_config.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

platform::ThreadOperations WithoutNewThreads() {
    platform::ThreadOperations operations = platform::Threads();
    operations.CreateThread = [](platform::ThreadStart, void*) { return platform::ThreadHandle{1}; };
    return operations;
}

/// The timer thread is not started: these tests look at the plan, not at its runs.
class QueryConfig : public TestAgent {
  protected:
    ~QueryConfig() override {
        for (Vector* list : replaced_) FreeAllVector(list);
        FreePlan();
    }

    static void FreePlan() {
        FreeAllVector(std::exchange(agentState.gv_sortVec, nullptr));
        FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    }

    fs::path SlaveFile(const std::string& agent) const { return conf / "slaves" / agent / "queryconf.txt"; }

    /// A file with one list of workflows of the given names.
    static void WritePlan(const fs::path& path, const std::string& key, const std::vector<std::string>& names) {
        std::string text = "{\"" + key + "\":[";
        for (const std::string& name : names)
            text += "{\"wfname\":\"" + name + "\",\"interval\":5,\"recordSetName\":[]},";
        WriteWide(path, text + "]}");
    }
    static void WriteWide(const fs::path& path, std::string_view text) {
        Write(path, "\xFF\xFE" + Utf16LittleEndianBytes(platform::WideFromUtf8(text)));
    }

    /// "WorkFlows: a b; WorkFlows_S: c", or "none".
    static std::string Plan() {
        if (!agentState.gv_queryConfHash) return "none";
        std::string plan;
        const auto keys = GetHashKeys(agentState.gv_queryConfHash);
        for (std::size_t i = 0; keys[i]; ++i) {
            plan += (i > 0 ? "; " : "") + platform::Utf8FromWide(keys[i]) + ":";
            Vector* workflows = GetHashVector(agentState.gv_queryConfHash, keys[i]);
            for (std::int32_t j = 0; workflows && j < workflows->count; ++j) {
                const auto* entry = reinterpret_cast<const HashTable*>(ElementAt(workflows, j)->value);
                plan += " " + platform::Utf8FromWide(GetHashText(entry, u"wfname"));
            }
        }
        return plan;
    }

    /// Loads one agent's file; the list that it replaces, which the agent leaves alive, goes at the end of the test.
    void Reload(std::u16string_view agent, std::optional<std::u16string_view> file = std::nullopt) {
        const std::u16string key = agent.empty() ? u"WorkFlows" : u"WorkFlows_" + std::u16string(agent);
        Vector* old = agentState.gv_queryConfHash ? GetHashVector(agentState.gv_queryConfHash, key) : nullptr;
        LoadQueryConfig(agent, file);
        if (old && GetHashVector(agentState.gv_queryConfHash, key) != old) replaced_.push_back(old);
    }

  private:
    platform::ScopedOperations<platform::ThreadOperations> threads_{WithoutNewThreads()};
    std::vector<Vector*> replaced_;
};

TEST_F(QueryConfig, AMasterTakesItsSlavesFilesAfterItsOwn) {
    WritePlan(conf / "queryconf.txt", "WorkFlows", {"a", "b"});
    WritePlan(SlaveFile("S1"), "WorkFlows_S1", {"c"});
    WritePlan(SlaveFile("S2"), "WorkFlows_S2", {"d"});
    WritePlan(conf / "backup" / "S3" / "queryconf.txt", "WorkFlows_S3", {"e"});
    fs::create_directories(conf / "slaves" / "S3");
    fs::create_directories(SlaveFile("S4"));
    Write(conf / "slaves" / "file.txt", "x");

    agentState.gv_masterAgent = u"no";
    LoadConfFiles();
    EXPECT_EQ(Plan(), "WorkFlows: a b");
    EXPECT_EQ(agentState.gv_loadqueryconf, 1);
    EXPECT_EQ(agentState.gv_sortVec->count, 2);

    FreePlan();
    agentState.gv_masterAgent = u"Yes";
    LoadConfFiles();
    EXPECT_EQ(Plan(), "WorkFlows: a b; WorkFlows_S1: c; WorkFlows_S2: d");
    EXPECT_EQ(agentState.gv_sortVec->count, 4);
    EXPECT_FALSE(fs::exists(SlaveFile("S3")));
}

TEST_F(QueryConfig, TheSlavesDirectoryIsCreatedAndItsFirstTwoEntriesArePassedOver) {
    agentState.gv_masterAgent = u"YES";
    LoadConfFiles();
    EXPECT_TRUE(fs::is_directory(conf / "slaves"));
    EXPECT_TRUE(Logged("\t LoadConfFiles :: No query conf file exists under slaves directory.\n"));

    for (const char* name : {"1", "2", "3"}) WritePlan(SlaveFile(name), std::string("WorkFlows_") + name, {name});
    std::vector<std::u16string> names{u"3", u"2", u"1"};
    platform::FileOperations files = platform::Files();
    files.FindNextFileW = [&](platform::FindHandle, platform::FindData& entry) {
        if (names.empty()) return platform::error::noMoreFiles;
        entry.fileName = names.back();
        names.pop_back();
        return platform::error::success;
    };
    const platform::ScopedOperations scoped(files);
    LoadConfFiles();
    EXPECT_EQ(Plan(), "WorkFlows_2: 2; WorkFlows_3: 3");
}

TEST_F(QueryConfig, AMissingFileIsRestoredFromItsBackup) {
    WritePlan(conf / "backup" / "queryconf.txt", "WorkFlows", {"a"});
    WritePlan(conf / "backup" / "S" / "queryconf.txt", "WorkFlows_S", {"b"});
    fs::create_directories(conf / "slaves" / "S");
    Reload(u"");
    Reload(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    EXPECT_EQ(Plan(), "WorkFlows: a; WorkFlows_S: b");
    EXPECT_TRUE(Logged("queryconf.txt file is not available...copy file from backup directory..\n"));
    EXPECT_EQ(Read(conf / "queryconf.txt"), Read(conf / "backup" / "queryconf.txt"));
    EXPECT_EQ(Read(SlaveFile("S")), Read(conf / "backup" / "S" / "queryconf.txt"));

    fs::remove(conf / "queryconf.txt");
    platform::FileOperations files = platform::Files();
    files.CopyFileW = [](std::u16string_view, std::u16string_view to) {
        Write(platform::Files().NativePath(to).c_str(), "{ \"Wor");
        return platform::error::diskFull;
    };
    {
        const platform::ScopedOperations scoped(files);
        Reload(u"");
    }
    EXPECT_FALSE(fs::exists(conf / "queryconf.txt"));
    EXPECT_EQ(Plan(), "WorkFlows: a; WorkFlows_S: b");
}

TEST_F(QueryConfig, AFileThatCannotBeTakenLeavesThePlanInUse) {
    struct Row {
        const char* title;
        std::function<void(const fs::path&)> make;
        const char* logged;
    };
    const auto holding = [](std::string bytes) { return [bytes](const fs::path& path) { Write(path, bytes); }; };
    const auto wide = [](std::string text) { return [text](const fs::path& path) { WriteWide(path, text); }; };
    for (const Row& row : std::vector<Row>{
             {"missing", [](const fs::path&) {}, "backup\\queryconf.txt. Error is [3]"},
             {"a directory", [](const fs::path& path) { fs::create_directory(path); },
              "queryconf.txt: Access is denied. (error 5)"},
             {"empty", holding(""), "queryconf.txt: unexpected end of data at offset 0"},
             {"cut short", wide("{\"WorkFlows\":[{\"wfname\""), "queryconf.txt: unexpected end of data at offset 23"},
             {"malformed", wide("{\n\"WorkFlows\" []}"), "separator ':' expected at offset 14 (line 2)"},
             {"no object", wide("[{\"interval\":5}]"), "queryconf.txt: the top level is no object"},
             {"no text", holding("\x89PNG\r\n\x1A\n"), "queryconf.txt: the file is neither UTF-16LE nor UTF-8"},
             {"without its list", wide("{}"), "queryconf.txt has no array WorkFlows"},
             {"no list", wide("{\"WorkFlows\":{}}"), "the value of WorkFlows is no array: it is left out"},
         }) {
        SCOPED_TRACE(row.title);
        const auto loadBadFile = [&] {
            fs::remove(conf / "queryconf.txt");
            row.make(conf / "queryconf.txt");
            Reload(u"");
            fs::remove(conf / "queryconf.txt");
            return Plan();
        };
        const std::string first = loadBadFile();
        EXPECT_TRUE(first == "none" || first.empty());
        EXPECT_TRUE(Logged(row.logged));
        WritePlan(conf / "queryconf.txt", "WorkFlows", {"a"});
        Reload(u"");
        EXPECT_EQ(Plan(), "WorkFlows: a");
        EXPECT_EQ(loadBadFile(), "WorkFlows: a");
        FreePlan();
    }
}

TEST_F(QueryConfig, AReloadReplacesOneKeyOnly) {
    WritePlan(conf / "queryconf.txt", "WorkFlows", {"a"});
    WritePlan(SlaveFile("S"), "WorkFlows_S", {"b"});
    WritePlan(SlaveFile("T"), "WorkFlows_T", {"c"});
    agentState.gv_masterAgent = u"YES";
    LoadConfFiles();
    const Vector* own = GetHashVector(agentState.gv_queryConfHash, u"WorkFlows");
    WritePlan(SlaveFile("S"), "WorkFlows_S", {"d", "e"});
    Reload(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    EXPECT_EQ(Plan(), "WorkFlows: a; WorkFlows_T: c; WorkFlows_S: d e");
    EXPECT_EQ(GetHashVector(agentState.gv_queryConfHash, u"WorkFlows"), own);
    EXPECT_TRUE(Logged("\t Key WorkFlows_S deleted from query conf \n"));
    EXPECT_TRUE(Logged("\t Query conf key count after deleting : 2 \n"));
    EXPECT_TRUE(Logged("\t Query conf key count after merging : 3 \n"));
    const auto* before = reinterpret_cast<const HashTable*>(ElementAt(agentState.gv_sortVec, 1)->value);
    EXPECT_STREQ(platform::Utf8FromWide(GetHashText(before, u"wfname")).c_str(), "b");

    WritePlan(SlaveFile("S"), "WorkFlows", {"x"});
    Reload(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
    EXPECT_EQ(Plan(), "WorkFlows: a; WorkFlows_T: c; WorkFlows_S: d e");
    EXPECT_TRUE(Logged("WorkFlows belongs to another file and is left out"));
}

TEST_F(QueryConfig, WorkflowsThatCannotRunAreLeftOutOneByOne) {
    struct Row {
        const char* workflow;
        const char* fault;
    };
    const std::vector<Row> rows{
        {R"("text")", "(null), is no object"},
        {R"({"wfname":"none","recordSetName":[]})", "none, has no interval"},
        {R"({"wfname":"zero","interval":0,"recordSetName":[]})", "zero, has an interval below 1"},
        {R"({"wfname":"word","interval":"5","recordSetName":[]})", "word, has an interval that is no number"},
        {R"({"wfname":"wide","interval":4294967301,"recordSetName":[]})", "wide, has an interval that is no number"},
        {R"({"wfname":"bare","interval":5})", "bare, has no array recordSetName"},
        {R"({"wfname":"lone","interval":5,"recordSetName":{}})", "lone, has no array recordSetName"},
    };
    std::string text = R"({"Version":7,"WorkFlows":[)";
    for (const Row& row : rows) (text += row.workflow) += ",";
    WriteWide(conf / "queryconf.txt", text + R"({"wfname":"cut","interval":1.5,"recordSetName":[{}]}]})");
    LoadConfFiles();
    EXPECT_EQ(Plan(), "WorkFlows: cut");
    const std::string head = "\t LoadQueryConfig :: ..\\conf\\queryconf.txt :: ";
    EXPECT_TRUE(Logged(head + "the value of Version is no array: it is left out"));
    for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_TRUE(Logged(head + "workflow [" + std::to_string(i) + "] of WorkFlows, wfname " + rows[i].fault)) << i;
    const auto* cut = reinterpret_cast<const HashTable*>(ElementAt(agentState.gv_sortVec, 0)->value);
    EXPECT_EQ(GetHashEntry(cut, u"interval")->type, ValueType::number);
    EXPECT_EQ(GetHashValue(cut, u"interval"), 1u);
}

}  // namespace
}  // namespace kv::test
