// What kvagentctl check says of an SNMP record.
#include <cstdint>
#include <fmt/format.h>
#include <string_view>

#include "collection/plan_members.h"
#include "collection/snmp_query.h"
#include "foundation/text.h"
#include "platform/utf.h"
#include "snmp/pdu.h"
#include "tools/kvagentctl/check/check_subject.h"
#include "tools/kvagentctl/snmp_hints.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

/// Of a member without which nothing is asked.
std::string WhatLacks(const Subject& subject, std::u16string_view key) {
    const std::string lack = subject.text(key) ? Utf8FromWide(key) + " is empty" : subject.Lack(key);
    return lack + ": nothing is asked";
}

void CheckOids(const Subject& subject) {
    constexpr std::size_t mostShown = 60;
    const std::string oids = Utf8FromWide(subject.text(u"OID").value_or(u""));
    bool isAny = false;
    for (std::size_t at = 0; at < oids.size();) {
        const std::string oid = oids.substr(at, oids.find(',', at) - at);
        at += oid.size() + 1;
        if (oid.empty()) continue;
        isAny = true;
        const std::string fault = oid.starts_with('.') ? OidFault(oid) : "does not begin with a dot";
        const std::string shown = oid.size() > mostShown ? oid.substr(0, mostShown) + "..." : oid;
        if (!fault.empty()) subject.Error(fmt::format("OID '{}' {}", shown, fault), "as in .1.3.6.1.2.1.1.3.0");
    }
    if (!isAny)
        subject.Error(WhatLacks(subject, u"OID"), R"(one text with commas: ".1.3.6.1.2.1.1.3.0,.1.3.6.1.2.1.1.5.0")");
}

void CheckDevice(const Subject& subject) {
    const std::string host = Utf8FromWide(subject.text(u"DEVICE_NAME").value_or(u""));
    if (host.empty()) return subject.Error(WhatLacks(subject, u"DEVICE_NAME"), "give the device's address or name");
    const std::string fault = DeviceNameFault(host, "goes into SNMP_PORT");
    if (!fault.empty()) subject.Error("DEVICE_NAME " + fault);
    std::int32_t port = 0;
    if (!SnmpPort(subject.record, port))
        subject.Error("SNMP_PORT is not a number from 1 to 65535: the device is not asked");
}

void CheckVersion(const Subject& subject) {
    const OptionalText version = subject.text(u"SNMP_VERSION");
    if (version == u"v1" || version == u"v2c") return;
    if (version == u"v3") return subject.Error("SNMP_VERSION v3 gets no answer from any device", "v1 or v2c");
    const std::string what = version ? fmt::format("SNMP_VERSION '{}' is neither v1 nor v2c", Utf8FromWide(*version))
                                     : subject.Lack(u"SNMP_VERSION");
    subject.Warn(what + ": v1 is taken", "write \"v1\" or \"v2c\"");
}

void CheckWalk(const Subject& subject) {
    constexpr std::u16string_view key = u"IS_MULTIPLE_POLLED_DATA";
    const OptionalText text = subject.text(key);
    for (const std::u16string_view known : {u"true", u"false", u"no", u"0", u""}) {
        if (CompareIgnoreCase(text, known) == 0) return;
    }
    if (!text && !subject.has(key)) return;
    const std::string what =
        text ? fmt::format("IS_MULTIPLE_POLLED_DATA is \"{}\", not \"true\"", Utf8FromWide(*text)) : subject.Lack(key);
    subject.Warn(what + ": only the OIDs themselves are asked for", "write \"true\" for all values below them");
}

}  // namespace

void CheckSnmp(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, snmpRecordMembers, subject.ignored);
    CheckDevice(subject);
    CheckVersion(subject);
    const OptionalText community = subject.text(u"COMMUNITY");
    if (!community) subject.Warn(subject.Lack(u"COMMUNITY") + ": public is taken");
    if (Utf8FromWide(community.value_or(u"")).size() > snmp::maxRequestCommunity)
        subject.Error(fmt::format("COMMUNITY has more than {} bytes", snmp::maxRequestCommunity));
    CheckOids(subject);
    CheckWalk(subject);
    for (const std::u16string_view key : {u"POLL_ID", u"AGENT_KEY"}) {
        if (!subject.text(key)) subject.Warn(subject.Lack(key) + ", and the server knows the values by it");
    }
}

}  // namespace kv::control
