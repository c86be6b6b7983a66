#include "collection/record_members.h"

namespace kv {

OptionalText RecordMember(const HashTable* record, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(record, key);
    if (!entry) return std::nullopt;
    if (entry->type == ValueType::integer) return DecimalText(static_cast<std::int32_t>(entry->value));
    if (entry->type == ValueType::boolean) return (entry->value & 0xFF) != 0 ? u"true" : u"false";
    const char16_t* text = GetHashText(record, key);
    return text ? OptionalText(text) : std::nullopt;
}

}  // namespace kv
