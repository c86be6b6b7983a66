// What the kernel tells over netlink(7) when it is asked for all of something: addresses, routes, queues, sockets. One
// routine asks, the others take its messages apart. Any thread may call them.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// What became of an answer.
enum class NetlinkAnswer {
    whole,
    changing,  // what was asked for changed meanwhile, each time: something may be missing, or be there twice
    none,      // the kernel refused, or was silent for a second
};

/// Takes an answer, which comes in parts so that it need not be held as a whole.
struct NetlinkTaker {
    std::function<void()> begin;                          // forget what was taken: the answer begins
    std::function<void(std::string_view messages)> take;  // whole messages, one after the other
};

/// Asks for all of something; a few times if it changes while the kernel tells it. protocol is one such as
/// NETLINK_ROUTE, type one such as RTM_GETADDR, request the record that follows the header.
NetlinkAnswer DumpOverNetlink(int protocol, std::uint16_t type, std::string_view request, const NetlinkTaker& taker);

/// How a part of an answer leaves it.
struct NetlinkState {
    bool isOver = false;
    bool isRefused = false;
    bool isChanging = false;  // the kernel says that what it tells has changed since the part before
};
NetlinkState StateAfter(std::string_view messages);

/// Hands over the content of each message of a type, up to the first malformed message.
void ForEachMessage(std::string_view messages, std::uint16_t type,
                    const std::function<void(std::string_view content)>& take);

/// The record at the start of the bytes; all zeros if they are too short.
template <class Record>
Record RecordAt(std::string_view bytes) {
    Record record{};
    if (bytes.size() >= sizeof(Record)) std::memcpy(&record, bytes.data(), sizeof(Record));
    return record;
}

/// A record as the bytes of a request.
template <class Record>
std::string_view BytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

/// What follows a number of bytes: messages, records and attributes begin at multiples of four.
std::string_view Beyond(std::string_view bytes, std::size_t length);

/// The content of an attribute (rtattr); absent if there is no such attribute.
std::optional<std::string_view> AttributeIn(std::string_view attributes, std::uint16_t type);

/// The number in an attribute; absent if there is no such attribute.
std::optional<std::uint32_t> NumberIn(std::string_view attributes, std::uint16_t type);

}  // namespace kv::facts
