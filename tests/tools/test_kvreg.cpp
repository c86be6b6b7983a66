// kvreg on its command line, on keys below one of the test's own.
#include <atomic>
#include <gmock/gmock.h>
#include <thread>

#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "platform/utf.h"
#include "tests/tools/kvreg_fixture.h"

namespace kv::test {

namespace {

TEST_F(Kvreg, CarriesOutItsCommands) {
    const std::string missing = Utf8(folder / "missing" / "x.reg");
    const char* const listed =
        "HKEY_LOCAL_MACHINE\\Software\\KvregTest\n    (Default)    REG_SZ    --\n    n    REG_DWORD    0x1e (30)\n"
        "    v    REG_SZ    some text\nHKEY_LOCAL_MACHINE\\Software\\KvregTest\\Sub\n";
    const std::tuple<Words, int, const char*, const char*> rows[] = {
        {{"get", key, "v"}, 3, "", "there is no key HKEY_LOCAL_MACHINE\\Software\\KvregTest"},
        {{"set", key, "v", "some text"}, 0, "", ""},
        {{"get", "HKLM\\software\\kvregtest\\", "V"}, 0, "some text\n", ""},
        {{"set", "HKEY_LOCAL_MACHINE\\Software\\KvregTest", "n", "30", "--dword"}, 0, "", ""},
        {{"set", key, "", "--", "--"}, 0, "", ""},  // the first -- ends the options
        {{"set", "Software\\KvregTest\\Sub", "x", "y"}, 0, "", ""},
        {{"get", key}, 0, "--\n", ""},
        {{"set", key, "++", "--"}, 0, "", ""},
        {{"delete", key, "++", "--"}, 2, "", "unexpected '--'"},
        {{"set", key, "v", "-x"}, 2, "", "unknown option '-x'"},
        {{"set", key, "v", "1", "--dword=yes"}, 2, "", "--dword takes no value"},
        {{"--dword", "set", key, "v", "1"}, 2, "", "--dword stands behind set and before --"},
        {{"set", key, "--", "v", "-h"}, 0, "", ""},
        {{"get", key, "v"}, 0, "-h\n", ""},
        {{"set", key, "v", "some text"}, 0, "", ""},
        {{"delete", key, "++"}, 0, "", ""},
        {{"list", key}, 0, listed, ""},
        {{"delete", key, "v"}, 0, "", ""},
        {{"delete", key, "v"}, 3, "", "there is no value v"},
        {{"export", missing, key}, 1, "", "cannot write"},
        {{"delete", key}, 2, "", "this needs --yes"},
        {{"delete", key, "--yes"}, 0, "", ""},
        {{"delete", key}, 3, "", "there is no key"},
        {{"import", missing}, 3, "", "there is no file"},
        {{"put", "A"}, 2, "", "unknown command 'put'"},
        {{"get", "A", "b", "--dword"}, 2, "", "--dword goes with set only"},
        {{"set", "A", "b", "4294967296", "--dword"}, 2, "", "not a number from 0 to 4294967295"},
        {{"get", "hkey_users\\A"}, 2, "", "only HKEY_LOCAL_MACHINE"},
        {{"get", "HKCU:\\A"}, 2, "", "only HKEY_LOCAL_MACHINE"},
        {{"get", "A\\\\B"}, 2, "", "not the path of a key: single backslashes stand between its names, as in 'A\\B'"},
        {{"get", "HKLM:\\KvregNone", "n"}, 3, "", "there is no key HKEY_LOCAL_MACHINE\\KvregNone\n"},
        {{"delete", "HKLM"}, 2, "", "root itself"},
        {{"set", "", "n", "v"}, 2, "", "root itself"},
        {{"export", ""}, 2, "", "FILE is empty"},
        {{"export", "HKLM\\A"}, 2, "", "is a key; FILE comes first, then KEY: kvreg export FILE \"HKLM"},
        {{"export", missing, "x.reg"}, 3, "", "x.reg; FILE comes first, then KEY"},
        {{"set", "SoftwareHalvorineKestrovaKVAgentserverinfo", "n", "v"}, 2, "", "KVAgent\\ServerInfo', not 'Soft"},
        {{"set", "HKLM/Software/Halvorine/Kestrova/KVAgent", "n", "v"}, 2, "", "did you mean 'Software\\Halvorine"},
    };
    for (const auto& [words, exitCode, output, errors] : rows) {
        SCOPED_TRACE(::testing::PrintToString(words));
        const Outcome outcome = Run(words);
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_EQ(outcome.output, output);
        EXPECT_THAT(outcome.errors, HasSubstr(errors));
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), exitCode == 0 ? 0 : 1);
    }
    Run({"set", key, "v", "1"});
    EXPECT_THAT(Run({"get", R"(Software\Halvorine\Kestrova\KVAgent)", "ServerInfo\\KVServerName"}).errors,
                HasSubstr("did you mean KVServerName in the key Software\\Halvorine\\Kestrova\\KVAgent\\ServerInfo"));
    EXPECT_THAT(Run({"set", "Software/KvregTest", "n", "v"}).errors, HasSubstr("did you mean 'Software\\KvregTest'"));
    EXPECT_EQ(Run({"delete", "Software/KvregTest", "--yes"}).exitCode, 0);
    EXPECT_THAT(Run({"set", "--help"}).output, HasSubstr("kvreg set [OPTIONS] KEY NAME DATA"));
}

TEST_F(Kvreg, ExportsAndImportsEveryValue) {
    constexpr platform::RootKey root = platform::RootKey::localMachine;
    const std::u16string agentKey = u"Software\\KvregTest\\Agent";
    ASSERT_EQ(writeValue(root, agentKey, u"key", u"K\u00fc \"1\"\\", platform::RegistryType::text), 0U);
    ASSERT_EQ(writeValue(root, agentKey, u"number", u"4000000000", platform::RegistryType::dword), 0U);
    EXPECT_EQ(Get("Software\\KvregTest\\Agent", "number"), "4000000000\n");
    const std::string others =
        "\n[HKEY_LOCAL_MACHINE\\Software\\KvregTest\\A]\n\"list\"=hex(7):61,00,00,00,62,00,00,00,00,00\n"
        "\n[HKEY_LOCAL_MACHINE\\Software\\KvregTest\\A\\B]\n\"bytes\"=hex:00,01,ff\n\"none\"=hex(0):\n\n";
    Write(file, header + others);
    ASSERT_EQ(Run({"import", file}).exitCode, 0);
    EXPECT_EQ(Get("Software\\KvregTest\\A", "list"), "a\nb\n");

    fs::remove(file);
    ASSERT_EQ(Run({"export", file, key}).exitCode, 0);
    const std::string whole = Read(file);
    ASSERT_EQ(Run({"delete", key, "--yes"}).exitCode, 0);
    ASSERT_EQ(Run({"import", file}).exitCode, 0);
    OptionalText carried;
    EXPECT_EQ(ReadRegSZ(root, agentKey, u"key", carried), 0U);
    EXPECT_EQ(carried, u"K\u00fc \"1\"\\");
    ASSERT_EQ(Run({"export", file, key}).exitCode, 0);
    EXPECT_EQ(Read(file), whole);
    EXPECT_EQ(FilesIn(folder), (std::vector<std::string>{"errors", "file.reg", "input", "state"}))
        << "no temporary file is left";
    const fs::path other = folder / u8"f\u00fcr.reg";
    ASSERT_EQ(Run({"export", Utf8(other), "Software\\KvregTest\\A"}).exitCode, 0);
    std::string part = platform::Utf8FromWide(TextFromUtf16LittleEndian(Read(other).substr(2)));
    std::erase(part, '\r');
    EXPECT_EQ(part, header + others);
}

TEST_F(Kvreg, ImportsAWholeFileOrNothing) {
    const std::string inA = header + "[HKLM\\Software\\KvregTest\\A]\n";
    Write(file, inA + "\"one\"=\"1\"\n\"two\"=dword:2\n[HKLM\\Software\\KvregTest\\B\\C]\n@=hex(2):25,00,00,00\n");
    ASSERT_EQ(Run({"import", file}).exitCode, 0);
    Write(file, inA +
                    "\"one\"=-\n\"never there\"=-\n[-HKLM\\Software\\KvregTest\\B]\n"
                    "[-HKLM\\Software\\KvregTest\\Never]\n");
    ASSERT_EQ(Run({"import", file}).exitCode, 0);
    EXPECT_EQ(Run({"get", "Software\\KvregTest\\A", "one"}).exitCode, 3);
    EXPECT_EQ(Run({"list", "Software\\KvregTest\\B"}).exitCode, 3);
    Write(file, inA + "\"n\"=hex:01,\\\n 02\n[HKLM\\Software/KvregTest/A]\n[-HKLM\\Software/KvregTest/A]\n");
    EXPECT_THAT(Run({"import", file}).errors, HasSubstr("file.reg:5: did you mean 'Software\\KvregTest\\A'"));
    Write(file, inA + "\"two\"=dword:3\n[HKEY_USERS\\X]\n");
    Expect({"import", file}, 1, "", "file.reg:4: only HKEY_LOCAL_MACHINE can be imported, not 'HKEY_USERS'");
    EXPECT_EQ(Get("Software\\KvregTest\\A", "two"), "2\n");
}

TEST_F(Kvreg, WatchesUntilNobodyReads) {
    const auto write = [&](int number) { Run({"set", "Software\\KvregTest\\B", "v", std::to_string(number)}); };
    write(0);
    std::FILE* const watch = StartTool({files.program, files.input, folder / "watch errors"}, {"watch", key});
    std::atomic<bool> isWatching = false;
    std::thread writing([&] {
        for (int number = 1; !isWatching; ++number) write(number);
    });
    std::string line = NextLine(watch);
    EXPECT_THAT(line, testing::StartsWith("set      HKEY_LOCAL_MACHINE\\Software\\KvregTest\\B    v    REG_SZ    "));
    isWatching = true;
    writing.join();
    Run({"delete", key, "--yes"});
    while (line.starts_with("set")) line = NextLine(watch);
    EXPECT_EQ(line, "deleted  HKEY_LOCAL_MACHINE\\Software\\KvregTest\\B    v\n");
    Run({"set", key, "new", "t"});
    EXPECT_EQ(NextLine(watch), "set      HKEY_LOCAL_MACHINE\\Software\\KvregTest    new    REG_SZ    t\n");
    EXPECT_EQ(EndTool(watch), 1);
    EXPECT_THAT(Read(folder / "watch errors"), HasSubstr("nobody reads"));
}

}  // namespace

}  // namespace kv::test
