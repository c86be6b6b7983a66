// kvreg on Linux: files of all kinds, and what it says of the agent's own settings in a registry of the test's own.
#include <algorithm>
#include <functional>
#include <sys/stat.h>

#include "tests/tools/kvreg_fixture.h"

namespace kv::test {

namespace {

TEST_F(Kvreg, ExportsForTheOwnerOnlyAndFollowsLinks) {
    ASSERT_EQ(Run({"set", key, "a", "b"}).exitCode, 0);
    fs::create_symlink(fs::path(file).filename(), folder / "link");
    ASSERT_EQ(Run({"export", folder / "link"}).exitCode, 0) << "through a link to a missing file";
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string whole = Read(file);
    ASSERT_EQ(Run({"export", folder / "link", key}).exitCode, 0);
    EXPECT_LT(Read(file).size(), whole.size());
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(Run({"export", "/dev/stdout"}).output, whole);
    Expect({"export", "/dev/full"}, 1, "", "No space left on device");
    EXPECT_THAT(Run({"export", folder / "missing" / "x"}).errors, HasSubstr("No such file or directory"));
    EXPECT_THAT(Run({"set", "A", "b", "\xFF"}).errors, HasSubstr("not UTF-8"));
    const fs::path registry = folder / "state" / "registry.db";
    fs::create_symlink("state/registry.db-journal", folder / "dangling");
    fs::create_hard_link(registry, folder / "hard");
    for (const fs::path& own :
         {registry, folder / "state/../state/registry.db-wal", folder / "dangling", folder / "hard"})
        EXPECT_THAT(Run({"export", own, "--force"}).errors, HasSubstr("belongs to the registry itself")) << own;
    Write(folder / "plan", "{}");
    EXPECT_THAT(Run({"export", folder / "plan"}).errors, HasSubstr("plan is not a .reg file; --force replaces it"));
    EXPECT_EQ(Read(folder / "plan"), "{}");
    EXPECT_EQ(Run({"export", folder / "plan", "--force"}).exitCode, 0);
}

TEST_F(Kvreg, SaysWhatIsWrongWithTheRegistrysFile) {
    const std::string registry = folder / "other" / "registry.db";
    const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
        {"absent", [] {}, registry + " does not exist (is the agent installed"},
        {"garbage", [&] { Write(registry, std::string(5000, 'x')); }, registry + " is damaged, or not a registry"},
        {"directory", [&] { fs::create_directory(registry); }, registry + " is a directory; move it away"},
        {"pipe", [&] { mkfifo(registry.c_str(), 0600); }, registry + " is not a file; move it away"},
        {"no directory", [&] { Write(folder / "other", ""); }, "other is not a directory; KVAGENT_STATE_DIR"},
    };
    for (const auto& [title, spoil, told] : cases) {
        SCOPED_TRACE(title);
        fs::remove_all(folder / "other");
        if (!told.starts_with("other")) fs::create_directory(folder / "other");
        spoil();
        ShareRegistry(folder / "other");
        EXPECT_THAT(Run({"list", key}).errors, HasSubstr(told));
    }
    ShareRegistry(folder / "state");
}

const std::string agentKey = "Software\\Halvorine\\Kestrova\\KVAgent";
const std::string serverKey = agentKey + "\\ServerInfo";

TEST_F(Kvreg, KnowsTheSettingsOfTheAgent) {
    const std::tuple<const char*, Words, int, const char*> rows[] = {
        {"a text for a number", {agentKey, "AgentLogLevel", "2"}, 2, "a number from 0 to 4, not a text: add --dword"},
        {"beyond the range", {agentKey, "AgentLogLevel", "9", "--dword"}, 2, "from 0 to 4, not 9; --force stores it"},
        {"a number for a text", {serverKey, "KVServerSecurePort", "1", "--dword"}, 2, "leave --dword out"},
        {"not a port", {serverKey, "kvserversecureport", "abc"}, 2, "a port number from 1 to 65535, not 'abc'"},
        {"a slip in a value", {serverKey, "KVServerProtocol", "htp"}, 2, "takes https or http, not 'htp'"},
        {"the same by force", {serverKey, "KVServerProtocol", "htp", "--force"}, 0, ""},
        {"no slash", {agentKey, "KVAgentInstallDir", "/opt/kestrova"}, 2, "with a slash at its end"},
        {"a secret", {agentKey, "ProxyPassword", "secret!"}, 2, "ProxyPassword takes Base64; --force"},
        {"a slip in a name", {serverKey, "KVServerNam", "cs"}, 0, "did you mean ServerInfo\\KVServerName?"},
        {"the wrong key", {agentKey, "KVServerName", "cs"}, 0, "did you mean ServerInfo\\KVServerName?"},
        {"a comma", {agentKey, "ProxyByPass", "a,b"}, 0, "warning: ProxyByPass has a comma, which parts nothing here"},
        {"a pattern", {agentKey + "\\Monitoring", "AllowedServices", "a, b;c"}, 0, "AllowedServices has 'b;c', which"},
        {"a key below", {agentKey + "\\Sub", "x", "1"}, 0, "it knows ServerInfo, Monitoring and SystemDetails\n"},
        {"a level too many", {serverKey + "\\Monitoring", "x", "1"}, 0, "KVAgent\\Monitoring', not"},
        {"a level left out", {"Software\\Halvorine\\KVAgent\\X", "v", "1"}, 0, "Kestrova\\KVAgent\\X', not"},
        {"its name left out", {"HKLM\\Software\\Halvorine\\Kestrova\\Monitoring", "v", "1"}, 0, "KVAgent\\Monitoring'"},
        {"a key above", {"Software\\Halvorine\\Kestrova", "v", "1"}, 0, "KVAgent', not"},
        {"with 32 bits", {"Software\\WOW6432Node\\Halvorine\\Kestrova\\KVAgent", "v", "1"}, 0, "KVAgent', not"},
        {"of a user", {"HKCU\\" + serverKey, "v", "1"}, 2, "exists here; did you mean 'Software"},
        {"its own name", {agentKey + "\\AgentLogLevel", "", "1"}, 0, "Kestrova\\KVAgent\" AgentLogLevel\n"},
        {"a key beside", {"Software\\Halvorine\\Kestrova\\Other", "AgentLogLevel", "x"}, 0, ""},
        {"a slip in a key", {"Software\\Halvorine\\Kestrova\\KVAgnet\\X", "v", "x"}, 0, "KVAgent\\X', not"},
        {"a short key", {"Kestrova\\KVAgent\\Y", "v", "x"}, 0, "Halvorine\\Kestrova\\KVAgent\\Y', not 'Kestrova"},
        {"a backslash gone", {agentKey + "Monitoring", "AllowedRequests", "X"}, 2, "KVAgent\\Monitoring', not"},
        {"another agent", {"Software\\Halvorine\\Kestrova\\MyAgent", "v", "x"}, 0, "Kestrova\\KVAgent', not"},
        {"its parent", {serverKey, "ProxyEnabled", "yes"}, 0, "ProxyEnabled in the key Software\\Halvorine"},
    };
    for (const auto& [title, arguments, exitCode, errors] : rows) {
        SCOPED_TRACE(title);
        const Outcome outcome = Run(Line("set", arguments));
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.errors, HasSubstr(errors));
        EXPECT_EQ(outcome.errors.empty(), *errors == '\0') << outcome.errors;
        EXPECT_EQ(Run({"get", arguments[0], arguments[1]}).exitCode == 0, exitCode == 0) << "stored or not";
        Run({"delete", arguments[0], arguments[1]});
    }
}

TEST_F(Kvreg, ImportsUnknownSettingsWithAWarning) {
    Write(file, header + "[HKLM\\" + serverKey + "]\n\"KVServerNam\"=\"cs\"\n\"KVServerSecurePort\"=dword:1\n" +
                    "[HKLM\\" + agentKey + "\\Sub]\n\"a\"=\"1\"\n\"b\"=\"1\"\n");
    const Outcome outcome = Run({"import", file});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.errors, HasSubstr("did you mean ServerInfo\\KVServerName?"));
    EXPECT_THAT(outcome.errors, HasSubstr("KVServerSecurePort has to be a text, not a DWORD"));
    EXPECT_THAT(outcome.errors, HasSubstr(file + ":5: the agent reads nothing in the key "));
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 3) << "one for a key";
    EXPECT_EQ(Get(serverKey, "KVServerSecurePort"), "1\n");
}

TEST_F(Kvreg, SaysHowAMissingValueIsNamed) {
    Run({"set", agentKey, "CustomerName", "c"});
    Expect({"get", serverKey + "\\KVServerName"}, 3, "", "own: \"" + serverKey + "\" KVServerName\n");
    Expect({"delete", agentKey + "\\AgentLogLevel"}, 3, "", "own: \"" + agentKey + "\" AgentLogLevel\n");
    Expect({"get", agentKey, "AgentLogLevl"}, 3, "", "did you mean AgentLogLevel?");
}

TEST_F(Kvreg, NamesAMissingStateDirectory) {
    ShareRegistry(folder / "missing");
    for (const Words& words : {Words{"get", key, "v"}, Words{"list", key}, Words{"delete", key}})
        Expect(words, 3, "", (folder / "missing").string() + " does not exist (is the agent");
    Write(file, header + "[HKLM\\" + key + "]\n");
    for (const Words& words : {Words{"set", key, "v", "1"}, Words{"import", file}}) {
        Expect(words, 3, "", "KVAGENT_STATE_DIR right?); nothing was ");
        EXPECT_FALSE(fs::exists(folder / "missing"));
    }
    fs::create_directory(folder / "missing");
    EXPECT_THAT(Run({"import", file}).errors, HasSubstr("made a new registry at " + (folder / "missing").string()));
    ShareRegistry(folder / "state");
}

}  // namespace

}  // namespace kv::test
