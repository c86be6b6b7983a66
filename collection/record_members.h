// What a record of a plan, or a request, says under one of its keys.
#pragma once

#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// A member as text: a text as it is, an integer in decimal, a truth value as "true" or "false". None when it is absent
/// or anything else.
OptionalText RecordMember(const HashTable* record, std::u16string_view key);

}  // namespace kv
