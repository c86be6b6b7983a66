// kvagentctl snmp: one request to a device, on the engine that polls for the agent.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <iterator>

#include "commandline/run.h"
#include "foundation/log.h"
#include "platform/utf.h"
#include "snmp/pdu.h"
#include "snmp/snmp_manager.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/snmp_hints.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::NotFoundError;
using commandline::Number;
using commandline::UsageError;
using commandline::Value;

constexpr std::int64_t defaultPort = 161;
constexpr std::int64_t defaultTimeout = 5;
constexpr std::int64_t longestTimeout = 2147;  // seconds; its microseconds fit 32 bits

constexpr const char* usage =
    "\nUsage:\tkvagentctl snmp [-p] [-c] [-t] <get|gnext|walk> <IpAddress> <OID>\n"
    "\t-p\tAgent Port [161]\n"
    "\t-c\tCommunity String [public]\n"
    "\t-t\tTimeOut Value in seconds [5]\n"
    "\tRequest Type\tget|gnext|walk\n"
    "\tIpAddress\tAgent IpAddress\n"
    "\tOID\t OID\n\n";

constexpr std::string_view requestTypes[] = {"get", "gnext", "walk"};  // in the order of the engine's numbers

struct Request {
    std::int32_t type = snmpGet;
    std::string host;
    std::int32_t port = 0;
    std::int32_t timeout = 0;
    std::string community;
    std::string version;
    std::vector<std::string> oids;
};

/// How a type's code is called, and whether its value is a number.
struct TypeName {
    std::string_view code;
    std::string_view name;
    bool isNumber = false;
};

constexpr TypeName typeNames[] = {
    {"2", "INTEGER", true},      {"4", "OCTET STRING"},      {"5", "NULL"},
    {"6", "OBJECT IDENTIFIER"},  {"64", "IpAddress"},        {"65", "Counter32", true},
    {"66", "Gauge32", true},     {"67", "TimeTicks", true},  {"68", "Opaque"},
    {"70", "Counter64", true},   {"71", "UInteger32", true}, {"128", "No Such Object"},
    {"129", "No Such Instance"}, {"130", "End of Mib View"},
};

TypeName TypeOf(const SnmpValue& value) {
    const auto* found = std::find_if(std::begin(typeNames), std::end(typeNames),
                                     [&](const TypeName& type) { return type.code == value.type; });
    return found == std::end(typeNames) ? TypeName{value.type, value.type} : *found;
}

[[noreturn]] void RefuseUsage(const std::string& reason) {
    fmt::print(stderr, "kvagentctl: {}\n{}", reason, usage);
    throw commandline::ExitWith{2};
}

/// An OID as the engine takes it, a dot ahead of each number.
std::string OidOf(const std::string& text) {
    const LogLines silence([](std::string_view) {});
    if (text.find(',') != std::string::npos)
        throw UsageError(fmt::format("'{}': blanks between OIDs, not commas", text));
    const std::string oid = text.starts_with('.') ? text : "." + text;
    const std::string fault = OidFault(oid);
    if (fault == notNumbers)
        throw UsageError(fmt::format(
            "'{}' is not an OID: numbers with a dot between, such as .1.3.6.1.2.1.1.5.0; names are not known", text));
    if (!fault.empty()) throw UsageError(fmt::format("the OID {} {}", text, fault));
    return oid;
}

Request ReadRequest(const Given& given) {
    Request request;
    const std::string type = Value(given, "REQUEST");
    const auto* found = std::find(std::begin(requestTypes), std::end(requestTypes), type);
    if (found == std::end(requestTypes))
        RefuseUsage(type.empty() ? "the request is missing" : fmt::format("'{}' is not get, gnext or walk", type));
    request.type = static_cast<std::int32_t>(found - std::begin(requestTypes));
    request.host = Value(given, "ADDRESS");
    for (const std::string& oid : commandline::Values(given, "OID")) request.oids.push_back(OidOf(oid));
    if (request.host.empty()) RefuseUsage("the address is missing");
    if (request.oids.empty()) RefuseUsage("the OID is missing");
    const std::string fault = DeviceNameFault(request.host, "is given with -p");
    if (!fault.empty()) throw UsageError("the address " + fault);
    request.port = static_cast<std::int32_t>(Number(given, "--port", defaultPort, {1, 65535}));
    request.timeout = static_cast<std::int32_t>(Number(given, "--timeout", defaultTimeout, {1, longestTimeout}));
    request.community = Value(given, "--community", "public");
    if (request.community.size() > snmp::maxRequestCommunity)
        throw UsageError(fmt::format("--community takes at most {} bytes", snmp::maxRequestCommunity));
    request.version = Value(given, "--version", "v1");
    if (request.version != "v1" && request.version != "v2c")
        throw UsageError(fmt::format("--version takes v1 or v2c, not '{}'", request.version));
    return request;
}

SnmpResponsePtr Ask(const Request& request) {
    std::vector<const char*> oids;
    for (const std::string& oid : request.oids) oids.push_back(oid.c_str());
    return SnmpResponsePtr(SnmpManagerRequest(request.host.c_str(), request.port, request.timeout,
                                              request.community.c_str(), request.type, request.version.c_str(),
                                              oids.data(), static_cast<std::int32_t>(oids.size()), 1, nullptr));
}

/// Whether the device sent anything that could be read.
bool IsAnswered(const SnmpResponsePtr& response, std::int32_t type) {
    if (!response) return false;
    return type == snmpWalk || response->results[0] != nullptr;
}

std::string_view BytesOf(const SnmpValue& value) {
    const auto length = static_cast<std::size_t>(std::max(value.valueLength, 0));
    std::string_view bytes(value.value, std::max(length, std::strlen(value.value)));
    return bytes.ends_with('\0') ? bytes.substr(0, bytes.size() - 1) : bytes;
}

/// Whether bytes are a text for people: UTF-8 whose only control characters are those of lines.
bool IsPrintable(std::string_view bytes) {
    constexpr std::string_view ofLines = "\t\r\n";
    return platform::IsValidUtf8(bytes) && std::all_of(bytes.begin(), bytes.end(), [&](char character) {
               const auto byte = static_cast<unsigned char>(character);
               return (byte >= 0x20 && byte != 0x7F) || ofLines.find(character) != ofLines.npos;
           });
}

std::string HexOf(std::string_view bytes) {
    std::string hex;
    for (const char byte : bytes)
        hex += fmt::format("{}{:02X}", hex.empty() ? "" : " ", static_cast<unsigned char>(byte));
    return hex;
}

/// A counter of 64 bits comes as a signed number.
std::string NumberText(const SnmpValue& value, const TypeName& type) {
    const std::string text = value.value;
    if (type.name != "Counter64" || !text.starts_with('-')) return text;
    std::int64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return fmt::format("{}", static_cast<std::uint64_t>(number));
}

/// Hundredths of a second as hours, minutes and seconds.
std::string Clock(const std::string& ticks) {
    std::uint64_t hundredths = 0;
    std::from_chars(ticks.data(), ticks.data() + ticks.size(), hundredths);
    const std::uint64_t seconds = hundredths / 100;
    return fmt::format("{}:{:02}:{:02}.{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60, hundredths % 100);
}

/// A value under the columns oid, type, value.
std::vector<Cell> RowOf(const SnmpValue& value) {
    const TypeName type = TypeOf(value);
    const std::string name(type.name);
    if (value.value == nullptr) return {value.oid, name, name == "OCTET STRING" ? Cell("") : std::nullopt};
    if (type.isNumber) return {value.oid, name, Cell::Literal(NumberText(value, type))};
    if (name == "IpAddress" || name == "OBJECT IDENTIFIER") return {value.oid, name, value.value};
    const std::string_view bytes = BytesOf(value);
    if (IsPrintable(bytes)) return {value.oid, name, std::string(bytes)};
    return {value.oid, name + " (hex)", HexOf(bytes)};
}

std::string LineOf(const std::vector<Cell>& row) {
    const std::string type = *row[1].text;
    std::string line = fmt::format("{} = {}", *row[0].text, type);
    if (row[2].text) line += ": " + commandline::InLine(*row[2].text);
    if (type == "TimeTicks" && row[2].text) line += " (" + Clock(*row[2].text) + ")";
    return line + "\n";
}

Table TableOf(const SnmpResponseData& response) {
    Table table{.columns = {"oid", "type", "value"}, .rows = {}};
    for (std::int32_t i = 0; i < response.oidCount; ++i) {
        const SnmpVarList* list = response.results[i];
        for (std::int32_t position = 0; list && position < list->valueCount; ++position)
            table.rows.push_back(RowOf(*list->values[position]));
    }
    return table;
}

void PrintTable(const Table& table, bool asJson) {
    if (asJson) {
        fmt::print("{}", Printed(table, Form::json));
        return;
    }
    for (const std::vector<Cell>& row : table.rows) fmt::print("{}", LineOf(row));
}

/// The OIDs that brought no value, for the message about them.
std::string WithoutValue(const Request& request, const SnmpResponseData& response) {
    std::vector<std::string> oids;
    for (std::int32_t i = 0; i < response.oidCount; ++i) {
        const SnmpVarList* list = response.results[i];
        const bool hasValue = list && list->valueCount > 0 && RowOf(*list->values[0])[2].text;
        if (!hasValue) oids.push_back(request.oids[static_cast<std::size_t>(i)]);
    }
    return fmt::format("{}", fmt::join(oids, ", "));
}

/// Why a request brought nothing: what the engine says, or that the device kept silent.
std::string Silence(const Request& request, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        if (!line.starts_with("no answer")) return line;
    }
    return fmt::format("no answer from {} port {} within {} s; a device keeps silent, too, when the community is wrong",
                       request.host, request.port, request.timeout);
}

/// What a get without a value may lack: the ".0" of a value that stands alone.
std::string InstanceHint(const Request& request) {
    const bool allEndSo = std::all_of(request.oids.begin(), request.oids.end(),
                                      [](const std::string& oid) { return oid.ends_with(".0"); });
    return request.type != snmpGet || allEndSo ? "" : fmt::format("; {}", instanceHint);
}

/// Throws when the device answered with an error and so without values. It then repeats what it was asked.
void RefuseErrorAnswer(const Request& request, const std::vector<std::string>& lines) {
    if (request.type == snmpWalk) return;
    for (const std::string& line : lines) {
        if (line.find("error status") == line.npos) continue;
        const std::string meaning = ErrorStatusMeaning(line);
        if (meaning.empty()) throw std::runtime_error(line);
        throw NotFoundError(line + meaning + InstanceHint(request));
    }
}

void Run(const Given& given) {
    const Request request = ReadRequest(given);
    std::vector<std::string> lines;
    SnmpResponsePtr response;
    {
        const LogLines log([&](std::string_view line) { lines.emplace_back(WithoutRoutine(line)); });
        response = Ask(request);
    }
    if (!IsAnswered(response, request.type)) throw std::runtime_error(Silence(request, lines));
    RefuseErrorAnswer(request, lines);
    PrintTable(TableOf(*response), commandline::Has(given, "--json"));
    commandline::FlushOutput();
    for (const std::string& line : lines) fmt::print(stderr, "{}\n", line);
    const std::string missing = WithoutValue(request, *response);
    if (missing.empty()) return;
    throw NotFoundError(
        request.type == snmpWalk
            ? fmt::format("{} gives no value below {}; get asks for an OID itself", request.host, missing)
            : fmt::format("{} gives no value for {}{}", request.host, missing, InstanceHint(request)));
}

constexpr commandline::Word words[] = {
    {"REQUEST", "Request Type: get, gnext (the next value behind the OID) or walk (all values below the OID)", false,
     false, true, "get gnext walk"},
    {"ADDRESS", "Agent IpAddress: the device's address or name", false, false, true},
    {"OID", "numbers with a dot between, such as .1.3.6.1.2.1.1.5.0", false, true, true},
};

constexpr commandline::Option options[] = {
    {"--port", "PORT", "Agent Port [161], 1 to 65535", commandline::Times::atMostOnce, "-p"},
    {"--community", "TEXT", "Community String [public]", commandline::Times::atMostOnce, "-c"},
    {"--timeout", "SECONDS", "TimeOut Value in seconds [5], 1 to 2147, for each datagram",
     commandline::Times::atMostOnce, "-t"},
    {.name = "--version", .values = "VERSION", .text = "v1 or v2c [v1]; 64-bit counters need v2c", .choices = "v1 v2c"},
    {"--json", "", "prints an array of objects with oid, type and value"},
};

}  // namespace

const commandline::Command& SnmpVerb() {
    static const commandline::Command verb{
        "snmp",
        "Asks an SNMP device once, as the agent's polls do. Prints a line \"OID = TYPE: value\" for each value; an "
        "octet string that is not a text stands in hexadecimal. A get ends at the first OID that the device lacks: No "
        "Such Object, No Such Instance or End of Mib View. Exit code 3 if an OID has no value, 1 without an answer.",
        words, options, Run};
    return verb;
}

}  // namespace kv::control
