// kvagentctl collect on an installed agent that does not run.
#include <cstdlib>

#include "tests/support/snmp_devices.h"
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class CollectVerb : public AgentToolTest {
  protected:
    CollectVerb() {
        fs::create_directories(conf / "scripts");
        fs::create_directories(folder / "monitoring" / "bin");
        SetInstallDirectory();
        Registry({"set", agentKey, "CustomerName", "Some customer"});
    }

    void WriteScript(const std::string& name, const std::string& text) const {
        Write(Utf8(conf / "scripts" / name), "#!/bin/sh\n" + text + "\n");
        fs::permissions(conf / "scripts" / name, fs::perms::owner_all);
    }

    void WritePlan(const std::string& records) const {
        Write(Utf8(conf / "queryconf.txt"),
              R"({"WorkFlows": [{"wfname": "W", "interval": 5, "recordSetName": [)" + records + "]}]}");
    }

    const fs::path conf = folder / "monitoring" / "conf";
    const std::string good = R"({"wmiQuery": "SELECT Primary FROM Win32_OperatingSystem", "Name": "System"})";
};

TEST_F(CollectVerb, PrintsEachRecordAndTouchesNothing) {
    const SnmpDaemon device("sysName box");
    WriteScript("disks.sh", "echo '{\"NAME\": \"'$2'\", \"CWD\": \"'$PWD'\"}'");
    WriteScript("text.sh", "echo plain");
    WriteScript("quiet.sh", "echo dropped");
    WritePlan(good +
              R"(, {"script": "disks.sh", "Name": "Disks", "response_needed": "true"},
                   {"script": "text.sh", "Name": "Text", "response_needed": "true"},
                   {"script": "quiet.sh", "Name": "Quiet"},
                   {"PROTOCOL": "SPOLL", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": ")" +
              std::to_string(device.port()) +
              R"(", "COMMUNITY": "public", "OID": ".1.3.6.1.2.1.1.5.0", "SNMP_VERSION": "v2c", "POLL_ID": "77"})");
    const std::vector<std::string> before = FilesIn(folder / "monitoring");
    const std::string registry = Read(Utf8(folder / "state" / "registry.db"));
    const Outcome all = Run({"collect"});
    EXPECT_EQ(all.exitCode, 0) << all.errors;
    for (const char* const text :
         {"== System: workflow W, WMI, ", "\"MSPCUSTOMERID\": \"Some customer\"", "\"Primary\": \"True\"",
          "== Disks: workflow W, script, ", "\"NAME\": \"Disks\"", "plain\n   remark: it is not JSON",
          "== Quiet: workflow W, script, ", "ms, no record\n", "   log: response_needed is not true",
          "== 77: workflow W, SNMP, ", "\"box\"", "SUCCESS"})
        EXPECT_THAT(all.output, HasSubstr(text));
    EXPECT_THAT(all.output, HasSubstr("\"CWD\": \"" + Utf8(folder / "monitoring" / "bin") + "\""))
        << "as for the agent";
    EXPECT_EQ(FilesIn(folder / "monitoring"), before);
    EXPECT_FALSE(fs::exists(folder / "monitoring" / "bin" / "data"));
    EXPECT_EQ(Read(Utf8(folder / "state" / "registry.db")), registry);
    const Outcome one = Run({"collect", "--json", "--record", "DISKS.SH"});
    EXPECT_THAT(one.output, ::testing::AllOf(HasSubstr("\"kind\": \"script\""), HasSubstr("\"CWD\": "),
                                             HasSubstr("\"failed\": false"), ::testing::Not(HasSubstr("Primary"))));
}

TEST_F(CollectVerb, LeavesNoFolderBehindWhenInterrupted) {
    WriteScript("stops.sh", "kill -TERM $(cut -d' ' -f4 /proc/$PPID/stat); sleep 60");
    const std::string stops = R"({"script": "stops.sh", "Name": "S", "response_needed": "true"})";
    WritePlan(stops + "," + stops);
    setenv("TMPDIR", Utf8(folder / "state").c_str(), 1);
    const Outcome outcome = Run({"collect"});
    unsetenv("TMPDIR");
    EXPECT_EQ(outcome.exitCode, 130);
    EXPECT_THAT(outcome.errors, HasSubstr("interrupted after 0 of 2 records"));
    for (const std::string& file : FilesIn(folder / "state")) EXPECT_EQ(file.find("kvagent-"), std::string::npos);
}

TEST_F(CollectVerb, SaysWhatIsWrongWithAScript) {
    const std::tuple<const char*, std::string, const char*> rows[] = {
        {"two objects", R"(echo '{"A": 1} {"B": 2}')",
         "{\"A\": 1} {\"B\": 2}\n   remark: it is not JSON, and goes out as it is: parse error at line 1, column 10"},
        {"silent", "", " ms, 0 bytes\n   log: Error Code : 0\n   log: the script printed nothing: the server gets an "},
        {"standard error", "echo 'it \\033[1m fails' >&2; echo '{}'", "\n   stderr: it \\x1b[1m fails\n"},
        {"much of it", "yes | head -c 3000000 >&2", "y\n   stderr: (much is left out)\n"},
        {"Latin-1", "printf '{\"A\": \"\\n\\344\"}'",
         "remark: bytes that are not UTF-8 were replaced: U+FFFD stands for them, first in line 2; print UTF-8; it is"},
        {"Python", R"(echo "[{'a': None}]")", "; single quotes: in Python print json.dumps(...)\n"},
    };
    WritePlan(R"({"script": "s.sh", "Name": "N", "response_needed": "true"})");
    for (const auto& [title, script, told] : rows) {
        SCOPED_TRACE(title);
        WriteScript("s.sh", script);
        Expect({"collect"}, 0, told);
    }
    WriteScript("s.sh", "echo '[1]'");
    Expect({"collect", "--json"}, 0, "\"remark\": \"it is not an object, which a server expects\"");
    WriteScript("s.sh", "exit 3");
    Expect({"collect"}, 1, "the record N failed: ");
    Write(conf / "scripts" / "s.sh", "#!/bin/sh\r\necho x >&2");
    Expect({"collect"}, 1, "s.sh has CRLF line ends, so it cannot run");
}

TEST_F(CollectVerb, SaysWhatIsWrongWithARecord) {
    const SnmpDaemon device("sysName box");
    const std::string snmp =
        R"({"PROTOCOL": "SPOLL", "DEVICE_NAME": "127.0.0.1", "COMMUNITY": "public", "OID": ".1.3.6.1.2.1.1.5", )"
        R"("SNMP_PORT": )" +
        std::to_string(device.port()) + "}";
    const struct {
        const char* title;
        std::string records;
        int exitCode;
        const char* output;
        const char* errors = "";
        Words words = {};
    } rows[] = {
        {"query", R"({"wmiQuery": "SELECT Nam FROM Win32_Process", "Name": "P"})", 1,
         "log: The query is refused: Win32_Process lacks the property Nam; did you mean Name?",
         "1 of 1 records failed"},
        {"absent", R"({"script": "none.sh", "Name": "N", "response_needed": "true"})", 1, "/none.sh does not exist"},
        {"without a record", R"({"script": "none.sh", "Name": "N"})", 1, ", no record, FAILED\n", "1 of 1"},
        {"kind", R"({"wmiquery": "x", "Name": "K"})", 1,
         " ms, no record, FAILED\n   log: nobody reads wmiquery; did you mean wmiQuery?"},
        {"an OID without its .0", snmp, 1,
         "error status 2 at value 1: noSuchName, it lacks that OID, and in SNMPv1 gives no other then; a value that"},
        {"name", good, 3, "", "no record of the plan is called Nix; there are: System", {"--record", "Nix"}},
        {"no records", "", 3, "", "the plan has no records"},
        {"no such plan", good, 3, "", "does not exist", {Utf8(folder / "plan.txt")}},
        {"malformed", "{", 1, "", "queryconf.txt"},
    };
    for (const auto& [title, records, exitCode, output, errors, words] : rows) {
        SCOPED_TRACE(title);
        WritePlan(records);
        Expect(Line("collect", words), exitCode, output, errors);
    }
    fs::rename(conf / "queryconf.txt", conf / "QueryConf.json");
    EXPECT_THAT(Run({"collect"}).errors, HasSubstr("/queryconf.txt does not exist; QueryConf.json stands there, and"));
}

}  // namespace

}  // namespace kv::test
