// kvlab, run as its users run it.
#include <array>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using Words = std::vector<std::string>;

/// The program, its standard output and error readable here; killed at the end of its life if it is still running.
class Program {
  public:
    explicit Program(Words words) {
        words.insert(words.begin(), KVLAB_PROGRAM);
        std::vector<char*> arguments;
        for (std::string& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        std::array<int, 2> out{};
        std::array<int, 2> err{};
        if (pipe(out.data()) != 0 || pipe(err.data()) != 0) throw std::runtime_error("no pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            for (const int end : {out[0], out[1], err[0], err[1]}) close(end);
            execv(KVLAB_PROGRAM, arguments.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        output_.reset(fdopen(out[0], "r"));
        errors_.reset(fdopen(err[0], "r"));
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (pid_ > 0) kill(pid_, SIGKILL);
        ExitCode();
    }

    std::string Line() { return ReadLine(output_.get()); }
    std::string Output() { return ReadAll(output_.get()); }
    std::string Errors() { return ReadAll(errors_.get()); }
    void Signal(int number) const { kill(pid_, number); }
    int ExitCode() {
        if (pid_ <= 0) return exitCode_;
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    struct Closer {
        void operator()(FILE* file) const { fclose(file); }
    };
    static std::string ReadLine(FILE* file) {
        std::string line;
        for (int c = fgetc(file); c != EOF && c != '\n'; c = fgetc(file)) line += static_cast<char>(c);
        return line;
    }
    static std::string ReadAll(FILE* file) {
        std::string text;
        for (int c = fgetc(file); c != EOF; c = fgetc(file)) text += static_cast<char>(c);
        return text;
    }

    pid_t pid_ = 0;
    int exitCode_ = -1;
    std::unique_ptr<FILE, Closer> output_;
    std::unique_ptr<FILE, Closer> errors_;
};

class Kvlab : public LabFolder {
  protected:
    /// A command on this test's database.
    Words With(Words words) const {
        words.insert(words.end(), {"--database", database});
        return words;
    }

    void UploadRecord(const std::string& name, const std::string& text) const {
        Store store = OpenStore(database);
        NoteContact(store, "K1", "127.0.0.1");
        StoreDelivery(store, "K1", name + ".zip", [&](const RecordSink& sink) { sink({"data/" + name, text, true}); });
    }
};

TEST_F(Kvlab, ExitCodesAndWords) {
    const Store store = OpenStore(database);
    const Words absent{"--database", folder / "absent.db"};
    struct Row {
        const char* title;
        Words words;
        int exitCode;
        const char* text;
    };
    const std::vector<Row> rows{
        {"help", {"--help"}, 0, "usage: kvlab serve"},
        {"help for a command", {"records", "--help"}, 0, "--follow"},
        {"help for a group", {"fault", "--help"}, 0, "kvlab fault list"},
        {"nothing", {}, 2, "a command is missing"},
        {"unknown command", {"request", "add"}, 2, "unknown command 'request'"},
        {"half a command", {"fault"}, 2, "fault needs set, clear or list"},
        {"unknown option", With({"records", "--all"}), 2, "unknown option '--all'"},
        {"stray word", With({"agents", "K1"}), 2, "unknown option 'K1'"},
        {"no value", {"records", "--database"}, 2, "--database needs a value"},
        {"one of two values", {"serve", "--tls", "cert.pem"}, 2, "--tls needs two values"},
        {"no database", {"agents"}, 2, "--database is missing"},
        {"port too large", With({"serve", "--port", "65536"}), 2, "'65536'"},
        {"port with a letter", With({"serve", "--port", "80a"}), 2, "'80a'"},
        {"unknown servlet", With({"fault", "set", "--servlet", "Nothing", "--drop"}), 2, "FileCollector"},
        {"two kinds of fault", With({"fault", "set", "--servlet", "*", "--drop", "--cut"}), 2, "exactly one"},
        {"no kind of fault", With({"fault", "set", "--servlet", "*"}), 2, "exactly one"},
        {"status out of range", With({"fault", "set", "--servlet", "*", "--status", "99"}), 2, "'99'"},
        {"missing database", {"agents", absent[0], absent[1]}, 3, "there is no database"},
        {"unknown agent", With({"records", "--agent", "K9"}), 3, "K9"},
        {"unknown fault", With({"fault", "clear", "--number", "7"}), 3, "no such fault"},
        {"not a database", {"agents", "--database", KVLAB_PROGRAM}, 1, "database"},
        {"no such address", With({"serve", "--listen", "192.0.2.1"}), 1, "cannot listen on 192.0.2.1"},
        {"no such certificate", With({"serve", "--tls", "no.pem", "no.key"}), 1, "no.pem"},
        {"no records yet", With({"records"}), 0, ""},
        {"all faults, none there", With({"fault", "clear"}), 0, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        Program program(row.words);
        const std::string output = program.Output();
        const std::string errors = program.Errors();
        EXPECT_EQ(program.ExitCode(), row.exitCode);
        EXPECT_THAT(row.exitCode == 0 ? output : errors, HasSubstr(row.text));
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), row.exitCode == 0 ? 0 : 1) << errors;
    }
    EXPECT_FALSE(std::filesystem::exists(absent[1]));
}

TEST_F(Kvlab, AServerAndTheCommandsBesideIt) {
    Program server(With({"serve", "--port", "0"}));
    const std::string address = server.Line();
    ASSERT_THAT(address, MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/"));
    const int port = std::stoi(address.substr(address.rfind(':') + 1));
    Program second(With({"serve", "--port", std::to_string(port)}));
    EXPECT_EQ(second.ExitCode(), 1) << "the port is taken";

    httplib::Client client("127.0.0.1", port);
    Program set(With({"fault", "set", "--servlet", "FileCollector", "--status", "503"}));
    EXPECT_EQ(set.Output(), "1\n");
    EXPECT_EQ(Program(With({"fault", "list"})).Output(), "1\tFileCollector\tstatus 503\t1\n");
    const std::string zip = ZipOf({{"data/Agent_K1_2.txt", WideBytes("{ \"a\":\n \"b\\/c\" }")}});
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 503);
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 200);
    EXPECT_EQ(Program(With({"fault", "list"})).Output(), "");
    EXPECT_THAT(Program(With({"records", "--agent", "K1"})).Output(),
                MatchesRegex("1\tK1\tAgent_K1_1\\.zip\tAgent_K1_2\\.txt\t[-0-9]+ [:0-9]+Z\t\\{\"a\":\"b/c\"\\}\n"));
    EXPECT_THAT(Program(With({"agents"})).Output(), HasSubstr("K1\t\t\t127.0.0.1\t"));

    server.Signal(SIGTERM);
    EXPECT_EQ(server.ExitCode(), 0);
    EXPECT_EQ(server.Errors(), "");
}

TEST_F(Kvlab, RecordsAreFollowed) {
    UploadRecord("first", "1");
    Program follow(With({"records", "--follow"}));
    EXPECT_THAT(follow.Line(), HasSubstr("\tfirst\t"));
    UploadRecord("second", "\"\x1b[31m\u009B\"");
    const std::string line = follow.Line();
    EXPECT_THAT(line, HasSubstr("\tsecond\t"));
    EXPECT_EQ(line.find_first_of("\x1b\xC2"), std::string::npos) << "nothing steers the terminal";
}

TEST_F(Kvlab, ServesOverTls) {
    const std::string certificate = folder / "cert.pem";
    const std::string key = folder / "key.pem";
    const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -keyout '" + key +
                             "' -out '" + certificate + "' 2>/dev/null";
    ASSERT_EQ(std::system(make.c_str()), 0);
    Program server(With({"serve", "--tls", certificate, key}));
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
