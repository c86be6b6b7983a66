// The table of settings, and that docs/running.md tells the same.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <span>
#include <stdexcept>

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

/// The setting of a name.
const AgentSetting& Named(std::u16string_view name) {
    const auto found = std::ranges::find(AgentSettings(), name, &AgentSetting::name);
    if (found == AgentSettings().end()) throw std::invalid_argument(platform::Utf8FromWide(name));
    return *found;
}

/// Texts for a setting.
struct Texts {
    std::u16string_view name;
    std::vector<const char16_t*> good, bad;
};

TEST(AgentSettings, TakeWhatTheAgentCanUse) {
    const std::u16string here = std::filesystem::current_path().u16string();
    const std::u16string longestKey(110, u'\u00e4');
    const std::u16string tooLongKey(221, u'k');
    const Texts rows[] = {
        {u"KVServerPinnedKey",
         {u"sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=; "
          u"sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="},
         {u"", u";", u"sha256//AAAA", u"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="}},
        {u"KVServerCAFile", {here.c_str(), u"c:\\ca.pem"}, {u"", u"ca.pem"}},
        {u"ProxyServerName",
         {u"p", u"p:80", u"http=p:1; https=http://q", u"[2001:db8::1]:80", u"2001:db8::1"},
         {u"", u";", u"u:x@p:80", u"socks5://p", u"p:x", u"p/q"}},
        {u"AllowedRequests", {u"", u"test_monitor, *_SERVICE"}, {u"TEST_MONITER", u"DELETE_DEVICE;TEST_MONITOR"}},
        {u"MonitoringAgentKey",
         {u"LAB1", u"PC 1.", longestKey.c_str()},
         {u"", u"Office/PC", u"..\\x", u"a\n", tooLongKey.c_str()}},
        {u"KVServerSecurePort", {u"1", u"8443", u"65535"}, {u"", u"0", u"65536", u"+1"}},
        {u"KVServerProtocol", {u"HTTPS", u"http"}, {u"htp", u"", u"https://"}},
        {u"KVServerName",
         {u"cs", u"my_host.", u"192.0.2.1", u"2001:db8::1", u"[::1]", u"1:2:3:4:5:6:1.2.3.4", u"fe80::1%eth0"},
         {u"", u"cs:8443", u"a/b", u"0.0.0.0", u"10.1.1", u"c\u200Bs", u"256.0.0.1", u"1.2.3.04", u"a..b", u"c s",
          u"cs*", u"1:2:3", u"1::2::3", u"1.2.3.4::", u"[::1"}},
        {u"KVServerSecIPAddress", {u"--", u"", u"192.0.2.1"}, {u"http://cs"}},
        {u"ProxyEnabled", {u"yes", u"NO"}, {u"true", u"1", u""}},
        {u"KVAgentInstallDir", {u"C:/k/", u"C:\\K\\"}, {u"C:/k", u"", u"k/"}},
        {u"ProxyPassword", {u"c2VjcmV0", u""}, {u"secret!"}},
        {u"AgentLogLevel", {}, {u"2"}},
    };
    for (const auto& [name, good, bad] : rows) {
        SCOPED_TRACE(platform::Utf8FromWide(name));
        for (const char16_t* text : good) EXPECT_TRUE(SettingTakes(Named(name), text)) << platform::Utf8FromWide(text);
        for (const char16_t* text : bad) EXPECT_FALSE(SettingTakes(Named(name), text)) << platform::Utf8FromWide(text);
    }
    EXPECT_TRUE(SettingTakes(Named(u"AgentLogLevel"), 4));
    EXPECT_FALSE(SettingTakes(Named(u"AgentLogLevel"), 5));
    EXPECT_EQ(FindAgentSetting(serverInfoKeyPath, u"kvserversecureport"), &Named(u"KVServerSecurePort"));
}

TEST(AgentSettings, RaiseDoubtsAboutWhatTheyTake) {
    const Texts rows[] = {
        {u"KVAgentInstallDir", {u"c:\\monitoring\\kv\\"}, {u"c:\\kv\\Monitoring\\"}},
        {u"AllowedServices",
         {u"nginx, MSSQL$X, php*-fpm", u"", u"dev-x\\x2d1", u"a@b", u"Some Agent - Host", u"*, allied"},
         {u"^ssh$", u"a,'b'", u"ssh|nginx", u"/usr/sbin/nginx", u"nginx php-fpm", u"x, All"}},
        {u"AllowedScripts",
         {u"a.*, raid\\b.sh", u"*.sh", u"inodes.sh, raid/*.sh", u"a..b", u"a/c:"},
         {u"raid/x.*\\.sh", u"a.sh, .*", u"a.sh,/opt/b.sh", u"..\\x", u"C:\\x"}},
        {u"ProxyPassword", {u"cMOk", u"", u"cGE="}, {u"c2VjcmV0Cg==", u"Password", u"cAlh"}},
    };
    for (const auto& [name, good, bad] : rows) {
        const auto doubt = [&setting = Named(name)](const char16_t* text) {
            const std::string bytes = Utf16LittleEndianBytes(text);
            return SettingDoubt(setting, platform::RegistryType::text, std::as_bytes(std::span(bytes)));
        };
        for (const char16_t* text : good) EXPECT_EQ(doubt(text), "");
        for (const char16_t* text : bad) EXPECT_NE(doubt(text), "") << platform::Utf8FromWide(text);
    }
}

struct MetricsSetting : TestFolder {
    MetricsSetting() { platform::InstallRegistry(); }
};

TEST_F(MetricsSetting, LeavesTheAgentsOwnFilesAlone) {
    const AgentSetting& setting = Named(u"MetricsFile");
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
    for (const auto& [name, nearest] : std::map<std::u16string_view, std::u16string_view>{
             {u"wimQuery", u"wmiQuery"}, {u"wmiQueries", u""}, {u"odi", u"oid"}, {u"ports", u"port"}, {u"", u""}})
        EXPECT_EQ(platform::NearestName(name, members), nearest) << platform::Utf8FromWide(name);
}

}  // namespace

}  // namespace kv::test
