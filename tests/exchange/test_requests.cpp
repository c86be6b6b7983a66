// Rounds of the poller against a real server and a real registry.
#include <climits>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <regex>
#include <stdexcept>
#include <utility>

#include "exchange/request_polling.h"
#include "foundation/agent_health.h"
#include "foundation/registry_store.h"
#include "foundation/timer.h"
#include "platform/sockets.h"
#include "platform/utf.h"
#include "queryconf/query_config.h"
#include "tests/http/http_peers.h"
#include "tests/support/fake_services.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/virtual_clock.h"
#include "tests/support/wmi_query.h"
#include "zip/zip_writer.h"

namespace kv::test {

using Names = std::vector<std::string>;

class Requests : public HttpTest {
  protected:
    Requests() {
        agentState.gv_agentKey.Publish(u"K7");
        agentState.gv_ServerPort = server.port;
        InitTimerManager();
        server.server->Get("/none", [this](const httplib::Request& request, httplib::Response& answer) {
            downloadConnection = request.get_header_value("Connection");
            answer.status = 404;
        });
        server.server->Get("/servlets/.*", [this](const httplib::Request& request, httplib::Response& answer) {
            const std::string said = request.target.substr(request.target.find("agentKey=K7") + 11);
            asked += (said.empty() ? "LIST" : said) + " ";
            answer.status = list ? 200 : 503;
            if (list && said.empty()) answer.body = Utf16LittleEndianBytes(platform::WideFromUtf8(list));
        });
        server.server->Post("/servlets/.*", [this](const httplib::Request& request, httplib::Response&) {
            const std::string answer = platform::Utf8FromWide(TextFromUtf16LittleEndian(request.body));
            posted += request.target.substr(request.target.find("agentKey=K7") + 11) + " " + answer;
        });
    }

    ~Requests() override {
        FreeAllVector(std::exchange(agentState.gv_sortVec, nullptr));
        FreeReplacedPlans();
        FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    }

    /// The request id and flag of the registry.
    static std::string Mailbox() {
        OptionalText id, available;
        GetRequestID(id);
        GetRequestAvailable(available);
        return platform::Utf8FromWide(id.value_or(u"absent") + u" " + available.value_or(u"absent"));
    }

    /// Runs one round, in which the server answers with a list, or with 503 for null.
    void RunRound(const char* answer) {
        asked.clear();
        list = answer;
        logBefore = LogText().size();
        clock.endMilliseconds = clock.nowMilliseconds() + 60000;
        EXPECT_THROW(RequestCentralServer(nullptr), TimeIsUp);
    }
    /// Runs a round with one request that waits.
    void Serve(const std::string& members) {
        posted.clear();
        SetRequestAvailable(u"YES");
        RunRound((R"({"RequestList": [{"AGENT_REQUEST_ID": "I 1", )" + members + "}]}").c_str());
    }
    int CountInRound(std::string_view text) const { return TimesLogged(text, logBefore); }

    /// A request to ask 127.0.0.1 by SNMP. Exchanges before and after the answered ones time out at once.
    struct SnmpRequest {
        std::string_view type;
        int port = 0;
        std::string members;  // of the request, after those of all
        int firstAnswered = 1;
        int lastAnswered = INT_MAX;
    };

    struct SnmpOutcome {
        int exchanges = 0;
        std::string last;    // version, community and wait of the last exchange
        std::string posted;  // to the server: the parameters, a blank, and the answer
    };

    /// Runs a round with this one request.
    SnmpOutcome ServeSnmp(const SnmpRequest& request) {
        SnmpOutcome outcome;
        platform::SocketOperations sockets = platform::Sockets();
        sockets.sendto = [&, next = sockets.sendto](auto socket, const void* bytes, auto... rest) {
            const auto* message = static_cast<const char*>(bytes);
            outcome.last =
                fmt::format("{:d} {}", message[6], std::string_view(message + 9, static_cast<std::size_t>(message[8])));
            return next(socket, bytes, rest...);
        };
        sockets.select = [&, next = sockets.select](auto socket, auto microseconds, bool& ready) {
            outcome.last += fmt::format(" {}s", microseconds / 1000000);
            ++outcome.exchanges;
            const bool isSilent = outcome.exchanges < request.firstAnswered || outcome.exchanges > request.lastAnswered;
            return isSilent ? platform::error::success : next(socket, microseconds, ready);
        };
        const platform::ScopedOperations scoped(sockets);
        Serve(fmt::format(
            R"("REQUEST_TYPE": "{}", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": {}, "SNMP_VERSION": "v2c", "SNMP_TIMEOUT": "1" {})",
            request.type, request.port, request.members));
        outcome.posted = posted;
        return outcome;
    }

    int CountReloads() const { return CountInRound("Query conf reloaded and scheduled successfully"); }

    VirtualClock clock;
    std::string asked;   // requests of the round: "LIST" or the parameters after the agent's key, a blank after each
    std::string posted;  // the parameters after the agent's key, a blank, and the answer
    const char* list = nullptr;
    std::string downloadConnection;
    std::size_t logBefore = 0;
    RunningServer server;
};

TEST_F(Requests, ARoundServesTheListAndClearsTheMailbox) {
    constexpr char empty[] = R"({"RequestList": []})", cut[] = R"({"RequestList": [{"AGENT_REQUEST_ID": "1"}, {"AG)";
    constexpr char odd[] = R"({"RequestList": [7, {}, {"REQUEST_TYPE": 5}, {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF"},
        {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "..", "DOWNLOAD_URL": "/x"},
        {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "K7", "DOWNLOAD_URL": 5}]})";
    constexpr char three[] = R"({"RequestList": [{"REQUEST_TYPE": "START_SERVICE", "AGENT_REQUEST_ID": "1"},
        {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_REQUEST_ID": "2", "AGENT_KEY": "K1", "DOWNLOAD_URL": "/none"},
        {"REQUEST_TYPE": "NEW", "AGENT_REQUEST_ID": "3"}]})";
    constexpr char two[] = R"({"RequestList": [
        {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_REQUEST_ID": "4", "AGENT_KEY": "K1"},
        {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_REQUEST_ID": 5, "AGENT_KEY": "K2"}]})";
    const std::string notice = "LIST &action=DOWNLOAD_QUERYCONF&status=success&requestId=";
    const struct {
        const char* title;
        const char16_t *id, *available;  // the mailbox before the round; null: unchanged
        const char *list, *after, *logged;
        std::string asked = "LIST ";
        int reloads = 0;
    } rows[] = {
        {"an absent mailbox", nullptr, nullptr, nullptr, "absent NO", "Not able to fetch the RequestAvailable"},
        {"nothing waits", u"NONE", u"NO", empty, "NONE NO", "Sleep for 30 seconds", ""},
        {"lower case", u"NONE", u"no", "", "NONE NO", "File doesn't exist"},
        {"a failed fetch", u"NONE", u"YES", nullptr, "NONE YES", "retVal of InternetDownloadFile is [13]"},
        {"a request of an earlier round", u"R &9", u"NO", empty, "NONE NO", "processing the request id R &9",
         "&action=DELETE_REQUEST&requestId=R%20%269 LIST "},
        {"a list that is cut", u"NONE", u"YES", cut, "NONE YES", "The request list was not served"},
        {"a list that is not an array", u"NONE", u"YES", R"({"RequestList": {}})", "NONE YES", "is not an array"},
        {"an answer without a list", u"NONE", u"YES", "{}", "NONE NO", "RequestList.txt has no RequestList"},
        {"three requests", u"NONE", u"YES", three, "NONE NO", "START_SERVICE request without the text SERVICE_NAME",
         notice + "3&moId=K1 ", 1},
        {"plans of two agents", u"NONE", u"YES", two, "NONE NO", "AGENT_REQUEST_ID is not a text",
         notice + "4&moId=K1,K2 ", 1},
        {"odd requests", u"NONE", u"YES", odd, "NONE NO",
         "DOWNLOAD_QUERYCONF request without the text AGENT_KEY is skipped"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        if (row.id) SetRequestID(row.id);
        if (row.available) SetRequestAvailable(row.available);
        RunRound(row.list);
        EXPECT_EQ(asked, row.asked);
        EXPECT_EQ(Mailbox(), row.after);
        EXPECT_NE(CountInRound(row.logged), 0);
        EXPECT_EQ(CountReloads(), row.reloads);
        EXPECT_FALSE(std::filesystem::exists(conf / "download" / "RequestList.txt"));
    }
    EXPECT_EQ(downloadConnection, "keep-active") << "of the plan's download";
}

TEST_F(Requests, ALongListLogsTenRefusalsAndTheirCount) {
    std::string many = R"({"RequestList": [)";
    for (int i = 0; i < 100; ++i)
        many += i < 12 ? R"({"REQUEST_TYPE": "STOP_SERVICE", "SERVICE_NAME": "x", "MONITOR_NAME": "m"},)" : "{},";
    SetRequestAvailable(u"YES");
    RunRound((many + "7]}").c_str());
    EXPECT_EQ(CountInRound("Data not collected"), 12) << "all lines of served requests";
    EXPECT_EQ(CountInRound("are unknown. Request id"), 11) << "ten, and the line with the count";
    EXPECT_EQ(CountInRound("78 more lines"), 1);
    EXPECT_EQ(agentHealth.requestsServed, 12U);
    EXPECT_EQ(agentHealth.requestsRefused, 89U);
}

TEST_F(Requests, AFullDiskKeepsTheRequestsWaiting) {
    SetRequestID(u"NONE");
    SetRequestAvailable(u"YES");
    const platform::ScopedOperations full(Failing(&platform::FileOperations::MoveFileExW, platform::error::diskFull));
    RunRound(R"({"RequestList": []})");
    EXPECT_EQ(Mailbox(), "NONE YES");
    EXPECT_EQ(CountInRound("file pointer is NULL"), 1);
}

TEST_F(Requests, OnlySlavesAreDeletedAndAFailureStopsNoOther) {
    for (const char* agent : {"backup/S1", "slaves/S1", "slaves/S9", "slaves/k7"})
        Write(conf / agent / "queryconf.txt", "{}");
    std::string marked;
    const Replaced broken(&platform::FileOperations::DeleteFileW,
                          [&, next = platform::Files().DeleteFileW](std::u16string_view path) {
                              if (path.find(u"S9") == path.npos) return next(path);
                              marked = Mailbox();
                              throw std::runtime_error("out of order");
                          });
    RunRound(R"({"RequestList": [{"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S9", "AGENT_REQUEST_ID": "D9"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "k7"}, {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S2"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "../backup/S1"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S1"}]})");
    EXPECT_EQ(marked + ", " + Mailbox(), "D9 NO, NONE NO");
    EXPECT_EQ(FilesIn(conf / "slaves"), (Names{"S9", "k7"}));
    for (const char* kept : {"backup/S1", "slaves/k7"}) EXPECT_EQ(FilesIn(conf / kept), Names{"queryconf.txt"});
    EXPECT_EQ(CountReloads(), 1);
    for (const char* line :
         {"ended early : out of order", "agentKey points to MasterAgent", "S1 is not the key of a slave"})
        EXPECT_EQ(CountInRound(line), 1) << line;
}

TEST_F(Requests, APlanThatCouldNotBeOpenedIsReadAgain) {
    Write(conf / "queryconf.txt", R"({"WorkFlows": []})");
    {
        const platform::ScopedOperations held(
            Failing(&platform::FileOperations::CreateFileW, platform::error::accessDenied));
        LoadQueryConfig(u"", std::nullopt);
    }
    RunRound("");
    EXPECT_EQ(CountReloads(), 1);
}

/// A variable of a device: the number after .1.3 in its name, and its value.
std::string Variable(char last, std::uint8_t tag, const char* hex) {
    return Item(0x30, Item(0x06, std::string("\x2b") + last) + Item(tag, FromHex(hex)));
}

TEST_F(Requests, OnlyThePlanOfADownloadedArchiveStays) {
    constexpr std::string_view plan = R"({"WorkFlows_S": [{"interval": 5, "recordSetName": []}]})";
    const ZipHandle zip = CreateZip(u"plan.zip", nullptr);
    for (const char16_t* name :
         {u"queryconf.txt", u"QueryConf.TXT", u"other.txt", u"a/deep/er.txt", u"RequestList.txt/x"})
        EXPECT_EQ(AddMemoryToZip(zip, name, plan.data(), plan.size()), zip_result::ok);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    server.server->Get("/plan.zip", [bytes = Read(bin / "plan.zip")](const httplib::Request&, httplib::Response& got) {
        got.body = bytes;
    });
    Write(conf / "download" / "queryconf.txt.refused", "an earlier one");
    Write(conf / "download" / "QUERYCONF.txt", plan);  // left by a kill
    for (const bool isFull : {true, false}) {
        const Replaced room(&platform::FileOperations::GetDiskFreeSpaceExW, [isFull](auto, std::uint64_t& bytes) {
            bytes = isFull ? 500 : UINT64_MAX;
            return platform::error::success;
        });
        Serve(R"("REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "S", "DOWNLOAD_URL": "/plan.zip")");
        EXPECT_EQ(CountInRound("[500] are free"), isFull);
        EXPECT_EQ(std::filesystem::exists(conf / "slaves" / "S"), !isFull);
    }
    EXPECT_EQ(Read(conf / "slaves" / "S" / "queryconf.txt"), plan);
    EXPECT_EQ(FilesIn(conf / "download"), Names{"queryconf.txt.refused"});
    EXPECT_EQ(CountInRound("2 entries beside the plan are deleted"), 1);
    for (const bool isDropped : {true, false}) {
        SCOPED_TRACE(isDropped ? "a kill ended the request that brought a plan"
                               : "a plan that could not be put in place");
        Write(conf / "download" / "queryconf.txt", R"({"WorkFlows_T": []})");
        SetRequestID(isDropped ? u"R1" : u"NONE");
        Serve(R"("REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "T", "DOWNLOAD_URL": "/none")");
        EXPECT_EQ(std::filesystem::exists(conf / "slaves" / "T"), !isDropped);
        EXPECT_FALSE(std::filesystem::exists(conf / "download" / "queryconf.txt"));
    }
}

TEST_F(Requests, SnmpValuesGoToTheServer) {
    const SnmpDaemon agent("sysName tower\nsysDescr a box");
    agentState.gv_SNMPTimeout.Publish(u"3");
    const SnmpOutcome instance =
        ServeSnmp({.type = "GET_INSTANCE_DATA", .port = agent.port(), .members = R"(, "PROTOCOL": "POLL", "POLL_ID": 7,
             "OID": ".1.3.6.1.2.1.1.5.0,,.1.3.6.1.2.1.1.1.0", "AGENT_KEY": "S1", "POLICY_NAME": "p")"});
    EXPECT_EQ(instance.exchanges, 1);
    EXPECT_EQ(instance.last, "1 public 3s");
    EXPECT_EQ(instance.posted,
              R"(&action=GET_INSTANCE_DATA&requestId=I%201 { "AGENT_REQUEST_ID": "I 1", )"
              R"("POLICY_NAME": "p", "AGENTKEY": "S1", "PROTOCOL": "POLL", "MSPCUSTOMERID": "", "ID": "7", )"
              R"("DATACOLLECTTIME": "1772701537", "STATUS": "SUCCESS", ".1.3.6.1.2.1.1.1.0": )"
              R"({ ".1.3.6.1.2.1.1.1.0": "a box" }, ".1.3.6.1.2.1.1.5.0": { ".1.3.6.1.2.1.1.5.0": "tower" }, )"
              R"("TYPE": "4", "OID": ".1.3.6.1.2.1.1.5.0,,.1.3.6.1.2.1.1.1.0" })");
    EXPECT_TRUE(FilesIn(data).empty());
}

TEST_F(Requests, SnmpTestsAreTriedAgainAndTellWhatIsMissing) {
    agentState.gv_SNMPTimeout.Publish(u"2148");
    const std::string one = Variable(1, 0x02, "07"), two = Variable(2, 0x04, "78"), nulls = Variable(1, 0x05, "");
    const std::string below = Item(0x30, FromHex("06 03 2b 01 07 02 01 07"));
    const std::string ofOne = R"(".1.3.1": { ".1.3.1": "7" }, "TYPE": "2", )";
    const struct {
        const char* title;
        const char* members;
        std::string variables;  // of each answer
        int exchanges;
        const char* last;
        std::string outcome;  // status and values
        int firstAnswered = 1;
        int lastAnswered = INT_MAX;
    } rows[] = {
        {"answered at the second attempt", R"("PROTOCOL": "spoll")", one + two, 2, "1 public 5s",
         R"("SUCCESS", ".1.3.2": { ".1.3.2": "x" }, )" + ofOne, 2},
        {"a poll has no second attempt", R"("PROTOCOL": "POLL", "SNMP_VERSION": "v1", "COMMUNITY": "c0")", one + two, 1,
         "0 c0 5s", R"("FAILURE", )", 2},
        {"one value of two", R"("PROTOCOL": "SPOLL")", one, 2, "1 public 5s", R"("FAILURE", )" + ofOne},
        {"an exception in place of a value", R"("x": 0)", one + Variable(2, 0x81, ""), 1, "1 public 5s",
         R"("SUCCESS", ".1.3.2": { }, )" + ofOne},
        {"null values", R"("PROTOCOL": "SPOLL")", nulls + nulls, 1, "1 public 5s",
         R"("FAILURE", ".1.3.2": { }, ".1.3.1": { }, )"},
        {"bytes that are not text", R"("x": 0)", Variable(1, 0x04, "ff 00 41 00") + Variable(2, 0x04, "c3 a9 00"), 1,
         "1 public 5s", R"("SUCCESS", ".1.3.2": { ".1.3.2": "é" }, ".1.3.1": { ".1.3.1": "ÿ�A" }, "TYPE": "4", )"},
        {"a walk without an answer", R"("PROTOCOL": "SPOLL", "IS_MULTIPLE_POLLED_DATA": "TRUE")", "", 2, "1 public 5s",
         R"("FAILURE", )", 3},
        {"a walk that falls silent", R"("PROTOCOL": "SPOLL", "IS_MULTIPLE_POLLED_DATA": "TRUE")", below, 4,
         "1 public 5s", R"("FAILURE", ".1.3.1": { ".1.3.1.7": "7" }, "TYPE": "2", )", 1, 3},
        {"two names with one text", R"("IS_MULTIPLE_POLLED_DATA": "TRUE")",
         Item(0x30, FromHex("06 07 2b 01 88 80 80 80 00 02 01 07")) +
             Item(0x30, FromHex("06 07 2b 01 88 80 80 80 01 02 01 08")),
         3, "1 public 5s", R"("FAILURE", ".1.3.1": { ".1.3.1.": "8" }, "TYPE": "2", )"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const ScriptedDevice device([&row](auto) { return std::vector{EncodeAnswer({.variables = {row.variables}})}; });
        const SnmpOutcome outcome = ServeSnmp({.type = "SNMP_TEST_MONITOR",
                                               .port = device.port(),
                                               .members = fmt::format(R"(, "OID": ".1.3.1,.1.3.2", {})", row.members),
                                               .firstAnswered = row.firstAnswered,
                                               .lastAnswered = row.lastAnswered});
        EXPECT_EQ(outcome.exchanges, row.exchanges);
        EXPECT_EQ(outcome.last, row.last);
        const std::size_t status = outcome.posted.find("\"STATUS\": ") + 10;
        EXPECT_EQ(outcome.posted.substr(status, outcome.posted.rfind("\"OID\"") - status), row.outcome);
    }
    for (const char* line :
         {"Going to retry!!!", "Going to retry2", "Var value is null", "\"2148\" is not a number from 1 to 2147",
          "no value for .1.3.1, behind which nothing is taken", "no values below .1.3.2",
          "none of the OIDs has a value", "request I 1 :: 1 of the values are not"})
        EXPECT_TRUE(Logged(line)) << line;
}

TEST_F(Requests, SnmpDevicesAreDiscovered) {
    const SnmpDaemon agent("sysName tower\nsysDescr a box\nsysObjectID .1.3.6.1.4.1.9");
    const std::string value = Variable(1, 0x06, "2b 01"), absent = Variable(1, 0x80, "");
    const auto answering = [](std::vector<std::string> variables) {
        return [variables](auto) { return std::vector{EncodeAnswer({.variables = variables})}; };
    };
    const ScriptedDevice whole(answering({value, value, value})), plain(answering({value, absent, absent}));
    constexpr const char *no = "NO RESPONSE", *invalid = "INVALID IPADDRESS";
    const struct {
        const char* device;
        int port;
        const char* community;
        int firstAnswered, exchanges;
        const char *last, *version, *description, *name, *object, *address;
    } rows[] = {
        {"localhost", agent.port(), "public", 1, 1, "1 public 1s", "v2", "a box", "tower", ".1.3.6.1.4.1.9",
         "127.0.0.1"},
        {"localhost", whole.port(), "c0", 2, 2, "0 c0 1s", "v1", ".1.3.1", ".1.3.1", ".1.3.1", "127.0.0.1"},
        {"localhost", plain.port(), "c0", 1, 1, "1 c0 1s", "v2", no, no, ".1.3.1", "127.0.0.1"},
        {"localhost", whole.port(), "c0", 3, 2, "0 c0 1s", "v1", no, no, no, "127.0.0.1"},
        {"no.invalid", 9, "public", 1, 0, "", invalid, invalid, invalid, invalid, "no.invalid"},
    };
    for (const auto& row : rows) {
        const bool isPublic = row.community == std::string_view("public");
        const SnmpOutcome outcome =
            ServeSnmp({.type = "DISCOVER_SNMP_DEVICES",
                       .port = row.port,
                       .members = fmt::format(R"(, "DEVICE_NAME": "{}", "{}": "{}")", row.device,
                                              isPublic ? "x" : "COMMUNITY", row.community),
                       .firstAnswered = row.firstAnswered});
        EXPECT_EQ(outcome.exchanges, row.exchanges);
        EXPECT_EQ(outcome.last, row.last);
        EXPECT_EQ(outcome.posted,
                  fmt::format(R"(&action=DISCOVER_SNMP_DEVICES&requestId=I%201 {{ "SNMPVersion": "{}", "SYSDESC": )"
                              R"("{}", "SYSNAME": "{}", "SYSOID": "{}", "SNMPPort": "{}", "Community": "{}", )"
                              R"("DNSName": "{}", "IPAddress": "{}", "RemoteOffice": "", "MSPCUSTOMERID": "", )"
                              R"("AGENT_REQUEST_ID": "I 1", "AGENTKEY": "K7" }})",
                              row.version, row.description, row.name, row.object, row.port, row.community, row.device,
                              row.address));
    }
}

TEST_F(Requests, QueriesAndServicesAreTried) {
    using enum platform::ServiceState;
    FakeServices fake;
    fake.services = {{u"A", {.state = stopped}}, {u"B", {.state = running}}, {u"C", {.state = running}}};
    agentState.gv_timeDiff = 30;  // seconds, as long as the poller sleeps after a list
    const std::string name = PropertyText(RunWmiQuery("SELECT Name FROM Win32_OperatingSystem").rows.at(0), "Name");
    const std::string row = R"([ { "Name": ")" + std::regex_replace(name, std::regex("/"), "\\/") + R"(" } ])";
    const struct {
        const char *type, *wanted, *members;
        std::string answer;  // from the value of ERRORMSG on; empty: nothing is posted
    } rows[] = {
        {"START", "YES", R"("SERVICE_NAME": "A", "MONITOR_NAME": "m")", R"("NO ERROR", "I 1": [ { "m": "STARTED" } ])"},
        {"START", "YES", R"("SERVICE_NAME": "A")", R"("Unable to start Service", "I 1": [ { "": "FAILED" } ])"},
        {"START", "YES", R"("MONITOR_NAME": "m")", R"("Unable to start Service", "I 1": [ { "m": "FAILED" } ])"},
        {"STOP", "YES", R"("SERVICE_NAME": "B", "MONITOR_NAME": "m")", R"("NO ERROR", "I 1": [ { "m": "STOPPED" } ])"},
        {"STOP", "yes", R"("SERVICE_NAME": "C")", ""},
        {"TEST", "YES", R"("MONITOR_NAME": "m", "WMIQUERY": "SELECT Name FROM Win32_OperatingSystem")",
         R"("NO ERROR", "m": )" + row},
        {"TEST", "YES", R"("WMIQUERY": "x", "NAME_SPACE": "y")",
         R"("FAILED:Could not connect to nameSpace ERRORCODE)"
         R"(:8004100e MESSAGE:Invalid namespace\r\n", "": [ ])"},
        {"TEST", "YES", R"("MONITOR_NAME": "m")", "null"},
        {"TEST", "YES", R"("MONITOR_NAME": "AGENTKEY")",
         R"("Not served: another member of the reply is named AGENTKEY")"},
    };
    for (const auto& each : rows) {
        const std::string type = each.type + std::string(*each.type == 'T' ? "_MONITOR" : "_SERVICE");
        Serve(fmt::format(R"("REQUEST_TYPE": "{}", "RESPONSE_NEEDED": "{}", {})", type, each.wanted, each.members));
        constexpr auto answer = R"(&action={}&requestId=I%201 {{ "MSPCUSTOMERID": "", "AGENT_REQUEST_ID": "I 1", )"
                                R"("AGENTKEY": "K7", "DATACOLLECTTIME": "{}", "ERRORMSG": {} }})";
        EXPECT_EQ(posted, each.answer.empty() ? "" : fmt::format(answer, type, clock.nowSeconds(), each.answer));
    }
    EXPECT_EQ(fake.services[u"C"].state, stopped) << "stopped without an answer";
}

TEST_F(Requests, LimitsAnswerAsFailuresAndRunNothing) {
    using enum platform::ServiceState;
    FakeServices fake;
    fake.aliases = {{u"web", u"sshd"}};
    constexpr const char* start = R"("START_SERVICE", "MONITOR_NAME": "m", "SERVICE_NAME": )";
    constexpr const char *failed = R"("Unable to start Service", "I 1": [ { "m": "FAILED" } ])", *started = "STARTED";
    const struct {
        const char16_t *setting, *text;  // null: a number, as it would be by mistake
        std::string request;             // from its type on
        const char *answer, *logged;
    } rows[] = {
        {u"AllowedRequests", u"TEST_MONITOR, start_service", std::string(start) + R"("A")", started, ""},
        {u"AllowedRequests", u"DOWNLOAD_QUERYCONF", std::string(start) + R"("A")", failed,
         "START_SERVICE request is refused: AllowedRequests does not have it. Request id : I 1"},
        {u"AllowedRequests", u" ,", R"("TEST_MONITOR", "WMIQUERY": "SELECT", "MONITOR_NAME": "m")",
         R"("FAILED:AllowedRequests is empty, so nothing is allowed ERRORCODE:80041003 MESSAGE:Access denied\r\n", "m": [ ])",
         "TEST_MONITOR request is refused: AllowedRequests is empty"},
        {u"AllowedRequests", nullptr, R"("GET_INSTANCE_DATA", "OID": ".1.3", "DEVICE_NAME": "192.0.2.1")",
         R"("STATUS": "FAILURE", "OID": ".1.3" })", "AllowedRequests is not a text, so nothing is allowed"},
        {u"AllowedRequests", u"TEST*", R"("DISCOVER_SNMP_DEVICES", "DEVICE_NAME": "192.0.2.1", "SNMP_PORT": "161")",
         R"("SYSDESC": "NO RESPONSE", "SYSNAME": "NO RESPONSE", "SYSOID": "NO RESPONSE", "SNMPPort": "161")",
         "DISCOVER_SNMP_DEVICES request is refused"},
        {u"AllowedRequests", u"TEST*", R"("DELETE_DEVICE", "DEVICE_NAME": "S1")", "",
         "DELETE_DEVICE request is refused"},
        {u"AllowedRequests", u"DELETE*", R"("DOWNLOAD_QUERYCONF", "AGENT_KEY": "K7")", "",
         "DOWNLOAD_QUERYCONF request is refused"},
        {u"AllowedServices", u"a, x?z*", std::string(start) + R"("A")", started, ""},
        {u"AllowedServices", u"a, x?z*", std::string(start) + R"("XyZA")", started, ""},
        {u"AllowedServices", u"a, x?z*", std::string(start) + R"("AA")", failed,
         "START_SERVICE request for the service AA (AA) is refused: AllowedServices does not have it. Request id : I "
         "1"},
        {u"AllowedServices", u"w*", std::string(start) + R"("web")", failed,
         "the service web (sshd) is refused: AllowedServices does not have it"},
        {u"AllowedServices", u"ssh?", std::string(start) + R"("web")", started, ""},
        {u"AllowedServices", u"", std::string(start) + R"("A")", failed, "AllowedServices is empty, so nothing"},
        {u"AllowedServices", u"STOP*", R"("DELETE_DEVICE", "DEVICE_NAME": "S1")", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(platform::Utf8FromWide(row.text ? row.text : u"a number") + " " + row.request);
        Write(conf / "slaves" / "S1" / "queryconf.txt", "{}");
        fake.services = {{u"A", {}}, {u"AA", {}}, {u"XyZA", {}}, {u"web", {}}};
        const auto type = row.text ? platform::RegistryType::text : platform::RegistryType::dword;
        SetSetting(monitoringKeyPath, row.setting, row.text ? row.text : u"1", type);
        fake.calls.clear();
        Serve(R"("RESPONSE_NEEDED": "YES", "REQUEST_TYPE": )" + row.request);
        EXPECT_THAT(posted, testing::HasSubstr(row.answer));
        EXPECT_EQ(posted.empty(), *row.answer == 0);
        const bool isRefused = *row.logged != 0;
        EXPECT_EQ(CountInRound("is refused: "), isRefused) << "one line";
        EXPECT_GE(CountInRound(row.logged), 1);
        EXPECT_EQ(std::filesystem::exists(conf / "slaves" / "S1"), isRefused || row.answer == started);
        EXPECT_EQ(testing::Value(fake.calls, testing::Contains(testing::HasSubstr("StartServiceW"))),
                  row.answer == started);
        EXPECT_EQ(asked, "LIST ");
        SetSetting(monitoringKeyPath, row.setting, u"*");
    }
}

}  // namespace kv::test
