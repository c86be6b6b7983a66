// One variable of a request or an answer: its name and its value.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "snmp/asn.h"
#include "snmp/tk_vector.h"

namespace kv::snmp {

/// The form of a value by its type: integer: int32; the counters, gauge, ticks and unsigned integer: uint32; counter64:
/// two uint32, high and low; object identifier: an array of sub-identifiers, counted by valueLength; address: dotted
/// text; all else: the bytes. Texts and bytes have a terminator that valueLength does not count.
struct VarBind {
    std::uint32_t* oid;  // behind the record, in one piece of memory with it
    std::int32_t oidLength;
    std::uint8_t type;         // a tag
    void* value;               // as DecodeAsnSyntaxValue makes it; or null
    std::int32_t valueLength;  // see above; bytes in a variable made by CreateAVarBind
    std::uint8_t ownsValue;
    std::uint32_t reserved;  // carried along by copies
    std::int32_t position;   // in the received list, from 1
    std::uint8_t received;   // 1 on the way in
};

/// Frees a variable with its name and, if it owns it, its value. Null is allowed.
void FreeVarBind(VarBind* varBind);

struct FreeVarBindDeleter {
    void operator()(VarBind* varBind) const { FreeVarBind(varBind); }
};
static_assert(std::is_trivially_destructible_v<VarBind>);  // its memory is freed as it is
using VarBindPtr = std::unique_ptr<VarBind, FreeVarBindDeleter>;

/// A variable with a copy of the name and no value; null when memory ran out.
[[nodiscard]] VarBindPtr MakeNamedVarBind(const std::uint32_t* oid, std::int32_t oidLength);

/// A variable with copies of the name and, if there is one, of the value; null when memory ran out. valueLength is in
/// bytes, also for an object identifier, as a builder takes it.
[[nodiscard]] VarBind* CreateAVarBind(const std::uint32_t* oid, std::int32_t oidLength, std::uint8_t type,
                                      const void* value, std::int32_t valueLength);

/// Appends a deep copy of the variable at a number, counted from 1; nothing when there is none.
void CopyVarBind(TkVector* target, TkVector* source, std::int32_t number);

/// The same of that variable and all that follow it. What was copied stays when memory ran out, with a line.
void CopyVarBinds(TkVector* target, TkVector* source, std::int32_t number);

/// Appends the variables of a list, which is empty afterwards: they are not copied, but change hands. No lock is taken:
/// the two lists are the caller's own, not the same, and in no order.
void TakeVarBinds(TkVector* target, TkVector* source);

/// Frees the variables of a list, and its nodes. The list itself stays.
void FreeVarBindList(TkVector* vector);

/// A list on the heap that owns its variables.
struct FreeVarBindListDeleter {
    void operator()(TkVector* vector) const {
        FreeVarBindList(vector);
        delete vector;
    }
};
using VarBindListPtr = std::unique_ptr<TkVector, FreeVarBindListDeleter>;

/// True for noSuchObject, noSuchInstance and endOfMibView.
inline bool IsException(std::uint8_t type) { return type >= tag::noSuchObject && type <= tag::endOfMibView; }

/// A new, empty list, or null when memory ran out.
[[nodiscard]] VarBindListPtr MakeVarBindList();

/// Trace lines.
void PrintVarBind(const VarBind* varBind);

/// Makes a value of its content bytes. The length goes in as that of the content and comes out as valueLength has it.
/// Null when memory ran out, and for a broken object identifier. The caller owns the value and releases it with
/// FreeValue.
[[nodiscard]] void* DecodeAsnSyntaxValue(std::uint8_t tag, const std::uint8_t* bytes, std::int32_t* length);

void FreeValue(void* value);

}  // namespace kv::snmp
