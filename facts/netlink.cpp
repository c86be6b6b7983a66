#include "facts/netlink.h"

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
    constexpr timeval silence{1, 0};
    return setsockopt(netlink, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof(silence)) == 0 &&
           send(netlink, message.data(), message.size(), 0) == static_cast<ssize_t>(message.size());
}

enum class Answer { goesOn, isWhole, isRefused };

/// How a datagram leaves the answer of which it is a part.
Answer AnswerAfter(std::string_view datagram) {
    while (datagram.size() >= sizeof(nlmsghdr)) {
        const auto header = RecordAt<nlmsghdr>(datagram);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_type == NLMSG_ERROR) return Answer::isRefused;
        if (header.nlmsg_type == NLMSG_DONE) {
            const bool hasFailed = RecordAt<int>(datagram.substr(sizeof(nlmsghdr))) < 0;
            return hasFailed ? Answer::isRefused : Answer::isWhole;
        }
        datagram = Beyond(datagram, header.nlmsg_len);
    }
    return Answer::goesOn;
}

}  // namespace

std::optional<std::string> DumpOverNetlink(int protocol, std::uint16_t type, std::string_view request) {
    const platform::Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!netlink || !SendRequest(netlink.get(), type, request)) return std::nullopt;
    constexpr std::size_t largestDatagram = std::size_t{64} * 1024;
    std::vector<char> datagram(largestDatagram);
    std::string messages;
    for (;;) {
        const ssize_t got = recv(netlink.get(), datagram.data(), datagram.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        const std::string_view part(datagram.data(), static_cast<std::size_t>(got));
        messages += part;
        const Answer answer = AnswerAfter(part);
        if (answer == Answer::isRefused) return std::nullopt;
        if (answer == Answer::isWhole) return messages;
    }
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
