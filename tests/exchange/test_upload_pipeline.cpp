// Packing records and uploading zips to a real server, in virtual time.
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <tuple>

#include "exchange/upload_pipeline.h"
#include "foundation/agent_health.h"
#include "foundation/registry_store.h"
#include "lab/store/archive.h"
#include "platform/files.h"
#include "tests/http/http_peers.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

using Names = std::vector<std::string>;
using FileOverride = platform::ScopedOperations<platform::FileOperations>;
using testing::IsEmpty;

/// The names in a zip, which has to be sound.
std::multiset<std::string> NamesInZip(const std::string& bytes) {
    std::multiset<std::string> names;
    lab::ReadArchive(bytes, [&](const std::string& name, std::string_view) { names.insert(name); });
    return names;
}

}  // namespace

class UploadPipeline : public HttpTest {
  protected:
    UploadPipeline() {
        agentState.gv_agentKey.Publish(u"K7");
        std::filesystem::create_directories(zipdata);
        agentState.gv_ServerPort = server.port;
        server.server->Post("/servlets/FileCollector", [&](const httplib::Request& request, httplib::Response& answer) {
            const std::string name = request.get_param_value("FILENAME");
            tried.push_back(name);
            answer.status = request.get_param_value("AGENTKEY") == "K7" ? status : 400;
            if (name == refused) answer.status = 413;
            if (answer.status == 200) accepted[name] = request.body;
        });
    }

    /// The names of the uploads since the last call.
    Names TakeTried() { return std::exchange(tried, {}); }

    void WriteRecords(int first, int last) {
        for (int i = first; i <= last; ++i) {
            Write(data / ("Agent_K7_" + std::to_string(i) + ".txt"), std::string(4000, static_cast<char>(i)));
        }
    }
    void QueueZips(const Names& names) {
        for (const std::string& name : names) Write(zipdata / name, "zip");
    }

    /// The names of records in a zip.
    static std::multiset<std::string> RecordNames(int first, int last) {
        std::multiset<std::string> names;
        for (int i = first; i <= last; ++i) names.insert("data/Agent_K7_" + std::to_string(i) + ".txt");
        return names;
    }
    /// The records in "data" and in the queue.
    std::multiset<std::string> KeptRecords() {
        std::multiset<std::string> names;
        for (const std::string& file : FilesIn(data)) names.insert("data/" + file);
        for (const std::string& file : FilesIn(zipdata)) {
            if (file.ends_with(".zip")) names.merge(NamesInZip(Read(zipdata / file)));
        }
        return names;
    }

    void Pack() { PackRecordFiles(u"zipdata\\Agent_K7_"); }

    /// The operations, which tell `opened` of each file that they open.
    template <class Opened>
    static platform::FileOperations Watched(const Opened& opened) {
        platform::FileOperations files = platform::Files();
        files.CreateFileW = [opened, real = files.CreateFileW](auto path, auto access, auto share, auto disposition,
                                                               auto& file) {
            const platform::Error error = real(path, access, share, disposition, file);
            opened(path, file);
            return error;
        };
        return files;
    }

    /// Runs the upload thread's loop for some virtual time.
    void RunFor(std::int64_t seconds) {
        clock.endMilliseconds = clock.nowMilliseconds() + seconds * 1000;
        EXPECT_THROW(StripTxtFiles(nullptr), TimeIsUp);
    }

    VirtualClock clock;
    Names tried;                                  // file names of uploads
    std::map<std::string, std::string> accepted;  // zips by file name
    int status = 200;                             // that the server answers
    std::string refused;                          // the file name that the server answers with 413
    RunningServer server;
};

TEST_F(UploadPipeline, AZipHoldsAtMost2501Records) {
    WriteRecords(1, 2502);
    Pack();
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_1.zip")).size(), 2501U);
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")).size(), 1U);
}

TEST_F(UploadPipeline, CollectionStopsOneSecondAfterTheLimitOfFailedUploads) {
    const Names queue{"Agent_K7_1.zip", "Agent_K7_2.zip", "Agent_K7_3.zip"};
    QueueZips(queue);
    const auto pass = [&](int answer, std::int64_t secondsLater) {
        status = answer;
        clock.AdvanceMilliseconds(secondsLater * 1000);
        SendDetailstoCS(3);
        EXPECT_EQ(TakeTried(), queue);
        return agentState.gv_collectData.load();
    };
    EXPECT_EQ(pass(503, 0), 1);
    EXPECT_EQ(agentState.gv_CSContactLostTime, clock.nowSeconds());
    EXPECT_EQ(pass(200, 60), 1);  // the outage still began with the first failure
    QueueZips(queue);
    EXPECT_EQ(pass(407, 359 * 60), 1);
    EXPECT_TRUE(Logged("something went wrong in InternetUploadBinaryFile. return value [407]"));
    EXPECT_EQ(pass(503, 1), 0);
    EXPECT_EQ(agentHealth.collectionStopTime, clock.nowSeconds());
    EXPECT_THAT(ReadLastEvents().failure,
                testing::MatchesRegex("/servlets/FileCollector at .*: refused with HTTP status 503"));
    EXPECT_EQ(FilesIn(zipdata), queue);
    {
        const FileOverride undeletable(Failing(&platform::FileOperations::DeleteFileW, platform::error::accessDenied));
        EXPECT_EQ(pass(200, 1), 1);
    }
    EXPECT_EQ(agentState.gv_CSContactLostTime, 0);
    EXPECT_EQ(pass(200, 1), 1);
    EXPECT_EQ(accepted["Agent_K7_2.zip"], "zip");
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());
    EXPECT_EQ(agentHealth.collectionStopTime, 0);
    EXPECT_EQ(ReadLastEvents().uploadTime, clock.nowSeconds());
    EXPECT_EQ(agentHealth.uploadsFailed, 9U);
    EXPECT_EQ(agentHealth.uploadsAccepted, 9U);
    EXPECT_EQ(agentHealth.bytesUploaded, 27U);
}

TEST_F(UploadPipeline, CollectionResumesWhenOnlyRefusedZipsAreLeft) {
    agentState.gv_DataCollTmout = 10;
    int stops = 0, before = 1;
    clock.onSleep = [&](std::uint32_t) {
        const int collects = agentState.gv_collectData;
        stops += collects < std::exchange(before, collects);
    };
    for (const char* name : {"behind.zip", "ahead.zip"}) {
        refused = name;
        stops = 0;
        QueueZips({"between.zip", name});
        RunFor(6000);
        EXPECT_GT(stops, 1) << name;
        std::filesystem::remove(zipdata / name);
    }
    status = 503;
    QueueZips({"new.zip"});
    RunFor(6000);
    EXPECT_EQ(agentState.gv_collectData, 0) << "the server has not refused this zip";
    std::filesystem::remove_all(zipdata);
    RunFor(400);
    EXPECT_EQ(agentState.gv_collectData, 1) << "no zip is left";
}

TEST_F(UploadPipeline, WaitsForABusyRecordAndPacksItOnceItIsFree) {
    WriteRecords(1, 2);
    std::ofstream writer(data / "Agent_K7_2.txt");
    RunFor(60 + 20);  // leaves the loop by an exception
    EXPECT_EQ(FilesIn(data).size(), 2U);
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());

    QueueZips({"Agent_K7_1.tmp", "Agent_K7_2.zip"});  // of a killed run, and of the next number
    status = 503;
    clock.onSleep = [&](std::uint32_t milliseconds) {
        if (milliseconds == 5000) writer.close();
    };
    RunFor(60 + 20);
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_THAT(FilesIn(zipdata), testing::ElementsAre("Agent_K7_2.zip", "Agent_K7_3.zip"));
    EXPECT_EQ(Read(zipdata / "Agent_K7_2.zip"), "zip");
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_3.zip")), RecordNames(1, 2));
}

TEST_F(UploadPipeline, LogsFailuresOfPackingAndLeavesNoHalfZip) {
    using Operations = platform::FileOperations;
    Operations huge = platform::Files();
    huge.GetFileInformationByHandle = [real = huge.GetFileInformationByHandle](auto file, auto& information) {
        const platform::Error error = real(file, information);
        return information.size = 5ULL << 30, error;
    };
    Operations notTwice = platform::Files();
    notTwice.CreateFileW = [opens = 0, real = notTwice.CreateFileW](std::u16string_view path, auto&&... rest) mutable {
        const bool isRefused = path.ends_with(u".tmp") && ++opens == 2;  // the first only checks that it can be made
        return isRefused ? platform::error::tooManyOpenFiles : real(path, rest...);
    };
    const std::tuple<Operations, std::size_t, const char*> rows[] = {
        {Failing(&Operations::CreateFileW, platform::error::accessDenied), 1,
         "[1] of the files found in data cannot be"},
        {Failing(&Operations::FlushFileBuffers, platform::error::diskFull), 1, "K7_1.tmp] is given up. Its record"},
        {Failing(&Operations::MoveFileExW, platform::error::accessDenied), 1, "Not able to rename"},
        {Failing(&Operations::ReadFile, platform::error::readFault), 1, "[data\\Agent_K7_1.txt] cannot be read"},
        {notTwice, 1, "Not able to create [zipdata\\Agent_K7_4.tmp]"},
        {huge, 0, "[data\\Agent_K7_1.txt] is lost"},
    };
    for (const auto& [files, kept, logged] : rows) {
        WriteRecords(1, 1);
        EXPECT_FALSE(Logged(logged));
        const FileOverride failing(files);
        Pack();
        EXPECT_TRUE(Logged(logged)) << logged;
        EXPECT_THAT(FilesIn(zipdata), IsEmpty()) << logged;
        EXPECT_EQ(FilesIn(data).size(), kept) << logged;
    }
    std::filesystem::create_directories(data / "directory.txt");
    Pack();
    EXPECT_EQ(agentState.gv_ocLastCreatedZIPNum, 5U) << "a directory takes no number";
}

TEST_F(UploadPipeline, NothingGoesOutUnderANumberThatCannotBeStored) {
    WriteRecords(1, 2);
    agentState.gv_ocLastCreatedJSONNum = 2;
    {
        platform::RegistryOperations full = platform::Registry();
        full.RegSetValueExW = [](auto&&...) { return platform::error::diskFull; };
        const platform::ScopedOperations<platform::RegistryOperations> failing(full);
        Pack();
    }
    EXPECT_EQ(FilesIn(data).size(), 2U);
    EXPECT_THAT(FilesIn(zipdata), IsEmpty());
    EXPECT_TRUE(Logged("stay until their numbers can be stored"));
    EXPECT_THAT(ReadLastEvents().failure, testing::StartsWith("no record is packed, because the last used numbers"));
    Pack();
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_EQ(KeptRecords(), RecordNames(1, 2));
}

TEST_F(UploadPipeline, WhatCannotBeMadeOrDeletedLosesNoRecord) {
    WriteRecords(1, 2);
    std::filesystem::remove(zipdata);
    Pack();
    EXPECT_TRUE(Logged("_1.tmp] cannot be made. The record files stay"));
    EXPECT_EQ(FilesIn(data).size(), 2U);
    const FileOverride kept(Failing(&platform::FileOperations::DeleteFileW, platform::error::accessDenied));
    Pack();
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")), RecordNames(1, 2)) << "the directory is there again";
    EXPECT_EQ(TimesLogged("It will be packed again"), 2);
    EXPECT_THAT(ReadLastEvents().failure, testing::HasSubstr("_2.txt cannot be deleted, and is taken up again: "));
    SendDetailstoCS(1);
    EXPECT_EQ(accepted.size(), 1U);
    EXPECT_TRUE(Logged("Error in Deleting ZipFileName [zipdata\\Agent_K7_2.zip]"));
    EXPECT_THAT(ReadLastEvents().failure, testing::HasSubstr("_2.zip cannot be deleted, and is taken up again: "));
}

TEST_F(UploadPipeline, ARecordThatCannotBeReadLosesNoOther) {
    WriteRecords(1, 5);
    platform::FileHandle bad = 0;
    auto files = Watched([&](std::u16string_view path, platform::FileHandle file) {
        if (path.ends_with(u"_3.txt")) bad = file;
    });
    files.ReadFile = [&, real = files.ReadFile](auto file, void* buffer, std::size_t size, std::size_t& read) {
        const platform::Error error = real(file, buffer, size, read);
        return file == bad && read == 0 ? platform::error::readFault : error;
    };
    files.CloseHandle = [&, real = files.CloseHandle](auto file) {
        if (file == bad) bad = 0;
        return real(file);
    };
    const FileOverride failing(files);
    Pack();
    EXPECT_THAT(FilesIn(data), testing::ElementsAre("Agent_K7_3.txt"));
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_1.zip")), RecordNames(1, 2));
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")), RecordNames(4, 5));
    EXPECT_TRUE(Logged("[data\\Agent_K7_3.txt] cannot be read. It stays"));
    EXPECT_FALSE(Logged("is lost"));
}

TEST_F(UploadPipeline, AFullDiskLosesNoRecord) {
    std::uint64_t room = 0, written = 0, limit = UINT64_MAX;
    platform::FileHandle zip = 0;
    auto files = Watched([&](std::u16string_view path, platform::FileHandle file) {
        if (!path.ends_with(u".tmp")) return;
        zip = file;
        written = 0;
    });
    files.GetDiskFreeSpaceExW = [&](auto, std::uint64_t& available) {
        available = room;
        return platform::error::success;
    };
    files.WriteFile = [&, real = files.WriteFile](auto file, const void* bytes, std::size_t size) {
        if (file == zip) written += size;
        return file == zip && written > limit ? platform::error::diskFull : real(file, bytes, size);
    };
    const FileOverride full(files);
    WriteRecords(1, 3);
    Pack();
    EXPECT_EQ(FilesIn(data).size(), 3U);
    EXPECT_EQ(TimesLogged("No room for [3 record files] in [zipdata]"), 1) << "once a pass";
    room = 18500;  // bytes for two records
    Pack();
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_1.zip")), RecordNames(1, 2));
    EXPECT_EQ(NamesInZip(Read(zipdata / "Agent_K7_2.zip")), RecordNames(3, 3));

    room = UINT64_MAX;
    limit = 20'000;  // bytes, although the disk reports more
    WriteRecords(4, 200);
    Pack();
    EXPECT_THAT(FilesIn(data), IsEmpty());
    EXPECT_EQ(KeptRecords(), RecordNames(1, 200));
}

TEST_F(UploadPipeline, AClockChangeNeitherStopsUploadsNorShiftsTheOutage) {
    std::int64_t shift = 0;
    const Replaced shifted(&platform::ClockOperations::GetSystemTimeMilliseconds,
                           [&] { return clock.nowMilliseconds() + shift; });
    constexpr std::int64_t day = 86'400'000;
    const std::pair<std::int64_t, std::int64_t> steps[] = {// seconds that have passed, the clock's shift
                                                           {0, 0},
                                                           {100, -day},
                                                           {1000, 3650 * day},
                                                           {1500, 0},
                                                           {14400, -365 * day}};
    std::int64_t elapsed = 0, stopped = 0;
    clock.onSleep = [&](std::uint32_t) {
        elapsed = (clock.nowMilliseconds() - VirtualClock::startMilliseconds) / 1000;
        for (const auto& [from, by] : steps) shift = elapsed >= from ? by : shift;
        if (stopped == 0 && agentState.gv_collectData == 0) stopped = elapsed;
    };
    QueueZips({"Agent_K7_1.zip"});
    status = 503;
    RunFor(59);
    EXPECT_THAT(TakeTried(), IsEmpty()) << "in the first minute";
    clock.AdvanceMilliseconds(VirtualClock::startMilliseconds - clock.nowMilliseconds());
    RunFor(60 + 305 * 80);
    EXPECT_NEAR(static_cast<double>(tried.size()), 82, 2);
    EXPECT_NEAR(static_cast<double>(stopped), 60 + 360 * 60, 310);
}

}  // namespace kv::test
