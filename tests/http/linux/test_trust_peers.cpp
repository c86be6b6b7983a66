// Agents with settings of trust against servers of all kinds: which of them get a request, and what the log says. The
// agent is a child process, so that one of Windows can be tried under Wine: `./test --windows` names it in
// KV_TRUST_CLIENT.
#include <csignal>
#include <gmock/gmock.h>

#include "tests/http/http_peers.h"
#include "tests/http/linux/tls_peers.h"
#include "tests/support/linux/shell.h"
#include "tests/support/test_folder.h"

namespace kv::test {

namespace {

class TrustPeers : public TestFolder {
  protected:
    TrustPeers() {
        std::signal(SIGPIPE, SIG_IGN);  // the servers write to whoever has hung up
        Write(folder / "ca.pem", "An authority:\n" + PemText(authority));
        Write(folder / "other.pem", PemText(other));
    }

    /// What an agent that starts with these settings prints.
    std::string RunClient(const std::string& server, const std::vector<std::string>& settings) const {
        const char* client = std::getenv("KV_TRUST_CLIENT");
        std::string command = std::string(client ? client : KV_TRUST_CLIENT) + " " + server;
        for (const std::string& setting : settings) command += " '" + setting + "'";
        command = "timeout -k 5 60 " + command + " </dev/null 2>&1";
        const std::string printed = RunShell(command).output;
        // The client always prints something; rarely Wine ends before it has started a program.
        return printed.empty() && client ? RunShell(command).output : printed;
    }
    /// The setting for a file of this folder, by the name that the client knows it by.
    std::string CAFile(const char* name) const {
        return std::string("KVServerCAFile=") + (std::getenv("KV_TRUST_CLIENT") ? "Z:" : "") + (folder / name).string();
    }

    const Key key = NewKey();
    const Identity authority = Issue(NewKey(), {"An authority", ""});
    const Identity other = Issue(NewKey(), {"An authority", ""});  // of the same name
};

TEST_F(TrustPeers, NothingGoesOutToAServerThatIsNotTrusted) {
    const Identity issued = Issue(key, {}, &authority);
    const Identity reissued = Issue(key, {}, &other);
    const Identity rekeyed = Issue(NewKey(), {}, &authority);
    const Identity named = Issue(key, {"cs", "DNS:localhost"}, &authority);
    const Identity faulty = Issue(key, {"elsewhere", "IP:192.0.2.1", -3, -2});
    const Identity below = Issue(NewKey(), {"below", ""}, &authority);
    Identity chained = Issue(key, {}, &below);
    chained.between = below.certificate;
    const std::string pin = "KVServerPinnedKey=" + KeyPin(issued);
    const std::string pins = "KVServerPinnedKey=" + KeyPin(authority) + " ; " + KeyPin(issued) + ";";
    const std::string file = CAFile("ca.pem");
    const std::string otherFile = CAFile("other.pem");
    const char* stranger = "unable to get local issuer certificate|not come from a trusted authority";
    const struct {
        const char* title;
        Identity shown;
        std::vector<std::string> settings;
        const char* logged;
        bool goesOut;
        const char* host = "127.0.0.1";
    } rows[] = {
        {"verify is no", faulty, {"KVServerVerify=No"}, "; not verified", true},
        {"the pinned key in a faulty certificate", faulty, {pin}, "; verified by its pinned key", true},
        {"one of two pinned keys, issued again", reissued, {pins}, "; verified by its pinned key", true},
        {"another key, from the right authority", rekeyed, {pin}, "not the pinned one. Expected: key", false},
        {"from an authority of the file", issued, {file}, "; verified by the CA file", true},
        {"from one below it", chained, {file}, "; verified by the CA file", true},
        {"by name", named, {file}, "; verified by the CA file", true, "localhost"},
        {"for a name, asked by address", named, {file}, "it is for localhost, not for 127.0.0.1", false},
        {"expired", Issue(key, {"cs", "IP:127.0.0.1", -3, -2}, &authority), {file}, "has expired", false},
        {"not valid yet", Issue(key, {"cs", "IP:127.0.0.1", 2, 3}, &authority), {file}, "not yet valid", false},
        {"signed by itself", Issue(key, {}), {file}, "self-signed|not come from a trusted authority", false},
        {"from another authority", issued, {otherFile}, "Expected: issued by an authority of .*other.pem", false},
        {"pinned, and from another authority", issued, {pin, otherFile}, stranger, false},
        {"pinned and from the authority", issued, {pin, file}, "verified by its pinned key and the CA file", true},
        {"unknown to the system", issued, {"KVServerVerify=YES"}, stranger, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        TlsServer server(row.shown);
        const std::string printed = RunClient(row.host + (":" + std::to_string(server.port)), row.settings);
        EXPECT_TRUE(server.HasServed(2));
        EXPECT_THAT(printed, testing::HasSubstr(row.goesOut ? "results 0 0" : "results 12175 12175"));
        EXPECT_THAT(printed, testing::ContainsRegex(row.logged));
        EXPECT_EQ(printed.find("and nothing was sent to it") == printed.npos, row.goesOut);
        EXPECT_EQ(server.decrypted > 0, row.goesOut) << server.decrypted;
    }
}

}  // namespace

}  // namespace kv::test
