// A process killed while it packs: every record is still in a record file or in a finished zip.
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

class KilledPacking : public TestAgent {
  protected:
    /// Names of all records, wherever they are.
    std::set<std::string> Records() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(data)) names.insert("data/" + entry.path().filename().string());
        for (const auto& entry : fs::directory_iterator(zipdata)) {
            if (entry.path().extension() == ".zip") AddZip(entry.path(), names);
        }
        return names;
    }

    static void AddZip(const fs::path& path, std::set<std::string>& names) {
        int error = 0;
        zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
        ASSERT_NE(archive, nullptr) << path << " is not a whole zip: " << error;
        for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
            names.insert(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
        }
        zip_close(archive);
    }
};

TEST_F(KilledPacking, LosesNoRecord) {
    constexpr int recordCount = 600;
    std::mt19937 random(7);
    std::uniform_int_distribution<int> microseconds(500, 30000);
    fs::create_directories(zipdata);
    std::set<std::string> written;
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < recordCount; ++i) {
            const std::string name = "Agent_K_" + std::to_string(round * recordCount + i) + ".txt";
            Write(data / name, std::string(4000, static_cast<char>('a' + i % 26)));
            written.insert("data/" + name);
        }
        const pid_t child = fork();
        if (child == 0) {
            PackRecordFiles(u"zipdata\\Agent_K_");
            _exit(0);
        }
        usleep(static_cast<useconds_t>(microseconds(random)));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        ASSERT_EQ(Records(), written) << "round " << round;
    }
}

}  // namespace
}  // namespace kv::test
