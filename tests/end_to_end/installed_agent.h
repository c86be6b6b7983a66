// The real agent program in a temporary install tree.
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

/// Makes a self-signed certificate and its key, as PEM files in the folder.
void MakeCertificate(const std::filesystem::path& folder, std::string& certificate, std::string& privateKey);

/// Runs a kvlab command on the database; what it prints, or nullopt if it fails.
std::optional<std::string> RunKvlab(const std::string& arguments, const std::string& database);

/// The last status that the agent told the lab with this database; "unknown" before it enrols.
std::string LastStatus(const std::string& database);

/// The texts of the lab's records, sorted.
std::vector<std::string> AcceptedTexts(const std::string& database);

/// Makes an install tree and a state directory in a temporary folder, with all required settings and a server on this
/// machine's loopback. At its end, kills a program that still runs and removes the folder.
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
    std::string database;              // of the lab, if there is one

    /// Settings below the agent's key: subKey is empty, "\ServerInfo" and so on.
    void SetText(std::u16string_view subKey, std::u16string_view name, std::u16string_view value,
                 platform::RegistryType type = platform::RegistryType::text) const;
    void SetNumber(std::u16string_view subKey, std::u16string_view name, int value) const;
    std::string ReadSetting(std::u16string_view subKey, std::u16string_view name) const;
    void SetServer(int port, std::u16string_view protocol) const;

    /// Writes the plan (JSON in UTF-8), or an executable script.
    void WritePlan(std::string_view json) const;
    void WriteScript(std::string_view name, std::string_view body) const;

    std::optional<std::string> RunKvlab(const std::string& arguments) const;

    /// The program that Start runs.
    const char* program = KV_AGENT_PROGRAM;

    /// Starts the program and drops its output.
    void Start(std::initializer_list<const char*> arguments);
    /// Starts it and waits for its end; the exit code, or 128 plus the signal.
    int Run(std::initializer_list<const char*> arguments);
    /// Sends SIGKILL and waits for the end.
    void Kill();

    std::string ReadLog() const;

    /// Checks a condition every 10 milliseconds; false if it does not become true in time.
    template <class Condition>
    static bool Eventually(Condition condition, int milliseconds = 60000) {
        for (int waited = 0; waited < milliseconds; waited += 10) {
            if (condition()) return true;
            Pause(10);
        }
        return condition();
    }
    static void Pause(int milliseconds);

  private:
    int Wait();
    pid_t process_ = 0;
};

}  // namespace kv::test
