// A real agent program in an install tree of its own.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/registry.h"
#include "tests/support/linux/shell.h"

namespace kv::test {

/// A self-signed certificate and its key, as PEM files in the folder.
void MakeCertificate(const std::filesystem::path& folder, std::string& certificate, std::string& privateKey);

/// What a kvlab command about the database prints; nullopt if it fails.
std::optional<std::string> Kvlab(const std::string& arguments, const std::string& database);

/// The agent's last word to the lab with this database; "unknown" before its first.
std::string LastWord(const std::string& database);

/// The texts of the records that the lab has, sorted.
std::vector<std::string> AcceptedTexts(const std::string& database);

/// Makes an install tree and a state directory in a temporary folder, with every required setting pointing to a server
/// on this machine's loopback. Kills what still runs and removes the folder at its end.
class InstalledAgent {
  public:
    InstalledAgent();
    ~InstalledAgent();
    InstalledAgent(const InstalledAgent&) = delete;
    InstalledAgent& operator=(const InstalledAgent&) = delete;

    std::filesystem::path folder;
    std::filesystem::path monitoring;  // <folder>/monitoring
    std::filesystem::path data;        // record files
    std::filesystem::path zipdata;     // waiting zips
    std::filesystem::path state;       // registry.db and drive_c
    std::string database;              // of the lab, where there is one

    /// Settings, by the last part of their key: "" for the agent's own, "\ServerInfo" and so on.
    void setText(std::u16string_view subKey, std::u16string_view name, std::u16string_view value,
                 platform::RegistryType type = platform::RegistryType::text) const;
    void setNumber(std::u16string_view subKey, std::u16string_view name, int value) const;
    std::string text(std::u16string_view subKey, std::u16string_view name) const;
    void setServer(int port, std::u16string_view protocol) const;

    /// Writes the plan, given as UTF-8 JSON, and an executable script.
    void writePlan(std::string_view json) const;
    void writeScript(std::string_view name, std::string_view body) const;

    std::optional<std::string> kvlab(const std::string& arguments) const;

    /// What start starts.
    const char* program = KV_AGENT_PROGRAM;

    /// Starts the program; its output is dropped.
    void start(std::initializer_list<const char*> arguments);
    /// Starts it and waits for its end: the exit code, or 128 and the signal.
    int run(std::initializer_list<const char*> arguments);
    bool running();
    /// SIGKILL, and waits until it is gone.
    void kill();

    std::string log() const;

    /// Waits for a condition, asked every 10 milliseconds; false when it did not come true in the time.
    template <class Condition>
    static bool eventually(Condition condition, int milliseconds = 60000) {
        for (int waited = 0; waited < milliseconds; waited += 10) {
            if (condition()) return true;
            pause(10);
        }
        return condition();
    }
    static void pause(int milliseconds);

  private:
    int wait();
    pid_t process_ = 0;
};

}  // namespace kv::test
