#include <algorithm>
#include <array>
#include <charconv>
#include <utility>
#include <vector>

#include "foundation/log.h"
#include "jsontext/hash_json.h"

namespace kv {

namespace {

/// A text in the making.
struct JsonWriter {
    std::u16string text;
    std::vector<const HashEntry*> members;  // of the tables being written, those of the outermost first
};

void HashToJSONObject(JsonWriter& writer, const HashTable* table);
void VectorToJSONArray(JsonWriter& writer, const Vector* vector);

/// Whether a unit cannot stand in a text as it is. The slash needs no escape in JSON; readers of these texts expect
/// one.
constexpr bool NeedsEscape(char16_t unit) { return unit < 0x20 || unit == u'"' || unit == u'\\' || unit == u'/'; }

void AppendEscape(std::u16string& text, char16_t unit) {
    constexpr std::u16string_view hexDigits = u"0123456789abcdef";
    switch (unit) {
        case u'\b':
            text += u"\\b";
            return;
        case u'\n':
            text += u"\\n";
            return;
        case u'\r':
            text += u"\\r";
            return;
        case u'\t':
            text += u"\\t";
            return;
        case u'"':
        case u'\\':
        case u'/':
            text += u'\\';
            text += unit;
            return;
        default:
            text += u"\\u00";
            text += hexDigits[unit >> 4];
            text += hexDigits[unit & 0xF];
    }
}

/// A text in quotation marks.
void AppendText(std::u16string& text, const char16_t* value) {
    text += u'"';
    for (std::u16string_view rest(value); !rest.empty();) {
        const auto plainEnd = std::find_if(rest.begin(), rest.end(), NeedsEscape);
        text.append(rest.begin(), plainEnd);
        if (plainEnd == rest.end()) break;
        AppendEscape(text, *plainEnd);
        rest.remove_prefix(static_cast<std::size_t>(plainEnd - rest.begin()) + 1);
    }
    text += u'"';
}

void AppendInteger(std::u16string& text, Word value) {
    std::array<char, 12> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<std::int32_t>(value));
    text.append(digits.data(), result.ptr);
}

void AppendValue(JsonWriter& writer, Word value, ValueType type) {
    const bool isPointer = type == ValueType::text || type == ValueType::vector || type == ValueType::table;
    if (type == ValueType::none || (isPointer && value == 0)) {
        writer.text += u"null";
        return;
    }
    switch (type) {
        case ValueType::none:
            break;
        case ValueType::boolean:
            writer.text += (value & 0xFF) != 0 ? u"true" : u"false";
            break;
        case ValueType::number:
            AppendInteger(writer.text, value);
            writer.text += u".000000";  // the fraction was lost when the number was stored
            break;
        case ValueType::integer:
        case ValueType::other:
            AppendInteger(writer.text, value);
            break;
        case ValueType::text:
            AppendText(writer.text, reinterpret_cast<const char16_t*>(value));
            break;
        case ValueType::vector:
            VectorToJSONArray(writer, reinterpret_cast<const Vector*>(value));
            break;
        case ValueType::table:
            HashToJSONObject(writer, reinterpret_cast<const HashTable*>(value));
            break;
    }
}

void AppendMember(JsonWriter& writer, const HashEntry* member) {
    writer.text += u' ';
    AppendText(writer.text, member->key);
    writer.text += u": ";
    AppendValue(writer, member->value, member->type);
}

void HashToJSONObject(JsonWriter& writer, const HashTable* table) {
    const std::size_t first = writer.members.size();
    for (std::int32_t bucket = 0; bucket < table->size; ++bucket) {
        for (const HashEntry* entry = table->buckets[bucket]; entry; entry = entry->next) {
            if (entry->key) writer.members.push_back(entry);
        }
    }
    writer.text += u'{';
    for (bool isFirst = true; writer.members.size() > first; isFirst = false) {
        const HashEntry* last = writer.members.back();
        writer.members.pop_back();
        if (!isFirst) writer.text += u',';
        AppendMember(writer, last);
    }
    writer.text += u" }";
}

void VectorToJSONArray(JsonWriter& writer, const Vector* vector) {
    writer.text += u'[';
    for (const VectorElement* element = vector->head; element; element = element->next) {
        writer.text += element == vector->head ? u" " : u", ";
        AppendValue(writer, element->value, element->type);
    }
    writer.text += u" ]";
}

}  // namespace

std::u16string HashToJSONString(const HashTable* table) {
    Log4("\t Inside HashToJSONString() \n");
    JsonWriter writer;
    HashToJSONObject(writer, table);
    return std::move(writer.text);
}

std::u16string VectorToJSONString(const Vector* vector) {
    Log4("\t Inside VectorToJSONString() \n");
    JsonWriter writer;
    VectorToJSONArray(writer, vector);
    return std::move(writer.text);
}

}  // namespace kv
