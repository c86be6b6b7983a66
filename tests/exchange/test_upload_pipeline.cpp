#include <atomic>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <zip.h>

#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "platform/files.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

using Names = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

/// What the central server, up or down, has been sent and has accepted.
struct Uploads {
    std::mutex mutex;
    Names tried;                              // file names since the last look
    std::map<std::string, std::string> zips;  // accepted, by file name
};

/// A central server that answers as it is told to.
class FileCollector {
  public:
    explicit FileCollector(Uploads& uploads) {
        server_.Post("/servlets/FileCollector", [&](const httplib::Request& request, httplib::Response& response) {
            const std::lock_guard lock(uploads.mutex);
            const std::string name = request.get_param_value("FILENAME");
            uploads.tried.push_back(name);
            response.status = request.get_param_value("AGENTKEY") == "K7" ? status.load() : 400;
            if (response.status == 200) uploads.zips[name] = request.body;
        });
        port = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~FileCollector() {
        server_.stop();
        thread_.join();
    }

    std::atomic<int> status{200};
    int port = 0;

  private:
    httplib::Server server_;
    std::thread thread_;
};

std::multiset<std::string> NamesInZip(const std::string& bytes) {
    std::multiset<std::string> names;
    zip_t* archive = zip_open_from_source(zip_source_buffer_create(bytes.data(), bytes.size(), 0, nullptr), 0, nullptr);
    EXPECT_NE(archive, nullptr);
    if (archive == nullptr) return names;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        names.insert(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
    }
    zip_discard(archive);
    return names;
}

}  // namespace

class UploadPipeline : public TestAgent {
  protected:
    UploadPipeline() {
        agentState.gv_agentKey.publish(u"K7");
        agentState.gv_LastAccessName.publish(u"127.0.0.1");
        agentState.gv_httpsEnabled = 0;
        std::filesystem::create_directories(zipdata);
        StartServer();
    }

    void StartServer() {
        server = std::make_unique<FileCollector>(uploads);
        agentState.gv_ServerPort = server->port;
    }

    /// Names of the uploads since the last call.
    Names Tried() {
        const std::lock_guard lock(uploads.mutex);
        return std::exchange(uploads.tried, {});
    }

    void WriteRecords(int first, int last) {
        for (int i = first; i <= last; ++i) Write(data / ("Agent_K7_" + std::to_string(i) + ".txt"), "{ }");
    }
    void QueueZips(const Names& names) {
        for (const std::string& name : names) Write(zipdata / name, "zip");
    }

    /// Lets the thread run for some virtual time.
    void RunFor(std::int64_t seconds) {
        clock.endMilliseconds = clock.nowMilliseconds() + seconds * 1000;
        EXPECT_THROW(StripTxtFiles(nullptr), TimeIsUp);
    }

    static Names FilesIn(const std::filesystem::path& directory) {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path().filename());
        return {names.begin(), names.end()};
    }

    /// The seam with one file operation that fails.
    template <class Operation>
    static platform::ScopedOperations<platform::FileOperations> Failing(Operation platform::FileOperations::*operation,
                                                                        platform::Error error) {
        platform::FileOperations files = platform::Files();
        files.*operation = [error](auto&&...) { return error; };
        return platform::ScopedOperations<platform::FileOperations>(files);
    }

    VirtualClock clock;
    Uploads uploads;
    std::unique_ptr<FileCollector> server;
};

TEST_F(UploadPipeline, AZipHoldsAtMost2501Records) {
    const std::map<int, std::map<std::string, std::size_t>> rows{
        {2501, {{"Agent_K7_7.zip", 2501}}},
        {2502, {{"Agent_K7_7.zip", 2501}, {"Agent_K7_8.zip", 1}}},
    };
    for (const auto& [records, zips] : rows) {
        agentState.gv_ocLastCreatedZIPNum = 6;
        WriteRecords(1, records);
        PackRecordFiles(u"zipdata\\Agent_K7_");
        EXPECT_THAT(FilesIn(data), IsEmpty());
        std::map<std::string, std::size_t> packed;
        for (const std::string& file : FilesIn(zipdata)) {
            packed[file] = NamesInZip(Read(zipdata / file)).size();
            std::filesystem::remove(zipdata / file);
        }
        EXPECT_EQ(packed, zips);
    }
}

TEST_F(UploadPipeline, APassWithoutFilesSendsNothingAndThePeriodRunsFromItsStart) {
    std::vector<std::int64_t> lines;
    std::size_t seen = 0;
    clock.onSleep = [&](std::uint32_t) {
        const std::string log = LogText();
        if (log.find("zipcnt value is [0], Time Stamp is [", seen) == std::string::npos) return;
        lines.push_back((clock.nowMilliseconds() - VirtualClock::startMilliseconds) / 1000);
        seen = log.size();
    };
    RunFor(60 + 320);
    EXPECT_THAT(lines, ElementsAre(65, 370));  // each seen five seconds into its pass: 60 and 365
    EXPECT_TRUE(Logged("StripTxtFiles -- No txt files exist."));
    EXPECT_THAT(Tried(), IsEmpty());
}

TEST_F(UploadPipeline, EveryZipIsTriedInEveryPassAndStaysUntilAccepted) {
    const Names queue{"Agent_K7_1.zip", "Agent_K7_2.zip", "Agent_K7_3.zip"};
    QueueZips(queue);
    for (const int status : {503, 407}) {
        server->status = status;
        SendDetailstoCS(3);
        EXPECT_EQ(Tried(), queue);
        EXPECT_EQ(FilesIn(zipdata), queue);
    }
    EXPECT_TRUE(Logged("Number of Zip files in ZipData directory is [2]"));
    EXPECT_TRUE(Logged("something went wrong in InternetUploadBinaryFile. return value [13]"));
    EXPECT_TRUE(Logged("something went wrong in InternetUploadBinaryFile. return value [407]"));
    server->status = 200;
    SendDetailstoCS(0);
    EXPECT_EQ(Tried(), queue);
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());
    EXPECT_EQ(uploads.zips["Agent_K7_2.zip"], "zip");
}

TEST_F(UploadPipeline, CollectionStopsOneSecondAfterTheLimitAndResumesWithAnAcceptedZip) {
    QueueZips({"Agent_K7_1.zip"});
    server.reset();
    SendDetailstoCS(1);
    EXPECT_EQ(agentState.gv_CSContactLostTime, clock.nowSeconds());
    clock.advanceMilliseconds(360 * 60 * 1000);
    SendDetailstoCS(1);
    EXPECT_EQ(agentState.gv_collectData, 1);
    clock.advanceMilliseconds(1000);
    SendDetailstoCS(1);
    EXPECT_EQ(agentState.gv_collectData, 0);
    EXPECT_TRUE(Logged("stopping datacollection as connection is lost for 21600 sec"));

    StartServer();
    {
        const auto undeletable = Failing(&platform::FileOperations::DeleteFileW, platform::error::accessDenied);
        SendDetailstoCS(1);
    }
    EXPECT_EQ(agentState.gv_collectData, 1);
    EXPECT_EQ(agentState.gv_CSContactLostTime, 0);
    EXPECT_TRUE(Logged("Agent_K7_1.zip]. ErrorCode is [0], GetLastError is [5]"));
    SendDetailstoCS(1);
    EXPECT_THAT(Tried(), ElementsAre("Agent_K7_1.zip", "Agent_K7_1.zip"));
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());
}

TEST_F(UploadPipeline, ASingleFailureStaysOnTheClockThroughLaterSuccesses) {
    QueueZips({"Agent_K7_1.zip"});
    for (int hour = 0; hour <= 24; ++hour) {
        server->status = hour == 0 || hour == 24 ? 503 : 200;
        EXPECT_EQ(agentState.gv_collectData, 1);
        SendDetailstoCS(1);
        QueueZips({"Agent_K7_1.zip"});
        clock.advanceMilliseconds(3600 * 1000);
    }
    EXPECT_EQ(agentState.gv_collectData, 0);
}

TEST_F(UploadPipeline, ALongOutageLosesNoRecord) {
    agentState.gv_writeInterval = 1800;
    constexpr std::int64_t hour = 3600 * 1000;
    int records = 0;
    bool stopped = false;
    clock.onSleep = [&](std::uint32_t) {
        const std::int64_t elapsed = clock.nowMilliseconds() - VirtualClock::startMilliseconds;
        if (elapsed > hour && elapsed < 9 * hour) server.reset();
        if (elapsed > 9 * hour && !server) StartServer();
        if (agentState.gv_collectData == 0) stopped = true;
        if (agentState.gv_collectData != 0 && elapsed % 60000 == 0) WriteRecords(records + 1, records + 1), ++records;
    };
    RunFor(11 * 3600);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(agentState.gv_collectData, 1);
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());
    std::multiset<std::string> kept;
    for (const auto& [name, bytes] : uploads.zips) kept.merge(NamesInZip(bytes));
    for (const std::string& name : FilesIn(data)) kept.insert("data/" + name);
    std::multiset<std::string> written;
    for (int i = 1; i <= records; ++i) written.insert("data/Agent_K7_" + std::to_string(i) + ".txt");
    EXPECT_GT(records, 400);
    EXPECT_EQ(kept, written);
}

TEST_F(UploadPipeline, AKilledPackingLeavesNoHalfZipAndOverwritesNoQueuedOne) {
    WriteRecords(1, 2);
    Write(zipdata / "Agent_K7_9.tmp", "half a zip");
    QueueZips({"Agent_K7_1.zip"});
    server->status = 503;
    RunFor(61);
    EXPECT_THAT(FilesIn(zipdata), ElementsAre("Agent_K7_1.zip", "Agent_K7_2.zip"));
    EXPECT_EQ(Read(zipdata / "Agent_K7_1.zip"), "zip");
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")).size(), 2U);
}

TEST_F(UploadPipeline, ABusyRecordIsWaitedForAndNoRecordGoesBeforeItsZipIsComplete) {
    WriteRecords(1, 2);
    std::ofstream writer(data / "Agent_K7_2.txt");
    clock.endMilliseconds = clock.nowMilliseconds() + 20000;
    EXPECT_THROW(PackRecordFiles(u"zipdata\\Agent_K7_"), TimeIsUp);  // ends here as if killed
    EXPECT_TRUE(Logged("StripTxtFiles :: IsFileisOpen returned failure for [data\\Agent_K7_2.txt]"));
    EXPECT_EQ(FilesIn(data).size(), 2U);
    EXPECT_THAT(FilesIn(zipdata), ElementsAre("Agent_K7_1.tmp"));

    clock.endMilliseconds = INT64_MAX;
    clock.onSleep = [&](std::uint32_t milliseconds) {
        if (milliseconds == 5000) writer.close();
    };
    PackRecordFiles(u"zipdata\\Agent_K7_");
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")).size(), 2U);
}

TEST_F(UploadPipeline, FailuresWhilePackingAreLoggedAndLeaveNothingHalfDone) {
    const auto pack = [this](auto operation, platform::Error error) {
        WriteRecords(1, 1);
        const auto failing = Failing(operation, error);
        PackRecordFiles(u"zipdata\\Agent_K7_");
        EXPECT_THAT(FilesIn(zipdata), IsEmpty());
        return FilesIn(data).size();
    };
    using Operations = platform::FileOperations;
    EXPECT_EQ(pack(&Operations::FlushFileBuffers, platform::error::diskFull), 0U);
    EXPECT_TRUE(Logged("Not able to close [zipdata\\Agent_K7_1.tmp]. Error is [0x400] [Error writing to file]"));
    EXPECT_TRUE(Logged("Error code : 112"));
    EXPECT_EQ(pack(&Operations::MoveFileExW, platform::error::accessDenied), 1U);  // to be packed again
    Write(zipdata / "Agent_K7_3.tmp" / "in the way", "");
    PackRecordFiles(u"zipdata\\Agent_K7_");
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_TRUE(Logged("Not able to create [zipdata\\Agent_K7_3.tmp]. Error is [0x200] [Couldn't create/open file]"));
    EXPECT_TRUE(
        Logged("Not able to add [data\\Agent_K7_1.txt] to the zip. Error is [0x10000] [Caller: faulty arguments]"));
}

}  // namespace kv::test
