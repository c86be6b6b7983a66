// What the agent tells of itself, in virtual time: status.json, the line for the service manager, the metrics file, and
// the log level that it follows.
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <new>
#include <regex>
#include <set>
#include <thread>
#include <utility>

#include "agent/health_report.h"
#include "agent/log_file.h"
#include "agent/metrics_file.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "platform/process.h"
#include "platform/service_host.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using platform::Error;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class HealthReport : public test::TestAgent {
  protected:
    HealthReport() {
        agentState.gv_ServerName = agentState.gv_ServerFlatName = agentState.gv_ServerIPAddress = u"cs";
        agentState.gv_LastAccessName.Publish(u"cs");
        agentState.gv_ServerPort = 8443;
        agentState.gv_custID = agentState.gv_remoteOfficeName = u"x";
        agentState.gv_agentKey.Publish(u"LAB1");
        agentState.gv_serviceStatusHandle = 77;
    }

    /// Runs the thread. Each of its waits does one step: when that sets the event, the wait ends early, and else after
    /// a minute. The last step is followed by one more report.
    void Run(std::vector<std::function<void()>> steps) {
        const test::Replaced waits(&platform::ThreadOperations::WaitForEvent,
                                   [&, next = std::size_t{0}](auto event, std::uint32_t milliseconds) mutable {
                                       if (event != agentHealth.wake) return WaitForMetrics(event);
                                       if (next == steps.size()) throw test::TimeIsUp();
                                       steps[next++]();
                                       if (real_.WaitForEvent(event, 0) == platform::error::success)
                                           return Error{platform::error::success};
                                       clock.AdvanceMilliseconds(milliseconds);
                                       return Error{platform::error::waitTimeout};
                                   });
        EXPECT_THROW(ReportHealth(nullptr), test::TimeIsUp);
        platform::Threads().CloseEvent(agentHealth.wake.exchange(0));  // in the agent the thread never ends
    }

    Error WaitForMetrics(platform::EventHandle written) {
        metricsEnd = written;
        return hasSlowMetrics ? Error{platform::error::waitTimeout} : real_.WaitForEvent(written, platform::infinite);
    }

    std::optional<HealthSnapshot> Status() const {
        std::string failure;
        return ReadHealthFile(platform::WideFromUtf8(status.string()), failure);
    }

    void SetMetricsFile(const fs::path& path, platform::RegistryType type = platform::RegistryType::text) {
        SetSetting(monitoringKeyPath, u"MetricsFile", platform::WideFromUtf8(path.string()), type);
    }

    test::VirtualClock clock;
    const fs::path status = folder / "monitoring" / "logs" / "status.json";
    std::vector<std::string> lines;  // that the service manager was told
    bool hasSlowMetrics = false;
    platform::EventHandle metricsEnd = 0;

  private:
    const platform::ThreadOperations real_ = platform::Threads();
    const test::Replaced<platform::ServiceHostOperations> host_{&platform::ServiceHostOperations::SetStatusText,
                                                                [this](auto handle, std::string_view line) {
                                                                    EXPECT_EQ(handle, 77U);
                                                                    lines.emplace_back(line);
                                                                    return Error{platform::error::success};
                                                                }};
};

TEST_F(HealthReport, WritesTheFileAtEventsAndWhenAnythingChanged) {
    Run({[&] {
             EXPECT_EQ(Status()->startTime, clock.nowSeconds());
             fs::remove(status);
         },
         [&] { EXPECT_EQ(Status()->writeTime, clock.nowSeconds()) << "somebody deleted it"; },
         [&] {
             EXPECT_LT(Status()->writeTime, clock.nowSeconds()) << "nothing has changed";
             clock.AdvanceMilliseconds(10 * 60000);
         },
         [&] {
             EXPECT_EQ(Status()->writeTime, clock.nowSeconds()) << "ten minutes ago it was written last";
             NoteUpload(u"cs", 8443, 500);
             NoteCollectionStopped();
             NoteFailureOf([] { return std::string("cs: refused"); }, FailureKind::trust);
             NoteFailedUpload();
         },
         [&] {
             EXPECT_EQ(Status()->lastUploadTime, clock.nowSeconds() - 2) << "soon after the event";
             EXPECT_FALSE(Status()->collectionStopTime == 0);
             EXPECT_EQ(Status()->sendingFailsSince, clock.nowSeconds() - 2);
             EXPECT_TRUE(IsDistrusting(*Status()));
             NoteContact();
             ++agentHealth.recordsWritten;
             NoteFailure("the query of %s failed", u"Disk\n");
             NoteFailureOf([]() -> std::string { throw std::bad_alloc(); });  // the former one stays
         },
         [&] {
             EXPECT_EQ(Status()->lastFailureTime, clock.nowSeconds() - 58) << "with the minute";
             NoteRegistration("registered");
         }});
    EXPECT_EQ(Status()->sendingFailsSince, 0);
    EXPECT_FALSE(IsDistrusting(*Status()));
    EXPECT_EQ(Status()->sendingFailure, "cs: refused");
    EXPECT_EQ(Status()->processId, platform::Processes().GetCurrentProcessId());
    ReportStop();
    const HealthSnapshot health = Status().value();
    EXPECT_EQ(health.processId, 0) << "stopped";
    EXPECT_EQ(health.lastAddress + "|" + health.registration + "|" + health.lastFailure,
              "cs:8443|registered|the query of Disk failed");
    EXPECT_THAT(health.counts, testing::Contains(std::pair<std::string, std::uint64_t>("recordsWritten", 1)));
    EXPECT_THAT(health.counts, testing::Contains(std::pair<std::string, std::uint64_t>("bytesUploaded", 500)));
    EXPECT_EQ(health.counts.size(), HealthCounts().size());
}

TEST_F(HealthReport, TellsOfARegistrationWhileItIsTried) {
    Run({[] { NoteRegistrationBegun(); },
         [&] {
             EXPECT_EQ(Status()->registration, "is being tried");
             NoteFailure("cs: no answer");
         },
         [&] {
             EXPECT_EQ(Status()->lastFailure, "cs: no answer");
             EXPECT_EQ(Status()->lastFailureTime, clock.nowSeconds() - 2) << "at once, not with the minute";
             NoteRegistration("registered");
             NoteRegistrationBegun();
         },
         [] {}});
    EXPECT_EQ(Status()->registration, "registered");
}

TEST_F(HealthReport, SaysOnceThatAFileCannotBeWritten) {
    SetMetricsFile(folder / "absent" / "kvagent.prom");
    const auto full = std::make_shared<std::optional<platform::ScopedOperations<platform::FileOperations>>>();
    full->emplace(Failing(&platform::FileOperations::WriteFile, platform::error::diskFull));
    Run({[] {}, [] {}, [&] { full->reset(); }, [] {}});
    EXPECT_EQ(TimesLogged("status.json cannot be written: "), 1);
    EXPECT_EQ(TimesLogged("status.json is written again\n"), 1);
    EXPECT_EQ(TimesLogged("kvagent.prom cannot be written: "), 1);
    EXPECT_TRUE(Status());
    EXPECT_EQ(TestFolder::FilesIn(status.parent_path()), (std::vector<std::string>{"agent.log", "status.json"}));
}

TEST_F(HealthReport, TellsTheServiceManagerAtMostOnceAMinute) {
    Run({[&] {
             EXPECT_TRUE(lines.empty()) << "the first registration is on its way";
             NoteRegistration("registered");
         },
         [] { NoteUpload(u"cs", 8443, 1); }, [] { NoteUpload(u"192.0.2.1", 8443, 1); }, [] {}, [] {},
         [&] { Write(zipdata / "Agent_LAB1_1.zip", ""); }, [] {}});
    EXPECT_THAT(lines, ElementsAre("LAB1 at cs:8443, no upload yet", "LAB1 at 192.0.2.1:8443, last upload 09:05",
                                   "LAB1 at 192.0.2.1:8443, last upload 09:05, 1 zip waits"));
}

TEST_F(HealthReport, PutsWhatMattersIntoItsLine) {
    const std::int64_t now = clock.nowSeconds();
    const auto line = [&](HealthSnapshot health, std::uint64_t zips) {
        health.writeTime = now;
        return HealthLine(health, zips);
    };
    EXPECT_EQ(line({.lastAddress = "b:1", .lastUploadTime = now - 86400}, 2),
              "LAB1 at b:1, last upload 2026-03-04 09:05, 2 zips wait");
    EXPECT_EQ(line({.isCollecting = false, .collectionStopTime = now - 60}, 0),
              "LAB1 at cs:8443, no upload yet, collection stopped since 09:04");
    EXPECT_EQ(line({.obstacle = "no plan"}, 0), "LAB1 at cs:8443, no upload yet, nothing is collected: no plan");
    EXPECT_EQ(line({.sendingFailure = "cs: no", .sendingFailsSince = now - 60}, 1),
              "LAB1 at cs:8443, no upload yet, 1 zip waits, sending fails since 09:04: cs: no");
    EXPECT_EQ(line({.sendingFailureTime = now, .sendingFailure = "cs: refused", .isTrustFailure = true}, 0),
              "LAB1 at cs:8443, no upload yet, sending fails: cs: refused");
    agentState.gv_agentKey.Publish(u"NULL");
    EXPECT_EQ(line({.registration = "no answer in time"}, 0), "not registered yet at cs:8443: no answer in time");
    agentState.gv_custID.reset();
    EXPECT_EQ(line({}, 3), "CustomerName is missing, and no setting after it is read");
    agentState.gv_ServerPort = 70000;
    EXPECT_EQ(line({}, 0), "no server: KVServerSecurePort is missing");
    SetSetting(serverInfoKeyPath, u"KVServerSecurePort", u"70000");
    EXPECT_EQ(line({}, 0), "no server: KVServerSecurePort is not a port");
    agentState.gv_ServerName.reset();
    EXPECT_EQ(line({}, 0), "no server: KVServerName is missing") << "the first one that is read";
}

TEST_F(HealthReport, FollowsTheLogLevel) {
    const auto set = [this](std::u16string_view level, platform::RegistryType type) {
        return [=, this] { SetSetting(agentKeyPath, u"AgentLogLevel", level, type); };
    };
    std::vector<std::uint32_t> levels;
    const auto note = [&] { levels.push_back(logState.gv_logLevel); };
    logState.gv_logLevel = 3;  // as it was read at the start
    set(u"3", platform::RegistryType::dword)();
    Run({note, set(u"0", platform::RegistryType::dword), note, set(u"2", platform::RegistryType::dword), note,
         set(u"4", platform::RegistryType::text), note,
         [] { platform::Registry().RegDeleteTreeW(platform::RootKey::localMachine, agentKeyPath); }, note});
    EXPECT_THAT(levels, ElementsAre(3U, 0U, 2U, 2U, 1U));
    for (const char* change : {"from 3 to 0\n", "from 0 to 2\n", "from 2 to 1\n"})
        EXPECT_EQ(TimesLogged(std::string("AgentLogLevel goes ") + change), 1) << change;
}

/// What follows the metric families of an OpenMetrics text, which have a help, a type, a sample and a name of their
/// own.
std::string AfterFamilies(std::string text) {
    static const std::regex family(
        "# HELP (kvagent_[a-z_]+) [A-Z0-9][^\\\\\"\n]*\n"
        "# TYPE \\1 (?:gauge\n\\1|counter\n\\1_total)(?:\\{[a-z_]+=\"[^\"\\\\\n]*\"\\})? (?:0|[1-9][0-9]*)\n");
    std::set<std::string> names;
    for (std::smatch parts; std::regex_search(text, parts, family, std::regex_constants::match_continuous);) {
        if (parts[1].str().ends_with("_total") || !names.insert(parts[1]).second) break;
        text = parts.suffix();
    }
    return text;
}

TEST_F(HealthReport, WritesMetricsEachMinuteForEveryone) {
    const fs::path metrics = folder / "textfiles" / "kvagent.prom";
    fs::create_directory(metrics.parent_path());
    SetMetricsFile(metrics);
    Write(zipdata / "a.zip", "12345");
    Write(zipdata / "b.zip", "123");
    Write(data / "a.txt", "1");
    Write(data / "a.tmp", "not complete");
    Run({[&] {
             EXPECT_EQ(AfterFamilies(Read(metrics)), "# EOF\n");
             EXPECT_THAT(Read(metrics), HasSubstr("\nkvagent_waiting_zips_bytes 8\n"));
             EXPECT_THAT(Read(metrics), HasSubstr("\nkvagent_waiting_records 1\n"));
             EXPECT_THAT(Read(metrics), HasSubstr("\nkvagent_collecting 1\n"));
             ++agentHealth.zipsMade;
             fs::remove(metrics);
         },
         [] {}});
    EXPECT_THAT(Read(metrics), HasSubstr("\nkvagent_zips_made_total 1\n"));
    EXPECT_EQ(AfterFamilies(Read(metrics)), "# EOF\n");
    const fs::perms others = fs::status(metrics).permissions() & fs::perms::others_all;
    EXPECT_TRUE((others & fs::perms::others_read) != fs::perms::none);
    ReportStop();
    ReportStopInMetrics();
    EXPECT_THAT(Read(metrics), HasSubstr("\nkvagent_up 0\n"));
}

TEST_F(HealthReport, SaysWhyMetricsAreNotWritten) {
    using enum platform::RegistryType;
    const std::tuple<fs::path, platform::RegistryType, const char*> rows[] = {
        {"kvagent.prom", text, "MetricsFile is not a whole path, and no metrics are written: kvagent.prom\n"},
        {status, text, "MetricsFile is one of the agent's own files, and no metrics are written: "},
        {folder / "precious", text,
         "precious is not written, because it is not a file of the agent's metrics: name another"},
        {folder / "monitoring", text, "monitoring is a directory, not a file. "},
        {folder / "kvagent.prom", binary, "MetricsFile cannot be read as a text, and no metrics are written: "},
    };
    SetSetting(agentKeyPath, u"KVAgentInstallDir", platform::WideFromUtf8((folder / "").string()));
    Write(folder / "precious", "mine");
    for (const auto& [path, type, logged] : rows) {
        SetMetricsFile(path, type);
        Run({[] {}});
        EXPECT_EQ(TimesLogged(logged), 1) << logged;
        EXPECT_TRUE(Status());
    }
    EXPECT_EQ(Read(folder / "precious"), "mine");
}

TEST_F(HealthReport, AStopDoesNotWaitForASlowFolderOfMetrics) {
    SetMetricsFile(folder / "kvagent.prom");
    const auto move = platform::Files().MoveFileExW;
    const test::Replaced slow(&platform::FileOperations::MoveFileExW, [&](auto from, auto to, auto existing) {
        if (to.ends_with(u"kvagent.prom") && !agentHealth.isReportOver) {
            std::thread(ReportStop).join();
            EXPECT_EQ(Status()->processId, 0) << "while the metrics are being written";
        }
        return move(from, to, existing);
    });
    Run({[] { ++agentHealth.zipsMade; }, [] {}});
    EXPECT_EQ(Status()->processId, 0) << "nothing is reported after a stop";
    ReportStopInMetrics();
    EXPECT_THAT(Read(folder / "kvagent.prom"), HasSubstr("\nkvagent_up 0\n"));
}

TEST_F(HealthReport, GoesOnWhileTheFolderOfMetricsDoesNotAnswer) {
    SetMetricsFile(folder / "kvagent.prom");
    std::promise<void> answer;
    const auto move = platform::Files().MoveFileExW;
    const test::Replaced silent(&platform::FileOperations::MoveFileExW,
                                [&, answered = answer.get_future().share()](auto from, auto to, auto existing) {
                                    if (to.ends_with(u"kvagent.prom")) answered.wait();
                                    return move(from, to, existing);
                                });
    hasSlowMetrics = true;
    Run({[] { ++agentHealth.zipsMade; }, [&] { fs::remove(status); }, [] { ++agentHealth.zipsMade; },
         [&] {
             EXPECT_TRUE(Status());
             EXPECT_EQ(TimesLogged("MetricsFile is not written: its folder has not answered for 10 seconds"), 1);
             answer.set_value();
             hasSlowMetrics = false;
             WaitForMetrics(metricsEnd);
         }});
    EXPECT_THAT(Read(folder / "kvagent.prom"), HasSubstr("\nkvagent_zips_made_total 2\n"));
    EXPECT_EQ(TimesLogged("the folder of MetricsFile answers again\n"), 1);
}

TEST_F(HealthReport, IsOfTheRunningServiceAlone) {
    SetMetricsFile(folder / "kvagent.prom");
    ReportStop();
    Run({});
    EXPECT_FALSE(Status()) << "a stop came before the first report";
    ResetAgentHealth();
    StopLogging();
    const test::Replaced used(&platform::FileOperations::GetFileUseState,
                              [](auto&&...) { return platform::error::sharingViolation; });
    RotateLogger(std::nullopt);
    agentState.gv_serviceStatusHandle = 0;
    Run({});
    EXPECT_FALSE(Status()) << "beside a service that writes to the log";
    EXPECT_FALSE(fs::exists(folder / "kvagent.prom"));
    agentState.gv_serviceStatusHandle = 77;
    Run({});
    EXPECT_TRUE(Status()) << "the service itself";
}

TEST_F(HealthReport, RefusesADamagedFile) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "it is damaged"},
        {"{ \"version\": \"1\", \"counts\": {", "it is damaged"},
        {"[]", "it is damaged"},
        {"{ \"version\": 1 }", "it is damaged"},
        {"{ \"version\": \"1\", \"counts\": [1], \"processId\": \"7\", \"isCollecting\": null, \"more\": {} }", ""},
    };
    for (const auto& [text, expected] : rows) {
        Write(status, text);
        std::string failure;
        const auto health = ReadHealthFile(platform::WideFromUtf8(status.string()), failure);
        EXPECT_EQ(health.has_value(), *expected == '\0') << text;
        EXPECT_THAT(failure, HasSubstr(expected));
        if (health) {
            EXPECT_EQ(*health, HealthSnapshot{.version = "1"}) << "what has another type keeps its default";
        }
    }
    fs::remove(status);
    std::string failure;
    EXPECT_FALSE(ReadHealthFile(platform::WideFromUtf8(status.string()), failure));
    EXPECT_NE(failure, "");
}

}  // namespace
}  // namespace kv
