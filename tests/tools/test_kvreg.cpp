// kvreg, run as its users run it.
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

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

    Outcome Run(const Words& words) const {
        std::string command = KVREG_PROGRAM;
        for (const std::string& word : words) command += " '" + word + "'";  // no test uses a quote in a word
        const std::string output = folder / "output";
        const std::string errors = folder / "errors";
        const int status = std::system((command + " >" + output + " 2>" + errors).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(output), Read(errors)};
    }

    const std::string header = "Windows Registry Editor Version 5.00\n";
    const fs::path file = folder / "file.reg";

    std::string Get(const std::string& key, const std::string& name) const { return Run({"get", key, name}).output; }
};

TEST_F(Kvreg, CommandsInTheirOrder) {
    const std::string partial = (folder / "missing" / "x.reg").string();
    const struct {
        Words words;
        int exitCode;
        const char* output;
        const char* errors;  // a part of it
    } rows[] = {
        {{"get", "Software\\A", "v"}, 3, "", "there is no value v in HKEY_LOCAL_MACHINE\\Software\\A"},
        {{"set", "Software\\A", "v", "some text"}, 0, "", ""},
        {{"get", "HKLM\\software\\a\\", "V"}, 0, "some text\n", ""},
        {{"set", "HKEY_LOCAL_MACHINE\\Software\\A", "n", "30", "--dword"}, 0, "", ""},
        {{"set", "Software\\A", "", "--", "--"}, 0, "", ""},  // the first ends the options
        {{"set", "Software\\A", "lines", "one\ntwo"}, 0, "", ""},
        {{"set", "Software\\A\\Sub", "x", "y"}, 0, "", ""},
        {{"get", "Software\\A"}, 0, "--\n", ""},
        {{"get", "Software\\A", "lines"}, 0, "one\ntwo\n", ""},
        {{"list", "Software\\A"},
         0,
         "HKEY_LOCAL_MACHINE\\Software\\A\n"
         "    (Default)    REG_SZ    --\n"
         "    lines    REG_SZ    one\\ntwo\n"
         "    n    REG_DWORD    0x1e (30)\n"
         "    v    REG_SZ    some text\n"
         "HKEY_LOCAL_MACHINE\\Software\\A\\Sub\n",
         ""},
        {{"delete", "Software\\A", "v"}, 0, "", ""},
        {{"delete", "Software\\A", "v"}, 3, "", "there is no value v"},
        {{"set", "Software\\A", "v", "--", "--dword"}, 0, "", ""},
        {{"get", "Software\\A", "v"}, 0, "--dword\n", ""},
        {{"export", partial}, 1, "", "No such file or directory"},
        {{"export", "/dev/full"}, 1, "", "No space left on device"},
        {{"delete", "Software\\A"}, 0, "", ""},
        {{"import", partial}, 3, "", "there is no file"},
        {{}, 2, "", "a command is missing"},
        {{"put", "A"}, 2, "", "unknown command 'put'"},
        {{"get", "A", "b", "--dword"}, 2, "", "--dword goes with set only"},
        {{"set", "A", "b", "4294967296", "--dword"}, 2, "", "not a number from 0 to 4294967295"},
        {{"get", "hkey_users\\A"}, 2, "", "only HKEY_LOCAL_MACHINE"},
        {{"get", "A\\\\B"}, 2, "", "not the path of a key"},
        {{"set", "A", "b\nc", "d"}, 2, "", "cannot name a value"},
        {{"set", "A", "b", "\xFF"}, 2, "", "not UTF-8"},
        {{"delete", "HKLM"}, 2, "", "root itself"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.words));
        const Outcome outcome = Run(row.words);
        EXPECT_EQ(outcome.exitCode, row.exitCode);
        EXPECT_EQ(outcome.output, row.output);
        EXPECT_THAT(outcome.errors, HasSubstr(row.errors));
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), row.exitCode == 0 ? 0 : 1);
    }
    EXPECT_THAT(Run({"set", "--help"}).output, HasSubstr("kvreg set KEY NAME DATA --dword"));
}

TEST_F(Kvreg, WhatTheAgentAndTheToolStoreIsCarriedOver) {
    ASSERT_EQ(SetOCAgentKey(u"K\u00fc \"1\"\\"), 0U);
    ASSERT_EQ(SetMALastCreatedJSONNum(4000000000U), 0U);
    EXPECT_EQ(Get("Software\\Halvorine\\Kestrova\\KVAgent\\Monitoring", "MALastCreatedJSONNum"), "4000000000\n");
    const std::string others =
        "\n[HKEY_LOCAL_MACHINE\\A]\n\"list\"=hex(7):61,00,00,00,62,00,00,00,00,00\n"
        "\n[HKEY_LOCAL_MACHINE\\A\\B]\n\"bytes\"=hex:00,01,ff\n\"none\"=hex(0):\n\n";
    Write(file, header + others);
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    EXPECT_EQ(Get("A", "list"), "a\nb\n");

    fs::remove(file);
    ASSERT_EQ(Run({"export", file.string()}).exitCode, 0);
    const std::string whole = Read(file);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    for (const char* key : {"Software", "A"}) ASSERT_EQ(Run({"delete", key}).exitCode, 0);
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    OptionalText key;
    EXPECT_EQ(GetOCAgentKey(key), 0U);
    EXPECT_EQ(key, u"K\u00fc \"1\"\\");
    ASSERT_EQ(Run({"export", file.string()}).exitCode, 0);
    EXPECT_EQ(Read(file), whole);
    fs::create_symlink("file.reg", folder / "link");
    ASSERT_EQ(Run({"export", folder / "link", "A"}).exitCode, 0);
    std::string part = platform::Utf8FromWide(TextFromUtf16LittleEndian(Read(file).substr(2)));
    std::erase(part, '\r');
    EXPECT_EQ(part, header + others);
}

TEST_F(Kvreg, AnImportIsCarriedOutWholeOrRefused) {
    Write(file, header + "[HKLM\\A]\n\"one\"=\"1\"\n\"two\"=dword:2\n[HKLM\\B\\C]\n@=hex(2):25,00,00,00\n");
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    Write(file, header + "[HKLM\\A]\n\"one\"=-\n\"never there\"=-\n[-HKLM\\B]\n[-HKLM\\Never]\n");
    ASSERT_EQ(Run({"import", file.string()}).exitCode, 0);
    EXPECT_EQ(Run({"get", "A", "one"}).exitCode, 3);
    EXPECT_EQ(Run({"list", "B"}).exitCode, 3);
    Write(file, header + "[HKLM\\A]\n\"two\"=dword:3\n[HKEY_USERS\\X]\n");
    const Outcome refused = Run({"import", file.string()});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.errors, HasSubstr("file.reg:4: only HKEY_LOCAL_MACHINE can be imported, not 'HKEY_USERS'"));
    EXPECT_EQ(Get("A", "two"), "2\n");
}

TEST_F(Kvreg, WatchTellsOfEachChange) {
    Write("./watching.sh", R"(
        "$1" set 'A\B' v 0
        timeout 20 "$1" watch A >told &
        until [ -s told ]; do "$1" set 'A\B' v $((number += 1)); sleep 0.1; done  # until it has begun to watch
        "$1" delete A
        until grep -q deleted told; do sleep 0.05; done
        "$1" set A new t
        until grep -q new told; do sleep 0.05; done
        kill $!)");
    EXPECT_EQ(std::system("timeout 20 sh watching.sh '" KVREG_PROGRAM "'"), 0);
    EXPECT_THAT(Read("told"),
                ::testing::MatchesRegex("(set      HKEY_LOCAL_MACHINE\\\\A\\\\B    v    REG_SZ    [0-9]+\n)+"
                                        "deleted  HKEY_LOCAL_MACHINE\\\\A\\\\B    v\n"
                                        "set      HKEY_LOCAL_MACHINE\\\\A    new    REG_SZ    t\n"));
}

}  // namespace

}  // namespace kv::test
