#include "snmp/var_bind.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "snmp/asn.h"
#include "snmp/oid.h"
#include "snmp/toolkit_log.h"
#include "snmp/value_text.h"

namespace kv::snmp {

namespace {

constexpr const char* byteFormat = "0x%02x\t";
constexpr const char* outOfMemory = "Unable to allocate buffer !!! \n";
constexpr const char* missingNode = "nodePtr value is NULL\n";

constexpr std::int32_t addressBytes = 4;
constexpr std::int32_t addressRoom = 19;  // characters of an address's text

const std::uint32_t* ValueWords(const void* value) { return static_cast<const std::uint32_t*>(value); }
const std::uint8_t* ValueBytes(const void* value) { return static_cast<const std::uint8_t*>(value); }

/// Zeroed room of at least one byte more than the size; null when memory ran out. Made of words like the array of an
/// object identifier, so that FreeValue fits both.
void* NewValue(std::int64_t size) {
    const auto words = static_cast<std::size_t>(std::max<std::int64_t>(size, 0)) / sizeof(std::uint32_t) + 1;
    return new (std::nothrow) std::uint32_t[words]{};
}

std::int64_t SizeOfValue(std::uint8_t type, std::int32_t valueLength) {
    const std::int64_t size = std::max(valueLength, 0);
    return type == tag::objectId ? size * std::int64_t{sizeof(std::uint32_t)} : size;
}

/// A deep copy; null when memory ran out.
VarBindPtr VarBindCopy(const VarBind& source) {
    VarBindPtr copy = MakeNamedVarBind(source.oid, source.oidLength);
    if (!copy) return nullptr;
    copy->type = source.type;
    copy->reserved = source.reserved;
    copy->position = source.position;
    if (!source.value || source.valueLength <= 0) return copy;
    const std::int64_t size = SizeOfValue(source.type, source.valueLength);
    copy->value = NewValue(size);
    if (!copy->value) return nullptr;
    std::memcpy(copy->value, source.value, static_cast<std::size_t>(size));
    copy->valueLength = source.valueLength;
    copy->ownsValue = 1;
    return copy;
}

/// False when memory ran out.
bool AppendCopy(TkVector* target, const TkVectorNode* sourceNode) {
    VarBindPtr copy = VarBindCopy(*static_cast<const VarBind*>(sourceNode->data));
    TkVectorNode* node = copy ? new (std::nothrow) TkVectorNode{} : nullptr;
    if (!node) {
        TKLOG(1, outOfMemory);
        return false;
    }
    node->data = copy.release();
    AddElement(target, node);
    return true;
}

/// The node at a number, counted from 1; null when the arguments allow none, and with a line when it is missing.
const TkVectorNode* SourceNode(TkVector* source, std::int32_t number) {
    if (number <= 0 || !source || number - 1 > source->count) return nullptr;
    const TkVectorNode* node = ElementAt(source, number - 1);
    if (!node) TKLOG(1, missingNode);
    return node;
}

/// A value of one or two words; null when memory ran out.
std::uint32_t* NewWords(std::int32_t count, std::int32_t* length) {
    *length = count * static_cast<std::int32_t>(sizeof(std::uint32_t));
    return static_cast<std::uint32_t*>(NewValue(*length));
}

/// The text of an address, of at most its first four bytes, with its length.
void* DecodeAddress(const std::uint8_t* bytes, std::int32_t* length) {
    void* value = NewValue(addressRoom);
    if (!value) return nullptr;
    std::array<std::uint32_t, addressBytes> parts{};
    const std::int32_t count = std::clamp(*length, 0, addressBytes);
    std::copy_n(bytes, count, parts.begin());
    char* text = static_cast<char*>(value);
    ConvertToIpAddressFromOid(text, parts.data(), 0, count);
    *length = static_cast<std::int32_t>(std::strlen(text));
    return value;
}

void* DecodeBytes(const std::uint8_t* bytes, std::int32_t length) {
    void* value = NewValue(length);
    if (value && length > 0) std::memcpy(value, bytes, static_cast<std::size_t>(length));
    return value;
}

void PrintValue(const VarBind& varBind) {
    switch (varBind.type) {
        case tag::integer:
            return TKLOG(2, "VarBind Value\t\t\t= %d\n", *static_cast<const std::int32_t*>(varBind.value));
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            return TKLOG(2, "VarBind Value\t\t\t= %u\n", *ValueWords(varBind.value));
        case tag::counter64: {
            const std::uint32_t* words = ValueWords(varBind.value);
            return TKLOG(2, "VarBind Value\t\t\t= %llu\n", ConvertToULongLongFromCounter64(words[0], words[1]));
        }
        case tag::ipAddress:
            return TKLOG(2, "VarBind Value\t\t\t= %s\n", static_cast<const char*>(varBind.value));
        case tag::objectId:
            TKLOG(2, "VarBind Value\t\t\t=");
            return PrintOid(ValueWords(varBind.value), varBind.valueLength);
        default:
            TKLOG(2, "VarBind Value\t\t\t=");
            PrintStream(ValueBytes(varBind.value), varBind.valueLength, byteFormat);
            return TKLOG(2, "\n");
    }
}

}  // namespace

void FreeValue(void* value) { delete[] static_cast<std::uint32_t*>(value); }

void FreeVarBind(VarBind* varBind) {
    if (!varBind) return;
    if (varBind->ownsValue == 1) FreeValue(varBind->value);
    ::operator delete(varBind);
}

VarBindPtr MakeNamedVarBind(const std::uint32_t* oid, std::int32_t oidLength) {
    const std::int32_t count = std::max(oidLength, 0);
    void* const room =
        ::operator new(sizeof(VarBind) + static_cast<std::size_t>(count) * sizeof(std::uint32_t), std::nothrow);
    if (!room) return nullptr;
    VarBindPtr varBind(new (room) VarBind{});
    varBind->oid = reinterpret_cast<std::uint32_t*>(varBind.get() + 1);
    varBind->oidLength = count;
    CopyOid(varBind->oid, oid, count);
    return varBind;
}

VarBind* CreateAVarBind(const std::uint32_t* oid, std::int32_t oidLength, std::uint8_t type, const void* value,
                        std::int32_t valueLength) {
    TKLOG(3, "\t Inside CreateAVarBind() \n");
    VarBindPtr varBind = MakeNamedVarBind(oid, oidLength);
    // An object identifier, too, is given in bytes, but a copy of the variable looks at as many words.
    if (varBind) varBind->value = NewValue(SizeOfValue(type, valueLength));
    if (!varBind || !varBind->value) {
        TKLOG(1, outOfMemory);
        return nullptr;
    }
    varBind->ownsValue = 1;
    varBind->type = type;
    PrintOid(varBind->oid, varBind->oidLength);
    if (value && valueLength > 0) {
        std::memcpy(varBind->value, value, static_cast<std::size_t>(valueLength));
        varBind->valueLength = valueLength;
        PrintStream(ValueBytes(varBind->value), valueLength, byteFormat);
    }
    return varBind.release();
}

void CopyVarBind(TkVector* target, TkVector* source, std::int32_t number) {
    TKLOG(3, "\t Inside CopyVarBind() \n");
    if (const TkVectorNode* node = SourceNode(source, number)) AppendCopy(target, node);
}

void CopyVarBinds(TkVector* target, TkVector* source, std::int32_t number) {
    TKLOG(3, "\t Inside CopyVarBinds() \n");
    const TkVectorNode* node = SourceNode(source, number);
    const std::int32_t end = source ? source->count : 0;  // as it is now: source may be target
    for (std::int32_t i = number; i <= end && node && AppendCopy(target, node); ++i) node = node->next;
}

void TakeVarBinds(TkVector* target, TkVector* source) {
    if (!source->head) return;
    (target->head ? target->tail->next : target->head) = source->head;
    target->tail = source->tail;
    target->count += source->count;
    InitVector(source, source->compare);
}

void FreeVarBindList(TkVector* vector) {
    TKLOG(3, "\t Inside FreeVarBindList() \n");
    if (!vector->head && vector->count == 0) return;
    const TkVectorNode* node = vector->head;
    for (std::int32_t i = 0; i < vector->count; ++i, node = node->next) {
        if (!node) {
            TKLOG(1, missingNode);
            break;
        }
        FreeVarBind(static_cast<VarBind*>(node->data));
    }
    FreeVector(vector);
}

VarBindListPtr MakeVarBindList() { return VarBindListPtr(new (std::nothrow) TkVector{}); }

void PrintVarBind(const VarBind* varBind) {
    if (!TkLogsAtLeast(2)) return;
    TKLOG(2, "VarBind Number\t\t= %d\n", varBind->position);
    TKLOG(2, "VarBind Type\t\t\t= %d\n", varBind->type);
    TKLOG(2, "VarBind OID\t\t\t=");
    PrintOid(varBind->oid, varBind->oidLength);
    if (varBind->value && varBind->valueLength > 0) PrintValue(*varBind);
}

void* DecodeAsnSyntaxValue(std::uint8_t tag, const std::uint8_t* bytes, std::int32_t* length) {
    TKLOG(3, "\t Inside DecodeAsnSyntaxValue() \n");
    const std::int32_t contentLength = *length;
    void* value = nullptr;
    switch (tag) {
        case tag::integer:
            value = NewWords(1, length);
            if (value) *static_cast<std::int32_t*>(value) = ConvertToInteger(bytes, contentLength);
            break;
        case tag::objectId:
            return DecodeOID(bytes, contentLength, length).release();
        case tag::ipAddress:
            value = DecodeAddress(bytes, length);
            break;
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            value = NewWords(1, length);
            if (value) *static_cast<std::uint32_t*>(value) = ConvertToUnsignedInteger(bytes, contentLength);
            break;
        case tag::counter64:
            value = NewWords(2, length);
            if (value) ConvertToCounter64(static_cast<std::uint32_t*>(value), bytes, contentLength);
            break;
        default:
            value = DecodeBytes(bytes, contentLength);
            break;
    }
    if (!value) TKLOG(2, outOfMemory);
    return value;
}

}  // namespace kv::snmp
