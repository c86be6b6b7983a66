// How the agent of this computer is, gathered from outside: from its settings, its files and the service manager.
// Nothing is opened for writing, and nothing is guessed: what may not be read is named.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/health_file.h"
#include "exchange/waiting_files.h"

namespace kv::control {

struct PlanFacts {
    std::string file;              // as this system names it
    std::string failure;           // why it cannot be used as it should; empty when it can
    bool isAbsent = false;         // and no slave has one, either
    std::int64_t time = 0;         // when it was written, seconds since 1970
    std::uint64_t workflows = 0;   // in all its lists
    std::uint64_t runnable = 0;    // those of them that the agent does not leave out
    std::uint64_t records = 0;     // of these
    std::string otherLists;        // names of lists beside WorkFlows that run, with commas between
    std::int64_t refusedTime = 0;  // of the last new plan that was refused; 0 without one
    std::string refusedFile;
};

/// Times are seconds since 1970, 0 for never. Texts are UTF-8.
struct AgentFacts {
    std::int64_t now = 0;
    std::string registryFailure;  // why the settings cannot be read; empty when they can
    std::string binPath;          // as this system names it; empty when it is not known
    std::string key;              // empty before the first registration
    std::string server;           // as "https://cs:8443"; empty without one
    std::vector<std::string> missingSettings;
    std::vector<std::string> faultySettings;  // needed ones that are not texts, each with what is wrong
    bool isInstallLost = false;               // what KVAgentInstallDir names does not exist
    bool isBinLost = false;                   // it does, but has no directory "monitoring/bin"

    /// Whether there is a place to look at for all that follows.
    bool hasPlace() const { return !binPath.empty() && !isInstallLost; }

    std::string service;  // its state at the service manager, or why that is not known
    bool isRunning = false;
    std::string process;        // what is known of the process, in words
    std::string nativeInstall;  // what KVAgentInstallDir names

    std::optional<HealthSnapshot> health;  // absent when no agent has written it, or it cannot be read
    std::string healthFailure;             // why it cannot be read; empty when it is absent

    PlanFacts plan;
    WaitingFiles records;
    std::int64_t packingPeriod = 300;  // seconds; a record waits for so long without being overdue
    WaitingFiles zips;
    std::optional<std::uint64_t> freeBytes;  // where the queue lies
    platform::Error diskError = platform::error::success;
};

/// Throws std::bad_alloc.
AgentFacts GatherFacts();

}  // namespace kv::control
