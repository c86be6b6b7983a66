#include "facts/network/netlink.h"

#include <algorithm>
#include <cerrno>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <vector>

#include "platform/linux/descriptor.h"

namespace kv::facts {

namespace {

bool SendRequest(int netlink, std::uint16_t type, std::string_view request) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + request.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    const std::string message = std::string(BytesOf(header)) + std::string(request);
    constexpr timeval silence{1, 0};  // seconds; the kernel answers at once or not at all
    return setsockopt(netlink, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof(silence)) == 0 &&
           send(netlink, message.data(), message.size(), 0) == static_cast<ssize_t>(message.size());
}

/// Asks once.
NetlinkAnswer AskOverNetlink(int protocol, std::uint16_t type, std::string_view request, const NetlinkTaker& taker) {
    const platform::Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!netlink || !SendRequest(netlink.get(), type, request)) return NetlinkAnswer::none;
    constexpr std::size_t largestDatagram = std::size_t{64} * 1024;
    std::vector<char> datagram(largestDatagram);
    bool isChanging = false;
    taker.begin();
    for (;;) {
        const ssize_t got = recv(netlink.get(), datagram.data(), datagram.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return NetlinkAnswer::none;
        const std::string_view part(datagram.data(), static_cast<std::size_t>(got));
        taker.take(part);
        const NetlinkState state = StateAfter(part);
        if (state.isRefused) return NetlinkAnswer::none;
        isChanging = isChanging || state.isChanging;
        if (state.isOver) return isChanging ? NetlinkAnswer::changing : NetlinkAnswer::whole;
    }
}

}  // namespace

NetlinkAnswer DumpOverNetlink(int protocol, std::uint16_t type, std::string_view request, const NetlinkTaker& taker) {
    constexpr int mostAttempts = 4;  // what still changes then changes all the time
    NetlinkAnswer answer = NetlinkAnswer::changing;
    for (int attempt = 0; attempt < mostAttempts && answer == NetlinkAnswer::changing; ++attempt)
        answer = AskOverNetlink(protocol, type, request, taker);
    return answer;
}

NetlinkState StateAfter(std::string_view messages) {
    NetlinkState state;
    while (messages.size() >= sizeof(nlmsghdr) && !state.isOver && !state.isRefused) {
        const auto header = RecordAt<nlmsghdr>(messages);
        state.isChanging = state.isChanging || (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        state.isRefused = header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_type == NLMSG_ERROR;
        if (header.nlmsg_type == NLMSG_DONE) {
            state.isOver = true;
            state.isRefused = state.isRefused || RecordAt<int>(messages.substr(sizeof(nlmsghdr))) < 0;
        }
        messages = Beyond(messages, header.nlmsg_len);
    }
    return state;
}

void ForEachMessage(std::string_view messages, std::uint16_t type,
                    const std::function<void(std::string_view content)>& take) {
    while (messages.size() >= sizeof(nlmsghdr)) {
        const auto header = RecordAt<nlmsghdr>(messages);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > messages.size()) return;
        if (header.nlmsg_type == type) take(messages.substr(sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr)));
        messages = Beyond(messages, header.nlmsg_len);
    }
}

std::string_view Beyond(std::string_view bytes, std::size_t length) {
    constexpr std::size_t step = 4;
    return bytes.substr(std::min((length + step - 1) / step * step, bytes.size()));
}

std::optional<std::string_view> AttributeIn(std::string_view attributes, std::uint16_t type) {
    while (attributes.size() >= sizeof(rtattr)) {
        const auto header = RecordAt<rtattr>(attributes);
        if (header.rta_len < sizeof(rtattr) || header.rta_len > attributes.size()) break;
        if ((header.rta_type & NLA_TYPE_MASK) == type)
            return attributes.substr(sizeof(rtattr), header.rta_len - sizeof(rtattr));
        attributes = Beyond(attributes, header.rta_len);
    }
    return std::nullopt;
}

std::optional<std::uint32_t> NumberIn(std::string_view attributes, std::uint16_t type) {
    const std::optional<std::string_view> content = AttributeIn(attributes, type);
    if (!content || content->size() < sizeof(std::uint32_t)) return std::nullopt;
    return RecordAt<std::uint32_t>(*content);
}

}  // namespace kv::facts
