// ICMP echoes to several hosts at once, as ping(8) sends them: one to each.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kv::facts {

/// No wait for a lookup or for an answer is longer, so that both end before the query that asks gives up.
constexpr std::chrono::milliseconds longestEchoWait{14'000};

/// The most that a datagram can carry.
constexpr std::uint32_t mostEchoBytes = 65'500;

struct EchoRequest {
    std::string host;                         // name or address, of IPv4 or IPv6
    std::chrono::milliseconds timeout{1000};  // for the lookup of the name, and again for the answer
    std::uint32_t bytes = 32;
    std::uint32_t timeToLive = 80;
    std::uint32_t typeOfService = 0;
    bool mayFragment = true;
    bool wantsName = false;  // of what answers; looked up within the timeout, too

    bool operator==(const EchoRequest&) const = default;
};

enum class EchoOutcome {
    answered,
    timedOut,
    networkUnreachable,
    hostUnreachable,
    protocolUnreachable,
    portUnreachable,
    tooBig,           // to be sent whole
    transitExpired,   // the time to live was over before it arrived
    assemblyExpired,  // parts of it did not arrive in time
    headerRefused,
    slowDown,      // an old router's word for: too many packets
    badOption,     // a time to live or type of service that does not exist
    notPermitted,  // this process may not send echoes
    failed,
};

struct EchoReply {
    int lookupError = 0;                 // of getaddrinfo(3); EAI_AGAIN if the time was over
    std::optional<EchoOutcome> outcome;  // absent if the name could not be looked up
    std::string from;                    // the address of who answered or refused; empty if nobody did
    std::string name;                    // its name, if wanted and known
    std::chrono::milliseconds time{0};   // until the answer, as are those that follow
    std::uint32_t bytes = 0;
    std::uint32_t timeToLive = 0;
    bool isChanged = false;  // the answer does not carry what was sent
};

/// Sends all at once, and returns when each is answered or its time is over. One reply for each request, in their
/// order. At most as many as a process may have open files; any thread may ask. A lookup that does not end in time goes
/// on on a thread of its own; while too many of them are under way, further ones fail at once.
std::vector<EchoReply> SendEchoes(const std::vector<EchoRequest>& requests);

/// The outcome that an ICMP message of an IPv4 or IPv6 router reports.
EchoOutcome OutcomeOfMessage(bool isVersion4, std::uint8_t type, std::uint8_t code);

}  // namespace kv::facts
