// kvreg, run as its users run it.
#include <filesystem>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/registry_store.h"
#include "tests/support/test_agent.h"
#include "tests/tools/registry_helpers.h"
#include "tools/reg_file.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Words = std::vector<std::string>;

class Kvreg : public TestAgent {
  protected:
    struct Outcome {
        int exitCode = -1;
        std::string output;
        std::string errors;
    };

    static std::string Command(const Words& words) {
        std::string command = KVREG_PROGRAM;
        for (const std::string& word : words) command += " '" + word + "'";  // no test uses a quote in a word
        return command;
    }

    Outcome Run(const Words& words) const {
        const std::string output = folder / "output";
        const std::string errors = folder / "errors";
        const int status = std::system((Command(words) + " >" + output + " 2>" + errors).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(output), Read(errors)};
    }

    std::string Get(const std::string& key, const std::string& name) const { return Run({"get", key, name}).output; }
};

TEST_F(Kvreg, CommandsInTheirOrder) {
    struct Row {
        Words words;
        int exitCode;
        const char* output;
        const char* errors;  // a part of it
    };
    const std::string partial = (folder / "missing" / "x.reg").string();
    const Row rows[] = {
        {{"get", "Software\\A", "v"}, 3, "", "there is no value v in HKEY_LOCAL_MACHINE\\Software\\A"},
        {{"list", "Software"}, 3, "", "there is no key HKEY_LOCAL_MACHINE\\Software"},
        {{"watch", "Software"}, 3, "", "there is no key"},
        {{"set", "Software\\A", "v", "some text"}, 0, "", ""},
        {{"get", "HKLM\\software\\a\\", "V"}, 0, "some text\n", ""},
        {{"set", "HKEY_LOCAL_MACHINE\\Software\\A", "n", "30", "--dword"}, 0, "", ""},
        {{"set", "Software\\A", "", "of the key"}, 0, "", ""},
        {{"set", "Software\\A", "dashes", "--"}, 0, "", ""},
        {{"set", "Software\\A\\Sub", "lines", "one\ntwo"}, 0, "", ""},
        {{"get", "Software\\A"}, 0, "of the key\n", ""},
        {{"get", "Software\\A", "dashes"}, 0, "--\n", ""},
        {{"get", "Software\\A\\Sub", "lines"}, 0, "one\ntwo\n", ""},
        {{"list", "Software\\A"},
         0,
         "HKEY_LOCAL_MACHINE\\Software\\A\n"
         "    (Default)    REG_SZ    of the key\n"
         "    dashes    REG_SZ    --\n"
         "    n    REG_DWORD    0x1e (30)\n"
         "    v    REG_SZ    some text\n"
         "HKEY_LOCAL_MACHINE\\Software\\A\\Sub\n",
         ""},
        {{"list", "Software\\A\\Sub"},
         0,
         "HKEY_LOCAL_MACHINE\\Software\\A\\Sub\n    lines    REG_SZ    one\\ntwo\n",
         ""},
        {{"delete", "Software\\A", "v"}, 0, "", ""},
        {{"delete", "Software\\A", "v"}, 3, "", "there is no value v"},
        {{"export", partial}, 1, "", "cannot write"},
        {{"delete", "Software\\A"}, 0, "", ""},
        {{"delete", "Software\\A"}, 3, "", "there is no key"},
        {{"import", partial}, 3, "", "there is no file"},
        {{"import", folder.string()}, 1, "", "cannot read"},
        {{}, 2, "", "a command is missing"},
        {{"put", "A"}, 2, "", "unknown command 'put'"},
        {{"get"}, 2, "", "an argument is missing"},
        {{"get", "A", "b", "--dword"}, 2, "", "--dword goes with set only"},
        {{"set", "A", "b", "12x", "--dword"}, 2, "", "not a number from 0 to 4294967295"},
        {{"set", "A", "b", "4294967296", "--dword"}, 2, "", "not a number"},
        {{"get", "HKEY_CURRENT_USER\\A"}, 2, "", "only HKEY_LOCAL_MACHINE"},
        {{"get", "A\\\\B"}, 2, "", "not the path of a key"},
        {{"set", "A", "b\nc", "d"}, 2, "", "cannot name a value"},
        {{"set", "A", "b", "\xFF"}, 2, "", "not UTF-8"},
        {{"delete", "HKLM"}, 2, "", "root itself"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.words));
        const Outcome outcome = Run(row.words);
        EXPECT_EQ(outcome.exitCode, row.exitCode);
        EXPECT_EQ(outcome.output, row.output);
        EXPECT_THAT(outcome.errors, HasSubstr(row.errors));
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), row.exitCode == 0 ? 0 : 1);
    }
    EXPECT_EQ(Run({"--help"}).exitCode, 0);
    EXPECT_THAT(Run({"set", "--help"}).output, HasSubstr("kvreg set KEY NAME DATA --dword"));
    Write(folder / "state" / "registry.db", "this is not a registry, and never was");
    const Outcome broken = Run({"get", "A", "b"});
    EXPECT_EQ(broken.exitCode, 1);
    EXPECT_THAT(broken.errors, HasSubstr("The registry is corrupted. (error 1015)"));
}

TEST_F(Kvreg, TheAgentAndTheToolReadEachOther) {
    ASSERT_EQ(SetOCAgentKey(u"key of the agent \u00fc"), error::success);
    ASSERT_EQ(SetMALastCreatedJSONNum(4000000000U), error::success);
    const std::string monitoring = "Software\\Halvorine\\Kestrova\\KVAgent\\Monitoring";
    EXPECT_EQ(Get(monitoring, "MonitoringAgentKey"), "key of the agent \u00fc\n");
    EXPECT_EQ(Get(monitoring, "MALastCreatedJSONNum"), "4000000000\n");
    EXPECT_EQ(Run({"set", monitoring, "monitoringagentkey", "gr\u00fc\u00dfe"}).exitCode, 0);
    EXPECT_EQ(Run({"set", monitoring, "configInterval", "45", "--dword"}).exitCode, 0);
    OptionalText text;
    std::uint32_t number = 0;
    EXPECT_EQ(GetOCAgentKey(text), error::success);
    EXPECT_EQ(text, u"gr\u00fc\u00dfe");
    EXPECT_EQ(GetConfigInterval(number), error::success);
    EXPECT_EQ(number, 45U);
}

TEST_F(Kvreg, AnExportCarriesEverythingOver) {
    const fs::path file = folder / "export.reg";
    ASSERT_EQ(SetOCAgentKey(u"K\u00fc \"1\"\\"), error::success);
    ASSERT_EQ(SetBytes(u"Software\\A\\B", u"bytes", std::string("\0\x01\xFF", 3)), error::success);
    ASSERT_EQ(SetBytes(u"Software\\A\\Empty", u"none", "", RegistryType::none), error::success);
    ASSERT_EQ(SetBytes(u"Software\\A", u"list", std::string("a\0\0\0b\0\0\0\0\0", 10), RegistryType::multiText),
              error::success);
    ASSERT_EQ(Run({"export", file.string()}).exitCode, 0);
    struct stat facts {};
    ASSERT_EQ(stat(file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600U);
    ASSERT_EQ(Run({"delete", "Software"}).exitCode, 0);
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    OptionalText key;
    EXPECT_EQ(GetOCAgentKey(key), error::success);
    EXPECT_EQ(key, u"K\u00fc \"1\"\\");
    EXPECT_EQ(GetBytes(u"Software\\A\\B", u"bytes"), std::string("\0\x01\xFF", 3));
    EXPECT_EQ(GetBytes(u"Software\\A\\Empty", u"none"), "");
    EXPECT_EQ(Get("Software\\A", "list"), "a\nb\n");
    const std::string first = Read(file);
    ASSERT_EQ(Run({"export", file.string()}).exitCode, 0);
    EXPECT_EQ(Read(file), first);
    ASSERT_EQ(Run({"export", file.string(), "Software\\A\\B"}).exitCode, 0);
    RegFile part;
    RegFileError parseError;
    ASSERT_TRUE(ParseRegFile(Read(file), part, parseError));
    ASSERT_EQ(part.size(), 1U);
    EXPECT_EQ(part[0].path, u"Software\\A\\B");
}

TEST_F(Kvreg, AnImportIsCarriedOutWholeOrRefused) {
    const std::string header = "Windows Registry Editor Version 5.00\n";
    const fs::path file = folder / "import.reg";
    Write(file, header + "[HKLM\\A]\n\"one\"=\"1\"\n\"two\"=dword:2\n[HKLM\\B\\C]\n@=hex(2):25,00,00,00\n");
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    EXPECT_EQ(Get("A", "one"), "1\n");
    EXPECT_EQ(Get("B\\C", ""), "%\n");
    Write(file, header + "[HKLM\\A]\n\"one\"=-\n\"never there\"=-\n[-HKLM\\B]\n[-HKLM\\Never]\n");
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    EXPECT_EQ(Run({"get", "A", "one"}).exitCode, 3);
    EXPECT_EQ(Run({"list", "B"}).exitCode, 3);
    EXPECT_EQ(Get("A", "two"), "2\n");
    Write(file, header + "[HKLM\\A]\n\"two\"=dword:3\n[HKEY_USERS\\X]\n");
    const Outcome refused = Run({"import", file.string()});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.errors, HasSubstr("import.reg:4: only HKEY_LOCAL_MACHINE can be imported, not 'HKEY_USERS'"));
    EXPECT_EQ(Get("A", "two"), "2\n");
}

/// What can be read within the time.
std::string ReadWithin(int descriptor, int milliseconds) {
    pollfd wait{descriptor, POLLIN, 0};
    char buffer[4096];
    if (poll(&wait, 1, milliseconds) <= 0) return "";
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : "";
}

TEST_F(Kvreg, WatchTellsOfEachChange) {
    ASSERT_EQ(SetBytes(u"A\\B", u"v", "0"), error::success);
    FILE* watcher = popen(("echo $$; exec " + Command({"watch", "A"})).c_str(), "r");
    const int output = fileno(watcher);
    const pid_t process = std::stoi(ReadWithin(output, 5000));
    std::string line;
    for (int i = 0; i < 60 && line.empty(); ++i) {  // until it has begun to watch
        ASSERT_EQ(SetBytes(u"A\\B", u"v", std::string(1, static_cast<char>('a' + i % 26))), error::success);
        line = ReadWithin(output, 250);
    }
    EXPECT_THAT(line, HasSubstr("set      HKEY_LOCAL_MACHINE\\A\\B    v    REG_BINARY    "));
    ReadWithin(output, 250);
    ASSERT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"A"), error::success);
    EXPECT_EQ(ReadWithin(output, 5000), "deleted  HKEY_LOCAL_MACHINE\\A\\B    v\n");
    ASSERT_EQ(SetBytes(u"A", u"new", "t\0\0", RegistryType::text), error::success);
    EXPECT_EQ(ReadWithin(output, 5000), "set      HKEY_LOCAL_MACHINE\\A    new    REG_SZ    t\n");
    kill(process, SIGINT);
    pclose(watcher);
}

}  // namespace

}  // namespace kv::test
