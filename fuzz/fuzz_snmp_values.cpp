// Any bytes as the text of an OID or an address, and as the content of a value. The first byte picks its type.
//
// An OID that was read, written and read again is the same, unless it has a sub-identifier too large to be written. A
// value keeps its text when its variable is copied.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "platform/backend.h"
#include "snmp/asn.h"
#include "snmp/oid.h"
#include "snmp/value_text.h"
#include "snmp/var_bind.h"

namespace {

using namespace kv::snmp;

void Require(bool held, const char* what) {
    if (held) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

/// The text of an OID, written into a buffer with exactly the room that callers give.
std::string OidText(const std::uint32_t* subIds, std::int32_t count) {
    const std::unique_ptr<char[]> text(new char[OidTextRoom(count)]);
    ConvertToStringFromOid(subIds, count, text.get());
    return text.get();
}

void ReadOidText(std::string_view text) {
    SubIds subIds;
    const std::int32_t count = ConvertToOidOrIpFromString(subIds, text, false);
    if (count <= 0) return;
    Require(count == std::count(text.begin(), text.end(), '.'), "not as many sub-identifiers as dots");
    const std::string written = OidText(subIds.get(), count);
    SubIds again;
    const std::int32_t countAgain = ConvertToOidOrIpFromString(again, written, false);
    bool isWritten = true;
    for (std::int32_t i = 0; i < count; ++i) isWritten = isWritten && subIds[static_cast<std::size_t>(i)] <= INT32_MAX;
    if (!isWritten) return Require(countAgain == -1, "an empty part was read");
    Require(CompareOid(subIds.get(), count, again.get(), countAgain) == 0, "an OID came back as another");
}

void ReadAddressText(std::string_view text) {
    SubIds entries;
    const std::int32_t count = ConvertToOidOrIpFromString(entries, text, true);
    std::uint8_t bytes[4] = {};
    const std::int32_t parts = ConvertToIpAddFromString(bytes, text, text.size());
    if (count != 4) return;
    Require(parts == 4, "an address of four parts was refused");
    char written[20];
    ConvertToIpAddressFromOid(written, entries.get(), 0, count);
    for (std::size_t i = 0; i < 4; ++i)
        Require(bytes[i] == static_cast<std::uint8_t>(entries[i]), "an address reads in two ways");
}

/// The text of a variable's value, by the routine for its type.
std::string ValueText(const VarBind& varBind) {
    if (!varBind.value) return {};
    std::int32_t length = 0;
    const auto* words = static_cast<const std::uint32_t*>(varBind.value);
    switch (varBind.type) {
        case tag::integer:
            return ConvertToStringFromInteger(static_cast<const std::int32_t*>(varBind.value), &length).get();
        case tag::objectId:
            return OidText(words, varBind.valueLength);
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            return ConvertToStringFromUnsignedInteger(words, &length).get();
        case tag::counter64:
            return ConvertToStringFromCounter64(words).get();
        default:
            return {static_cast<const char*>(varBind.value), static_cast<std::size_t>(varBind.valueLength)};
    }
}

/// Compares a number with one that is made from the content in the simplest way.
void CheckNumber(const VarBind& varBind, const std::uint8_t* bytes, std::size_t size) {
    const std::string text = ValueText(varBind);
    std::uint64_t folded = varBind.type == tag::integer && size > 0 && bytes[0] >= 0x80 ? ~std::uint64_t{0} : 0;
    for (std::size_t i = 0; i < size; ++i) folded = folded << 8 | bytes[i];
    if (varBind.type == tag::integer)
        Require(text == (size > 4 ? "-1" : std::to_string(static_cast<std::int32_t>(folded))), "a wrong integer");
    if (varBind.type == tag::counter32)
        Require(text == std::to_string(static_cast<std::uint32_t>(folded)), "a wrong counter");
    if (varBind.type == tag::counter64)
        Require(text == std::to_string(static_cast<std::int64_t>(folded)), "a wrong counter of 64 bits");
}

void CheckAddress(const VarBind& varBind, const std::uint8_t* bytes, std::size_t size) {
    if (varBind.type != tag::ipAddress || size != 4) return;
    const std::string text = ValueText(varBind);
    std::uint8_t back[4];
    Require(ConvertToIpAddFromString(back, text, text.size()) == 4, "an address that was written is not one");
    Require(std::memcmp(back, bytes, sizeof back) == 0, "an address came back as another");
}

void DecodeValue(std::uint8_t tag, const std::uint8_t* bytes, std::size_t size) {
    auto length = static_cast<std::int32_t>(size);
    const std::uint32_t name[] = {1, 3, 6};
    VarBindPtr made(CreateAVarBind(name, 3, tag, nullptr, 0));
    FreeValue(made->value);
    made->value = DecodeAsnSyntaxValue(tag, bytes, &length);
    made->valueLength = length;
    if (!made->value) return Require(tag == tag::objectId && length == 0, "no value");
    CheckNumber(*made, bytes, size);
    CheckAddress(*made, bytes, size);
    TkVectorNode node{made.get(), nullptr};
    TkVector source{&node, 1, &node, nullptr};
    TkVector target{};
    CopyVarBind(&target, &source, 1);
    const VarBind& copy = *static_cast<const VarBind*>(target.head->data);
    Require(ValueText(copy) == ValueText(*made), "a copy has another value");
    Require(CompareOid(copy.oid, copy.oidLength, name, 3) == 0, "a copy has another name");
    FreeVarBindList(&target);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint8_t tags[] = {tag::integer,   tag::octetString,  tag::objectId,  tag::ipAddress,
                                            tag::counter32, tag::gauge32,      tag::timeTicks, tag::uInteger32,
                                            tag::counter64, tag::noSuchObject, tag::opaque};
    static const bool backendInstalled = (platform::InstallBackend(), true);
    if (!backendInstalled || size == 0) return 0;
    const std::uint8_t tag = tags[data[0] % sizeof tags];
    const std::uint8_t* bytes = data + 1;
    const std::string_view text(reinterpret_cast<const char*>(bytes), --size);
    ReadOidText(text);
    ReadAddressText(text);
    DecodeValue(tag, bytes, size);
    std::int32_t negative = -1 - static_cast<std::int32_t>(size);
    FreeValue(DecodeAsnSyntaxValue(tag, bytes, &negative));
    return 0;
}
