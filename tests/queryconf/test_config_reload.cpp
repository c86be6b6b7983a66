// A new plan from the server: the files and the table after it is installed, and after failed steps.
#include <fmt/format.h>
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
    const std::string own = PlanText("WorkFlows", {"new"}), ofS = PlanText("WorkFlows_S", {"new"}),
                      ofT = PlanText("WorkFlows_T", {"new"});
    const std::string stays = "live old [queryconf.txt] live", refused = "live old [queryconf.txt.refused] live";
    const std::string replaced = "new live [] new";
    const Files sound = platform::Files();
    struct Row {
        const char *title, *agentKey;
        std::string newText;  // empty: absent
        std::string slave;
        std::string outcome;  // the plan, its backup, the downloads, and what is loaded
        const char* logged = "";
        Files operations = platform::Files();
        std::vector<const char*> missing = {};  // below conf, before the plan comes
    };
    for (const Row& row : std::vector<Row>{
             {"the own plan, key in another case", "oWN", own, "", replaced},
             {"a slave's plan", "S", ofS, "S", replaced},
             {"an empty list", "Own", R"({"WorkFlows":[]})", "", R"({"WorkFlows":[]} live [] -)"},
             {"a plan that cannot be read now", "Own", own, "", stays, "queryconf.txt waits for the next call",
              Failing(&Files::CreateFileW, tooManyOpenFiles)},
             {"the first slave's plan", "T", ofT, "T", "new - [] new", "", sound, {"slaves", "backup"}},
             {"a slave without its file", "S", ofS, "S", "new - [] new", "", sound, {"slaves/S/queryconf.txt"}},
             {"an absent plan", "Own", "", "", "live old [] live"},
             {"a malformed plan", "Own", "{\"WorkFlows\":[", "", refused,
              "\t JudgeQueryConfig :: ..\\conf\\download\\queryconf.txt: unexpected end of data at offset 14"},
             {"another agent's plan", "Own", ofS, "", refused, "queryconf.txt has no array WorkFlows"},
             {"a plan that cannot run", "Own", R"({"WorkFlows":[{"interval":"5","recordSetName":[]}]})", "", refused,
              "no workflow of WorkFlows can run: the last has an interval that is not a number"},
             {"a key that names a parent directory", "..\\..\\S", ofS, "", stays, "..\\..\\S cannot name a directory"},
             {"no backup can be made", "Own", own, "", "new old [] new",
              "cannot be copied to ..\\conf\\backup\\queryconf.txt. Error is [112]",
              Failing(&Files::CopyFileW, diskFull)},
             {"the disk is full", "Own", own, "", "live live [queryconf.txt] live", "which stays. Error is [112]",
              Failing(&Files::FlushFileBuffers, diskFull)},
         }) {
        SCOPED_TRACE(row.title);
        SetUpFiles(row.newText);
        if (row.slave == "S") LoadQueryConfig(u"S", u"..\\conf\\slaves\\S\\queryconf.txt");
        for (const char* each : row.missing) fs::remove_all(conf / each);
        const platform::ScopedOperations scoped(row.operations);
        ReloadQueryConfDetails(platform::WideFromUtf8(row.agentKey));
        EXPECT_EQ(fmt::format("{} {} [{}] {}", PlanInFile(LivePath(row.slave)),
                              PlanInFile(conf / "backup" / row.slave / "queryconf.txt"),
                              fmt::join(FilesIn(download), " "), LoadedPlan(row.slave)),
                  row.outcome);
        EXPECT_TRUE(Logged(row.logged));
    }
}

}  // namespace
}  // namespace kv::test
