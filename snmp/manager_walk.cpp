#include "snmp/manager_walk.h"

#include <new>
#include <utility>

#include "platform/clock.h"
#include "snmp/asn.h"
#include "snmp/manager_request.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv::snmp {

namespace {

/// A getnext from an OID. Null, with a line, when memory ran out or the community is too long.
SnmpPduPtr MakeWalkPdu(const ManagerRequest& request, const std::vector<std::uint32_t>& oid) {
    RequestVarBinds varBinds;
    if (!AddRequestVarBind(varBinds, oid.data(), static_cast<std::int32_t>(oid.size()))) {
        TKLOG(1, "Error while creating Varbind \n");
        PrintToConsole("Error while creating Varbind MIB\n");
        return nullptr;
    }
    SnmpPduPtr pdu = MakeRequestPdu(request, command::getNext, varBinds);
    if (!pdu) {
        TKLOG(1, "Unable to create the SnmpPdu!!!\n");
        PrintToConsole("Unable to create the SnmpPdu!!!\n");
    }
    return pdu;
}

/// Makes a request that has been sent ask from another OID, and clears what a failed build has left in it.
void AskFrom(SnmpPdu& pdu, const std::vector<std::uint32_t>& oid) {
    pdu.errorStatus = requestErrorStatus;
    pdu.errorIndex = requestErrorIndex;
    void*& data = pdu.varBinds.head->data;
    auto* const asked = static_cast<VarBind*>(data);
    const auto length = static_cast<std::int32_t>(oid.size());
    if (asked->oidLength == length) return CopyOid(asked->oid, oid.data(), length);
    VarBindPtr next = MakeNamedVarBind(oid.data(), length);
    if (!next) throw std::bad_alloc();
    next->type = asked->type;
    std::swap(next->value, asked->value);
    std::swap(next->ownsValue, asked->ownsValue);
    data = next.release();
    FreeVarBind(asked);
}

/// Looks at the ends first, where the OIDs of a walk differ.
bool IsSameOid(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    const auto count = static_cast<std::int32_t>(a.size());
    return a.size() == b.size() && (a.empty() || a.back() == b.back()) &&
           CompareOid(a.data(), count, b.data(), count) == 0;
}

/// What a variable takes until its request is answered: its record, node, name and value, and what the response makes
/// of them.
std::int64_t HeldBytes(const VarBind& varBind) {
    constexpr std::int64_t records =
        sizeof(VarBind) + sizeof(TkVectorNode) + sizeof(SnmpValue) + sizeof(SnmpValue*) + typeTextRoom;
    constexpr std::int64_t allocations = 5 * 16;  // what the system adds to each
    constexpr std::int64_t subId = sizeof(std::uint32_t);
    const bool isOid = varBind.type == tag::objectId;
    const std::int64_t value = isOid ? varBind.valueLength * subId : varBind.valueLength;
    const std::size_t valueText = isOid ? OidTextRoom(varBind.valueLength) : static_cast<std::size_t>(value) + 1;
    return records + allocations + varBind.oidLength * subId + value +
           static_cast<std::int64_t>(OidTextRoom(varBind.oidLength) + valueText);
}

}  // namespace

bool CircleWatch::IsBackAt(const std::vector<std::uint32_t>& oid) {
    if (IsSameOid(oid, kept_)) return true;
    if (--untilNext_ == 0) {
        kept_ = oid;
        keptFor_ *= 2;
        untilNext_ = keptFor_;
    }
    return false;
}

Walk::Walk(const ManagerRequest& request, const WalkBounds& bounds)
    : request_(request),
      bounds_(bounds),
      address_(AddressOrHost(request.host)),
      bytesLeft_(bounds.bytes),
      endTick_(platform::Clock().GetTickCount64() + bounds.milliseconds) {}

ResultVectors Walk::Run() {
    ResultVectors results = MakeResultVectors(request_);
    for (std::int32_t i = 0; i < request_.oidCount; ++i) {
        VarBindListPtr& values = results[static_cast<std::size_t>(i)];
        values = MakeVarBindList();
        if (!values || !WalkOid(i, *values)) return nullptr;
    }
    return results;
}

/// Collects the values of one OID; false when it is malformed or the device fell silent.
bool Walk::WalkOid(std::int32_t index, TkVector& values) {
    Position position;
    position.rootLength = ParseRequestedOid(request_, index, position.root);
    if (position.rootLength == -1) return false;
    position.current.assign(position.root.get(), position.root.get() + position.rootLength);
    Step step = Step::next;
    while (step == Step::next) step = TakeStep(position, values);
    return step == Step::finished;
}

Walk::Step Walk::TakeStep(Position& position, TkVector& values) {
    std::uint8_t status = exchange_status::done;
    const SnmpPduPtr answer = AskNext(position, status);
    if (!answer) return Step::failed;
    if (IsUnreadable(*answer, status)) return EndEarly(values, "sends what cannot be read", *answer);
    return TakeAnswer(position, *answer, values);
}

/// Null when the request cannot be made or brings no answer. All requests of an OID's walk are one, which asks from
/// another OID each time.
SnmpPduPtr Walk::AskNext(Position& position, std::uint8_t& status) const {
    if (position.pdu) {
        AskFrom(*position.pdu, position.current);
    } else {
        position.pdu = MakeWalkPdu(request_, position.current);
    }
    if (!position.pdu) return nullptr;
    return SendAndReceiveSnmpPdu(position.pdu.get(), address_.c_str(), request_.port, &status);
}

/// Moves to the last OID of an answer, unless the answer leaves the subtree.
Walk::Step Walk::MoveOn(Position& position, const TkVector& answer) {
    const TkVectorNode* node = answer.head;
    for (std::int32_t i = 0; i < answer.count; ++i, node = node->next) {
        if (!node || !node->data) {
            TKLOG(1, "nodePtr value is NULL\n");
            return Step::failed;
        }
        const VarBind& varBind = *static_cast<const VarBind*>(node->data);
        if (varBind.type == tag::endOfMibView) return Step::finished;
        if (!IsOidInSubtree(position.root.get(), position.rootLength, varBind.oid, varBind.oidLength))
            return Step::finished;
        position.current.assign(varBind.oid, varBind.oid + varBind.oidLength);
    }
    return Step::next;
}

/// Takes one answer into the values.
Walk::Step Walk::TakeAnswer(Position& position, SnmpPdu& answer, TkVector& values) {
    if (answer.varBinds.count == 0 && answer.errorStatus == 0)
        return EndEarly(values, "sends no value that can be read", answer);
    if (answer.varBinds.count == 0) return End(values, answer);
    std::swap(position.asked, position.current);
    const Step step = MoveOn(position, answer.varBinds);
    if (step == Step::finished) return End(values, answer);
    if (step == Step::failed) return step;
    if (IsSameOid(position.current, position.asked))
        return EndEarly(values, "gives back the OID that it was asked from", answer);
    TakeValues(answer.varBinds, values);
    if (position.circle.IsBackAt(position.current)) return EndEarly(values, "sends OIDs that run in a circle", answer);
    if (const char* reason = ReachedBound(values)) return EndEarly(values, reason, answer);
    return Step::next;
}

/// Takes the variables over from an answer, which has no more use for them.
void Walk::TakeValues(TkVector& answer, TkVector& values) {
    for (const TkVectorNode* node = answer.head; node; node = node->next)
        bytesLeft_ -= HeldBytes(*static_cast<const VarBind*>(node->data));
    TakeVarBinds(&values, &answer);
}

/// What the device does that ends the walk; null while it is within the bounds.
const char* Walk::ReachedBound(const TkVector& values) const {
    if (values.count >= bounds_.values) return "goes on and on";
    if (bytesLeft_ <= 0) return "sends more than a request may bring";
    if (platform::Clock().GetTickCount64() >= endTick_) return "takes longer than a request may last";
    return nullptr;
}

/// Ends a walk at an answer that leads no further; there is a line when that is an error.
Walk::Step Walk::End(const TkVector& values, const SnmpPdu& answer) const {
    return answer.errorStatus == 0 ? Step::finished : EndEarly(values, "goes no further", answer);
}

/// Ends a walk, with what it has, at an answer that says why.
Walk::Step Walk::EndEarly(const TkVector& values, const char* reason, const SnmpPdu& answer) const {
    std::string status;
    if (answer.errorStatus != 0) status = LogText(", with the error status %d", answer.errorStatus);
    Log1("\t SnmpWalkOperation :: %s %s%s. The walk ends with %d values \n", request_.host, reason, status,
         values.count);
    return Step::finished;
}

}  // namespace kv::snmp
