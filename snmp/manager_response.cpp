#include <charconv>
#include <cstring>
#include <new>

#include "snmp/asn.h"
#include "snmp/manager_operations.h"
#include "snmp/oid.h"
#include "snmp/toolkit_log.h"
#include "snmp/value_text.h"

namespace kv::snmp {

namespace {

NarrowText CopyBytes(const void* bytes, std::int32_t length) {
    const auto size = static_cast<std::size_t>(length);
    NarrowText text(new char[size + 1]);
    std::memcpy(text.get(), bytes, size);
    text[size] = '\0';
    return text;
}

NarrowText CopyText(const char* text) {
    NarrowText copy;
    if (AllocateAndCopyString(copy, text) == 99) throw std::bad_alloc();
    return copy;
}

NarrowText OidText(const std::uint32_t* subIds, std::int32_t count, std::int32_t* result) {
    NarrowText text(new char[OidTextRoom(count)]);
    *result = ConvertToStringFromOid(subIds, count, text.get());
    return text;
}

/// The text of a value that the variable has, and its length as the record gives it.
NarrowText ValueText(const VarBind& varBind, std::int32_t* length) {
    switch (varBind.type) {
        case tag::integer:
            return ConvertToStringFromInteger(static_cast<const std::int32_t*>(varBind.value), length);
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            return ConvertToStringFromUnsignedInteger(static_cast<const std::uint32_t*>(varBind.value), length);
        case tag::counter64:
            return ConvertToStringFromCounter64(static_cast<const std::uint32_t*>(varBind.value));
        case tag::objectId:
            return OidText(static_cast<const std::uint32_t*>(varBind.value), varBind.valueLength, length);
        case tag::ipAddress: {
            NarrowText text = CopyText(static_cast<const char*>(varBind.value));
            *length = static_cast<std::int32_t>(std::strlen(text.get()));
            return text;
        }
        default:
            *length = varBind.valueLength;
            return CopyBytes(varBind.value, varBind.valueLength);
    }
}

/// NULL and the exceptions have no value, whatever a device sends with them.
bool HasValue(const VarBind& varBind) {
    return varBind.valueLength > 0 && varBind.value && varBind.type != tag::null && !IsException(varBind.type);
}

/// The texts of OID and type are in one piece of memory, which is the OID's.
void FillValue(SnmpValue& value, const VarBind& varBind) {
    const std::size_t oidRoom = OidTextRoom(varBind.oidLength);
    value.oid = new char[oidRoom + typeTextRoom];
    value.oidLength = ConvertToStringFromOid(varBind.oid, varBind.oidLength, value.oid);
    if (HasValue(varBind)) value.value = ValueText(varBind, &value.valueLength).release();
    value.type = value.oid + oidRoom;
    *std::to_chars(value.type, value.type + typeTextRoom - 1, varBind.type).ptr = '\0';
}

/// The values of one list; their records are in one piece of memory.
void FillVarList(SnmpVarList& list, const TkVector& vector) {
    const auto count = static_cast<std::size_t>(vector.count);
    list.values = new SnmpValue* [count] {};
    SnmpValue* value = new SnmpValue[count]{};
    for (const TkVectorNode* node = vector.head; node; node = node->next, ++value) {
        list.values[list.valueCount++] = value;
        FillValue(*value, *static_cast<const VarBind*>(node->data));
    }
}

SnmpResponsePtr MakeResponse(const char* const* oids, std::int32_t oidCount, std::int32_t requestType) {
    const auto count = static_cast<std::size_t>(oidCount);
    SnmpResponsePtr response(new SnmpResponseData{});
    response->requestType = requestType;
    response->oids = new char* [count] {};
    response->results = new SnmpVarList* [count] {};
    for (; response->oidCount < oidCount; ++response->oidCount)
        response->oids[response->oidCount] = CopyText(oids[response->oidCount]).release();
    return response;
}

std::uint8_t LastType(const TkVector& vector) { return static_cast<const VarBind*>(vector.tail->data)->type; }

void FreeVarList(SnmpVarList* list) {
    if (!list) return;
    for (std::int32_t i = 0; i < list->valueCount; ++i) {
        delete[] list->values[i]->oid;
        delete[] list->values[i]->value;
    }
    if (list->valueCount > 0) delete[] list->values[0];
    delete[] list->values;
    delete list;
}

}  // namespace

SnmpResponseData* ConstructResponseData(const char* const* oids, std::int32_t oidCount,
                                        const VarBindListPtr* resultVectors,
                                        [[maybe_unused]] const SnmpResponseData* fallback, std::int32_t requestType) {
    TKLOG(3, "\t Inside ConstructResponseData() \n");
    SnmpResponsePtr response = MakeResponse(oids, oidCount, requestType);
    std::uint8_t last = 0;
    for (std::int32_t i = 0; i < oidCount; ++i) {
        const TkVector* vector = resultVectors[i].get();
        if (!vector || vector->count == 0) {
            if (vector) TKLOG(1, "nodePtr value is NULL\n");
            response->status = 0;
            return response.release();
        }
        response->results[i] = new SnmpVarList{};
        FillVarList(*response->results[i], *vector);
        last = LastType(*vector);
    }
    response->status = IsException(last) ? last : 1;
    return response.release();
}

}  // namespace kv::snmp

namespace kv {

void FreeResponseData(SnmpResponseData* response) {
    if (!response) return;
    for (std::int32_t i = 0; i < response->oidCount; ++i) {
        delete[] response->oids[i];
        snmp::FreeVarList(response->results[i]);
    }
    delete[] response->oids;
    delete[] response->results;
    delete response;
}

}  // namespace kv
