#include "snmp/manager_operations.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "snmp/asn.h"
#include "snmp/oid.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv::snmp {

namespace {

// Of every request.
constexpr std::int32_t requestId = 1;
constexpr std::int32_t requestErrorStatus = 0;
constexpr std::int32_t requestErrorIndex = 1;

std::int32_t VersionCode(std::string_view version) {
    if (version == "v2c") return versionV2c;
    if (version == "v3") return versionV3;
    return versionV1;
}

/// Appends a variable without a value; false when memory ran out.
bool AddRequestVarBind(TkVector* vector, const std::uint32_t* oid, std::int32_t oidLength) {
    VarBindPtr varBind(CreateAVarBind(oid, oidLength, tag::octetString, nullptr, 0));
    if (!varBind) return false;
    AddElement(vector, new TkVectorNode{varBind.get(), nullptr});
    static_cast<void>(varBind.release());
    return true;
}

/// The variables of a request, until its PDU takes them over.
struct RequestVarBinds {
    RequestVarBinds() = default;
    ~RequestVarBinds() {
        if (list.count > 0) FreeVarBindList(&list);
    }
    RequestVarBinds(const RequestVarBinds&) = delete;
    RequestVarBinds& operator=(const RequestVarBinds&) = delete;

    TkVector list{};
};

/// A request that takes over the variables.
SnmpPduPtr MakeRequestPdu(const ManagerRequest& request, std::uint8_t command, RequestVarBinds& varBinds) {
    SnmpPduPtr pdu(CreateSnmpPdu(VersionCode(request.version), request.community, command, requestId,
                                 requestErrorStatus, requestErrorIndex, &varBinds.list));
    FreeVector(&varBinds.list);
    if (pdu) pdu->timeoutSeconds = request.timeoutSeconds;
    return pdu;
}

/// True when a part wraps, as ConvertTextToInteger has it.
bool HasPartBeyond32Bits(std::string_view text) {
    for (std::size_t dot = text.find('.'); dot != text.npos; dot = text.find('.', dot + 1)) {
        std::uint64_t number = 0;
        std::from_chars(text.data() + dot + 1, text.data() + text.size(), number);
        if (number > std::numeric_limits<std::uint32_t>::max()) return true;
    }
    return false;
}

/// The sub-identifiers of the OID at an index, or -1 when it is malformed.
std::int32_t ParseRequestedOid(const ManagerRequest& request, std::int32_t index, SubIds& oid) {
    const char* text = request.oids[index] ? request.oids[index] : "";
    const std::int32_t length = ConvertToOidOrIpFromString(oid, text, false);
    if (length == -1) {
        std::printf("Invalid OID Format\n");
        // Only a walk asks for one OID after the other.
        const bool wasAsked = request.requestType == snmpWalk && index > 0;
        Log1("\t SnmpManagerRequest :: \"%s\" is not an OID: numbers, a dot ahead of each, no blanks. %s %s \n", text,
             request.host, wasAsked ? "is asked no further, and what it gave is dropped" : "is not asked");
    } else if (length == 0) {
        Log1("\t SnmpManagerRequest :: the numbers of \"%s\" do not match its dots: %s is asked for an empty OID \n",
             text, request.host);
    } else if (HasPartBeyond32Bits(text)) {
        Log1("\t SnmpManagerRequest :: a number of \"%s\" does not fit 32 bits: another OID is asked for \n", text);
    }
    return length;
}

/// Fills in the variables of a get; false when an OID is malformed.
bool AddGetVarBinds(const ManagerRequest& request, RequestVarBinds& varBinds) {
    for (std::int32_t i = 0; i < request.oidCount; ++i) {
        SubIds oid;
        const std::int32_t length = ParseRequestedOid(request, i, oid);
        if (length == -1) return false;
        if (!AddRequestVarBind(&varBinds.list, oid.get(), length)) {
            TKLOG(1, "Error while creating Varbind \n");
            std::printf("Error while creating Varbind \n");
            return false;
        }
    }
    return true;
}

SnmpPduPtr MakeGetPdu(const ManagerRequest& request, RequestVarBinds& varBinds) {
    SnmpPduPtr pdu;
    if (request.requestType == snmpGet) pdu = MakeRequestPdu(request, command::get, varBinds);
    if (request.requestType == snmpGetNext) pdu = MakeRequestPdu(request, command::getNext, varBinds);
    if (!pdu) TKLOG(1, "Unable to create the SnmpPdu!!!\n");
    return pdu;
}

/// One list for each variable of the answer, up to the first exception.
void TakeGetAnswer(const ManagerRequest& request, TkVector* answer, VarBindListPtr* results) {
    if (answer->count > request.oidCount)
        Log1("\t SnmpGetOperation :: %s sent %d values for %d OIDs. The rest is left \n", request.host, answer->count,
             request.oidCount);
    const std::int32_t count = std::min(answer->count, request.oidCount);
    const TkVectorNode* node = answer->head;
    for (std::int32_t i = 0; i < count && node; ++i, node = node->next) {
        results[i] = MakeVarBindList();
        if (!results[i]) return;
        CopyVarBind(results[i].get(), answer, i + 1);
        if (IsException(static_cast<const VarBind*>(node->data)->type)) return;
    }
}

/// What the walks of one request share.
struct WalkShare {
    std::string address;  // the host's, looked up once and not for each value
    std::int64_t bytesLeft;
    std::uint64_t endTick;
};

/// Where a walk of one OID stands.
struct Walk {
    const ManagerRequest& request;
    WalkShare& share;
    SubIds root = nullptr;
    std::int32_t rootLength = 0;
    std::vector<std::uint32_t> current = {};  // the OID to ask from
    std::vector<std::uint32_t> asked = {};    // the OID that the last request asked from
    SnmpPduPtr pdu = nullptr;                 // the request, once it has been made

    // A device whose OIDs run in a circle comes back to an OID that was asked from before. One of those is kept, and
    // replaced after 1, 2, 4, 8 ... answers, so that in the end one inside the circle is kept for all its length.
    std::vector<std::uint32_t> landmark = {};
    std::int64_t answersToNext = 1;
    std::int64_t answersOfThis = 1;
};

enum class WalkStep { next, finished, failed };

/// Ends a walk, with what it has, at an answer that says why.
WalkStep EndEarly(const Walk& walk, const TkVector& values, const char* reason, const SnmpPdu& answer) {
    std::string status;
    if (answer.errorStatus != 0) status = LogText(", with the error status %d", answer.errorStatus);
    Log1("\t SnmpWalkOperation :: %s %s%s. The walk ends with %d values \n", walk.request.host, reason, status,
         values.count);
    return WalkStep::finished;
}

/// Ends a walk at an answer that leads no further; there is a line when that is an error.
WalkStep End(const Walk& walk, const TkVector& values, const SnmpPdu& answer) {
    return answer.errorStatus == 0 ? WalkStep::finished : EndEarly(walk, values, "goes no further", answer);
}

/// A getnext from an OID; null with a word on it when memory ran out or the community is too long.
SnmpPduPtr MakeWalkPdu(const ManagerRequest& request, const std::vector<std::uint32_t>& oid) {
    RequestVarBinds varBinds;
    if (!AddRequestVarBind(&varBinds.list, oid.data(), static_cast<std::int32_t>(oid.size()))) {
        TKLOG(1, "Error while creating Varbind \n");
        std::printf("Error while creating Varbind MIB\n");
        return nullptr;
    }
    SnmpPduPtr pdu = MakeRequestPdu(request, command::getNext, varBinds);
    if (!pdu) {
        TKLOG(1, "Unable to create the SnmpPdu!!!\n");
        std::printf("Unable to create the SnmpPdu!!!\n");
    }
    return pdu;
}

/// Makes a request that has been sent ask from another OID; what a failed build has left in it goes.
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

/// Null when the request cannot be made or brings no answer. All requests of a walk are one, with an OID of its own
/// each.
SnmpPduPtr AskNext(Walk& walk, std::uint8_t& status) {
    if (walk.pdu) {
        AskFrom(*walk.pdu, walk.current);
    } else {
        walk.pdu = MakeWalkPdu(walk.request, walk.current);
    }
    if (!walk.pdu) return nullptr;
    return SendAndReceiveSnmpPdu(walk.pdu.get(), walk.share.address.c_str(), walk.request.port, &status);
}

/// Moves to the last OID of an answer, unless the answer leaves the subtree.
WalkStep MoveOn(Walk& walk, const TkVector& answer) {
    const TkVectorNode* node = answer.head;
    for (std::int32_t i = 0; i < answer.count; ++i, node = node->next) {
        if (!node || !node->data) {
            TKLOG(1, "nodePtr value is NULL\n");
            return WalkStep::failed;
        }
        const VarBind& varBind = *static_cast<const VarBind*>(node->data);
        if (varBind.type == tag::endOfMibView) return WalkStep::finished;
        if (!IsOidInSubtree(walk.root.get(), walk.rootLength, varBind.oid, varBind.oidLength))
            return WalkStep::finished;
        walk.current.assign(varBind.oid, varBind.oid + varBind.oidLength);
    }
    return WalkStep::next;
}

/// Looks at the ends first, where the OIDs of a walk differ.
bool IsSameOid(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    const auto count = static_cast<std::int32_t>(a.size());
    return a.size() == b.size() && (a.empty() || a.back() == b.back()) &&
           CompareOid(a.data(), count, b.data(), count) == 0;
}

bool IsBackAtLandmark(Walk& walk) {
    if (IsSameOid(walk.current, walk.landmark)) return true;
    if (--walk.answersToNext == 0) {
        walk.landmark = walk.current;
        walk.answersOfThis *= 2;
        walk.answersToNext = walk.answersOfThis;
    }
    return false;
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

/// Takes the variables over from an answer, which has no more use for them.
void TakeValues(Walk& walk, TkVector* answer, TkVector* values) {
    for (const TkVectorNode* node = answer->head; node; node = node->next)
        walk.share.bytesLeft -= HeldBytes(*static_cast<const VarBind*>(node->data));
    TakeVarBinds(values, answer);
}

/// Takes one answer into the values.
WalkStep TakeWalkAnswer(Walk& walk, SnmpPdu& answer, TkVector* values) {
    if (answer.varBinds.count == 0) return End(walk, *values, answer);
    std::swap(walk.asked, walk.current);
    const WalkStep step = MoveOn(walk, answer.varBinds);
    if (step == WalkStep::finished) return End(walk, *values, answer);
    if (step == WalkStep::failed) return step;
    if (IsSameOid(walk.current, walk.asked))
        return EndEarly(walk, *values, "gives back the OID that it was asked from", answer);
    TakeValues(walk, &answer.varBinds, values);
    if (IsBackAtLandmark(walk)) return EndEarly(walk, *values, "sends OIDs that run in a circle", answer);
    if (values->count >= walk.request.bounds.values) return EndEarly(walk, *values, "goes on and on", answer);
    if (walk.share.bytesLeft <= 0) return EndEarly(walk, *values, "sends more than a request may bring", answer);
    if (platform::Clock().GetTickCount64() >= walk.share.endTick)
        return EndEarly(walk, *values, "takes longer than a request may last", answer);
    return WalkStep::next;
}

/// An error status of a reply may be the number that stands for one that cannot be read.
bool IsUnreadable(const SnmpPdu& answer, std::uint8_t status) {
    return status == exchange_status::undecodable && answer.errorStatus == 0;
}

WalkStep TakeWalkStep(Walk& walk, TkVector* values) {
    std::uint8_t status = exchange_status::done;
    const SnmpPduPtr response = AskNext(walk, status);
    if (!response) return WalkStep::failed;
    if (IsUnreadable(*response, status)) return EndEarly(walk, *values, "sends what cannot be read", *response);
    return TakeWalkAnswer(walk, *response, values);
}

/// Collects the values of one OID; false when it is malformed or the device fell silent.
bool WalkOid(const ManagerRequest& request, std::int32_t index, WalkShare& share, TkVector* values) {
    Walk walk{.request = request, .share = share};
    walk.rootLength = ParseRequestedOid(request, index, walk.root);
    if (walk.rootLength == -1) return false;
    walk.current.assign(walk.root.get(), walk.root.get() + walk.rootLength);
    WalkStep step = WalkStep::next;
    while (step == WalkStep::next) step = TakeWalkStep(walk, values);
    return step == WalkStep::finished;
}

ResultVectors MakeResultVectors(const ManagerRequest& request) {
    return ResultVectors(new VarBindListPtr[static_cast<std::size_t>(request.oidCount)]);
}

}  // namespace

ResultVectors SnmpGetOperation(const ManagerRequest& request) {
    TKLOG(3, "\t Inside SnmpGetOperation() \n");
    RequestVarBinds varBinds;
    if (!AddGetVarBinds(request, varBinds)) return nullptr;
    const SnmpPduPtr pdu = MakeGetPdu(request, varBinds);
    if (!pdu) return nullptr;
    ResultVectors results = MakeResultVectors(request);
    std::uint8_t status = 0;
    const SnmpPduPtr response = SendAndReceiveSnmpPdu(pdu.get(), request.host, request.port, &status);
    if (!response) return results;
    if (IsUnreadable(*response, status)) Log1("\t SnmpGetOperation :: %s sends what cannot be read \n", request.host);
    if (response->errorStatus != 0)
        Log1("\t SnmpGetOperation :: %s reports the error status %d at value %d \n", request.host,
             response->errorStatus, response->errorIndex);
    TakeGetAnswer(request, &response->varBinds, results.get());
    return results;
}

ResultVectors SnmpWalkOperation(const ManagerRequest& request) {
    TKLOG(3, "\t Inside SnmpWalkOperation() \n");
    ResultVectors results = MakeResultVectors(request);
    VarBindListPtr* values = results.get();
    WalkShare share{.address = AddressOrHost(request.host),
                    .bytesLeft = request.bounds.bytes,
                    .endTick = platform::Clock().GetTickCount64() + request.bounds.milliseconds};
    for (std::int32_t i = 0; i < request.oidCount; ++i, ++values) {
        *values = MakeVarBindList();
        if (!*values || !WalkOid(request, i, share, values->get())) return nullptr;
    }
    return results;
}

bool IsOidInSubtree(const std::uint32_t* root, std::int32_t rootLength, const std::uint32_t* oid,
                    std::int32_t oidLength) {
    return oid && rootLength < oidLength && std::equal(root, root + rootLength, oid);
}

}  // namespace kv::snmp
