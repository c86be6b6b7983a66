// The agent's whole configuration and identity: one structure of process-wide fields. Their defaults stand here.
// LoadSettings (agent/server_details.h) fills them from the registry at the start, and once more when the agent has
// waited for another one to end; everyone reads them without a lock. A field that changes while threads run is an
// atomic, a published text, or belongs to one thread, as it says.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/hash_table.h"
#include "foundation/published_text.h"
#include "foundation/text.h"
#include "platform/service_host.h"
#include "platform/threads.h"

namespace kv {

/// The agent's name at the service manager, and towards its server.
inline constexpr std::u16string_view serviceName = u"Corvinel Monitoring Agent";

/// What the settings ask of the server's certificate; nothing where none of them is there.
struct ServerTrust {
    std::vector<std::string> pinnedKeys;             // each "sha256//" and Base64
    OptionalText caFile;                             // its path
    std::shared_ptr<const std::string> authorities;  // what it holds, PEM
    bool systemAuthorities = false;
    std::string refusal;  // which setting cannot be used and why (UTF-8): nothing may be sent then; else empty

    bool asksForCertificate() const { return !pinnedKeys.empty() || caFile || systemAuthorities || !refusal.empty(); }
};

struct AgentState {
    // Where the agent lives.
    OptionalText gv_ocAgentBinPath;  // install directory + "monitoring\bin\"; ends in a backslash when set

    // The central server.
    OptionalText gv_ServerName;
    OptionalText gv_ServerFlatName;
    OptionalText gv_ServerIPAddress;
    OptionalText gv_ServerSecIPAddress;
    std::int32_t gv_ServerPort = 0;   // secure port
    PublishedText gv_LastAccessName;  // the address that last worked
    std::int32_t gv_httpsEnabled = 1;
    std::int32_t gv_httpTimeout = 30000;  // milliseconds
    ServerTrust gv_serverTrust;
    std::mutex gv_certificatesMutex;                     // guards what follows
    std::map<std::string, std::string> gv_certificates;  // that the log tells of: SHA-256 of the last of "host:port"

    // Identity.
    OptionalText gv_custID;
    OptionalText gv_remoteOfficeName;
    PublishedText gv_agentKey{u"NULL"};
    OptionalText gv_agentID;   // local computer name
    OptionalText gv_agentDNS;  // fully qualified name
    OptionalText gv_localIPAddress;
    OptionalText gv_kvAgentResourceID;
    OptionalText gv_masterAgent = u"NO";  // "YES" in any case: this agent serves slaves
    PublishedText gv_SNMPTimeout{u"5"};   // seconds, as text; the server may replace it

    // Intervals and limits.
    std::int32_t gv_configInterval = 30;   // request poll, seconds
    std::int32_t gv_writeInterval = 300;   // zip and upload, seconds
    std::int32_t gv_MaxFilesInDir = 15;    // carried and logged, never acted on
    std::int32_t gv_MaxFilestobeSend = 1;  // carried and logged, never acted on
    std::int32_t gv_SysInfoInterval = 45;  // carried and logged, never acted on
    std::int32_t gv_DataCollTmout = 360;   // minutes of lost contact before collection stops

    // Proxy.
    OptionalText gv_proxyEnabled;  // "yes" in any case: in use
    OptionalText gv_proxyServerName;
    OptionalText gv_proxyUserName;
    OptionalText gv_proxyPassword;                    // clear text
    OptionalText gv_proxyExceptionAddr = u"<local>";  // bypass list

    // The plan. The main thread fills it, then the thread that serves requests replaces it.
    HashTable* gv_queryConfHash = nullptr;   // merged configuration, owned
    Vector* gv_sortVec = nullptr;            // all workflow entries in schedule order, replaced while there are no
                                             // timers; refers, does not own
    std::int32_t gv_loadqueryconf = 0;       // 1 once the files have been read
    bool gv_queryConfReloadPending = false;  // the request list at hand brought a plan; of the polling thread alone

    // The agent as a service.
    bool gv_isWin2k = false;       // the system offers no session-change control
    PublishedText gv_agentStatus;  // "AGENT_DOWN" or "DEVICE_DOWN", once the end has begun
    platform::EventHandle gv_stopEvent = 0;
    platform::ServiceStatusHandle gv_serviceStatusHandle = 0;

    /// InvokeMainThread has been started: from then on other threads read the fields above until the process ends; but
    /// none reads a setting while it waits for another agent (WaitsForDirectory).
    std::atomic<bool> gv_isMainThreadStarted{false};

    // What changes while the agent runs.
    // An accepted upload sets the time of the first failed one back to 0 only if collection was stopped.
    std::atomic<std::int32_t> gv_collectData{1};        // 1 while collection runs
    std::atomic<std::int64_t> gv_CSContactLostTime{0};  // first failed upload, seconds since 1970; else 0
    /// Zips in the queue whose upload failed. True: another zip was accepted since then, or earlier in the same pass.
    /// Of the upload thread alone.
    std::map<std::u16string, bool> gv_failedZips;
    std::int64_t gv_clockLead = 0;  // what the clock was ahead of the tick count, seconds; of the upload thread alone
    std::atomic<std::int32_t> gv_timeDiff{0};       // server time minus ours, seconds
    std::atomic<std::uint16_t> gv_agentRunFlag{1};  // 1: go on after enrolment
    std::atomic<std::uint32_t> gv_ocLastCreatedJSONNum{0};
    std::atomic<std::uint32_t> gv_ocLastCreatedZIPNum{0};
};

/// The one state of this process.
extern AgentState agentState;

}  // namespace kv
