// kvagentctl check, on a registry and an install tree of the test's own.
#include <sys/stat.h>

#include "foundation/file_utils.h"
#include "tests/http/http_peers.h"
#include "tests/http/linux/tls_peers.h"
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class CheckVerb : public AgentToolTest {
  protected:
    CheckVerb() {
        fs::permissions(folder / "state", fs::perms::owner_all);
        fs::create_directories(conf / "scripts");
        fs::create_directories(folder / "monitoring" / "bin");
        fs::create_directories(logs);
        for (const fs::path& path : {conf, logs}) fs::permissions(path, fs::perms::owner_all);
    }

    void InstallAgent() const {
        Registry({"set", agentKey, "KVAgentInstallDir", folder.string() + "/"});
        ASSERT_EQ(Run({"setup", "--server", "localhost"}).exitCode, 0);
    }

    /// A plan of one record.
    static std::string Record(const std::string& members) {
        return R"({"WorkFlows":[{"wfname":"W","interval":1,"recordSetName":[{"Name":"N",)" + members + "}]}]}";
    }
    static std::string Script(const std::string& text) { return Record(R"("script":")" + text + "\""); }

    void ExpectFinding(const std::string& text, const std::string& finding) const {
        Write(plan, text);
        EXPECT_THAT(Run({"check", plan}).output, HasSubstr(finding)) << text;
    }

    const fs::path conf = folder / "monitoring" / "conf";
    const fs::path logs = folder / "monitoring" / "logs";
    const std::string plan = (folder / "plan.json").string();
};

TEST_F(CheckVerb, FindsWhatIsWrongWithSettings) {
    EXPECT_THAT(Run({"check"}).output, testing::ContainsRegex("^error: registry: .*/registry.db does not exist; kvagent"
                                                              "ctl setup --server SERVER makes it.*\n1 error, 0 warn"));
    Registry({"set", agentKey, "AgentLogLevel", "1", "--dword"});
    Expect({"check"}, 1, "error: setting ServerInfo\\KVServerName: is missing; kvagentctl setup");
    EXPECT_THAT(Run({"check"}).output, testing::EndsWith("8 errors, 0 warnings\n"));
    InstallAgent();
    EXPECT_THAT(Run({"check"}).output, testing::EndsWith("so nothing is collected; put one there, or wait for the "
                                                         "server to send one\n0 errors, 1 warning\n"));
    Registry({"set", agentKey, "AgentLogLevel", "2", "--force"});
    Registry({"set", agentKey, "ProxyEnabled", "yes"});
    Registry({"set", agentKey, "ProxyUserName", "u"});
    Registry({"set", serverKey, "KVServerProtocol", "ftp", "--force"});
    Registry({"set", agentKey + "\\Monitoring", "MonitoringAgentKey", "", "--force"});
    Registry({"set", serverKey, "KVServerProtocl", "http"});
    Registry({"set", agentKey + "Monitoring", "AllowedScripts", "", "--force"});
    Write(conf / "queryconf.txt", R"({"WorkFlows":[]})");
    for (const fs::path& path : {conf / "scripts", conf / "queryconf.txt", folder / "monitoring", logs})
        fs::permissions(path, fs::perms::all);
    fs::remove_all(folder / "monitoring" / "bin");
    const Outcome faults = Run({"check"});
    EXPECT_EQ(faults.exitCode, 1);
    for (const char* fault :
         {"AgentLogLevel: has to be a DWORD", "ProxyServerName: is missing, and ProxyEnabled",
          "did you mean ServerInfo\\KVServerProtocol?", "ProxyUserName: has one character",
          "warning: key Software\\Halvorine\\Kestrova\\KVAgentMonitoring: did you mean", "ftp', which counts as http",
          "MonitoringAgentKey KEY, with the key that", "scripts: others may write to it (mode 0777)",
          "monitoring: others may write", "logs: others may", "plan ",
          "queryconf.txt: others may write to it (mode 0777)", "bin: does not exist"})
        EXPECT_THAT(faults.output, HasSubstr(fault));
    EXPECT_THAT(faults.output, testing::EndsWith("9 errors, 4 warnings\n"));
    const std::tuple<const char*, const char*, const char*> metrics[] = {
        {"no/a.prom", "", "no/ does not exist, and no counts are written; make it"},
        {"dir.prom", "", "dir.prom is a directory"},
        {"mine.prom", "mine", "mine.prom is another file than the agent's: the agent replaces only its own"},
        {"own.txt", "# HELP kvagent_up", "warning: setting Monitoring\\MetricsFile: does not end in .prom"},
    };
    fs::create_directory(folder / "dir.prom");
    for (const auto& [name, text, told] : metrics) {
        if (*text != '\0') Write(folder / name, text);
        Registry({"set", agentKey + "\\Monitoring", "MetricsFile", (folder / name).string()});
        EXPECT_THAT(Run({"check"}).output, HasSubstr(told));
    }
    fs::remove_all(folder / "state");
    EXPECT_THAT(Run({"check"}).output, HasSubstr("error: registry: settings and scripts are not checked: " +
                                                 Utf8(folder / "state") + " does not exist"));
}

TEST_F(CheckVerb, TriesEachAddressOfTheServer) {
    InstallAgent();
    const Identity identity = Issue(NewKey(), {.name = "cs"});
    const TlsServer server(identity, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    const std::string port = std::to_string(server.port);
    Run({"setup", "--server", "https://127.0.0.1:" + port, "--second-ip", "127.0.0.9"});
    const Outcome good = Run({"check", "--online"});
    EXPECT_EQ(good.exitCode, 0) << good.output;
    const std::string where = "server 127.0.0.1:" + port + " (KVLastAccessName, KVServerIPAddress, KVServerName";
    for (const std::string& told :
         {"note: " + where, std::string("certificate CN=cs, issued by CN=cs, until "),
          std::string("not verified, it answers GET / with HTTP status 404"),
          std::string("UTC; it is not verified, so this stops nothing"),
          "warning: server 127.0.0.9:" + port + " (KVServerSecIPAddress): Connection refused"})
        EXPECT_THAT(good.output, HasSubstr(told));
    Registry({"set", serverKey, "KVServerPinnedKey", KeyPin(identity)});
    EXPECT_THAT(Run({"check", "--online"}).output, HasSubstr("it has the pinned key, it answers GET /"));
    const std::size_t sentBefore = server.decrypted;
    Registry({"set", serverKey, "KVServerPinnedKey", KeyPin(Issue(NewKey(), {}))});
    Expect({"check", "--online"}, 1, "its key is not the pinned one");
    EXPECT_EQ(server.decrypted, sentBefore) << "nothing was sent";
    EXPECT_THAT(Run({"setup", "--protocol", "http"}).errors, HasSubstr("KVServerPinnedKey asks for a certificate"));
    Registry({"set", serverKey, "KVServerPinnedKey", "abc", "--force"});
    EXPECT_THAT(Run({"check"}).output, HasSubstr("KVServerPinnedKey: takes sha256// and the 44 characters"));
}

TEST_F(CheckVerb, JudgesHowAServerAnswers) {
    InstallAgent();
    const Identity identity = Issue(NewKey(), {"cs", "DNS:cs.example.com,IP:192.0.2.1"});
    const TlsServer target(identity, "HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n");
    const std::string otherPort = std::to_string(target.port);
    const std::string other = "https://127.0.0.1:" + otherPort + "/x";
    const std::tuple<const char*, std::string, int, std::string> rows[] = {
        {"status", "500 No", 1, "HTTP status 500, which is its failure; the agent tries no other address then; look"},
        {"out of TLS", "302 F\r\nlocation: http://o/", 1, "(HTTP status 302) to http://o/, which the agent does not"},
        {"elsewhere", "302 F\r\nLocation: " + other, 0, "/x: the agent follows it when it asks, but not when it sends"},
        {"there", "302 F\r\nLocation: " + other, 0, ":" + otherPort + "/x: certificate CN=cs, issued by CN=cs, until"},
        {"nowhere", "307 F\r\nLocation: //o.invalid", 1, "to https://o.invalid:443/: the name cannot be looked up"},
        {"a file", "302 F\r\nLocation: file:///x", 1, "does not follow, because it is not an http or https URL"},
        {"a circle", "302 F\r\nLocation: /", 1, "leads back to itself: the agent gives up after 10 of them"},
        {"forbidden", "403 No", 0, "GET / with HTTP status 403; is it the server of the agents?"},
    };
    for (const auto& [title, status, exitCode, told] : rows) {
        SCOPED_TRACE(title);
        const TlsServer server(identity, "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n\r\n");
        Run({"setup", "--server", "https://127.0.0.1:" + std::to_string(server.port), "--ip", "127.0.0.9"});
        Expect({"check", "--online"}, exitCode, told);
    }
    const TlsServer server(identity);
    Run({"setup", "--server", "https://127.0.0.1:" + std::to_string(server.port), "--ip", "127.0.0.9"});
    Write(folder / "ca.pem", PemText(identity));
    Registry({"set", serverKey, "KVServerCAFile", (folder / "ca.pem").string()});
    Expect({"check", "--online"}, 1, "it is for cs.example.com, 192.0.2.1, not for 127.0.0.1. Expected");
    Registry({"set", agentKey, "ProxyEnabled", "yes"});
    std::atomic<int> status = 407;
    const RawServer proxy([&status](Socket connection, const std::string&) {
        SendText(connection, "HTTP/1.1 " + std::to_string(status) + " No\r\nContent-Length: 0\r\n\r\n");
    });
    const std::string name = "127.0.0.1:" + std::to_string(proxy.port);
    Registry({"set", agentKey, "ProxyServerName", name});
    Expect({"check", "--online"}, 1, "the proxy refused the user or the password (HTTP st");
    status = 503;
    Expect({"check", "--online"}, 1, "the proxy " + name + " itself answers with HTTP status 503");
    Registry({"set", agentKey, "ProxyServerName", "127.0.0.1:1"});
    Expect({"check", "--online"}, 1, ", by the proxy 127.0.0.1:1; does the proxy run, is Pr");
    Registry({"set", agentKey, "ProxyServerName", name});
    Registry({"delete", serverKey, "KVServerCAFile"});
    Run({"setup", "--protocol", "http"});
    Expect({"check", "--online"}, 1, "which is a failure of the proxy " + name + " or of the server behind it");
}

TEST_F(CheckVerb, FindsWhatIsWrongWithAScript) {
    InstallAgent();
    const std::tuple<bool, std::string, const char*> scripts[] = {
        {true, "#!/bin/sh\r\n", "s.sh has CRLF line ends"},
        {false, "echo\r\n", "s.sh has CRLF line ends"},
        {true, "#!/no/such/shell -e\n", "interpreter /no/such/shell, which does not exist"},
        {true, "#!/usr/bin/env no-such-shell\n", "s.sh asks env for 'no-such-shell', which is not in PATH"},
        {true, "#!/usr/bin/env -S A=1  no-shell -e\n", "s.sh asks env for 'no-shell', which is not in"},
        {true, std::string("\1\0\2", 3), "is neither a program nor a script"},
        {false, "\xEF\xBB\xBF#!/bin/sh\n", "s.sh begins with a byte order mark, so that /bin/sh"},
        {false, "\n# late\n#!/bin/bash\n", "s.sh has #! in line 3: it has to be the first"},
        {false, "echo\n", "is not executable, so /bin/sh runs it; chmod +x"},
    };
    for (const auto& [isExecutable, text, finding] : scripts) {
        Write(conf / "scripts/s.sh", text);
        fs::permissions(conf / "scripts/s.sh", isExecutable ? fs::perms::owner_all : fs::perms::owner_read);
        ExpectFinding(Script("s.sh"), finding);
    }
    Write(conf / "scripts/bare.py", "print()\n");
    fs::create_symlink("/nowhere", conf / "scripts/link.sh");
    ASSERT_EQ(mkfifo((conf / "scripts/fifo.sh").c_str(), 0700), 0);
    const std::pair<std::string, const char*> rows[] = {
        {Script("no.sh"), "conf/scripts/no.sh does not exist"},
        {Script("link.sh"), "link.sh is a link to what does not exist"},
        {Script("../x"), "does not name a file below conf/scripts"},
        {Script("fifo.sh"), "fifo.sh is not a regular file"},
        {Script("bare.py"), "bare.py has no #! line, so that /bin/sh runs"},
        {Script("s"), "/s does not exist; did you mean s.sh?"},
        {Script("s.sh  -a /"), R"(: "script": "s.sh", "params": "-a /")"},
        {Script("sh -e ../s.sh x"), R"(; write "script": "s.sh", "params": "x"; its first line names the interpreter)"},
        {Script(R"(s.sh","params":"$HOME \"$x\" > y)"), "$HOME > in params reach"},
        {Script(R"(s.sh","params":"'a b')"), "single quotes, which do not keep"},
        {Record(R"("script":"s.sh","params":["/"])"), "params is not a text: the script runs"},
        {Script("s.sh"), "note: workflow [0] \"W\", record [0] \"N\": resp"},
        {Script(R"(s.sh","response_needed":"yes)"), "is \"yes\", not \"true\": the scr"},
        {Script(R"(x","wmiQuery":"SELECT * FROM Win32_BIOS)"), "\n0 errors, 1 warning\n"},
        {"{\n" + Script(R"(r\\u0041\u00e4.sh","Name":"\\\\u00e4)").substr(1), ", line 2: \\u00e4: the agent reads"},
    };
    for (const auto& [text, finding] : rows) ExpectFinding(text, finding);
    const std::tuple<const char*, const char*, const char*> limits[] = {
        {"AllowedScripts", "other.sh", "s.sh is not run: AllowedScripts does not have it"},
        {"AllowedScripts", "s.sh, no.sh", "note: setting Monitoring\\AllowedScripts: allows 1 of 4 scripts below conf"},
        {"AllowedScripts", "S.sh", "AllowedScripts: allows none of 4 scripts below conf/scripts; give paths"},
        {"AllowedServices", "*.service", "AllowedServices: allows every service"},
        {"AllowedRequests", "start*, TEST_*", "AllowedRequests: allows TEST_MONITOR, START_SERVICE\n"},
        {"AllowedRequests", "", "AllowedRequests: is empty, so nothing is allowed"},
    };
    for (const auto& [name, value, told] : limits) {
        Registry({"set", agentKey + "\\Monitoring", name, value});
        ExpectFinding(Script("s.sh"), told);
    }
}

TEST_F(CheckVerb, FindsWhatIsWrongWithAPlan) {
    InstallAgent();
    const auto query = [](const std::string& text) { return Record(R"("wmiQuery":"SELECT )" + text + "\""); };
    const auto snmp = [](const std::string& members) {
        return Record(R"("PROTOCOL":"SPOLL","DEVICE_NAME":"d","COMMUNITY":"c",)" + members);
    };
    const auto oid = [&](const std::string& text) { return snmp(R"("SNMP_VERSION":"v1","OID":")" + text + "\""); };
    std::string longOid;
    for (int number = 0; number < 129; ++number) longOid += ".1";
    const std::pair<std::string, const char*> rows[] = {
        {"// \"\n{\"WorkFlows\":[\n",
         ", line 3, column 1: it is not a plan in JSON: unexpected end of data: the agent"},
        {"{\"WorkFlows\":\r\n[\r\n", "is it whole? The [ of line 2 is not closed"},
        {"\n ", "it has only blanks: the agent would refuse it; put a plan there"},
        {"{\n\n \u201CWorkFlows\u201D:[]}", ", line 3, column 2: it is not a plan in JSON: quoted object"},
        {"{\u201CWorkFlows\u201D:[]}", "; \u201C is a typographic quotation mark: write \""},
        {std::string("\0{\0}", 4), "it is UTF-16 with the high byte first, which is not read"},
        {"{\n\"\xE4\":[]}", ", line 2: the file is neither UTF-16LE nor UTF-8"},
        {R"({"workflows":[]})", "what it holds; did you mean WorkFlows?"},
        {R"({"Workflows":[{"interval":1,"recordSetName":[]}]})",
         "the agent would refuse it from the server; at a start it runs the other lists all the same: Workflows"},
        {R"({"WorkFlows":[],"disabled":[{"interval":1,"recordSetName":[]}]})",
         "error: member disabled: its workflows run all the same: the agent runs each list at the top, whatever"},
        {"{\"WorkFlows\":[],\n\"WorkFlows\":[]}", ", line 1: WorkFlows stands again in line 2, and only the l"},
        {R"({"WorkFlows":[{"intervall":1,"recordSetName":[]}]})", "intervall: did you mean interval?"},
        {R"({"WorkFlows":[{"wfname":"W","interval":0}]})", "[0] \"W\": has an interval below 1 (0): it is"},
        {R"({"WorkFlows":[{"interval":1.5,"recordSetName":[]}]})", "fraction or an exponent, and 1 is taken; give"},
        {R"({"WorkFlows":[{"interval":86400,"recordSetName":[]}]})", "which is 60 days; interval is in min"},
        {R"({"WorkFlows":[{"interval":1,"recordSetName":[5]}]})", "record [0]: is not an object"},
        {query("Nam FROM Win32_Process"), "did you mean Name?"},
        {query(R"(* FROM Win32_Process","nameSpace":"ROOT\\X)"), "ROOT\\X"},
        {query("* FROM Win32_PingStatus"), "needs an Address in WHERE"},
        {query("Name FROM CIM_DataFile WHERE Extension='x'"),
         "what Name is (a file), or else Path (a folder) [8004100c]"},
        {query("* FROM Win32_BIOS WHERE Name LIKE 'a?'"), "in LIKE 'a?' the"},
        {std::string("{}\0", 3), "the file has a NUL character at offset 2: the agent would refuse it"},
        {oid(R"(.1.3","DEVICE_NAME":"d:1)"), "'d:1' is not an IPv4 addr"},
        {oid(R"(.1","DEVICE_NAME":"10.1.1)"), "DEVICE_NAME '10.1.1': an IPv4 address has"},
        {snmp(R"("OID":[".1"],"IS_MULTIPLE_POLLED_DATA":1,"PORT":1)"), "DATA is \"1\", not \"true\": only"},
        {snmp(R"("OID":[".1"])"), "OID is not a text: nothing is asked; one text with commas"},
        {snmp(R"("OID":".1","PORT":1)"), "PORT: did you mean SNMP_PORT?"},
        {snmp(R"("OID":".1.3")"), "SNMP_VERSION is missing: v1 is taken"},
        {oid(R"(.1.3","SNMP_PORT":"x)"), "SNMP_PORT is not a number"},
        {snmp(R"("SNMP_VERSION":"2c","OID":".1.3")"), "'2c' is neither v1 nor v2c: v1 is taken"},
        {oid(".1.3,1.3.6"), "OID '1.3.6' does not begin with a dot"},
        {oid(longOid), "has 129 numbers: an answer"},
        {oid(".1.3.4294967297"), "number 4294967297, and"},
        {oid(".3.1"), "OID '.3.1' cannot be: an OID begins"},
    };
    for (const auto& [text, finding] : rows) ExpectFinding(text, finding);
    Write(conf / "plan.json", "{}");
    EXPECT_THAT(Run({"check"}).output, HasSubstr("plan.json stands there, and the agent reads only queryconf.txt"));
    Write(conf / "slaves" / "S1" / "queryconf.txt", R"({"WorkFlows_S1":[5]})");
    EXPECT_THAT(Run({"check"}).output, HasSubstr("plans of slaves: are not loaded"));
    Registry({"set", agentKey + "\\Monitoring", "MasterAgent", "yes"});
    EXPECT_THAT(Run({"check"}).output, HasSubstr("slaves/S1/queryconf.txt: is that of the slave S1"));
    EXPECT_EQ(Run({"check", plan + ".missing"}).exitCode, 3);
    EXPECT_THAT(Run({"check", conf.string()}).errors, HasSubstr("conf is a directory; a plan is a file"));
    Write(plan, Utf16LittleEndianBytes(u"{\"WorkFlows\":[{\"wfname\":\"W\",\"interval\":1,\"recordSetName\":"
                                       u"[{\"wmiQuery\":\"SELECT * FROM Win32_BIOS\",\"Name\":\"N\"}]}]}"));
    Expect({"check", plan, "--json"}, 0, "\"errors\": 0");
}

}  // namespace

}  // namespace kv::test
