// A new plan from the server: the files and the table after it is installed, after failed steps, and after kills.
#include <functional>
#include <regex>

#include "foundation/log.h"
#include "platform/files.h"
#include "queryconf/config_reload.h"
#include "tests/queryconf/plan_test.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using Files = platform::FileOperations;
using platform::error::accessDenied;
using platform::error::diskFull;
using platform::error::tooManyOpenFiles;

/// The agent "Own" and its slave "S". Each has a plan "live" and a backup "old".
class ConfigReload : public PlanTest {
  protected:
    ConfigReload() { agentState.gv_agentKey.Publish(u"Own"); }

    /// Writes the plans and, if it is not null, a new plan into the download directory.
    void SetUpFiles(const char* newText) {
        fs::remove_all(conf);
        for (const fs::path& part : {fs::path(), fs::path("S")}) {
            const std::string key = part.empty() ? "WorkFlows" : "WorkFlows_S";
            Write(LivePath(part), WideBytes(PlanText(key, {"live"})));
            Write(conf / "backup" / part / "queryconf.txt", WideBytes(PlanText(key, {"old"})));
        }
        fs::create_directories(download);
        if (newText) Write(download / "queryconf.txt", WideBytes(newText));
        FreePlan();
        LoadQueryConfig(u"", std::nullopt);
    }
    fs::path LivePath(const fs::path& slave) const {
        return slave.empty() ? conf / "queryconf.txt" : conf / "slaves" / slave / "queryconf.txt";
    }
    static void Reload(const std::string& agentKey) { ReloadQueryConfDetails(platform::WideFromUtf8(agentKey)); }

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
    constexpr const char* own = R"({"WorkFlows":[{"wfname":"new","order":9,"interval":5,"recordSetName":[]},]})";
    constexpr const char* ofS = R"({"WorkFlows_S":[{"wfname":"new","order":9,"interval":5,"recordSetName":[]},]})";
    constexpr const char* ofT = R"({"WorkFlows_T":[{"wfname":"new","order":9,"interval":5,"recordSetName":[]},]})";
    const std::string waits = "queryconf.txt", refused = "queryconf.txt.refused", gone;
    const Files sound = platform::Files();
    struct Row {
        const char* title;
        const char* agentKey;
        const char* newText;
        Files operations;
        std::string slave, live, backup, downloads, loaded;
        const char* logged = "";
        std::function<void()> before = [] {};
    };
    for (const Row& row : std::vector<Row>{
             {"the own plan, key in another case", "oWN", own, sound, "", "new", "live", gone, "new"},
             {"a slave's plan", "S", ofS, sound, "S", "new", "live", gone, "new"},
             {"an empty list", "Own", "{\"WorkFlows\":[]}", sound, "", "{\"WorkFlows\":[]}", "live", gone, "-"},
             {"a plan that cannot be read now", "Own", own, Failing(&Files::CreateFileW, tooManyOpenFiles), "", "live",
              "old", waits, "live", "queryconf.txt waits for the next call"},
             {"the first slave's plan", "T", ofT, sound, "T", "new", "-", gone, "new", "",
              [this] {
                  for (const char* each : {"slaves", "backup"}) fs::remove_all(conf / each);
              }},
             {"a slave without its file", "S", ofS, sound, "S", "new", "-", gone, "new", "",
              [this] { fs::remove(LivePath("S")); }},
             {"an absent plan", "Own", nullptr, sound, "", "live", "old", gone, "live"},
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
        row.before();
        const platform::ScopedOperations scoped(row.operations);
        Reload(row.agentKey);
        EXPECT_EQ(PlanInFile(LivePath(row.slave)), row.live);
        EXPECT_EQ(PlanInFile(conf / "backup" / row.slave / "queryconf.txt"), row.backup);
        EXPECT_EQ(FilesIn(download), row.downloads.empty() ? std::vector<std::string>{} : std::vector{row.downloads});
        EXPECT_EQ(LoadedPlan(row.slave), row.loaded);
        EXPECT_TRUE(Logged(row.logged));
    }
}

struct Killed {};

/// The current operations. The n-th call throws, as if the agent were killed; a copy is half done by then.
Files KillAtCall(int n) {
    const auto left = std::make_shared<int>(n);
    Files files = platform::Files();
    const auto step = [left] {
        if (--*left == 0) throw Killed();
    };
    const auto dying = [step](auto& operation) {
        operation = [step, next = operation](auto&&... arguments) {
            step();
            return next(std::forward<decltype(arguments)>(arguments)...);
        };
    };
    dying(files.CreateFileW);
    dying(files.ReadFile);
    dying(files.FlushFileBuffers);
    dying(files.MoveFileExW);
    dying(files.DeleteFileW);
    dying(files.wmkdir);
    dying(files.GetFileAttributesW);
    files.CopyFileW = [step, next = files.CopyFileW](std::u16string_view from, std::u16string_view to) {
        TestAgent::Write(platform::Files().NativePath(to), "half");
        step();
        return next(from, to);
    };
    return files;
}

TEST_F(ConfigReload, AKillAtAnyCallLeavesWholePlans) {
    logState.gv_logLevel = 0;  // calls for the log do not count
    int call = 1;
    for (bool killed = true; killed; ++call) {
        SCOPED_TRACE(call);
        SetUpFiles(PlanText("WorkFlows", {"new"}).c_str());
        killed = false;
        try {
            const platform::ScopedOperations scoped(KillAtCall(call));
            Reload("Own");
        } catch (const Killed&) {
            killed = true;
        }
        const std::string live = PlanInFile(LivePath(""));
        const std::string backup = PlanInFile(conf / "backup" / "queryconf.txt");
        EXPECT_TRUE(live == "new" ? backup == "live" : live == "live" && (backup == "live" || backup == "old"));
        Reload("Own");
        EXPECT_EQ(PlanInFile(LivePath("")), "new");
        EXPECT_EQ(PlanInFile(conf / "backup" / "queryconf.txt"), "live");
    }
    EXPECT_GT(call, 10);
}

}  // namespace
}  // namespace kv::test
