// Rounds of the poller against a real server and a real registry: what is asked, what is done, what is left.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdexcept>

#include "exchange/request_polling.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "platform/sockets.h"
#include "platform/utf.h"
#include "queryconf/timer.h"
#include "tests/exchange/http_peers.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

using Names = std::vector<std::string>;

class Requests : public TestAgent {
  protected:
    Requests() {
        agentState.gv_agentKey.publish(u"K7");
        agentState.gv_LastAccessName.publish(u"127.0.0.1");
        agentState.gv_httpsEnabled = 0;
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
            posted += request.target + "\n" + platform::Utf8FromWide(TextFromUtf16LittleEndian(request.body));
        });
    }

    static std::string Registry() {
        OptionalText id, available;
        GetRequestID(id), GetRequestAvailable(available);
        return platform::Utf8FromWide(id.value_or(u"none") + u" " + available.value_or(u"none"));
    }

    /// One round, in which the server answers with a list, or 503 for null.
    void RunRound(const char* answer) {
        asked.clear();
        posted.clear();
        list = answer;
        logBefore = LogText().size();
        clock.endMilliseconds = clock.nowMilliseconds() + 60000;
        EXPECT_THROW(RequestCentralServer(nullptr), TimeIsUp);
    }
    int CountInRound(std::string_view text) const {
        const std::string log = LogText();
        int count = 0;
        for (std::size_t at = logBefore; (at = log.find(text, at)) != log.npos; ++at) ++count;
        return count;
    }
    int Reloads() const { return CountInRound("Query conf reloaded and scheduled successfully"); }

    VirtualClock clock;
    std::string asked;   // in the round, behind the agent's key, each with a blank after it
    std::string posted;  // in the round: address, line end, answer
    const char* list = nullptr;
    std::string downloadConnection;
    std::size_t logBefore = 0;
    RunningServer server;
};

TEST_F(Requests, EachRoundAsksForWhatWaitsAndLeavesTheMailboxRight) {
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
        const char16_t *id, *available;  // in the registry before; null: left as it is
        const char *list, *after, *logged;
        std::string asked = "LIST ";
        int reloads = 0;
    } rows[] = {
        {"no values", nullptr, nullptr, nullptr, "none NO", "Not able to fetch the RequestAvailable"},
        {"nothing waits", u"NONE", u"NO", empty, "NONE NO", "Sleep for 30 seconds", ""},
        {"lower case", u"NONE", u"no", "", "NONE NO", "File doesn't exist"},
        {"failed fetch", u"NONE", u"YES", nullptr, "NONE YES", "retVal of InternetDownloadFile is [13]"},
        {"left over", u"R &9", u"NO", empty, "NONE NO", "processing the request id R &9",
         "&action=DELETE_REQUEST&requestId=R%20%269 LIST "},
        {"cut", u"NONE", u"YES", cut, "NONE YES", "The request list was not served"},
        {"no array", u"NONE", u"YES", R"({"RequestList": {}})", "NONE YES", "is no array"},
        {"no list", u"NONE", u"YES", "{}", "NONE NO", "RequestList.txt has no RequestList"},
        {"three", u"NONE", u"YES", three, "NONE NO", "START_SERVICE are not built", notice + "3&moId=K1 ", 1},
        {"two", u"NONE", u"YES", two, "NONE NO", "AGENT_REQUEST_ID is no text", notice + "4&moId=K1,K2 ", 1},
        {"odd", u"NONE", u"YES", odd, "NONE NO", "DOWNLOAD_QUERYCONF request without the text AGENT_KEY is skipped"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        if (row.id) SetRequestID(row.id), SetRequestAvailable(row.available);
        RunRound(row.list);
        EXPECT_EQ(asked, row.asked);
        EXPECT_EQ(Registry(), row.after);
        EXPECT_NE(CountInRound(row.logged), 0);
        EXPECT_EQ(Reloads(), row.reloads);
        EXPECT_FALSE(std::filesystem::exists(conf / "download" / "RequestList.txt"));
    }
    EXPECT_EQ(downloadConnection, "keep-active") << "of a plan's download alone";
    SetRequestAvailable(u"YES");
    {
        const platform::ScopedOperations full(
            Failing(&platform::FileOperations::MoveFileExW, platform::error::diskFull));
        RunRound(empty);
    }
    EXPECT_EQ(Registry(), "NONE YES");
    EXPECT_EQ(CountInRound("file pointer is NULL"), 1);
    std::filesystem::remove_all(conf / "download");
    Write(conf / "download" / "RequestList.txt" / "in the way", "");
    SetRequestAvailable(u"YES");
    RunRound(empty);
    EXPECT_EQ(Registry(), "NONE NO") << "what stands in the way goes";
}

TEST_F(Requests, OneThatFailsCostsNoOtherAndOnlySlavesAreDeleted) {
    for (const char* agent : {"backup/S1", "slaves/S1", "slaves/S9", "slaves/k7"})
        Write(conf / agent / "queryconf.txt", "{}");
    std::string marked;
    platform::FileOperations files = platform::Files();
    files.DeleteFileW = [&, next = files.DeleteFileW](std::u16string_view path) {
        if (path.find(u"S9") == path.npos) return next(path);
        marked = Registry();
        throw std::runtime_error("out of order");
    };
    const platform::ScopedOperations<platform::FileOperations> scoped(files);
    RunRound(R"({"RequestList": [{"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S9", "AGENT_REQUEST_ID": "D9"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "k7"}, {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S2"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "../backup/S1"},
        {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S1"}]})");
    EXPECT_EQ(marked + ", " + Registry(), "D9 NO, NONE NO");
    EXPECT_EQ(FilesIn(conf / "slaves"), (Names{"S9", "k7"}));
    for (const char* kept : {"backup/S1", "slaves/k7"}) EXPECT_EQ(FilesIn(conf / kept), Names{"queryconf.txt"});
    EXPECT_EQ(Reloads(), 1);
    for (const char* line : {"ended early : out of order", "agentKey points to MasterAgent", "S1 names no slave"})
        EXPECT_EQ(CountInRound(line), 1) << line;
}

TEST_F(Requests, SnmpAnswersGoToTheServer) {
    agentState.gv_custID = u"Acme";
    agentState.gv_remoteOfficeName = u"Branch";
    const SnmpDaemon agent("sysName tower\nsysDescr a box\nsysObjectID .1.3.6.1.4.1.9");
    const std::string sysOid = Item(0x06, FromHex("2b 06 01 02 01 01 02 00")), oid = Item(0x06, FromHex("2b 06 09"));
    const std::string none = Item(0x30, sysOid + Item(0x80, ""));
    std::string versions;
    const ScriptedDevice old([&](std::string_view request) {
        versions += std::to_string(request.at(6));
        const std::vector<std::string> variables(3, Item(0x30, sysOid + oid));
        const std::string answer = MessageOf({.version = 0, .variables = variables});
        return versions.ends_with('0') ? std::vector{answer} : std::vector<std::string>();
    });
    const ScriptedDevice nameless([&](std::string_view) {
        return std::vector{MessageOf({.variables = {Item(0x30, sysOid + oid), none, none}})};
    });
    constexpr char discover[] = R"("REQUEST_TYPE": "DISCOVER_SNMP_DEVICES", "SNMP_TIMEOUT": "1", )";
    constexpr char gone[] = "NO RESPONSE", invalid[] = "INVALID IPADDRESS";
    const struct {
        const char *title, *device;
        int port;
        int silent;  // exchanges without an answer
        const char *version, *description, *name, *oid;
    } rows[] = {
        {"v2c", "localhost", agent.port(), 0, "v2", "a box", "tower", ".1.3.6.1.4.1.9"},
        {"v1 only", "localhost", old.port(), 1, "v1", ".1.3.6.9", ".1.3.6.9", ".1.3.6.9"},
        {"sysObjectID only", "localhost", nameless.port(), 0, "v2", gone, gone, ".1.3.6.9"},
        {"nobody there", "localhost", 9, 2, "v1", gone, gone, gone},
        {"unresolvable", "no.such.host.invalid", 9, 0, invalid, invalid, invalid, invalid},
    };
    int silent = 0, exchanges = 0;
    platform::SocketOperations sockets = platform::Sockets();
    sockets.select = [&, next = sockets.select](auto socket, auto microseconds, bool& ready) {
        ++exchanges;
        return silent-- > 0 ? platform::error::success : next(socket, microseconds, ready);
    };
    const platform::ScopedOperations scoped(sockets);
    const auto serve = [this](const std::string& request) {
        SetRequestAvailable(u"YES");
        RunRound((R"({"RequestList": [{)" + request + "}]}").c_str());
    };
    const std::string url = "/servlets/DataAgentHandlerServlet?agentKey=K7&action=";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        silent = row.silent;
        exchanges = 0;
        serve(fmt::format(R"({}"AGENT_REQUEST_ID": "D 1", "DEVICE_NAME": "{}", "SNMP_PORT": "{}")", discover,
                          row.device, row.port));
        const char* address = row.version == invalid ? row.device : "127.0.0.1";
        EXPECT_EQ(posted,
                  fmt::format(R"({}DISCOVER_SNMP_DEVICES&requestId=D%201
{{ "SNMPVersion": "{}", "SYSDESC": "{}", "SYSNAME": "{}", "SYSOID": "{}", "SNMPPort": "{}", "Community": "public", )"
                              R"("DNSName": "{}", "IPAddress": "{}", "RemoteOffice": "Branch", )"
                              R"("MSPCUSTOMERID": "Acme", "AGENT_REQUEST_ID": "D 1", "AGENTKEY": "K7" }})",
                              url, row.version, row.description, row.name, row.oid, row.port, row.device, address));
        EXPECT_EQ(exchanges, row.version == invalid ? 0 : row.version[1] == '1' ? 2 : 1);
    }
    EXPECT_EQ(versions, "10");
    serve(fmt::format(R"("REQUEST_TYPE": "SNMP_TEST_MONITOR", "AGENT_REQUEST_ID": "T1", "DEVICE_NAME": "127.0.0.1",
        "SNMP_PORT": {}, "OID": ".1.3.6.1.2.1.1.5.0", "PROTOCOL": "SPOLL", "POLL_ID": "3")",
                      agent.port()));
    EXPECT_EQ(posted, fmt::format(R"({}SNMP_TEST_MONITOR&requestId=T1
{{ "AGENT_REQUEST_ID": "T1", "PROTOCOL": "SPOLL", "MSPCUSTOMERID": "Acme", "ID": "3", "DATACOLLECTTIME": "{}", )"
                                  R"("STATUS": "SUCCESS", ".1.3.6.1.2.1.1.5.0": {{ ".1.3.6.1.2.1.1.5.0": "tower" }}, )"
                                  R"("TYPE": "4", "OID": ".1.3.6.1.2.1.1.5.0" }})",
                                  url, clock.nowSeconds() - 30));
    EXPECT_TRUE(FilesIn(data).empty());
}

}  // namespace kv::test
