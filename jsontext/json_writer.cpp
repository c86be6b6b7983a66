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

template <class Visit>
void ForEachEntry(const HashTable* table, Visit visit) {
    for (std::int32_t bucket = 0; bucket < table->size; ++bucket) {
        for (const HashEntry* entry = table->buckets[bucket]; entry; entry = entry->next) {
            if (entry->key) visit(entry);
        }
    }
}

void HashToJSONObject(JsonWriter& writer, const HashTable* table);
void VectorToJSONArray(JsonWriter& writer, const Vector* vector);

/// The units that end a stretch that is copied as it stands: those that are escaped, and the zero at the end. JSON
/// needs no escape for the slash; readers of these texts expect one.
constexpr std::array<bool, 128> MakeStops() {
    std::array<bool, 128> stops{};
    for (std::size_t unit = 0; unit < 0x20; ++unit) stops[unit] = true;
    stops['"'] = stops['\\'] = stops['/'] = true;
    return stops;
}
constexpr std::array<bool, 128> stops = MakeStops();

const char16_t* EndOfPlainStretch(const char16_t* text) {
    while (*text >= stops.size() || !stops[*text]) ++text;
    return text;
}

/// About how long a value's text is without escapes. The room is reserved, so that a long text is not moved as it
/// grows.
std::size_t RoughLength(Word value, ValueType type) {
    constexpr std::size_t scalarLength = 12;
    constexpr std::size_t frameLength = 4;  // brackets or marks, comma and blanks
    std::size_t length = frameLength;
    if (value == 0) return length;
    if (type == ValueType::text) {
        length += std::u16string_view(reinterpret_cast<const char16_t*>(value)).size();
    } else if (type == ValueType::vector) {
        const VectorElement* element = reinterpret_cast<const Vector*>(value)->head;
        for (; element; element = element->next) length += RoughLength(element->value, element->type);
    } else if (type == ValueType::table) {
        ForEachEntry(reinterpret_cast<const HashTable*>(value), [&](const HashEntry* entry) {
            length += std::u16string_view(entry->key).size() + frameLength + RoughLength(entry->value, entry->type);
        });
    } else {
        length += scalarLength;
    }
    return length;
}

void Reserve(JsonWriter& writer, const void* value, ValueType type) {
    const std::size_t length = RoughLength(reinterpret_cast<Word>(value), type);
    writer.text.reserve(length + length / 8);  // an eighth for the escapes
}

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
    const char16_t* end = EndOfPlainStretch(value);
    for (; *end; end = EndOfPlainStretch(value)) {
        text.append(value, static_cast<std::size_t>(end - value));
        AppendEscape(text, *end);
        value = end + 1;
    }
    text.append(value, static_cast<std::size_t>(end - value));
    text += u'"';
}

void AppendInteger(std::u16string& text, Word value) {
    std::array<char, 12> digits{};
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
    ForEachEntry(table, [&](const HashEntry* entry) { writer.members.push_back(entry); });
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
    Reserve(writer, table, ValueType::table);
    HashToJSONObject(writer, table);
    return std::move(writer.text);
}

std::u16string VectorToJSONString(const Vector* vector) {
    Log4("\t Inside VectorToJSONString() \n");
    JsonWriter writer;
    Reserve(writer, vector, ValueType::vector);
    VectorToJSONArray(writer, vector);
    return std::move(writer.text);
}

}  // namespace kv
