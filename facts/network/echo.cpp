#include "facts/network/echo.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <linux/errqueue.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "facts/network/name_lookup.h"
#include "platform/linux/descriptor.h"

namespace kv::facts {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Address = SocketAddress;
using Lookup = NameLookup;
using LookupThread = NameLookupThread;

milliseconds WaitOf(const EchoRequest& request) { return std::min(request.timeout, longestEchoWait); }

std::vector<Lookup> LookUpHosts(const std::vector<EchoRequest>& requests) {
    const Clock::time_point start = Clock::now();
    std::vector<std::function<Lookup(Clock::time_point)>> waits;
    for (const EchoRequest& request : requests) {
        Lookup numeric = LookUpAddress(request.host, AI_NUMERICHOST);
        if (numeric.error == 0) {
            waits.emplace_back([numeric](Clock::time_point) { return numeric; });
            continue;
        }
        waits.emplace_back([thread = LookupThread([host = request.host] { return LookUpAddress(host, 0); })](
                               Clock::time_point until) { return thread.Wait(until); });
    }
    std::vector<Lookup> lookups;
    for (std::size_t at = 0; at < requests.size(); ++at) lookups.push_back(waits[at](start + WaitOf(requests[at])));
    return lookups;
}

// Messages.

/// Both protocols' messages begin alike, in network order but for the id, which only the sender reads.
struct EchoHeader {
    std::uint8_t type = 0;
    std::uint8_t code = 0;
    std::uint16_t checksum = 0;
    std::uint16_t id = 0;
    std::uint16_t sequence = 0;
};
static_assert(sizeof(EchoHeader) == 8);

/// The checksum of RFC 1071, of an even number of bytes or with a zero after an odd one.
std::uint16_t ChecksumOf(std::string_view bytes) {
    std::uint32_t sum = 0;
    for (std::size_t at = 0; at < bytes.size(); at += 2) {
        std::uint16_t word = 0;
        std::memcpy(&word, bytes.data() + at, std::min<std::size_t>(2, bytes.size() - at));
        sum += word;
    }
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

std::string LoadOf(std::size_t size) {
    constexpr std::size_t letters = 26;
    std::string load(size, '\0');
    for (std::size_t at = 0; at < size; ++at) load[at] = static_cast<char>('a' + at % letters);
    return load;
}

std::string MessageOf(EchoHeader header, std::string_view load) {
    std::string message(sizeof(header), '\0');
    message += load;
    std::memcpy(message.data(), &header, sizeof(header));
    header.checksum = ChecksumOf(message);  // of IPv6 the kernel sets it, because it covers the addresses
    std::memcpy(message.data(), &header, sizeof(header));
    return message;
}

EchoHeader HeaderIn(std::string_view message) {
    EchoHeader header;
    if (message.size() >= sizeof(header)) std::memcpy(&header, message.data(), sizeof(header));
    return header;
}

EchoOutcome OutcomeOfError(int error) {
    switch (error) {
        case ENETUNREACH:
        case EAFNOSUPPORT:  // no IPv6 here
        case EADDRNOTAVAIL:
            return EchoOutcome::networkUnreachable;
        case EHOSTUNREACH:
        case EHOSTDOWN:
            return EchoOutcome::hostUnreachable;
        case EMSGSIZE:
            return EchoOutcome::tooBig;
        default:
            return EchoOutcome::failed;
    }
}

// One echo.

class Echo {
  public:
    Echo(const EchoRequest& request, const Lookup& lookup) : request_(request), to_(lookup.address) {
        reply_.lookupError = lookup.error;
        if (lookup.error == 0) reply_.outcome = Send();
    }

    bool isWaiting() const { return isWaiting_; }
    int socket() const { return socket_.get(); }
    Clock::time_point end() const { return sent_ + WaitOf(request_); }
    const EchoReply& reply() const { return reply_; }

    /// Who answered or refused, if its name is wanted.
    const Address* toBeNamed() const { return request_.wantsName && !reply_.from.empty() ? &from_ : nullptr; }
    milliseconds wait() const { return WaitOf(request_); }
    void SetName(std::string name) { reply_.name = std::move(name); }

    /// Takes what has arrived. Reading also takes the error off the socket that poll(2) reports.
    void Receive() {
        constexpr int mostMessages = 1024;  // more than a socket holds; others may arrive as fast as they are read
        for (const int flags : {int{MSG_ERRQUEUE}, 0}) {
            for (int count = 0; count < mostMessages && isWaiting_ && ReceiveMessage(flags);) ++count;
        }
    }

    /// Takes what arrived in time while this process did not run, and waits no longer.
    void GiveUp() {
        Receive();
        isWaiting_ = false;
    }

  private:
    EchoOutcome Send();
    bool Open();
    bool SetOptions() const;
    template <class Value>
    bool Set(int level, int name, Value value) const {
        return setsockopt(socket_.get(), level, name, &value, sizeof(value)) == 0;
    }
    bool ReceiveMessage(int flags);
    bool MayReadOn(int flags, int error);
    void TakeAnswer(std::string_view message, const msghdr& about);
    void TakeRefusal(std::string_view original, const msghdr& about);
    bool IsOurs(const EchoHeader& header) const {
        return header.sequence == header_.sequence && (!isRaw_ || header.id == header_.id);
    }
    void End(EchoOutcome outcome) {
        reply_.outcome = outcome;
        isWaiting_ = false;
    }

    EchoRequest request_;
    Address to_;
    platform::Descriptor socket_;
    bool isRaw_ = false;
    bool isWaiting_ = false;
    EchoHeader header_;
    Clock::time_point sent_;
    int errors_ = 0;  // of reading
    Address from_;
    EchoReply reply_;
};

/// A socket for echoes alone, which the system may allow to everyone; else one for all of ICMP, for which a process
/// needs a right.
bool Echo::Open() {
    const int protocol = to_.isVersion4() ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
    constexpr int flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    socket_ = platform::Descriptor(::socket(to_.held.ss_family, SOCK_DGRAM | flags, protocol));
    if (socket_ || (errno != EACCES && errno != EPERM)) return bool(socket_);
    isRaw_ = true;
    socket_ = platform::Descriptor(::socket(to_.held.ss_family, SOCK_RAW | flags, protocol));
    return bool(socket_);
}

bool Echo::SetOptions() const {
    const int timeToLive = static_cast<int>(std::min<std::uint32_t>(request_.timeToLive, INT32_MAX));
    const int service = static_cast<int>(std::min<std::uint32_t>(request_.typeOfService, INT32_MAX));
    if (timeToLive == 0 || service > UINT8_MAX) return false;
    if (to_.isVersion4()) {
        return Set(IPPROTO_IP, IP_RECVERR, 1) && Set(IPPROTO_IP, IP_RECVTTL, 1) &&
               Set(IPPROTO_IP, IP_TTL, timeToLive) && Set(IPPROTO_IP, IP_TOS, service) &&
               Set(IPPROTO_IP, IP_MTU_DISCOVER, request_.mayFragment ? IP_PMTUDISC_DONT : IP_PMTUDISC_DO);
    }
    return Set(IPPROTO_IPV6, IPV6_RECVERR, 1) && Set(IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1) &&
           Set(IPPROTO_IPV6, IPV6_UNICAST_HOPS, timeToLive) && Set(IPPROTO_IPV6, IPV6_TCLASS, service) &&
           Set(IPPROTO_IPV6, IPV6_DONTFRAG, request_.mayFragment ? 0 : 1);
}

/// timedOut stands until something arrives.
EchoOutcome Echo::Send() {
    if (request_.bytes > mostEchoBytes) return EchoOutcome::tooBig;
    if (!Open()) return errno == EACCES || errno == EPERM ? EchoOutcome::notPermitted : OutcomeOfError(errno);
    if (!SetOptions()) return EchoOutcome::badOption;
    static std::atomic<std::uint16_t> lastSequence{0};
    header_.type = to_.isVersion4() ? std::uint8_t{ICMP_ECHO} : std::uint8_t{ICMP6_ECHO_REQUEST};
    header_.id = static_cast<std::uint16_t>(getpid());
    header_.sequence = htons(++lastSequence);
    const std::string message = MessageOf(header_, LoadOf(request_.bytes));
    if (connect(socket_.get(), to_.plain(), to_.length) != 0) return OutcomeOfError(errno);
    sent_ = Clock::now();
    if (send(socket_.get(), message.data(), message.size(), 0) < 0) return OutcomeOfError(errno);
    isWaiting_ = true;
    return EchoOutcome::timedOut;
}

/// An error that waits on the socket is taken off by reading it. One that stays, such as a lack of memory, ends the
/// echo.
bool Echo::MayReadOn(int flags, int error) {
    constexpr int mostErrors = 32;  // far more than one echo causes
    if (error == EINTR) return true;
    if (error == EAGAIN || flags != 0) return false;
    if (++errors_ > mostErrors) End(OutcomeOfError(error));
    return true;
}

/// False when nothing is left to read.
bool Echo::ReceiveMessage(int flags) {
    constexpr std::size_t largestHeader = 60;  // of IPv4
    std::string message(mostEchoBytes + sizeof(EchoHeader) + largestHeader, '\0');
    alignas(cmsghdr) std::array<char, 512> about{};
    Address from;
    iovec place{message.data(), message.size()};
    msghdr received{&from.held, sizeof(from.held), &place, 1, about.data(), about.size(), 0};
    const ssize_t got = recvmsg(socket_.get(), &received, flags);
    if (got < 0) return MayReadOn(flags, errno);
    from.length = received.msg_namelen;
    std::string_view content = std::string_view(message).substr(0, static_cast<std::size_t>(got));
    if (flags != 0) {
        TakeRefusal(content, received);
        return true;
    }
    if (isRaw_ && to_.isVersion4() && !content.empty()) {
        constexpr unsigned wordBytes = 4;
        const unsigned header = (static_cast<unsigned char>(content[0]) & 0xFU) * wordBytes;
        content.remove_prefix(std::min<std::size_t>(header, content.size()));
    }
    from_ = to_;
    TakeAnswer(content, received);
    return true;
}

void Echo::TakeAnswer(std::string_view message, const msghdr& about) {
    const Clock::time_point now = Clock::now();
    const EchoHeader header = HeaderIn(message);
    const auto answer = to_.isVersion4() ? std::uint8_t{ICMP_ECHOREPLY} : std::uint8_t{ICMP6_ECHO_REPLY};
    if (message.size() < sizeof(header) || header.type != answer || !IsOurs(header)) return;
    const std::string_view load = message.substr(sizeof(header));
    reply_.bytes = static_cast<std::uint32_t>(load.size());
    reply_.isChanged = load != LoadOf(request_.bytes);
    reply_.time = std::chrono::duration_cast<milliseconds>(now - sent_);
    reply_.from = NameOf(from_, NI_NUMERICHOST);
    msghdr parts = about;
    for (cmsghdr* part = CMSG_FIRSTHDR(&parts); part != nullptr; part = CMSG_NXTHDR(&parts, part)) {
        const bool isTime = (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_TTL) ||
                            (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_HOPLIMIT);
        int timeToLive = 0;
        if (isTime) std::memcpy(&timeToLive, CMSG_DATA(part), sizeof(timeToLive));
        if (isTime) reply_.timeToLive = static_cast<std::uint32_t>(timeToLive);
    }
    End(EchoOutcome::answered);
}

/// The error queue holds what was sent, and beside it who refused it and why.
void Echo::TakeRefusal(std::string_view original, const msghdr& about) {
    if (original.size() >= sizeof(EchoHeader) && !IsOurs(HeaderIn(original))) return;
    msghdr parts = about;
    for (cmsghdr* part = CMSG_FIRSTHDR(&parts); part != nullptr; part = CMSG_NXTHDR(&parts, part)) {
        const bool isError = (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_RECVERR) ||
                             (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_RECVERR);
        if (!isError) continue;
        sock_extended_err error{};
        std::memcpy(&error, CMSG_DATA(part), sizeof(error));
        const bool isMessage = error.ee_origin == SO_EE_ORIGIN_ICMP || error.ee_origin == SO_EE_ORIGIN_ICMP6;
        if (isMessage) {
            const std::size_t length = to_.isVersion4() ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
            from_.length = static_cast<socklen_t>(length);
            std::memcpy(&from_.held, CMSG_DATA(part) + sizeof(error), length);
            reply_.from = NameOf(from_, NI_NUMERICHOST);
        }
        return End(isMessage ? OutcomeOfMessage(to_.isVersion4(), error.ee_type, error.ee_code)
                             : OutcomeOfError(static_cast<int>(error.ee_errno)));
    }
}

/// Waits until something has arrived for some of them, or the time of one is over. False if none waits any more.
bool ReceiveSome(std::vector<Echo>& echoes) {
    const Clock::time_point now = Clock::now();
    std::vector<pollfd> sockets;
    std::vector<Echo*> waiting;
    Clock::time_point end = Clock::time_point::max();
    for (Echo& echo : echoes) {
        if (echo.isWaiting() && echo.end() <= now) echo.GiveUp();
        if (!echo.isWaiting()) continue;
        sockets.push_back({echo.socket(), POLLIN, 0});
        waiting.push_back(&echo);
        end = std::min(end, echo.end());
    }
    if (waiting.empty()) return false;
    const auto wait = std::chrono::ceil<milliseconds>(end - now).count();
    poll(sockets.data(), sockets.size(), static_cast<int>(wait));
    for (std::size_t at = 0; at < waiting.size(); ++at) {
        if (sockets[at].revents != 0) waiting[at]->Receive();
    }
    return true;
}

void LookUpNames(std::vector<Echo>& echoes) {
    const Clock::time_point start = Clock::now();
    constexpr milliseconds longest{1000};  // what is left of a query's time
    std::vector<std::pair<Echo*, LookupThread>> lookups;
    for (Echo& echo : echoes) {
        const Address* address = echo.toBeNamed();
        if (address == nullptr) continue;
        lookups.emplace_back(&echo, LookupThread([address = *address] {
            return Lookup{0, {}, NameOf(address, NI_NAMEREQD)};
        }));
    }
    for (auto& [echo, lookup] : lookups) echo->SetName(lookup.Wait(start + std::min(echo->wait(), longest)).name);
}

}  // namespace

EchoOutcome OutcomeOfMessage(bool isVersion4, std::uint8_t type, std::uint8_t code) {
    using enum EchoOutcome;
    if (isVersion4) {
        switch (type) {
            case ICMP_DEST_UNREACH:
                if (code == ICMP_NET_UNREACH || code == ICMP_NET_UNKNOWN || code == ICMP_NET_ANO ||
                    code == ICMP_NET_UNR_TOS)
                    return networkUnreachable;
                if (code == ICMP_PROT_UNREACH) return protocolUnreachable;
                if (code == ICMP_PORT_UNREACH) return portUnreachable;
                return code == ICMP_FRAG_NEEDED ? tooBig : hostUnreachable;
            case ICMP_SOURCE_QUENCH:
                return slowDown;
            case ICMP_TIME_EXCEEDED:
                return code == ICMP_EXC_TTL ? transitExpired : assemblyExpired;
            default:
                return type == ICMP_PARAMETERPROB ? headerRefused : failed;
        }
    }
    switch (type) {
        case ICMP6_DST_UNREACH:
            if (code == ICMP6_DST_UNREACH_NOROUTE) return networkUnreachable;
            return code == ICMP6_DST_UNREACH_NOPORT ? portUnreachable : hostUnreachable;
        case ICMP6_PACKET_TOO_BIG:
            return tooBig;
        case ICMP6_TIME_EXCEEDED:
            return code == ICMP6_TIME_EXCEED_TRANSIT ? transitExpired : assemblyExpired;
        default:
            return type == ICMP6_PARAM_PROB ? headerRefused : failed;
    }
}

std::vector<EchoReply> SendEchoes(const std::vector<EchoRequest>& requests) {
    const std::vector<Lookup> lookups = LookUpHosts(requests);
    std::vector<Echo> echoes;
    echoes.reserve(requests.size());
    for (std::size_t at = 0; at < requests.size(); ++at) echoes.emplace_back(requests[at], lookups[at]);
    while (ReceiveSome(echoes)) continue;
    LookUpNames(echoes);
    std::vector<EchoReply> replies;
    replies.reserve(echoes.size());
    for (const Echo& echo : echoes) replies.push_back(echo.reply());
    return replies;
}

}  // namespace kv::facts
