// An agent that starts with settings of trust, makes one GET and one POST, and prints their results and
// its log. For tests whose servers are on another system than the agent.
// Usage: trust_client HOST:PORT [VALUE=DATA...]    the values are those of the key ServerInfo
#include <cstdio>
#include <string>
#include <vector>

#include "agent/server_trust.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "platform/utf.h"
#include "tests/http/http_peers.h"

namespace kv::test {

namespace {

struct TrustClient : HttpTest {
    void TestBody() override {}

    void Run(const std::string& server, const std::vector<std::string>& settings) {
        for (const std::string& setting : settings) {
            const std::size_t end = setting.find('=');
            writeValue(platform::RootKey::localMachine, serverInfoKeyPath,
                       platform::WideFromUtf8(setting.substr(0, end)), platform::WideFromUtf8(setting.substr(end + 1)),
                       platform::RegistryType::text);
        }
        logState.gv_logLevel = 1;
        getServerTrust();
        const std::size_t colon = server.find(':');
        const int port = std::stoi(server.substr(colon + 1));
        agentState.gv_LastAccessName.Publish(platform::WideFromUtf8(server.substr(0, colon)));
        agentState.gv_httpsEnabled = 1;
        const std::string body = "a record";
        const platform::Error got = Get(port, u"/x");
        const platform::Error posted = Post(port, u"/x", body, body.size());
        std::printf("results %u %u\n%s\n", got, posted, LogText().c_str());
    }
};

}  // namespace

}  // namespace kv::test

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    kv::test::TrustClient().Run(argv[1], {argv + 2, argv + argc});
}
