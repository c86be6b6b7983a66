#include "lab/page/units.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <fmt/format.h>
#include <initializer_list>
#include <optional>
#include <utility>

namespace kv::lab {

namespace {

constexpr Meaning counter32{Unit::perSecond, ValueKind::counter, 1, 32};
constexpr Meaning octets32{Unit::bytesPerSecond, ValueKind::counter, 1, 32};
constexpr Meaning counter64{Unit::perSecond, ValueKind::counter};
constexpr Meaning octets64{Unit::bytesPerSecond, ValueKind::counter};
constexpr Meaning gauge{};
constexpr Meaning ticks{Unit::seconds, ValueKind::gauge, 0.01};

struct KnownOid {
    std::string_view oid;
    std::string_view name;
    Meaning meaning;
};

/// Columns and plain objects, without their instance. From SNMPv2-MIB, IF-MIB, IP-MIB, TCP-MIB, UDP-MIB,
/// HOST-RESOURCES-MIB and UCD-SNMP-MIB.
constexpr KnownOid knownOids[]{
    {".1.3.6.1.2.1.1.3", "sysUpTime", ticks},
    {".1.3.6.1.2.1.2.1", "ifNumber", gauge},
    {".1.3.6.1.2.1.2.2.1.1", "ifIndex", gauge},
    {".1.3.6.1.2.1.2.2.1.3", "ifType", gauge},
    {".1.3.6.1.2.1.2.2.1.4", "ifMtu", {Unit::bytes}},
    {".1.3.6.1.2.1.2.2.1.5", "ifSpeed", {Unit::bitsPerSecond}},
    {".1.3.6.1.2.1.2.2.1.7", "ifAdminStatus", gauge},
    {".1.3.6.1.2.1.2.2.1.8", "ifOperStatus", gauge},
    {".1.3.6.1.2.1.2.2.1.9", "ifLastChange", ticks},
    {".1.3.6.1.2.1.2.2.1.10", "ifInOctets", octets32},
    {".1.3.6.1.2.1.2.2.1.11", "ifInUcastPkts", counter32},
    {".1.3.6.1.2.1.2.2.1.12", "ifInNUcastPkts", counter32},
    {".1.3.6.1.2.1.2.2.1.13", "ifInDiscards", counter32},
    {".1.3.6.1.2.1.2.2.1.14", "ifInErrors", counter32},
    {".1.3.6.1.2.1.2.2.1.15", "ifInUnknownProtos", counter32},
    {".1.3.6.1.2.1.2.2.1.16", "ifOutOctets", octets32},
    {".1.3.6.1.2.1.2.2.1.17", "ifOutUcastPkts", counter32},
    {".1.3.6.1.2.1.2.2.1.18", "ifOutNUcastPkts", counter32},
    {".1.3.6.1.2.1.2.2.1.19", "ifOutDiscards", counter32},
    {".1.3.6.1.2.1.2.2.1.20", "ifOutErrors", counter32},
    {".1.3.6.1.2.1.4.3", "ipInReceives", counter32},
    {".1.3.6.1.2.1.4.9", "ipInDelivers", counter32},
    {".1.3.6.1.2.1.4.10", "ipOutRequests", counter32},
    {".1.3.6.1.2.1.6.9", "tcpCurrEstab", gauge},
    {".1.3.6.1.2.1.6.10", "tcpInSegs", counter32},
    {".1.3.6.1.2.1.6.11", "tcpOutSegs", counter32},
    {".1.3.6.1.2.1.6.12", "tcpRetransSegs", counter32},
    {".1.3.6.1.2.1.7.1", "udpInDatagrams", counter32},
    {".1.3.6.1.2.1.7.4", "udpOutDatagrams", counter32},
    {".1.3.6.1.2.1.11.1", "snmpInPkts", counter32},
    {".1.3.6.1.2.1.11.2", "snmpOutPkts", counter32},
    {".1.3.6.1.2.1.31.1.1.1.6", "ifHCInOctets", octets64},
    {".1.3.6.1.2.1.31.1.1.1.7", "ifHCInUcastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.8", "ifHCInMulticastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.9", "ifHCInBroadcastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.10", "ifHCOutOctets", octets64},
    {".1.3.6.1.2.1.31.1.1.1.11", "ifHCOutUcastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.12", "ifHCOutMulticastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.13", "ifHCOutBroadcastPkts", counter64},
    {".1.3.6.1.2.1.31.1.1.1.15", "ifHighSpeed", {Unit::bitsPerSecond, ValueKind::gauge, 1e6}},
    {".1.3.6.1.2.1.25.1.1", "hrSystemUptime", ticks},
    {".1.3.6.1.2.1.25.1.5", "hrSystemNumUsers", gauge},
    {".1.3.6.1.2.1.25.1.6", "hrSystemProcesses", gauge},
    {".1.3.6.1.2.1.25.2.2", "hrMemorySize", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.2.1.25.2.3.1.4", "hrStorageAllocationUnits", {Unit::bytes}},
    {".1.3.6.1.2.1.25.2.3.1.5", "hrStorageSize", gauge},
    {".1.3.6.1.2.1.25.2.3.1.6", "hrStorageUsed", gauge},
    {".1.3.6.1.2.1.25.3.3.1.2", "hrProcessorLoad", {Unit::percent}},
    {".1.3.6.1.4.1.2021.4.3", "memTotalSwap", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.4", "memAvailSwap", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.5", "memTotalReal", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.6", "memAvailReal", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.11", "memTotalFree", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.14", "memBuffer", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.4.15", "memCached", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.9.1.6", "dskTotal", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.9.1.7", "dskAvail", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.9.1.8", "dskUsed", {Unit::bytes, ValueKind::gauge, 1024}},
    {".1.3.6.1.4.1.2021.9.1.9", "dskPercent", {Unit::percent}},
    {".1.3.6.1.4.1.2021.10.1.3", "laLoad", gauge},
    {".1.3.6.1.4.1.2021.10.1.5", "laLoadInt", {Unit::none, ValueKind::gauge, 0.01}},
    {".1.3.6.1.4.1.2021.11.9", "ssCpuUser", {Unit::percent}},
    {".1.3.6.1.4.1.2021.11.10", "ssCpuSystem", {Unit::percent}},
    {".1.3.6.1.4.1.2021.11.11", "ssCpuIdle", {Unit::percent}},
    {".1.3.6.1.4.1.2021.11.50", "ssCpuRawUser", counter32},
    {".1.3.6.1.4.1.2021.11.52", "ssCpuRawSystem", counter32},
    {".1.3.6.1.4.1.2021.11.53", "ssCpuRawIdle", counter32},
    {".1.3.6.1.4.1.2021.11.54", "ssCpuRawWait", counter32},
    {".1.3.6.1.4.1.2021.11.57", "ssIORawSent", counter32},
    {".1.3.6.1.4.1.2021.11.58", "ssIORawReceived", counter32},
    {".1.3.6.1.4.1.2021.11.59", "ssRawInterrupts", counter32},
    {".1.3.6.1.4.1.2021.11.60", "ssRawContexts", counter32},
};

struct KnownName {
    std::string_view name;
    Meaning meaning;
};

constexpr Meaning kilobytes{Unit::bytes, ValueKind::gauge, 1024};

/// Properties that do not end as their unit.
constexpr KnownName knownNames[]{
    {"Size", {Unit::bytes}},
    {"FreeSpace", {Unit::bytes}},
    {"Capacity", {Unit::bytes}},
    {"FileSize", {Unit::bytes}},
    {"TotalPhysicalMemory", {Unit::bytes}},
    {"WorkingSet", {Unit::bytes}},
    {"WorkingSetSize", {Unit::bytes}},
    {"WorkingSetPrivate", {Unit::bytes}},
    {"WorkingSetPeak", {Unit::bytes}},
    {"VirtualSize", {Unit::bytes}},
    {"BlockSize", {Unit::bytes}},
    {"FreePhysicalMemory", kilobytes},
    {"FreeSpaceInPagingFiles", kilobytes},
    {"FreeVirtualMemory", kilobytes},
    {"MaxProcessMemorySize", kilobytes},
    {"SizeStoredInPagingFiles", kilobytes},
    {"TotalSwapSpaceSize", kilobytes},
    {"TotalVirtualMemorySize", kilobytes},
    {"TotalVisibleMemorySize", kilobytes},
    {"LoadPercentage", {Unit::percent}},
    {"EstimatedChargeRemaining", {Unit::percent}},
    {"MaxClockSpeed", {Unit::hertz, ValueKind::gauge, 1e6}},
    {"CurrentClockSpeed", {Unit::hertz, ValueKind::gauge, 1e6}},
    {"Speed", {Unit::bitsPerSecond}},
    {"CurrentBandwidth", {Unit::bitsPerSecond}},
    {"SystemUpTime", {Unit::seconds}},
    {"ElapsedTime", {Unit::seconds}},
    {"KernelModeTime", {Unit::perSecond, ValueKind::counter, 1e-7}},
    {"UserModeTime", {Unit::perSecond, ValueKind::counter, 1e-7}},
};

/// In which order they are tried matters: "MBytes" before "Bytes".
constexpr KnownName knownEnds[]{
    {"BytesPerSec", {Unit::bytesPerSecond}},
    {"Persec", {Unit::perSecond}},
    {"PerSec", {Unit::perSecond}},
    {"GB", {Unit::bytes, ValueKind::gauge, 1073741824}},
    {"MB", {Unit::bytes, ValueKind::gauge, 1048576}},
    {"KB", kilobytes},
    {"MBytes", {Unit::bytes, ValueKind::gauge, 1048576}},
    {"KBytes", kilobytes},
    {"RxBytes", octets64},
    {"TxBytes", octets64},
    {"BytesReceived", octets64},
    {"BytesSent", octets64},
    {"PacketsReceived", counter64},
    {"PacketsSent", counter64},
    {"TransferCount", octets64},
    {"OperationCount", counter64},
    {"RxPackets", counter64},
    {"TxPackets", counter64},
    {"Bytes", {Unit::bytes}},
    {"Percent", {Unit::percent}},
    {"Seconds", {Unit::seconds}},
};

constexpr KnownName knownStarts[]{
    {"Percent", {Unit::percent}},
    {"AvgDiskBytes", {Unit::bytes}},
    {"AvgDisksec", {Unit::seconds}},
};

/// The longest known OID of which this is an instance.
const KnownOid* FindOid(std::string_view oid) {
    const KnownOid* best = nullptr;
    for (const KnownOid& known : knownOids) {
        const bool fits = oid == known.oid || (oid.starts_with(known.oid) && oid[known.oid.size()] == '.');
        if (fits && (best == nullptr || known.oid.size() > best->oid.size())) best = &known;
    }
    return best;
}

bool IsOid(std::string_view member) {
    return member.size() > 2 && member[0] == '.' && member.find_first_not_of(".0123456789") == std::string_view::npos;
}

Meaning NamedMeaning(std::string_view property) {
    for (const KnownName& known : knownNames)
        if (property == known.name) return known.meaning;
    // Such as BytesTotalPersec and DiskReadBytesPersec.
    if (property.ends_with("Persec") && property.find("Bytes") != std::string_view::npos) return {Unit::bytesPerSecond};
    for (const KnownName& known : knownEnds)
        if (property.ends_with(known.name)) return known.meaning;
    for (const KnownName& known : knownStarts)
        if (property.starts_with(known.name)) return known.meaning;
    return {};
}

/// With commas between thousands: 1,234,567.8.
std::string GroupedText(double number, int places) {
    std::string digits = fmt::format("{:.{}f}", std::fabs(number), places);
    for (std::size_t at = std::min(digits.find('.'), digits.size()); at > 3;) digits.insert(at -= 3, ",");
    return (number < 0 && digits.find_first_not_of("0.") != std::string::npos ? "-" : "") + digits;
}

/// With as many places as a reader can use: 0.123, 1.23, 12.3, 123, and 1,234,567.
std::string PlainText(double number, int more) {
    const double size = std::fabs(number);
    if (size != 0 && size < 1e-3) return fmt::format("{:.{}g}", number, 2 + more);
    if (size >= 1e15) return fmt::format("{:.{}g}", number, 4 + more);
    if (number == std::floor(number)) return GroupedText(number, 0);
    const int places = size >= 100 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 3;
    return GroupedText(number, places + more);
}

std::string ScaledText(double number, std::string_view unit, int more) {
    constexpr std::array<std::string_view, 7> prefixes{"", "k", "M", "G", "T", "P", "E"};
    std::size_t prefix = 0;
    while (std::fabs(number) >= 999.95 && prefix + 1 < prefixes.size()) {
        number /= 1000;
        ++prefix;
    }
    const std::string digits = prefix == 0 ? PlainText(number, more) : fmt::format("{:.{}f}", number, 1 + more);
    return digits + " " + std::string(prefixes[prefix]) + std::string(unit);
}

/// With the days, hours and minutes of a time of seconds that are not 0, and what is left.
std::string ExactDurationText(double seconds, int more) {
    const double size = std::fabs(seconds);
    std::string text;
    double left = size;
    for (const auto& [word, length] : {std::pair("d", 86400), std::pair("h", 3600), std::pair("min", 60)}) {
        const double count = std::floor(left / length);
        left -= count * length;
        if (count > 0) text += fmt::format("{}{:.0f} {}", text.empty() ? "" : " ", count, word);
    }
    const std::string rest =
        left == std::floor(left) ? fmt::format("{:.0f}", left) : fmt::format("{:.{}f}", left, more);
    if (rest != "0" || text.empty()) text += (text.empty() ? "" : " ") + rest + " s";
    return (seconds < 0 ? "-" : "") + text;
}

std::string DurationText(double seconds, int more) {
    const double size = std::fabs(seconds);
    if (size < 120) return PlainText(seconds, more) + " s";
    if (more > 0) return ExactDurationText(seconds, more - 1);
    const auto whole = static_cast<std::int64_t>(size);
    const std::string sign = seconds < 0 ? "-" : "";
    if (whole < 7200) return fmt::format("{}{} min", sign, whole / 60);
    if (whole < 172800) return fmt::format("{}{} h {} min", sign, whole / 3600, whole % 3600 / 60);
    return fmt::format("{}{} d {} h", sign, whole / 86400, whole % 86400 / 3600);
}

/// 7.5 for 7.50, to stand beside 7 and 8.
std::string WithoutLastZeros(std::string text) {
    const std::size_t point = text.find('.');
    if (point == std::string::npos) return text;
    const std::size_t end = std::min(text.find_first_not_of("0123456789", point + 1), text.size());
    const std::size_t last = text.find_last_not_of('0', end - 1);
    const std::size_t kept = last == point ? point : last + 1;
    return text.erase(kept, end - kept);
}

bool HasOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
    return std::any_of(words.begin(), words.end(),
                       [text](std::string_view word) { return text.find(word) != std::string_view::npos; });
}

/// Whether numbers that differ by more than the noise of reckoning have texts that differ.
bool TellsApart(const std::vector<double>& numbers, const std::vector<std::string>& texts) {
    constexpr double noise = 1e-9;
    for (std::size_t one = 0; one < numbers.size(); ++one)
        for (std::size_t other = 0; other < one; ++other) {
            const double size = std::max(std::fabs(numbers[one]), std::fabs(numbers[other]));
            const bool differ = std::fabs(numbers[one] - numbers[other]) > size * noise;
            if (differ && texts[one] == texts[other]) return false;
        }
    return true;
}

/// Where the mark begins that a second row of one key has at its end, or npos.
std::size_t MarkOf(std::string_view member) {
    const std::size_t mark = member.rfind(" #");
    const bool isMarked = mark != std::string_view::npos && mark > 0 &&
                          member.find_first_not_of("0123456789", mark + 2) == std::string_view::npos &&
                          mark + 2 < member.size();
    return isMarked ? mark : std::string_view::npos;
}

}  // namespace

MemberParts SplitMember(std::string_view member) {
    // Of rows with one key the second says so at the end: "eth0 Speed #2".
    const std::string_view named = member.substr(0, MarkOf(member));
    const std::size_t blank = named.rfind(' ');
    if (blank == std::string_view::npos) return {"", named};
    return {named.substr(0, blank), named.substr(blank + 1)};
}

Meaning MeaningOf(std::string_view member) {
    if (IsOid(member)) {
        const KnownOid* known = FindOid(member);
        return known ? known->meaning : Meaning{};
    }
    return NamedMeaning(SplitMember(member).property);
}

std::string MemberTitle(std::string_view member) {
    const KnownOid* known = IsOid(member) ? FindOid(member) : nullptr;
    if (!known) return std::string(member);
    std::string_view instance = member.substr(known->oid.size());
    if (!instance.empty()) instance.remove_prefix(1);
    const bool isPlain = instance.empty() || instance == "0";
    return std::string(known->name) + (isPlain ? "" : " " + std::string(instance));
}

ShownMember ShowMember(std::string_view member) {
    if (IsOid(member)) {
        const std::string title = MemberTitle(member);
        const std::size_t blank = title.find(' ');
        if (blank == std::string::npos) return {"", title};
        return {title.substr(blank + 1), title.substr(0, blank)};
    }
    const auto [row, property] = SplitMember(member);
    const std::size_t mark = MarkOf(member);
    const std::string_view marked = mark == std::string_view::npos ? "" : member.substr(row.empty() ? mark + 1 : mark);
    return {std::string(row) + std::string(marked), std::string(property)};
}

Course UsualCourse(std::string_view member) {
    const Meaning meaning = MeaningOf(member);
    if (meaning.kind == ValueKind::counter) return Course::moves;
    if (meaning.unit == Unit::percent || meaning.unit == Unit::perSecond || meaning.unit == Unit::bytesPerSecond)
        return Course::moves;
    const std::string property = ShowMember(member).property;
    if (HasOneOf(property, {"Free", "Used", "Avail", "Load", "WorkingSet"})) return Course::moves;
    const bool isFixed = HasOneOf(property, {"Total", "Size", "Max", "Number", "Capacity", "Speed", "Index", "Type",
                                             "Mtu", "Version", "Processors", "Cores", "Width", "Units"});
    const bool isIdentity = property.ends_with("Id") || property.ends_with("ID");
    return isFixed || isIdentity ? Course::stands : Course::unknown;
}

double MeantNumber(double number, const Meaning& meaning) {
    if (meaning.kind == ValueKind::gauge) return number * meaning.factor;
    return number < 0 ? number + std::ldexp(1.0, 64) : number;
}

std::string ValueText(double number, Unit unit, int moreDigits) {
    switch (unit) {
        case Unit::bytes:
            return ScaledText(number, "B", moreDigits);
        case Unit::percent:
            return PlainText(number, moreDigits) + " %";
        case Unit::seconds:
            return DurationText(number, moreDigits);
        case Unit::hertz:
            return ScaledText(number, "Hz", moreDigits);
        case Unit::bitsPerSecond:
            return ScaledText(number, "bit/s", moreDigits);
        case Unit::perSecond:
            return PlainText(number, moreDigits) + " /s";
        case Unit::bytesPerSecond:
            return ScaledText(number, "B/s", moreDigits);
        case Unit::none:
            break;
    }
    return PlainText(number, moreDigits);
}

std::string AxisText(double number, Unit unit, int moreDigits) {
    if (unit == Unit::none && std::fabs(number) >= 100000) {
        std::string text = ScaledText(number, "", moreDigits);
        return text.ends_with(' ') ? text.substr(0, text.size() - 1) : text;
    }
    std::string text = ValueText(number, unit, moreDigits);
    const bool isPlain = unit == Unit::none || unit == Unit::percent || unit == Unit::perSecond;
    return isPlain ? WithoutLastZeros(std::move(text)) : text;
}

std::vector<std::string> DistinctTexts(const std::vector<double>& numbers, Unit unit,
                                       std::string (*text)(double, Unit, int)) {
    constexpr int mostDigits = 9;
    std::vector<std::string> texts;
    for (int more = 0; more <= mostDigits; ++more) {
        texts.clear();
        for (const double number : numbers) texts.push_back(text(number, unit, more));
        if (TellsApart(numbers, texts)) break;
    }
    return texts;
}

std::string_view UnitName(Unit unit) {
    constexpr std::array<std::string_view, 8> names{"",      "bytes",           "percent",    "seconds",
                                                    "hertz", "bits per second", "per second", "bytes per second"};
    return names[static_cast<std::size_t>(unit)];
}

}  // namespace kv::lab
