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

/// The messages of the answer, one after the other. protocol is one such as NETLINK_ROUTE, type one such as
/// RTM_GETADDR, request the record that follows the header. Absent if the kernel refuses, or is silent for a second.
std::optional<std::string> DumpOverNetlink(int protocol, std::uint16_t type, std::string_view request);

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
