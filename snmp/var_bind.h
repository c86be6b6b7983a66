// One variable of a request or an answer: its name and its value. It belongs to one thread; nothing here throws.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "snmp/asn.h"
#include "snmp/tk_vector.h"

namespace kv::snmp {

/// The form of a value depends on its type. Integer: int32. Counter, gauge, ticks and unsigned integer: uint32.
/// counter64: two uint32, high and low. Object identifier: an array of sub-identifiers, which valueLength counts.
/// Address: dotted text. All others: the bytes. Texts and bytes have a terminator that valueLength does not count.
struct VarBind {
    std::uint32_t* oid;  // in one piece of memory with the record, behind it
    std::int32_t oidLength;
    std::uint8_t type;         // a tag
    void* value;               // as DecodeAsnSyntaxValue makes it; or null
    std::int32_t valueLength;  // see above; in bytes when CreateAVarBind made the variable
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

/// A variable with copies of the name and of the value, which may be null; the caller's, released with FreeVarBind.
/// Null when memory ran out. valueLength is in bytes, as a builder takes it, also for an object identifier.
[[nodiscard]] VarBind* CreateAVarBind(const std::uint32_t* oid, std::int32_t oidLength, std::uint8_t type,
                                      const void* value, std::int32_t valueLength);

/// Appends a deep copy of the variable at a number, counted from 1, if there is one. Without memory nothing is
/// appended, with an engine line.
void CopyVarBind(TkVector* target, TkVector* source, std::int32_t number);

/// The same with that variable and all that follow it. What was copied before memory ran out stays.
void CopyVarBinds(TkVector* target, TkVector* source, std::int32_t number);

/// Appends the variables of a list, which is empty afterwards: they are not copied, but change hands. Takes no lock:
/// the two lists are the caller's own, are not the same one, and have no order.
void TakeVarBinds(TkVector* target, TkVector* source);

/// Frees the variables of a list and its nodes. The list itself stays.
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

/// Writes trace lines.
void PrintVarBind(const VarBind* varBind);

/// Makes a value from its content bytes. The length of the content goes in, and what valueLength needs comes out. The
/// value is the caller's; FreeValue releases it. Null when memory ran out, and for a broken object identifier.
[[nodiscard]] void* DecodeAsnSyntaxValue(std::uint8_t tag, const std::uint8_t* bytes, std::int32_t* length);

/// Null is allowed.
void FreeValue(void* value);

}  // namespace kv::snmp
