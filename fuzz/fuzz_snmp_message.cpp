// Any bytes as a message, in a block of exactly the size that parsing may read. What was parsed is built again as a
// getnext with the same variables, if they can be built, and parsed once more: nothing may have changed.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/backend.h"
#include "snmp/message.h"
#include "snmp/var_bind.h"

namespace {

using namespace kv::snmp;

SnmpPduPtr Parsed(const std::uint8_t* data, std::size_t size) {
    const auto block = std::make_unique<std::uint8_t[]>(size + asnReadAhead);
    std::copy_n(data, size, block.get());
    SnmpPduPtr pdu(AllocateAndInitSnmpPdu());
    const bool isDone = ParseSnmpMessageForPdu(block.get(), static_cast<std::int32_t>(size), pdu.get()) == 1;
    return isDone ? std::move(pdu) : nullptr;
}

/// Whether an address has four bytes: the text of a shorter one has fewer numbers.
bool IsWholeAddress(const VarBind& varBind) {
    const std::string_view text(static_cast<const char*>(varBind.value));
    return std::cmp_equal(text.size(), varBind.valueLength) && std::count(text.begin(), text.end(), '.') == 3;
}

/// The size of a value in memory, in bytes; -1 for a value that is not built as it was parsed.
std::int32_t ValueSize(const VarBind& varBind) {
    switch (varBind.type) {
        case tag::octetString:
        case tag::opaque:
        case tag::nsapAddress:
            return varBind.valueLength;
        case tag::ipAddress:
            return varBind.valueLength > 0 && IsWholeAddress(varBind) ? varBind.valueLength : -1;
        case tag::null:
        case tag::noSuchObject:
        case tag::noSuchInstance:
        case tag::endOfMibView:
            return varBind.valueLength == 0 ? 0 : -1;
        case tag::integer:
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
        case tag::counter64:
            return varBind.valueLength > 0 ? varBind.valueLength : -1;
        default:
            return -1;
    }
}

bool CanBeBuilt(const SnmpPdu& pdu) {
    for (const TkVectorNode* node = pdu.varBinds.head; node != nullptr; node = node->next) {
        const auto& varBind = *static_cast<const VarBind*>(node->data);
        if (varBind.oidLength < 2 || ValueSize(varBind) < 0) return false;
    }
    return true;
}

bool AreEqual(const VarBind& a, const VarBind& b) {
    return a.type == b.type && a.position == b.position && a.valueLength == b.valueLength &&
           std::equal(a.oid, a.oid + a.oidLength, b.oid, b.oid + b.oidLength) &&
           (a.valueLength == 0 || std::memcmp(a.value, b.value, static_cast<std::size_t>(ValueSize(a))) == 0);
}

bool AreEqual(const SnmpPdu& a, const SnmpPdu& b) {
    const TkVectorNode* second = b.varBinds.head;
    for (const TkVectorNode* first = a.varBinds.head; first != nullptr; first = first->next, second = second->next) {
        if (second == nullptr) return false;
        if (!AreEqual(*static_cast<const VarBind*>(first->data), *static_cast<const VarBind*>(second->data))) {
            return false;
        }
    }
    return second == nullptr && a.version == b.version && a.command == b.command && a.requestId == b.requestId &&
           a.errorIndex == b.errorIndex && a.communityLength == b.communityLength &&
           std::equal(a.community, a.community + a.communityLength, b.community) && a.varBindCount == b.varBindCount;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool backendInstalled = (platform::InstallBackend(), true);
    if (!backendInstalled) return 0;
    const SnmpPduPtr pdu = Parsed(data, size);
    if (pdu == nullptr || !CanBeBuilt(*pdu)) return 0;
    if (pdu->command != command::get) pdu->command = command::getNext;
    pdu->errorStatus = 0;
    pdu->receivedCommand = 0;  // for a bulk request it would be enough if some variables fit
    std::array<std::uint8_t, messageBufferSize> message;
    std::int32_t length = messageBufferSize;
    if (CreateSnmpMsgForPdu(message.data(), &length, pdu.get()) == 0) std::abort();
    if (length == messageBufferSize || length >= maxReceivedMessage) return 0;  // grown by the wider headers
    const SnmpPduPtr again = Parsed(message.data(), static_cast<std::size_t>(length));
    if (again == nullptr || !AreEqual(*pdu, *again)) std::abort();
    return 0;
}
