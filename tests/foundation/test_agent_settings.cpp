// The table of settings, and that docs/running.md tells the same.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <regex>
#include <span>
#include <tuple>

#include "foundation/agent_settings.h"
#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "platform/backend.h"
#include "platform/console_tool.h"
#include "platform/near_name.h"
#include "platform/utf.h"
#include "tests/support/test_folder.h"

namespace kv::test {

namespace {

struct Row {
    std::string kind;        // "text" or "DWORD"
    std::string whenAbsent;  // a default, or "required"
    bool operator==(const Row&) const = default;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.kind << ", absent: " << row.whenAbsent; }

/// The rows of the tables under "## Settings", by titles as SettingTitle makes them.
std::map<std::string, Row> SettingsOfPage() {
    std::ifstream page(DOCUMENTATION_FOLDER "/running.md");
    std::map<std::string, Row> rows;
    std::string line;
    std::string subkey;
    std::smatch match;
    while (std::getline(page, line) && line != "## Settings") continue;
    while (std::getline(page, line) && !line.starts_with("## ")) {
        if (std::regex_search(line, match, std::regex("^In `(\\w+)`:"))) subkey = match.str(1) + "\\";
        if (!std::regex_match(line, match, std::regex("\\| (`.*`) \\| (text|DWORD)[^|]* \\| ([^|]*) \\|"))) continue;
        const std::string names = match.str(1);
        const std::regex quoted("`(\\w+)`");
        for (std::sregex_iterator name(names.begin(), names.end(), quoted), end; name != end; ++name)
            rows[subkey + name->str(1)] = {match.str(2), match.str(3)};
    }
    return rows;
}

TEST(AgentSettings, AreThoseOfTheDocumentation) {
    std::map<std::string, Row> known;
    for (const AgentSetting& setting : AgentSettings()) {
        const std::string title = SettingTitle(setting);
        const bool isNumber = SettingType(setting) == platform::RegistryType::dword;
        const bool isRequired = setting.use == SettingUse::required;
        EXPECT_EQ(isRequired, setting.whenAbsent.empty()) << title;
        known[title] = {isNumber ? "DWORD" : "text", isRequired ? "required" : std::string(setting.whenAbsent)};
    }
    EXPECT_EQ(known, SettingsOfPage());
}

TEST(AgentSettings, TakeWhatTheAgentCanUse) {
    const std::u16string here = std::filesystem::current_path().u16string();
    const std::u16string longestKey(110, u'\u00e4');
    const std::u16string tooLongKey(221, u'k');
    const struct {
        const char* title;
        std::u16string_view key, name;
        std::vector<const char16_t*> taken, refused;
    } rows[] = {
        {"pins",
         serverInfoKeyPath,
         u"KVServerPinnedKey",
         {u"sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=; "
          u"sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="},
         {u"", u";", u"sha256//AAAA", u"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="}},
        {"file", serverInfoKeyPath, u"KVServerCAFile", {here.c_str(), u"c:\\ca.pem"}, {u"", u"ca.pem"}},
        {"proxies",
         agentKeyPath,
         u"ProxyServerName",
         {u"p", u"p:80", u"http=p:1; https=http://q", u"[2001:db8::1]:80", u"2001:db8::1"},
         {u"", u";", u"u:x@p:80", u"socks5://p", u"p:x", u"p/q"}},
        {"requests",
         monitoringKeyPath,
         u"AllowedRequests",
         {u"", u"test_monitor, *_SERVICE"},
         {u"TEST_MONITER", u"DELETE_DEVICE;TEST_MONITOR"}},
        {"key",
         monitoringKeyPath,
         u"MonitoringAgentKey",
         {u"LAB1", u"PC 1.", longestKey.c_str()},
         {u"", u"Office/PC", u"..\\x", u"a\n", tooLongKey.c_str()}},
        {"port", serverInfoKeyPath, u"kvserversecureport", {u"1", u"8443", u"65535"}, {u"", u"0", u"65536", u"+1"}},
        {"protocol", serverInfoKeyPath, u"KVServerProtocol", {u"HTTPS", u"http"}, {u"htp", u"", u"https://"}},
        {"host",
         serverInfoKeyPath,
         u"KVServerName",
         {u"cs", u"my_host.", u"192.0.2.1", u"2001:db8::1", u"[::1]", u"1:2:3:4:5:6:1.2.3.4", u"fe80::1%eth0"},
         {u"", u"cs:8443", u"a/b", u"0.0.0.0", u"10.1.1", u"c\u200Bs", u"256.0.0.1", u"1.2.3.04", u"a..b", u"c s",
          u"cs*", u"1:2:3", u"1::2::3", u"1.2.3.4::", u"[::1"}},
        {"second", serverInfoKeyPath, u"KVServerSecIPAddress", {u"--", u"", u"192.0.2.1"}, {u"http://cs"}},
        {"flag", agentKeyPath, u"ProxyEnabled", {u"yes", u"NO"}, {u"true", u"1", u""}},
        {"directory", agentKeyPath, u"KVAgentInstallDir", {u"C:/k/", u"C:\\K\\"}, {u"C:/k", u"", u"k/"}},
        {"password", agentKeyPath, u"ProxyPassword", {u"c2VjcmV0", u""}, {u"secret!"}},
        {"number", agentKeyPath, u"AgentLogLevel", {}, {u"2"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const AgentSetting* setting = FindAgentSetting(row.key, row.name);
        ASSERT_TRUE(setting);
        for (const char16_t* text : row.taken)
            EXPECT_TRUE(SettingTakes(*setting, text)) << platform::Utf8FromWide(text);
        for (const char16_t* text : row.refused)
            EXPECT_FALSE(SettingTakes(*setting, text)) << platform::Utf8FromWide(text);
    }
    const AgentSetting* level = FindAgentSetting(agentKeyPath, u"AgentLogLevel");
    EXPECT_TRUE(SettingTakes(*level, 4));
    EXPECT_FALSE(SettingTakes(*level, 5));
}

TEST(AgentSettings, RaiseDoubtsAboutWhatTheyTake) {
    const std::tuple<std::u16string_view, const char16_t*, const char16_t*> rows[] = {
        // name, without a doubt, with one
        {u"KVAgentInstallDir", u"c:\\monitoring\\kv\\", u"c:\\kv\\Monitoring\\"},
        {u"AllowedServices", u"nginx, MSSQL$X, php*-fpm", u"^ssh$"},
        {u"AllowedServices", u"", u"a,'b'"},
        {u"AllowedServices", u"dev-x\\x2d1", u"ssh|nginx"},
        {u"AllowedScripts", u"a.*, raid\\b.sh", u"raid/x.*\\.sh"},
        {u"AllowedScripts", u"*.sh", u"a.sh, .*"},
        {u"ProxyPassword", u"cMOk", u"c2VjcmV0Cg=="},
        {u"ProxyPassword", u"", u"Password"},
        {u"ProxyPassword", u"cGE=", u"cAlh"},
        {u"AllowedServices", u"a@b", u"/usr/sbin/nginx"},
        {u"AllowedServices", u"Some Agent - Host", u"nginx php-fpm"},
        {u"AllowedServices", u"*, allied", u"x, All"},
        {u"AllowedScripts", u"inodes.sh, raid/*.sh", u"a.sh,/opt/b.sh"},
        {u"AllowedScripts", u"a..b", u"..\\x"},
        {u"AllowedScripts", u"a/c:", u"C:\\x"},
    };
    for (const auto& [name, sound, odd] : rows) {
        const AgentSetting* const ofAgent = FindAgentSetting(agentKeyPath, name);
        const AgentSetting* const setting = ofAgent ? ofAgent : FindAgentSetting(monitoringKeyPath, name);
        const auto doubt = [&](const char16_t* text) {
            const std::string bytes = Utf16LittleEndianBytes(text);
            return SettingDoubt(*setting, platform::RegistryType::text, std::as_bytes(std::span(bytes)));
        };
        EXPECT_EQ(doubt(sound), "");
        EXPECT_NE(doubt(odd), "") << platform::Utf8FromWide(odd);
    }
}

struct MetricsSetting : TestFolder {
    MetricsSetting() { platform::InstallRegistry(); }
};

TEST_F(MetricsSetting, LeavesTheAgentsOwnFilesAlone) {
    const AgentSetting& setting = *FindAgentSetting(monitoringKeyPath, u"MetricsFile");
    const std::u16string root = folder.u16string();
    const auto taken = [&](std::u16string_view path) {
        return SettingTakes(setting, path.starts_with(u"/") ? ConcatStrings(root, path) : std::u16string(path));
    };
    EXPECT_TRUE(taken(u"/kv/monitoring/conf/kv.prom")) << "before the agent is installed";
    ASSERT_EQ(writeValue(platform::RootKey::localMachine, agentKeyPath, u"KVAgentInstallDir", root + u"/kv/",
                         platform::RegistryType::text),
              platform::error::success);
    for (const char16_t* path : {u"", u"/srv/monitoring/conf/kv.prom", u"/kv/agentxyz.log", u"/x/bin/data/k.prom",
                                 u"/kv/monitoring/logs/kv.prom", u"/kv/monitoring/bin.prom", u"/x/registry.db"})
        EXPECT_TRUE(taken(path)) << platform::Utf8FromWide(path);
    for (const char16_t* path :
         {u"kv.prom", u"..\\kv.prom", u"//kv//.\\monitoring/x/..//conf/queryconf.txt",
          u"/kv/monitoring/bin/MonitoringAgent", u"/kv/monitoring/bin/data/k.prom", u"/kv/monitoring/logs/agent1.log",
          u"/kv/monitoring/logs/Status.json", u"/x/../kv/monitoring/conf/kv.prom"})
        EXPECT_FALSE(taken(path)) << platform::Utf8FromWide(path);
    const std::string file = platform::RegistryFile();
    for (const char* part : {"", "-wal", "-shm"}) {
        EXPECT_FALSE(!file.empty() && SettingTakes(setting, platform::WideFromUtf8(file + part))) << file << part;
    }
}

TEST(AgentSettings, AreFoundBehindASlip) {
    EXPECT_EQ(NearestSetting(serverInfoKeyPath, u"KVServerSecurPort"), "ServerInfo\\KVServerSecurePort");
    EXPECT_EQ(NearestSetting(agentKeyPath, u"kvservername"), "ServerInfo\\KVServerName") << "in the wrong key";
    EXPECT_EQ(NearestSetting(agentKeyPath, u"Colour"), "");
    constexpr std::u16string_view members[] = {u"wmiQuery", u"oid", u"port"};
    const std::pair<const char16_t*, const char16_t*> rows[] = {{u"wmiquery", u"wmiQuery"},
                                                                {u"wimQuery", u"wmiQuery"},
                                                                {u"wmiQueries", u""},
                                                                {u"odi", u"oid"},
                                                                {u"prt", u"port"},
                                                                {u"ports", u"port"},
                                                                {u"parts", u""},
                                                                {u"wmi", u""},
                                                                {u"", u""}};
    for (const auto& [name, nearest] : rows)
        EXPECT_EQ(platform::NearestName(name, members), nearest) << platform::Utf8FromWide(name);
}

}  // namespace

}  // namespace kv::test
