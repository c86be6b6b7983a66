// Win32_PingStatus: one ICMP echo to each address that WHERE names, as it says for how long and with what.
#include <algorithm>
#include <netdb.h>

#include "facts/network/echo.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

/// Echoes of one query, each of which takes a socket.
constexpr std::size_t mostEchoes = 100;

/// What WHERE may ask for besides what EchoRequest holds. Linux sends no echo with such options.
struct Options {
    std::uint32_t recordRoute = 0;
    std::uint32_t timestampRoute = 0;
    std::u16string sourceRoute;
    std::uint32_t sourceRouteType = 0;

    bool operator==(const Options&) const = default;

    bool isPlain() const { return *this == Options(); }
};

struct Row {
    std::u16string address;  // as WHERE has it
    std::uint32_t timeout = 1000;
    facts::EchoRequest request;
    Options options;
    facts::EchoReply reply;

    bool asksAs(const Row& other) const {
        return request == other.request && timeout == other.timeout && options == other.options;
    }
    bool isAnswered() const { return reply.outcome == facts::EchoOutcome::answered; }
};

/// Errors of a lookup by their numbers in Windows.
std::uint32_t ResolutionStatusOf(const Row& row) {
    switch (row.reply.lookupError) {
        case 0:
            return 0;
        case EAI_AGAIN:
            return 11002;
        case EAI_FAIL:
            return 11003;
        case EAI_NODATA:
            return 11004;
        default:
            return 11001;
    }
}

std::uint32_t CodeOf(facts::EchoOutcome outcome) {
    using enum facts::EchoOutcome;
    switch (outcome) {
        case answered:
            return 0;
        case networkUnreachable:
            return 11002;
        case hostUnreachable:
            return 11003;
        case protocolUnreachable:
            return 11004;
        case portUnreachable:
            return 11005;
        case badOption:
            return 11007;
        case tooBig:
            return 11009;
        case timedOut:
            return 11010;
        case transitExpired:
            return 11013;
        case assemblyExpired:
            return 11014;
        case headerRefused:
            return 11015;
        case slowDown:
            return 11016;
        default:
            return 11050;
    }
}

CimValue StatusCodeIn(const Row& row) { return row.reply.outcome ? CimValue(CodeOf(*row.reply.outcome)) : CimValue(); }

template <class Value>
CimValue IfAnswered(const Row& row, Value value) {
    return row.isAnswered() ? CimValue(value) : CimValue();
}

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Address", string, 0, "the host that WHERE names", [](const Row& row) { return row.address; }},
    {u"BufferSize", uint32, 0, "bytes that the echo carries, of WHERE; 32", [](const Row& row) { return row.request.bytes; }},
    {u"NoFragmentation", boolean, 0, "whether the echo must stay whole, of WHERE; FALSE", [](const Row& row) { return !row.request.mayFragment; }},
    {u"PrimaryAddressResolutionStatus", uint32, 0, "0, or why the name has no address: 11001 unknown, 11002 no answer in time, 11003 refused, 11004 no address",
        [](const Row& row) { return ResolutionStatusOf(row); }},
    {u"ProtocolAddress", string, 0, "the address that answered or refused; empty if none did", [](const Row& row) { return row.reply.from; }},
    {u"ProtocolAddressResolved", string, 0, "its name, if ResolveAddressNames", [](const Row& row) { return row.reply.name; }},
    {u"RecordRoute", uint32, 0, "of WHERE; 0. Others are refused", [](const Row& row) { return row.options.recordRoute; }},
    {u"ReplyInconsistency", boolean, 0, "whether the answer carries something else than the echo", [](const Row& row) { return row.reply.isChanged; }},
    {u"ReplySize", uint32, 0, "bytes that the answer carries", [](const Row& row) { return IfAnswered(row, row.reply.bytes); }},
    {u"ResolveAddressNames", boolean, 0, "of WHERE; FALSE", [](const Row& row) { return row.request.wantsName; }},
    {u"ResponseTime", uint32, 0, "milliseconds until the answer", [](const Row& row) { return IfAnswered(row, row.reply.time.count()); }},
    {u"ResponseTimeToLive", uint32, 0, "hops that were left to the answer", [](const Row& row) { return IfAnswered(row, row.reply.timeToLive); }},
    {u"RouteRecord", ArrayOf(string)},
    {u"RouteRecordResolved", ArrayOf(string)},
    {u"SourceRoute", string, 0, "of WHERE; empty. Others are refused", [](const Row& row) { return row.options.sourceRoute; }},
    {u"SourceRouteType", uint32, 0, "of WHERE; 0. Others are refused", [](const Row& row) { return row.options.sourceRouteType; }},
    {u"StatusCode", uint32, 0, "0 answered, 11002 network and 11003 host unreachable, 11004 protocol and 11005 port, 11007 bad option, 11009 too big, "
        "11010 timed out, 11013 and 11014 expired, 11015 refused, 11016 too many, 11050 failed; NULL if the name has no address",
        [](const Row& row) { return StatusCodeIn(row); }},
    {u"Timeout", uint32, 0, "milliseconds to wait for the name and again for the answer, of WHERE; 1000. At most 14 seconds are waited",
        [](const Row& row) { return row.timeout; }},
    {u"TimeStampRecord", ArrayOf(uint32)},
    {u"TimeStampRecordAddress", ArrayOf(string)},
    {u"TimeStampRecordAddressResolved", ArrayOf(string)},
    {u"TimestampRoute", uint32, 0, "of WHERE; 0. Others are refused", [](const Row& row) { return row.options.timestampRoute; }},
    {u"TimeToLive", uint32, 0, "hops that the echo may take, of WHERE; 80", [](const Row& row) { return row.request.timeToLive; }},
    {u"TypeofService", uint32, 0, "of the echo, of WHERE; 0", [](const Row& row) { return row.request.typeOfService; }},
};
// clang-format on

std::uint32_t NumberIn(const CimValue& value) {
    const auto* number = std::get_if<std::int64_t>(&value.held);
    return number != nullptr ? static_cast<std::uint32_t>(*number) : 0;
}

std::u16string TextIn(const CimValue& value) {
    const auto* text = std::get_if<std::u16string>(&value.held);
    return text != nullptr ? *text : std::u16string();
}

bool IsTrue(const CimValue& value) {
    const auto* truth = std::get_if<bool>(&value.held);
    return truth != nullptr && *truth;
}

/// What WHERE may set. Of several values of one, each is combined with each of the others; rows that WHERE does not
/// ask for are dropped anyway.
constexpr struct Input {
    std::u16string_view property;
    void (*set)(Row& row, const CimValue& value);
} inputs[] = {
    {u"Address",
     [](Row& row, const CimValue& value) {
         row.address = TextIn(value);
         row.request.host = platform::Utf8FromWide(row.address);
     }},
    {u"Timeout",
     [](Row& row, const CimValue& value) {
         row.timeout = NumberIn(value);
         row.request.timeout = std::chrono::milliseconds(row.timeout);
     }},
    {u"BufferSize", [](Row& row, const CimValue& value) { row.request.bytes = NumberIn(value); }},
    {u"TimeToLive", [](Row& row, const CimValue& value) { row.request.timeToLive = NumberIn(value); }},
    {u"TypeofService", [](Row& row, const CimValue& value) { row.request.typeOfService = NumberIn(value); }},
    {u"NoFragmentation", [](Row& row, const CimValue& value) { row.request.mayFragment = !IsTrue(value); }},
    {u"ResolveAddressNames", [](Row& row, const CimValue& value) { row.request.wantsName = IsTrue(value); }},
    {u"RecordRoute", [](Row& row, const CimValue& value) { row.options.recordRoute = NumberIn(value); }},
    {u"TimestampRoute", [](Row& row, const CimValue& value) { row.options.timestampRoute = NumberIn(value); }},
    {u"SourceRoute", [](Row& row, const CimValue& value) { row.options.sourceRoute = TextIn(value); }},
    {u"SourceRouteType", [](Row& row, const CimValue& value) { row.options.sourceRouteType = NumberIn(value); }},
};

/// The echoes that one way to match WHERE asks for; absent if there are too many.
std::optional<std::vector<Row>> RowsOf(const Leeway& way) {
    std::vector<Row> rows(1);
    for (const Input& input : inputs) {
        const std::vector<CimValue>* values = way.valuesOf(input.property);
        if (values == nullptr) continue;
        if (rows.size() * values->size() > mostEchoes) return std::nullopt;
        std::vector<Row> combined;
        for (const Row& row : rows) {
            for (const CimValue& value : *values) input.set(combined.emplace_back(row), value);
        }
        rows = std::move(combined);
    }
    return rows;
}

/// The echoes that WHERE asks for, each once; absent if there are too many.
std::optional<std::vector<Row>> RowsAskedFor(const Gathering& gathering) {
    std::vector<Row> rows;
    for (const Leeway& way : gathering.alternatives) {
        std::optional<std::vector<Row>> more = RowsOf(way);
        if (!more) return std::nullopt;
        for (Row& row : *more) {
            if (std::none_of(rows.begin(), rows.end(), [&row](const Row& other) { return row.asksAs(other); }))
                rows.push_back(std::move(row));
        }
        if (rows.size() > mostEchoes) return std::nullopt;
    }
    return rows;
}

/// Sends those that can be sent; the others are refused.
void SendEchoes(std::vector<Row>& rows) {
    std::vector<facts::EchoRequest> requests;
    for (const Row& row : rows) {
        if (row.options.isPlain()) requests.push_back(row.request);
    }
    const std::vector<facts::EchoReply> replies = facts::SendEchoes(requests);
    auto reply = replies.begin();
    for (Row& row : rows) {
        if (row.options.isPlain())
            row.reply = *reply++;
        else
            row.reply.outcome = facts::EchoOutcome::badOption;
    }
}

/// The echoes of a query, or why they are not sent.
WmiStatus TakeRows(const Gathering& gathering, std::vector<Row>& rows) {
    if (gathering.valuesOf(u"Address") == nullptr) {
        gathering.notice("Win32_PingStatus needs an Address in WHERE");
        return wmi_status::invalidQuery;
    }
    std::optional<std::vector<Row>> asked = RowsAskedFor(gathering);
    if (!asked) {
        gathering.notice("a query of Win32_PingStatus sends at most " + std::to_string(mostEchoes) + " echoes");
        return wmi_status::quotaViolation;
    }
    rows = *std::move(asked);
    return wmi_status::ok;
}

WmiStatus DemandAddress(const Gathering& gathering) {
    std::vector<Row> rows;
    return TakeRows(gathering, rows);
}

WmiStatus GatherPings(const Gathering& gathering) {
    std::vector<Row> rows;
    if (const WmiStatus status = TakeRows(gathering, rows); IsFailure(status)) return status;
    SendEchoes(rows);
    for (const Row& row : rows) {
        if (row.reply.outcome == facts::EchoOutcome::notPermitted) {
            gathering.notice("echoes may not be sent: neither net.ipv4.ping_group_range nor CAP_NET_RAW allows it");
            return wmi_status::accessDenied;
        }
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_PingStatus", u"", properties, GatherPings,
     u"Address,BufferSize,NoFragmentation,RecordRoute,ResolveAddressNames,SourceRoute,SourceRouteType,Timeout,"
     u"TimestampRoute,TimeToLive,TypeofService",
     "whether hosts answer an echo; WHERE gives each Address", DemandAddress},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
