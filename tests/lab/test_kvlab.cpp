// kvlab, run as its users run it.
#include <gmock/gmock.h>
#include <signal.h>

#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

TEST_F(Kvlab, ExitCodesAndWords) {
    Store store = OpenStore(database);
    NoteContact(store, "K1", "");
    const std::string on = " --database '" + database + "'";
    std::ofstream(folder / "plan") << "{ \"WorkFlows\": 1 }";
    struct Row {
        std::string words;
        int exitCode;
        const char* text;
    };
    const std::vector<Row> rows{
        {"--help", 0, "usage: kvlab serve"},
        {"fault clear" + on, 0, ""},
        {"request add --agent K1 --type T --set =x" + on, 2, "NAME=VALUE"},
        {"request add --agent K1 --type T --set REQUEST_TYPE=x" + on, 2, "--type"},
        {"request add --agent K9 --type T" + on, 3, "K9"},
        {"conf push K1 " + std::string(folder / "absent.json") + on, 3, "absent.json"},
        {"conf push --no-flag K1 " + std::string(folder / "plan") + on, 1, "WorkFlows"},
        {"records --all" + on, 2, "unknown option '--all'"},
        {"serve --port 65536" + on, 2, "'65536'"},
        {"fault set --servlet Nothing --drop" + on, 2, "FileCollector"},
        {"fault set --servlet '*' --drop --cut" + on, 2, "exactly one"},
        {"agents --database " + std::string(folder / "absent.db"), 3, "there is no database"},
        {"agents --database " KVLAB_PROGRAM, 1, "database"},
        {"serve --listen 192.0.2.1" + on, 1, "cannot listen on 192.0.2.1"},
        {"serve --tls no.pem no.key" + on, 1, "no.pem"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.words);
        Program program = Run(row.words);
        const std::string output = program.Output();
        EXPECT_EQ(program.ExitCode(), row.exitCode);
        EXPECT_THAT(row.exitCode == 0 ? output : Errors(), HasSubstr(row.text));
        const std::string lines = Errors();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), row.exitCode == 0 ? 0 : 1) << lines;
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "absent.db"));
}

TEST_F(Kvlab, AServerAndTheCommandsBesideIt) {
    Program server("serve --port 0 --database '" + database + "' 2>&1");
    const std::string address = server.Line();
    ASSERT_THAT(address, MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/"));
    const int port = std::stoi(address.substr(address.rfind(':') + 1));
    Program second = RunOnDatabase("serve --port " + std::to_string(port));
    EXPECT_EQ(second.ExitCode(), 1) << "the port is taken";

    httplib::Client client("127.0.0.1", port);
    Program set = RunOnDatabase("fault set --servlet FileCollector --status 503");
    EXPECT_EQ(set.Output(), "1\n");
    EXPECT_EQ(RunOnDatabase("fault list").Output(), "1\tFileCollector\tstatus 503\t1\n");
    const std::string zip = ZipOf({{"data/Agent_K1_2.txt", WideBytes("{ \"a\":\n \"b\\/c\" }")}});
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 503);
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 200);
    EXPECT_EQ(RunOnDatabase("fault list").Output(), "");
    EXPECT_THAT(RunOnDatabase("records --agent K1").Output(),
                MatchesRegex("1\tK1\tAgent_K1_1\\.zip\tAgent_K1_2\\.txt\t[-0-9]+ [:0-9]+Z\t\\{\"a\":\"b/c\"\\}\n"));
    EXPECT_THAT(RunOnDatabase("agents").Output(), HasSubstr("K1\t\t\t127.0.0.1\t"));
    Program follow = RunOnDatabase("records --follow");
    EXPECT_THAT(follow.Line(), HasSubstr("\tAgent_K1_2.txt\t"));
    Upload(client, "AGENTKEY=K1&FILENAME=2", ZipOf({{"second", WideBytes("\"\x1b[31m\u009B\"")}}));
    const std::string line = follow.Line();
    EXPECT_THAT(line, HasSubstr("\tsecond\t"));
    EXPECT_EQ(line.find_first_of("\x1b\xC2"), std::string::npos) << "nothing steers the terminal";

    server.Signal(SIGTERM);
    EXPECT_EQ(server.Output(), "") << "nothing on standard error either";
    EXPECT_EQ(server.ExitCode(), 0);
}

TEST_F(Kvlab, ServesOverTls) {
    const std::string certificate = folder / "cert.pem";
    const std::string key = folder / "key.pem";
    const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -keyout '" + key +
                             "' -out '" + certificate + "' 2>/dev/null";
    ASSERT_EQ(std::system(make.c_str()), 0);
    Program server = RunOnDatabase("serve --tls '" + certificate + "' '" + key + "'");
    const std::string address = server.Line();
    ASSERT_THAT(address, HasSubstr("https://127.0.0.1:"));
    httplib::Client client(address.substr(0, address.size() - 1));
    client.enable_server_certificate_verification(false);
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=a", ZipOf({{"a", WideBytes("1")}}))->status, 200);
    Store store = OpenStore(database);
    AddFault(store, {0, "*", FaultKind::drop, 0, 1});
    EXPECT_FALSE(Upload(client, "AGENTKEY=K1&FILENAME=b", ZipOf({{"b", WideBytes("2")}})));
    EXPECT_EQ(StoredRecords(store), std::vector<std::string>{"a 1"});
}

}  // namespace

}  // namespace kv::lab::test
