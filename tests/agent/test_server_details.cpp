// Server and proxy details from a real registry.
#include <future>
#include <new>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "agent/entry.h"
#include "agent/log_file.h"
#include "agent/server_details.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "platform/registry.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "tests/support/replaced.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

struct Setting {
    std::u16string_view key;
    std::u16string_view name;
    std::u16string_view data;
    platform::RegistryType type = platform::RegistryType::text;
};

constexpr std::u16string_view server = serverInfoKeyPath;
/// In the order of reading.
const Setting requiredSettings[] = {
    {server, u"KVServerName", u"central"},          {server, u"KVServerFlatName", u"flat"},
    {server, u"KVServerIPAddress", u"10.0.0.1"},    {server, u"KVServerSecurePort", u"8443"},
    {agentKeyPath, u"CustomerName", u"customer"},   {server, u"KVLastAccessName", u"last"},
    {agentKeyPath, u"RemoteOfficeName", u"office"},
};
const Setting optionalSettings[] = {
    {server, u"KVServerSecIPAddress", u"1.2"},
    {server, u"KVServerProtocol", u"HTTP"},
    {monitoringKeyPath, u"MonitoringAgentKey", u"key-1"},
    {monitoringKeyPath, u"MasterAgent", u"YES"},
    {monitoringKeyPath, u"writeInterval", u"301", platform::RegistryType::dword},
};

class ServerDetails : public test::TestAgent {
  protected:
    static void Set(const Setting& setting) { SetSetting(setting.key, setting.name, setting.data, setting.type); }
};

TEST_F(ServerDetails, AnAbsentValueStopsOrFallsBack) {
    const AgentState& state = agentState;
    for (const Setting& missing : requiredSettings) {
        EXPECT_EQ(getCSDetails(), 13) << platform::Utf8FromWide(missing.name);
        EXPECT_EQ(state.gv_agentID, std::nullopt) << "it stops at the absent value";
        EXPECT_EQ(state.gv_MaxFilesInDir, 15);
        Set(missing);
    }
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_MaxFilesInDir, 1500);
    EXPECT_EQ(state.gv_SysInfoInterval, 55);
    EXPECT_EQ(state.gv_ServerName, u"central");
    EXPECT_EQ(state.gv_ServerPort, 8443);
    EXPECT_EQ(state.gv_LastAccessName.view(), u"last");
    EXPECT_TRUE(state.gv_agentID.has_value());
    const auto optional = [&] {
        return std::tuple(state.gv_ServerSecIPAddress, int{state.gv_httpsEnabled},
                          OptionalText(state.gv_agentKey.view()), state.gv_masterAgent, int{state.gv_writeInterval});
    };
    EXPECT_EQ(optional(), std::tuple(std::nullopt, 1, u"HUBCENTER", u"NO", 300));
    for (const Setting& setting : optionalSettings) Set(setting);
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(optional(), std::tuple(u"1.2", 0, u"key-1", u"YES", 301));
    Set({server, u"KVServerSecIPAddress", u"ab"});
    Set({server, u"KVServerSecurePort", u"84x"});
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_ServerSecIPAddress, std::nullopt) << "is too short for an address";
    EXPECT_TRUE(Logged("KVServerSecurePort is not a port number : 84x\n"));
    const std::pair<std::u16string_view, int> protocols[] = {{u"HTTPS", 1}, {u"ftp", 0}};
    for (const auto& [protocol, isSecure] : protocols) {
        Set({server, u"KVServerProtocol", protocol});
        EXPECT_EQ(getCSDetails(), 0);
        EXPECT_EQ(state.gv_httpsEnabled, isSecure) << platform::Utf8FromWide(protocol);
    }
    EXPECT_TRUE(Logged("neither https nor http and counts as http : ftp\n"));
}

TEST_F(ServerDetails, DoesNotWaitLongForItsOwnNameAndAddress) {
    namespace error = platform::error;
    const struct {
        const char* title;
        platform::Error lookup;                  // its result; waitTimeout: it does not return
        const char* address;                     // that it finds
        const char* routed;                      // of the interface with the default route; null without a route
        std::optional<std::u16string_view> own;  // that the agent takes
    } rows[] = {
        {"a usable address", error::success, "10.1.2.3", "10.9.9.9", u"10.1.2.3"},
        {"a loopback address", error::success, "127.0.1.1", "10.9.9.9", u"10.9.9.9"},
        {"a loopback address and no route", error::success, "127.0.1.1", nullptr, u"127.0.1.1"},
        {"an unknown name", error::hostNotFound, "", "10.9.9.9", u"10.9.9.9"},
        {"an unknown name and no route", error::hostNotFound, "", nullptr, std::nullopt},
        {"silent name servers", error::waitTimeout, "", "10.9.9.9", u"10.9.9.9"},
    };
    for (const Setting& setting : requiredSettings) Set(setting);
    std::promise<void> answer;
    const std::shared_future<void> answered = answer.get_future().share();
    std::vector<platform::ThreadHandle> lookups;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const bool isSilent = row.lookup == error::waitTimeout;
        std::uint32_t waited = 0;
        const test::Replaced names(&platform::SystemFactOperations::GetComputerNameExW,
                                   [isSilent, answered](std::u16string& name) {
                                       if (isSilent) answered.wait();
                                       name = u"pc.example";
                                       return error::success;
                                   });
        platform::SocketOperations sockets = platform::Sockets();
        sockets.gethostbyname = [&row, isSilent, answered](std::string_view, platform::HostEntry& host) {
            if (isSilent) answered.wait();
            host.address = row.address;
            return row.lookup;
        };
        sockets.GetDefaultRouteAddress = [&row](std::string& address) {
            if (row.routed) address = row.routed;
            return row.routed ? error::success : error::hostNotFound;
        };
        const test::Replaced waits(&platform::ThreadOperations::WaitForThread,
                                   [&, wait = platform::Threads().WaitForThread](auto lookup, std::uint32_t time) {
                                       lookups.push_back(lookup);
                                       waited += time;
                                       return isSilent ? error::waitTimeout : wait(lookup, platform::infinite);
                                   });
        const platform::ScopedOperations scopedSockets(sockets);
        test::ResetAgentState();
        EXPECT_EQ(getCSDetails(), 0);
        EXPECT_LE(waited, 600U) << "milliseconds";
        EXPECT_EQ(agentState.gv_localIPAddress, row.own);
        EXPECT_EQ(agentState.gv_agentDNS, isSilent ? agentState.gv_agentID : u"pc.example");
        EXPECT_EQ(agentState.gv_MaxFilesInDir, 1500) << "later settings are read";
    }
    answer.set_value();
    for (const platform::ThreadHandle lookup : lookups) platform::Threads().WaitForThread(lookup, platform::infinite);
}

TEST_F(ServerDetails, NotesAnExceptionWhileItReadsSettings) {
    const auto failing = [](std::u16string_view name, auto fail) {
        return test::With(&platform::RegistryOperations::RegQueryValueExW,
                          [=, query = platform::Registry().RegQueryValueExW](auto key, auto value, auto&&... rest) {
                              if (value == name) fail();
                              return query(key, value, rest...);
                          });
    };
    Set(requiredSettings[0]);
    Set({agentKeyPath, u"KVAgentInstallDir", platform::WideFromUtf8(folder.string() + "/")});
    StopLogging();
    {
        const platform::ScopedOperations scoped(
            failing(u"KVServerName", [] { throw std::runtime_error("no such luck"); }));
        EXPECT_EQ(Main({"MonitoringAgent", "/monitor"}), 1);
    }
    const std::string log = Read(folder / "monitoring" / "logs" / "testmonitor.log");
    EXPECT_NE(log.find("getCSDetails :: ended early : no such luck"), log.npos) << log;
    EXPECT_NE(log.find("LOGGING STOPPED"), log.npos);
    constexpr std::u16string_view note = u"c:\\text.txt";
    platform::Files().DeleteFileW(note);
    const platform::ScopedOperations scoped(failing(u"KVAgentInstallDir", [] { throw std::bad_alloc(); }));
    EXPECT_EQ(Main({"MonitoringAgent", "/monitor"}), 0);
    std::string noted;
    EXPECT_EQ(ReadWholeFile(note, noted), platform::error::success);
    EXPECT_TRUE(noted.starts_with("Not able to allocate memory for gv_ocAgentBinPath"));
}

TEST_F(ServerDetails, ARegistryThatFailsForAMomentIsAskedAgain) {
    Set({agentKeyPath, u"KVAgentInstallDir", platform::WideFromUtf8(folder.string() + "/")});
    test::VirtualClock clock;
    for (const auto& [failures, isFound] : {std::pair{2, true}, {1000, false}}) {
        int left = failures;
        const test::Replaced failing(
            &platform::RegistryOperations::RegQueryValueExW,
            [&left, &clock, query = platform::Registry().RegQueryValueExW](auto key, auto value, auto&&... rest) {
                if (value != u"KVAgentInstallDir" || left-- <= 0) return query(key, value, rest...);
                clock.AdvanceMilliseconds(5000);  // as long as a registry that is held may take
                return platform::error::busy;
            });
        StopLogging();
        std::filesystem::remove_all(folder / "monitoring" / "logs");
        EXPECT_EQ(Main({"MonitoringAgent", "/monitor"}), 1);
        EXPECT_EQ(std::filesystem::exists(folder / "monitoring" / "logs" / "testmonitor.log"), isFound) << failures;
    }
    EXPECT_LT(clock.nowMilliseconds() - test::VirtualClock::startMilliseconds, 80000);
}

TEST_F(ServerDetails, SettingsThatCannotBeReadForAMomentAreReadAgain) {
    for (const Setting& setting : requiredSettings) Set(setting);
    Set({agentKeyPath, u"ProxyEnabled", u"yes"});
    const struct {
        std::u16string_view failing;
        int failures;
        platform::Error failure;
        std::string outcome;
        int seconds;
    } rows[] = {{u"KVServerIPAddress", 5, platform::error::readFault, "central yes", 5},
                {u"ProxyEnabled", 5, platform::error::readFault, "central yes", 5},
                {u"KVServerName", 1000, platform::error::readFault, "absent yes", 60},
                {u"KVServerName", 1000, platform::error::moreData, "absent yes", 0}};
    for (const auto& [failing, failures, failure, outcome, seconds] : rows) {
        const test::VirtualClock clock;
        int left = failures;
        const test::Replaced registry(&platform::RegistryOperations::RegQueryValueExW,
                                      [&left, name = failing, failure, query = platform::Registry().RegQueryValueExW](
                                          auto key, auto value, auto&&... rest) {
                                          return value == name && left-- > 0 ? failure : query(key, value, rest...);
                                      });
        test::ResetAgentState();
        LoadSettings();
        EXPECT_EQ(platform::Utf8FromWide(agentState.gv_ServerName.value_or(u"absent") + u" " +
                                         agentState.gv_proxyEnabled.value_or(u"")),
                  outcome);
        EXPECT_EQ(agentState.gv_remoteOfficeName.has_value(), failures == 5);
        EXPECT_EQ((clock.nowMilliseconds() - test::VirtualClock::startMilliseconds) / 1000, seconds) << outcome;
    }
    EXPECT_TRUE(Logged("settings cannot be read, and are read again for a minute"));
}

TEST_F(ServerDetails, ReadsTheProxyOnlyWhenItIsOn) {
    const struct {
        const char* title;
        std::optional<std::u16string_view> enabled;
        std::optional<std::u16string_view> bypass;
        std::optional<std::u16string> server, exceptions, password;
    } rows[] = {
        {"absent", std::nullopt, std::nullopt, std::nullopt, u"<local>", std::nullopt},
        {"on, without a bypass list", u"YES", std::nullopt, u"proxy", std::nullopt, u"abc"},
        {"neither yes nor no", u"true", u"list", std::nullopt, u"<local>", std::nullopt},
        {"on", u"yes", u"list", u"proxy", u"list", u"abc"},
    };
    Set({agentKeyPath, u"ProxyServerName", u"proxy"});
    Set({agentKeyPath, u"ProxyPassword", u" YWJj "});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        test::ResetAgentState();
        if (row.enabled) Set({agentKeyPath, u"ProxyEnabled", *row.enabled});
        if (row.bypass) Set({agentKeyPath, u"ProxyByPass", *row.bypass});
        getProxyServerDetails();
        EXPECT_EQ(agentState.gv_proxyEnabled, row.enabled.value_or(u"NO"));
        EXPECT_EQ(agentState.gv_proxyServerName, row.server);
        EXPECT_EQ(agentState.gv_proxyExceptionAddr, row.exceptions);
        EXPECT_EQ(agentState.gv_proxyPassword, row.password);
    }
    EXPECT_FALSE(Logged("abc"));
}

TEST_F(ServerDetails, TakesTheProxyPasswordFromTheServiceManagerIfItIsAbsent) {
    namespace error = platform::error;
    const struct {
        platform::Error result;
        std::string secret;
        std::optional<std::u16string> password;
    } rows[] = {
        {error::success, "s3cret\n", u"s3cret"},   {error::success, "s3\xC3\xA9\n\n", u"s3\u00E9\n"},
        {error::success, "s3cret\r\n", u"s3cret"}, {error::success, "", u""},
        {error::fileNotFound, "", std::nullopt},   {error::accessDenied, "", std::nullopt},
    };
    std::size_t row = 0;
    const test::Replaced credential(&platform::SystemFactOperations::ReadCredential,
                                    [&](std::string_view name, std::string& secret) {
                                        secret = rows[row].secret;
                                        return name == "proxy-password" ? rows[row].result : error::fileNotFound;
                                    });
    Set({agentKeyPath, u"ProxyEnabled", u"YES"});
    for (; row < std::size(rows); ++row) {
        getProxyServerDetails();
        EXPECT_EQ(agentState.gv_proxyPassword, rows[row].password) << row;
    }
    EXPECT_TRUE(Logged("Error in reading the credential proxy-password: "));
    EXPECT_TRUE(Logged(" (error 5). gv_proxyPassword is not updated\n"));
    EXPECT_FALSE(Logged("s3"));
    row = 0;
    Set({agentKeyPath, u"ProxyPassword", u"YWJj"});
    getProxyServerDetails();
    EXPECT_EQ(agentState.gv_proxyPassword, u"abc") << "the setting counts";
}

}  // namespace
}  // namespace kv
