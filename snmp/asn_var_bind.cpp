#include "snmp/asn.h"
#include "snmp/asn_content.h"

namespace kv::snmp {

namespace {

/// The form in which a value's builder takes it.
enum class ValueForm { unknown, null, integer, bitString, string, objectId, word, counter64 };

ValueForm ValueFormFor(std::uint8_t valueTag) {
    switch (valueTag) {
        case tag::integer:
            return ValueForm::integer;
        case tag::bitString:
            return ValueForm::bitString;
        case tag::octetString:
        case tag::ipAddress:
        case tag::opaque:
        case tag::nsapAddress:
            return ValueForm::string;
        case tag::null:
        case tag::noSuchObject:
        case tag::noSuchInstance:
        case tag::endOfMibView:
            return ValueForm::null;
        case tag::objectId:
            return ValueForm::objectId;
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            return ValueForm::word;
        case tag::counter64:
            return ValueForm::counter64;
        default:
            return ValueForm::unknown;
    }
}

std::uint8_t* BuildValue(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, ValueForm form,
                         const void* value, std::int32_t length) {
    if (form == ValueForm::null) return AsnBuildNull(position, remaining, tag);
    if (length < 0 || (length > 0 && !value)) return nullptr;
    const auto size = static_cast<std::size_t>(length);
    const auto* bytes = static_cast<const std::uint8_t*>(value);
    const auto* words = static_cast<const std::uint32_t*>(value);
    switch (form) {
        case ValueForm::integer:
            return AsnBuildInteger(position, remaining, tag, static_cast<const std::int32_t*>(value), size);
        case ValueForm::bitString:
            return AsnBuildBitString(position, remaining, tag, bytes, size);
        case ValueForm::string:
            return AsnBuildString(position, remaining, tag, bytes, size);
        case ValueForm::objectId:
            return AsnBuildObjectId(position, remaining, tag, words,
                                    length / static_cast<std::int32_t>(sizeof(std::uint32_t)));
        case ValueForm::word:
            return AsnBuildUnsigned(position, remaining, tag, words, size);
        case ValueForm::counter64:
            return AsnBuildCounter64(position, remaining, tag, words, size);
        default:
            return nullptr;
    }
}

}  // namespace

const std::uint8_t* SnmpParseVarBind(const std::uint8_t* position, std::uint32_t* oid, std::int32_t* oidCount,
                                     std::uint8_t* valueTag, std::int32_t* valueLength,
                                     const std::uint8_t** valuePosition, std::int32_t* remaining) {
    std::uint8_t tag = 0;
    std::int32_t inner = *remaining;
    const std::uint8_t* next = AsnParseHeader(position, &inner, &tag);
    if (!next) return AsnFailure("No header for variable");
    if (inner < 2 || tag != tag::sequence) return nullptr;
    next = AsnParseObjectId(next, &inner, &tag, oid, oidCount);
    if (!next) return AsnFailure("No OID for variable");
    if (inner < 2 || tag != tag::objectId) return nullptr;
    *valuePosition = next;
    next = AsnParseHeader(next, &inner, valueTag);
    if (!next) return AsnFailure("No header for value");
    *valueLength = inner;
    next += inner;
    *remaining -= static_cast<std::int32_t>(next - position);
    return next;
}

std::uint8_t* SnmpBuildVarBind(std::uint8_t* position, const std::uint32_t* oid, const std::int32_t* oidCount,
                               std::uint8_t valueTag, std::int32_t valueLength, const void* value,
                               std::int32_t* remaining) {
    std::uint8_t* parts = AsnBuildSequence(position, remaining, tag::sequence, 0);
    if (!parts) return nullptr;
    std::uint8_t* next = AsnBuildObjectId(parts, remaining, tag::objectId, oid, *oidCount);
    if (!next) return AsnFailure("Can't build OID for variable");
    const ValueForm form = ValueFormFor(valueTag);
    if (form == ValueForm::unknown) return AsnFailure("wrong type");
    next = BuildValue(next, remaining, valueTag, form, value, valueLength);
    if (!next) return AsnFailure("Can't build value");
    auto headerSize = static_cast<std::int32_t>(parts - position);
    AsnBuildSequence(position, &headerSize, tag::sequence, static_cast<std::uint32_t>(next - parts));
    return next;
}

}  // namespace kv::snmp
