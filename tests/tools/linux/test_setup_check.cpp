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

    const fs::path conf = folder / "monitoring" / "conf";
    const fs::path logs = folder / "monitoring" / "logs";
    const std::string plan = (folder / "plan.json").string();
};

TEST_F(CheckVerb, FindsWhatIsWrongWithSettings) {
    EXPECT_THAT(Run({"check"}).output, testing::ContainsRegex("^error: registry: .*/registry.db does not exist; kvagent"
                                                              "ctl setup --server SERVER makes it.*\n1 error, 0 warn"));
    Registry({"set", agentKey, "AgentLogLevel", "1", "--dword"});
    const Outcome empty = Run({"check"});
    EXPECT_EQ(empty.exitCode, 1);
    EXPECT_THAT(empty.output, HasSubstr("error: setting ServerInfo\\KVServerName: is missing; kvagentctl setup"));
    EXPECT_THAT(empty.output, testing::EndsWith("8 errors, 0 warnings\n"));
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
    const Outcome refused = Run({"check", "--online"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.output, HasSubstr("its key is not the pinned one"));
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
        {"to and fro", "302 F\r\nLocation: ?x", 1, "leads back to itself: the agent gives up after 10 of them"},
        {"a file", "302 F\r\nLocation: file:///x", 1, "does not follow, because it is not an http or https URL"},
        {"a circle", "302 F\r\nLocation: /", 1, "leads back to itself: the agent gives up after 10 of them"},
        {"forbidden", "403 No", 0, "GET / with HTTP status 403; is it the server of the agents?"},
    };
    for (const auto& [title, status, exitCode, told] : rows) {
        SCOPED_TRACE(title);
        const TlsServer server(identity, "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n\r\n");
        const std::string port = std::to_string(server.port);
        Run({"setup", "--server", "https://127.0.0.1:" + port, "--ip", "127.0.0.9"});
        const Outcome outcome = Run({"check", "--online"});
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.output, HasSubstr(told));
    }
    const TlsServer server(identity);
    Run({"setup", "--server", "https://127.0.0.1:" + std::to_string(server.port), "--ip", "127.0.0.9"});
    Write(folder / "ca.pem", PemText(identity));
    Registry({"set", serverKey, "KVServerCAFile", (folder / "ca.pem").string()});
    EXPECT_THAT(Run({"check", "--online"}).output,
                HasSubstr("it is for cs.example.com, 192.0.2.1, not for 127.0.0.1. Expected"));
    Registry({"set", agentKey, "ProxyEnabled", "yes"});
    const RawServer proxy([](Socket connection, const std::string&) {
        SendText(connection, "HTTP/1.1 407 No\r\nContent-Length: 0\r\n\r\n");
    });
    Registry({"set", agentKey, "ProxyServerName", "127.0.0.1:" + std::to_string(proxy.port)});
    EXPECT_THAT(Run({"check", "--online"}).output, HasSubstr("the proxy refused the user or the password (HTTP st"));
    const RawServer lost([](Socket connection, const std::string&) {
        SendText(connection, "HTTP/1.1 503 No\r\nContent-Length: 0\r\n\r\n");
    });
    const std::string name = "127.0.0.1:" + std::to_string(lost.port);
    Registry({"set", agentKey, "ProxyServerName", name});
    EXPECT_THAT(Run({"check", "--online"}).output,
                HasSubstr("the proxy " + name + " itself answers with HTTP status 503"));
    Registry({"set", agentKey, "ProxyServerName", "127.0.0.1:1"});
    EXPECT_THAT(Run({"check", "--online"}).output, HasSubstr(", by the proxy 127.0.0.1:1; does the proxy run, is Pr"));
    Registry({"delete", serverKey, "KVServerCAFile"});
    Registry({"set", agentKey, "ProxyServerName", name});
    Run({"setup", "--protocol", "http"});
    EXPECT_THAT(Run({"check", "--online"}).output,
                HasSubstr("which is a failure of the proxy " + name + " or of the server behind it"));
}

TEST_F(CheckVerb, FindsWhatIsWrongWithAPlan) {
    InstallAgent();
    Write(conf / "scripts" / "crlf.sh", "#!/bin/sh\r\n");
    Write(conf / "scripts" / "plain-crlf.sh", "echo\r\n");
    Write(conf / "scripts" / "plain.sh", "echo\n");
    Write(conf / "scripts" / "lost.sh", "#!/no/such/shell -e\n");
    Write(conf / "scripts" / "env.sh", "#!/usr/bin/env no-such-shell\n");
    Write(conf / "scripts" / "split.sh", "#!/usr/bin/env -S A=1  no-shell -e\n");
    Write(conf / "scripts" / "bytes.sh", std::string("\1\0\2", 3));
    Write(conf / "scripts" / "mark.sh", "\xEF\xBB\xBF#!/bin/sh\n");
    Write(conf / "scripts" / "late.sh", "\n# late\n#!/bin/bash\n");
    Write(conf / "scripts" / "bare.py", "print()\n");
    fs::create_symlink("/nowhere", conf / "scripts" / "link.sh");
    ASSERT_EQ(mkfifo((conf / "scripts" / "fifo.sh").c_str(), 0700), 0);
    for (const char* name : {"crlf.sh", "lost.sh", "env.sh", "split.sh", "bytes.sh"})
        fs::permissions(conf / "scripts" / name, fs::perms::owner_all);
    const auto record = [](const std::string& members) {
        return R"({"WorkFlows":[{"wfname":"W","interval":1,"recordSetName":[{)" + members + "}]}]}";
    };
    std::string longOid;
    for (int number = 0; number < 128; ++number) longOid += ".1";
    const std::string snmp = R"("PROTOCOL":"SPOLL","DEVICE_NAME":"d","COMMUNITY":"c","POLL_ID":"1","AGENT_KEY":"K",)";
    const std::tuple<const char*, std::string, const char*> rows[] = {
        {"cut", "// \"\n{\"WorkFlows\":[\n",
         ", line 3, column 1: it is not a plan in JSON: unexpected end of data: the agent"},
        {"cut, where", "{\"WorkFlows\":\r\n[\r\n", "is it whole? The [ of line 2 is not closed"},
        {"blank", "\n ", "it has only blanks: the agent would refuse it; put a plan there"},
        {"typographic", "{\n\n \u201CWorkFlows\u201D:[]}",
         ", line 3, column 2: it is not a plan in JSON: quoted object"},
        {"typographic, why", "{\u201CWorkFlows\u201D:[]}", "; \u201C is a typographic quotation mark: write \""},
        {"high byte first", std::string("\0{\0}", 4), "it is UTF-16 with the high byte first, which is not read"},
        {"Latin-1", "{\n\"\xE4\":[]}", ", line 2: the file is neither UTF-16LE nor UTF-8"},
        {"no list", R"({"workflows":[]})", "what it holds; did you mean WorkFlows?"},
        {"no list, for the agent", R"({"Workflows":[{"interval":1,"recordSetName":[]}]})",
         "the agent would refuse it from the server; at a start it runs the other lists all the same: Workflows"},
        {"parked", R"({"WorkFlows":[],"disabled":[{"interval":1,"recordSetName":[]}]})",
         "error: member disabled: its workflows run all the same: the agent runs each list at the top, whatever"},
        {"twice", "{\"WorkFlows\":[],\n\"WorkFlows\":[]}",
         ", line 1: WorkFlows stands again in line 2, and only the l"},
        {"no interval", R"({"WorkFlows":[{"intervall":1,"recordSetName":[]}]})", "intervall: did you mean interval?"},
        {"interval 0", R"({"WorkFlows":[{"wfname":"W","interval":0}]})",
         "[0] \"W\": has an interval below 1 (0): it is"},
        {"interval 1.5", R"({"WorkFlows":[{"interval":1.5,"recordSetName":[]}]})",
         "fraction or an exponent, and 1 is taken; give"},
        {"seconds", R"({"WorkFlows":[{"interval":86400,"recordSetName":[]}]})", "which is 60 days; interval is in min"},
        {"no object", R"({"WorkFlows":[{"interval":1,"recordSetName":[5]}]})", "record [0]: is not an object"},
        {"kind", record(R"("wmiquery":"SELECT","Name":"N")"), "nobody reads wmiquery; did you mean wmiQuery?"},
        {"property", record(R"("wmiQuery":"SELECT Nam FROM Win32_Process","Name":"N")"), "did you mean Name?"},
        {"namespace", record(R"("wmiQuery":"SELECT * FROM Win32_Process","Name":"N","nameSpace":"ROOT\\X")"),
         "ROOT\\X"},
        {"no address", record(R"("wmiQuery":"SELECT * FROM Win32_PingStatus","Name":"N")"),
         "needs an Address in WHERE"},
        {"no file", record(R"("wmiQuery":"SELECT Name FROM CIM_DataFile WHERE Extension='x'","Name":"N")"),
         "what Name is (a file), or else Path (a folder) [8004100c]"},
        {"taken name", record(R"("wmiQuery":"SELECT * FROM Win32_BIOS","Name":"ERRORMSG")"), "is another member"},
        {"absent script", record(R"("script":"no.sh","Name":"N")"), "conf/scripts/no.sh does not exist"},
        {"link", record(R"("script":"link.sh","Name":"N")"), "link.sh is a link to what does not exist"},
        {"NUL", std::string("{}\0", 3), "the file has a NUL character at offset 2: the agent would refuse it"},
        {"outside", record(R"("script":"../x","Name":"N")"), "does not name a file below conf/scripts"},
        {"line ends", record(R"("script":"crlf.sh","Name":"N")"), "has CRLF line ends"},
        {"line ends for sh", record(R"("script":"plain-crlf.sh","Name":"N")"), "plain-crlf.sh has CRLF line ends"},
        {"interpreter", record(R"("script":"lost.sh","Name":"N")"), "interpreter /no/such/shell, which does not exist"},
        {"env", record(R"("script":"env.sh","Name":"N")"), "asks env for 'no-such-shell', which is not in PATH"},
        {"env -S", record(R"("script":"split.sh","Name":"N")"), "split.sh asks env for 'no-shell', which is not in"},
        {"escape", "{\n" + record(R"("script":"r\\u0041\u00e4.sh","Name":"\\\\u00e4")").substr(1),
         ", line 2: \\u00e4: the agent reads"},
        {"bytes", record(R"("script":"bytes.sh","Name":"N")"), "is neither a program nor a script"},
        {"fifo", record(R"("script":"fifo.sh","Name":"N")"), "fifo.sh is not a regular file"},
        {"mode", record(R"("script":"plain.sh","Name":"N")"), "is not executable, so /bin/sh runs it; chmod +x"},
        {"arguments", record(R"("script":"plain.sh  -a /","Name":"N")"), R"(: "script": "plain.sh", "params": "-a /")"},
        {"interpreter as script", record(R"("script":"sh -e ../plain.sh x","Name":"N")"),
         R"(; write "script": "plain.sh", "params": "x"; its first line names the interpreter)"},
        {"mark", record(R"("script":"mark.sh","Name":"N")"), "mark.sh begins with a byte order mark, so that /bin/sh"},
        {"late", record(R"("script":"late.sh","Name":"N")"), "late.sh has #! in line 3: it has to be the first"},
        {"no interpreter", record(R"("script":"bare.py","Name":"N")"), "bare.py has no #! line, so that /bin/sh runs"},
        {"near script", record(R"("script":"plain","Name":"N")"), "/plain does not exist; did you mean plain.sh?"},
        {"params", record(R"("script":"plain.sh","Name":"N","params":["/"])"), "params is not a text: the script runs"},
        {"no shell", record(R"("script":"plain.sh","Name":"N","params":"$HOME \"$x\" > y")"),
         "$HOME > in params reach"},
        {"quotes", record(R"("script":"plain.sh","Name":"N","params":"'a b'")"), "single quotes, which do not keep"},
        {"no record", record(R"("script":"plain.sh","Name":"N")"), "note: workflow [0] \"W\", record [0] \"N\": resp"},
        {"yes", record(R"("script":"plain.sh","Name":"N","response_needed":"yes")"),
         "is \"yes\", not \"true\": the scr"},
        {"two kinds", record(R"("script":"x","Name":"N","wmiQuery":"SELECT * FROM Win32_BIOS")"),
         "\n0 errors, 1 warning\n"},
        {"pattern", record(R"("wmiQuery":"SELECT * FROM Win32_BIOS WHERE Name LIKE 'a?'","Name":"N")"),
         "in LIKE 'a?' the"},
        {"device", record(snmp + R"("SNMP_VERSION":"v1","OID":".1.3","DEVICE_NAME":"d:1")"),
         "'d:1' is not an IPv4 addr"},
        {"address", record(snmp + R"("OID":".1","DEVICE_NAME":"10.1.1")"), "DEVICE_NAME '10.1.1': an IPv4 address has"},
        {"walk", record(snmp + R"("OID":[".1"],"IS_MULTIPLE_POLLED_DATA":1,"PORT":1)"),
         "DATA is \"1\", not \"true\": only"},
        {"OID list", record(snmp + R"("OID":[".1"])"), "OID is not a text: nothing is asked; one text with commas"},
        {"part of a name", record(snmp + R"("OID":".1","PORT":1)"), "PORT: did you mean SNMP_PORT?"},
        {"no version", record(snmp + R"("OID":".1.3")"), "SNMP_VERSION is missing: v1 is taken"},
        {"port", record(snmp + R"("SNMP_VERSION":"v1","OID":".1.3","SNMP_PORT":"x")"), "SNMP_PORT is not a number"},
        {"version", record(snmp + R"("SNMP_VERSION":"2c","OID":".1.3")"), "'2c' is neither v1 nor v2c: v1 is taken"},
        {"oid", record(snmp + R"("SNMP_VERSION":"v1","OID":".1.3,1.3.6")"), "OID '1.3.6' does not begin with a dot"},
        {"long oid", record(snmp + R"("SNMP_VERSION":"v1","OID":".1)" + longOid + "\""), "has 129 numbers: an answer"},
        {"oid beyond 32 bits", record(snmp + R"("SNMP_VERSION":"v1","OID":".1.3.4294967297")"),
         "number 4294967297, and"},
        {"oid of nobody", record(snmp + R"("SNMP_VERSION":"v1","OID":".3.1")"), "OID '.3.1' cannot be: an OID begins"},
        {"oid letters", record(snmp + R"("SNMP_VERSION":"v1","OID":".1.x")"), "OID '.1.x' is not numbers with dots"},
    };
    for (const auto& [title, text, finding] : rows) {
        SCOPED_TRACE(title);
        Write(plan, text);
        EXPECT_THAT(Run({"check", plan}).output, HasSubstr(finding));
    }
    Write(conf / "plan.json", "{}");
    EXPECT_THAT(Run({"check"}).output, HasSubstr("plan.json stands there, and the agent reads only queryconf.txt"));
    Registry({"set", agentKey + "\\Monitoring", "AllowedScripts", "other.sh"});
    Write(plan, record(R"("script":"plain.sh","Name":"N")"));
    EXPECT_THAT(Run({"check", plan}).output, HasSubstr("plain.sh is not run: AllowedScripts does not have it"));
    const std::tuple<const char*, const char*, const char*> limits[] = {
        {"AllowedScripts", "plain.sh, no.sh",
         "note: setting Monitoring\\AllowedScripts: allows 1 of 12 scripts below conf"},
        {"AllowedScripts", "PLAIN.sh", "AllowedScripts: allows none of 12 scripts below conf/scripts; give paths"},
        {"AllowedServices", "*.service", "AllowedServices: allows every service"},
        {"AllowedRequests", "start*, TEST_*", "AllowedRequests: allows TEST_MONITOR, START_SERVICE\n"},
        {"AllowedRequests", "", "AllowedRequests: is empty, so nothing is allowed"},
    };
    for (const auto& [name, value, told] : limits) {
        Registry({"set", agentKey + "\\Monitoring", name, value});
        EXPECT_THAT(Run({"check", plan}).output, HasSubstr(told));
    }
    Registry({"delete", agentKey + "\\Monitoring", "AllowedScripts"});
    Write(conf / "slaves" / "S1" / "queryconf.txt", R"({"WorkFlows_S1":[5]})");
    EXPECT_THAT(Run({"check"}).output, HasSubstr("plans of slaves: are not loaded"));
    Registry({"set", agentKey + "\\Monitoring", "MasterAgent", "yes"});
    EXPECT_THAT(Run({"check"}).output, HasSubstr("slaves/S1/queryconf.txt: is that of the slave S1"));
    EXPECT_EQ(Run({"check", plan + ".missing"}).exitCode, 3);
    EXPECT_THAT(Run({"check", conf.string()}).errors, HasSubstr("conf is a directory; a plan is a file"));
    Write(plan, Utf16LittleEndianBytes(u"{\"WorkFlows\":[{\"wfname\":\"W\",\"interval\":1,\"recordSetName\":"
                                       u"[{\"wmiQuery\":\"SELECT * FROM Win32_BIOS\",\"Name\":\"N\"}]}]}"));
    const Outcome good = Run({"check", plan, "--json"});
    EXPECT_EQ(good.exitCode, 0) << good.output;
    EXPECT_THAT(good.output, HasSubstr("\"errors\": 0"));
}

}  // namespace

}  // namespace kv::test
