// A new plan from the server: the files and the table after it is installed, and after failed steps.
#include <regex>

#include "platform/files.h"
#include "queryconf/config_reload.h"
#include "tests/queryconf/plan_test.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using Files = platform::FileOperations;
using platform::error::diskFull;
using platform::error::tooManyOpenFiles;

/// The agent "Own" and its slave "S". Each has a plan "live" and a backup "old".
class ConfigReload : public PlanTest {
  protected:
    ConfigReload() { agentState.gv_agentKey.Publish(u"Own"); }

    /// Writes the plans and, if it is not empty, a new plan into the download directory.
    void SetUpFiles(const std::string& newText) {
        fs::remove_all(conf);
        for (const fs::path& part : {fs::path(), fs::path("S")}) {
            const std::string key = part.empty() ? "WorkFlows" : "WorkFlows_S";
            Write(LivePath(part), WideBytes(PlanText(key, {"live"})));
            Write(conf / "backup" / part / "queryconf.txt", WideBytes(PlanText(key, {"old"})));
        }
        fs::create_directories(download);
        if (!newText.empty()) Write(download / "queryconf.txt", WideBytes(newText));
        FreePlan();
        LoadQueryConfig(u"", std::nullopt);
    }
    fs::path LivePath(const fs::path& slave) const {
        return slave.empty() ? conf / "queryconf.txt" : conf / "slaves" / slave / "queryconf.txt";
    }
    /// The workflow of a plan file of PlanText. "-" without a file; the text of any other file.
    static std::string PlanInFile(const fs::path& path) {
        static const std::regex plan(
            R"re(\{"\w+":\[\{"wfname":"(\w+)","order":9,"interval":5,"recordSetName":\[\]\},\]\})re");
        if (!fs::exists(path)) return "-";
        const std::string bytes = Read(path);
        const std::string text = platform::Utf8FromWide(TextFromUtf16LittleEndian(std::string_view(bytes).substr(2)));
        return std::regex_replace(text, plan, "$1");
    }
    /// The first loaded workflow of a slave, or of the agent itself; "-" without one.
    static std::string LoadedPlan(const std::string& slave) {
        const std::u16string key = platform::WideFromUtf8(slave.empty() ? "WorkFlows" : "WorkFlows_" + slave);
        const Vector* list = GetHashVector(agentState.gv_queryConfHash, key);
        if (!list || !list->head) return "-";
        return platform::Utf8FromWide(GetHashText(reinterpret_cast<const HashTable*>(list->head->value), u"wfname"));
    }

    fs::path download = conf / "download";
};

TEST_F(ConfigReload, InstallsANewPlanOrKeepsTheFormerOne) {
    const std::string own = PlanText("WorkFlows", {"new"}), ofS = PlanText("WorkFlows_S", {"new"});
    const std::string waits = "queryconf.txt", refused = "queryconf.txt.refused", gone;
    const Files sound = platform::Files();
    struct Row {
        const char* title;
        const char* agentKey;
        std::string newText;  // empty: absent
        Files operations;
        std::string slave, live, backup, downloads, loaded;
        const char* logged = "";
        std::vector<const char*> missing = {};  // below conf, before the plan comes
    };
    for (const Row& row : std::vector<Row>{
             {"the own plan, key in another case", "oWN", own, sound, "", "new", "live", gone, "new"},
             {"a slave's plan", "S", ofS, sound, "S", "new", "live", gone, "new"},
             {"an empty list", "Own", "{\"WorkFlows\":[]}", sound, "", "{\"WorkFlows\":[]}", "live", gone, "-"},
             {"a plan that cannot be read now", "Own", own, Failing(&Files::CreateFileW, tooManyOpenFiles), "", "live",
              "old", waits, "live", "queryconf.txt waits for the next call"},
             {"the first slave's plan",
              "T",
              PlanText("WorkFlows_T", {"new"}),
              sound,
              "T",
              "new",
              "-",
              gone,
              "new",
              "",
              {"slaves", "backup"}},
             {"a slave without its file",
              "S",
              ofS,
              sound,
              "S",
              "new",
              "-",
              gone,
              "new",
              "",
              {"slaves/S/queryconf.txt"}},
             {"an absent plan", "Own", "", sound, "", "live", "old", gone, "live"},
             {"a malformed plan", "Own", "{\"WorkFlows\":[", sound, "", "live", "old", refused, "live",
              "\t JudgeQueryConfig :: ..\\conf\\download\\queryconf.txt: unexpected end of data at offset 14"},
             {"another agent's plan", "Own", ofS, sound, "", "live", "old", refused, "live",
              "queryconf.txt has no array WorkFlows"},
             {"a plan that cannot run", "Own", R"({"WorkFlows":[{"interval":"5","recordSetName":[]}]})", sound, "",
              "live", "old", refused, "live",
              "no workflow of WorkFlows can run: the last has an interval that is not a number"},
             {"a key that names a parent directory", "..\\..\\S", ofS, sound, "", "live", "old", waits, "live",
              "..\\..\\S cannot name a directory"},
             {"no backup can be made", "Own", own, Failing(&Files::CopyFileW, diskFull), "", "new", "old", gone, "new",
              "cannot be copied to ..\\conf\\backup\\queryconf.txt. Error is [112]"},
             {"the disk is full", "Own", own, Failing(&Files::FlushFileBuffers, diskFull), "", "live", "live", waits,
              "live", "which stays. Error is [112]"},
         }) {
        SCOPED_TRACE(row.title);
        SetUpFiles(row.newText);
        if (row.slave == "S") LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
        for (const char* each : row.missing) fs::remove_all(conf / each);
        const platform::ScopedOperations scoped(row.operations);
        ReloadQueryConfDetails(platform::WideFromUtf8(row.agentKey));
        EXPECT_EQ(PlanInFile(LivePath(row.slave)), row.live);
        EXPECT_EQ(PlanInFile(conf / "backup" / row.slave / "queryconf.txt"), row.backup);
        EXPECT_EQ(FilesIn(download), row.downloads.empty() ? std::vector<std::string>{} : std::vector{row.downloads});
        EXPECT_EQ(LoadedPlan(row.slave), row.loaded);
        EXPECT_TRUE(Logged(row.logged));
    }
}

}  // namespace
}  // namespace kv::test
