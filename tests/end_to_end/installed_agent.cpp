#include "tests/end_to_end/installed_agent.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>

#include "agent/backends.h"
#include "foundation/file_utils.h"
#include "foundation/registry_store.h"
#include "lab/store/history.h"
#include "lab/store/store.h"
#include "platform/utf.h"
#include "tests/support/isolation.h"
#include "tests/support/test_agent.h"

namespace kv::test {

namespace fs = std::filesystem;

namespace {

std::u16string AgentKeyPath(std::u16string_view subKey) {
    return std::u16string(agentKeyPath) + std::u16string(subKey);
}

}  // namespace

std::optional<std::string> RunKvlab(const std::string& arguments, const std::string& database) {
    const ShellOutcome outcome = RunShell(KV_LAB_PROGRAM " " + arguments + " --database " + database);
    return outcome.exitCode == 0 ? std::optional(outcome.output) : std::nullopt;
}

std::string LastStatus(const std::string& database) {
    lab::Store store = lab::OpenStore(database);
    const std::vector<lab::Agent> agents = lab::Agents(store);
    return agents.empty() ? "unknown" : agents[0].status;
}

std::vector<std::string> AcceptedTexts(const std::string& database) {
    lab::Store store = lab::OpenStore(database);
    std::vector<std::string> texts;
    for (const lab::HistoryRecord& record : lab::ReadHistoryAfter(store, {}, 0, INT64_MAX))
        texts.push_back(lab::ReadContent(store, record.number)->text);
    std::sort(texts.begin(), texts.end());
    return texts;
}

InstalledAgent::InstalledAgent() {
    folder = MakeTemporaryFolder();
    monitoring = folder / "monitoring";
    data = monitoring / "bin" / "data";
    zipdata = monitoring / "bin" / "zipdata";
    state = folder / "state";
    database = folder / "lab.db";
    fs::create_directories(monitoring / "bin");
    fs::create_directories(monitoring / "conf" / "scripts");
    fs::create_directories(state);
    IsolateRegistry(state);
    InstallBackends();
    SetText(u"", u"KVAgentInstallDir", platform::WideFromUtf8(folder.string() + "/"));
    SetText(u"", u"CustomerName", u"Test customer");
    SetText(u"", u"RemoteOfficeName", u"Test office");
    SetText(u"\\ServerInfo", u"KVServerName", u"localhost");
    SetText(u"\\ServerInfo", u"KVServerFlatName", u"--");
    SetText(u"\\ServerInfo", u"KVServerIPAddress", u"127.0.0.1");
    SetText(u"\\ServerInfo", u"KVServerSecIPAddress", u"--");
    SetText(u"\\ServerInfo", u"KVLastAccessName", u"127.0.0.1");
    SetServer(1, u"http");
}

InstalledAgent::~InstalledAgent() {
    Kill();
    RemoveFolder(folder);
}

void InstalledAgent::SetText(std::u16string_view subKey, std::u16string_view name, std::u16string_view value,
                             platform::RegistryType type) const {
    if (writeValue(platform::RootKey::localMachine, AgentKeyPath(subKey), name, value, type) != 0)
        throw std::runtime_error("the registry of the test cannot be written");
}

void InstalledAgent::SetNumber(std::u16string_view subKey, std::u16string_view name, int value) const {
    SetText(subKey, name, DecimalText(value), platform::RegistryType::dword);
}

std::string InstalledAgent::ReadSetting(std::u16string_view subKey, std::u16string_view name) const {
    OptionalText value;
    if (ReadRegSZ(platform::RootKey::localMachine, AgentKeyPath(subKey), name, value) != platform::error::success)
        return {};
    return platform::Utf8FromWide(value.value_or(u""));
}

void InstalledAgent::SetServer(int port, std::u16string_view protocol) const {
    SetText(u"\\ServerInfo", u"KVServerSecurePort", DecimalText(port));
    SetText(u"\\ServerInfo", u"KVServerProtocol", protocol);
}

void InstalledAgent::WritePlan(std::string_view json) const {
    TestAgent::Write(monitoring / "conf" / "queryconf.txt", Utf16LittleEndianBytes(platform::WideFromUtf8(json)));
}

void InstalledAgent::WriteScript(std::string_view name, std::string_view body) const {
    const fs::path path = monitoring / "conf" / "scripts" / name;
    TestAgent::Write(path, "#!/bin/sh\n" + std::string(body) + "\n");
    fs::permissions(path, fs::perms::owner_all);
}

std::optional<std::string> InstalledAgent::RunKvlab(const std::string& arguments) const {
    return test::RunKvlab(arguments, database);
}

void MakeCertificate(const fs::path& folder, std::string& certificate, std::string& privateKey) {
    certificate = (folder / "certificate.pem").string();
    privateKey = (folder / "key.pem").string();
    const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=lab -keyout '" +
                                privateKey + "' -out '" + certificate + "' 2>/dev/null";
    if (RunShell(command).exitCode != 0) throw std::runtime_error("no certificate could be made");
}

void InstalledAgent::Start(std::initializer_list<const char*> arguments) {
    std::vector<char*> argv{const_cast<char*>(program)};
    for (const char* argument : arguments) argv.push_back(const_cast<char*>(argument));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int stream : {1, 2}) posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_WRONLY, 0);
    const int error = posix_spawn(&process_, program, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("the agent program cannot be started");
}

int InstalledAgent::Run(std::initializer_list<const char*> arguments) {
    Start(arguments);
    return Wait();
}

int InstalledAgent::Wait() {
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void InstalledAgent::Kill() {
    if (process_ == 0) return;
    ::kill(process_, SIGKILL);
    Wait();
}

std::string InstalledAgent::ReadLog() const { return TestAgent::Read(monitoring / "logs" / "agent.log"); }

void InstalledAgent::Pause(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

}  // namespace kv::test
