#include <algorithm>
#include <array>
#include <cmath>
#include <json-c/json.h>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log.h"
#include "foundation/text.h"
#include "jsontext/hash_json.h"
#include "jsontext/narrow_json.h"

namespace kv {

namespace {

constexpr std::size_t nestingLimit = 32;

/// json-c counts bytes in an int, and a document has at most 5 for each unit on its way there: ten for an empty text.
static_assert(largestJsonDocument < std::numeric_limits<int>::max() / 5);

/// An empty object costs a kilobyte on its way in, another value a fifth of that. A plan of 10,000 workflows has a
/// seventh of the one and an eleventh of the other.
constexpr std::size_t mostOpeningBrackets = 250'000;
constexpr std::size_t mostCommas = 1'200'000;

/// For people, who mend one after the other.
constexpr std::size_t mostRepeatedKeys = 100;

/// Far more than anything that is read has. Removing a key still searches a table from its first one.
constexpr std::size_t mostMembersOfAnObject = 10'000;

struct JsonObjectDeleter {
    void operator()(json_object* object) const { json_object_put(object); }
};
using JsonObjectPtr = std::unique_ptr<json_object, JsonObjectDeleter>;

struct JsonTokenerDeleter {
    void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
};
using JsonTokenerPtr = std::unique_ptr<json_tokener, JsonTokenerDeleter>;

struct JsonMember {
    std::string_view key;        // narrow
    json_object* value;          // null for JSON's null
    std::string_view last = {};  // the key of the last member with the same key; empty for that member itself
};

/// The narrow keys of a member that is passed over and of the one that counts in its place.
struct PassedOver {
    std::string_view key;
    std::string_view last;
};
struct PassedOverList {
    std::vector<PassedOver> members;
    KeyFilter isWanted;  // null for all

    void Add(const PassedOver& member) {
        if (members.size() < mostRepeatedKeys && (!isWanted || isWanted(WideTextFromNarrow(member.key))))
            members.push_back(member);
    }
};

void JSONObjectToHash(HashTable* table, json_object* object, PassedOverList& passedOver);
void JSONArrayToVector(Vector* vector, json_object* array, PassedOverList& passedOver);

/// A value on its way into a list or a table. A nested list or table is in its owner, and value is 0. Of a text, value
/// points into text: such a record is not moved.
struct StoredValue {
    Word value = 0;
    ValueType type = ValueType::none;
    std::u16string text;
    VectorPtr vector;
    HashTablePtr table;
};

/// The low 32 bits.
Word LowWord(std::int64_t integer) { return static_cast<std::uint32_t>(integer); }

std::int32_t CutToInteger(double number) {
    if (std::isnan(number)) return 0;
    constexpr double lowest = std::numeric_limits<std::int32_t>::min();
    constexpr double highest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::clamp(number, lowest, highest));
}

void StoreInteger(StoredValue& stored, json_object* value) {
    const std::int64_t integer = json_object_get_int64(value);
    const bool fits = std::in_range<std::int32_t>(integer);
    stored.type = fits ? ValueType::integer : ValueType::other;
    // Above the signed range only the unsigned reading still has the low bits.
    stored.value = LowWord(integer < 0 ? integer : static_cast<std::int64_t>(json_object_get_uint64(value)));
}

void StoreText(StoredValue& stored, json_object* value) {
    const auto size = static_cast<std::size_t>(json_object_get_string_len(value));
    stored.text = WideTextFromNarrow(std::string_view(json_object_get_string(value), size));
    if (stored.text.find(u'\0') != std::u16string::npos)
        Log1("\t JSONTextToHash :: a text with a zero character ends there: %s \n", stored.text.c_str());
    stored.type = ValueType::text;
    stored.value = reinterpret_cast<Word>(stored.text.c_str());
}

void StoreArray(StoredValue& stored, json_object* value, PassedOverList& passedOver) {
    stored.vector = MakeVector();
    if (!stored.vector) return;
    JSONArrayToVector(stored.vector.get(), value, passedOver);
    stored.type = ValueType::vector;
}

void StoreObject(StoredValue& stored, json_object* value, PassedOverList& passedOver) {
    stored.table = MakeHashTable();
    if (!stored.table) return;
    JSONObjectToHash(stored.table.get(), value, passedOver);
    stored.type = ValueType::table;
}

/// Fills in a value; one of type none is not stored.
void StoreValue(StoredValue& stored, json_object* value, PassedOverList& passedOver) {
    switch (json_object_get_type(value)) {
        case json_type_null:
            break;
        case json_type_boolean:
            stored.type = ValueType::boolean;
            stored.value = json_object_get_boolean(value) ? 1 : 0;
            break;
        case json_type_double:
            stored.type = ValueType::number;
            stored.value = LowWord(CutToInteger(json_object_get_double(value)));
            break;
        case json_type_int:
            StoreInteger(stored, value);
            break;
        case json_type_string:
            StoreText(stored, value);
            break;
        case json_type_array:
            StoreArray(stored, value, passedOver);
            break;
        case json_type_object:
            StoreObject(stored, value, passedOver);
            break;
    }
}

/// Marks all members but the last of those with equal keys.
void MarkRepeated(std::vector<JsonMember>& members) {
    std::vector<std::pair<std::string_view, JsonMember*>> byKey;
    byKey.reserve(members.size());
    for (JsonMember& member : members) byKey.emplace_back(WithoutTextCount(member.key), &member);
    std::sort(byKey.begin(), byKey.end());
    for (std::size_t at = byKey.size(); at-- > 1;) {
        const JsonMember& next = *byKey[at].second;
        if (byKey[at - 1].first == byKey[at].first)
            byKey[at - 1].second->last = next.last.empty() ? next.key : next.last;
    }
}

/// The members in document order. json-c sees no two equal keys, so none is missing.
std::vector<JsonMember> MembersInOrder(json_object* object) {
    std::vector<JsonMember> members;
    members.reserve(static_cast<std::size_t>(json_object_object_length(object)));
    const json_object_iterator end = json_object_iter_end(object);
    for (json_object_iterator member = json_object_iter_begin(object); !json_object_iter_equal(&member, &end);
         json_object_iter_next(&member)) {
        members.push_back({.key = json_object_iter_peek_name(&member), .value = json_object_iter_peek_value(&member)});
    }
    MarkRepeated(members);
    return members;
}

void PutStored(HashTable* table, std::u16string_view key, StoredValue&& stored) {
    if (stored.vector)
        PutHashVector(table, key, std::move(stored.vector));
    else if (stored.table)
        PutHashTable(table, key, std::move(stored.table));
    else
        PutHashValue(table, key, stored.value, stored.type);
}

void AppendStored(Vector* vector, StoredValue&& stored) {
    if (stored.vector)
        AppendVector(vector, std::move(stored.vector));
    else if (stored.table)
        AppendTable(vector, std::move(stored.table));
    else
        AddValueToVector(vector, stored.value, stored.type);
}

void JSONObjectToHash(HashTable* table, json_object* object, PassedOverList& passedOver) {
    Log4("\t Inside JSONObjectToHash() \n");
    for (const JsonMember& member : MembersInOrder(object)) {
        if (!member.last.empty()) {
            passedOver.Add({member.key, member.last});
            continue;
        }
        StoredValue stored;
        StoreValue(stored, member.value, passedOver);
        if (stored.type != ValueType::none) PutStored(table, WideTextFromNarrow(member.key), std::move(stored));
    }
}

void JSONArrayToVector(Vector* vector, json_object* array, PassedOverList& passedOver) {
    Log4("\t Inside JSONArrayToVector() \n");
    const std::size_t length = json_object_array_length(array);
    for (std::size_t index = 0; index < length; ++index) {
        StoredValue stored;
        StoreValue(stored, json_object_array_get_idx(array, index), passedOver);
        if (stored.type != ValueType::none) AppendStored(vector, std::move(stored));
    }
}

/// The objects and arrays around a place in a document, the outermost first, and counts of what came before it.
struct OpenLevels {
    struct Level {
        bool isObject = false;
        std::size_t commas = 0;
    };
    std::array<Level, nestingLimit + 2> levels;  // the first is the document itself
    std::size_t depth = 0;
    std::size_t brackets = 0;
    std::size_t commas = 0;
};

void CountUnit(OpenLevels& open, char16_t unit) {
    if (unit == u'{' || unit == u'[') {
        ++open.brackets;
        open.levels[++open.depth] = {.isObject = unit == u'{'};
    } else if (unit == u'}' || unit == u']') {
        if (open.depth > 0) --open.depth;
    } else if (unit == u',') {
        ++open.commas;
        ++open.levels[open.depth].commas;
    }
}

/// Why a document would make too much; an empty text when it does not. What the parser refuses is left to the parser.
std::string ExcessIn(std::u16string_view text) {
    OpenLevels open;
    for (std::size_t at = 0; at < text.size() && open.depth <= nestingLimit;) {
        const std::size_t passed = LengthOfTextOrComment(text.substr(at));
        if (passed == 0) CountUnit(open, text[at]);
        at += passed == 0 ? 1 : passed;
        const OpenLevels::Level& level = open.levels[open.depth];
        if (level.isObject && level.commas >= mostMembersOfAnObject)
            return "an object has more than " + std::to_string(mostMembersOfAnObject) + " members";
        if (open.brackets > mostOpeningBrackets || open.commas > mostCommas)
            return "the document has too many values for the memory";
    }
    return {};
}

const char* ParserWords(json_tokener_error error) {
    return error == json_tokener_error_depth ? "nesting to deep" : json_tokener_error_desc(error);
}

std::string Place(std::u16string_view text, std::size_t narrowOffset) {
    const std::size_t offset = WideOffset(text, narrowOffset);
    const auto line = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), u'\n') + 1;
    return "at offset " + std::to_string(offset) + " (line " + std::to_string(line) + ")";
}

/// The lines in which a document's texts of these numbers begin. Nothing is looked for without numbers.
std::map<std::uint32_t, std::size_t> LinesOfTexts(std::u16string_view document, const PassedOverList& passedOver) {
    std::map<std::uint32_t, std::size_t> lines;
    for (const PassedOver& member : passedOver.members) {
        lines[NumberOfText(member.key)] = 0;
        lines[NumberOfText(member.last)] = 0;
    }
    const std::uint32_t last = lines.empty() ? 0 : lines.rbegin()->first;
    std::size_t line = 1;
    std::uint32_t number = 0;
    for (std::size_t at = 0; at < document.size() && !lines.empty() && number <= last;) {
        const std::size_t length = LengthOfTextOrComment(document.substr(at));
        if (length > 0 && document[at] != u'/') {
            if (const auto wanted = lines.find(number++); wanted != lines.end()) wanted->second = line;
        }
        const std::u16string_view passed = document.substr(at, std::max<std::size_t>(length, 1));
        line += static_cast<std::size_t>(std::count(passed.begin(), passed.end(), u'\n'));
        at += passed.size();
    }
    return lines;
}

std::vector<RepeatedKey> RepeatedKeys(std::u16string_view document, const PassedOverList& passedOver) {
    const std::map<std::uint32_t, std::size_t> lines = LinesOfTexts(document, passedOver);
    std::vector<RepeatedKey> repeated;
    for (const PassedOver& member : passedOver.members)
        repeated.push_back(
            {WideTextFromNarrow(member.key), lines.at(NumberOfText(member.key)), lines.at(NumberOfText(member.last))});
    return repeated;
}

JsonReadResult Failure(std::string message) { return {.ok = false, .message = std::move(message)}; }

/// A message about what follows the document's end; an empty one when only blanks do.
std::string TextBehindTheEnd(std::u16string_view text, std::string_view narrow, std::size_t end) {
    const std::size_t rest = narrow.find_first_not_of(std::string_view(" \t\r\n\f\v\0", 7), end);
    return rest == std::string_view::npos ? std::string()
                                          : "what follows the document is passed over, " + Place(text, rest);
}

}  // namespace

int AddValueToVector(Vector* vector, Word value, ValueType type) {
    Log4("\t Inside AddValueToVector() \n");
    VectorElementPtr element(new (std::nothrow) VectorElement{value, type, nullptr});
    const bool copies = type == ValueType::text && value != 0;
    if (element && copies) element->value = reinterpret_cast<Word>(CopyText(reinterpret_cast<const char16_t*>(value)));
    if (!element || (copies && element->value == 0)) {
        Log1("\t@@@@@  Memory allocation failed @@@@@\n");
        return 0;
    }
    const Word added = element->value;
    if (AddElement(vector, std::move(element))) return 1;
    if (copies) FreeText(reinterpret_cast<char16_t*>(added));
    Log1("\t@@@@@  AddElement Failed @@@@@\n");
    return 0;
}

JsonReadResult JSONTextToHash(HashTable* table, std::u16string_view text, KeyFilter isRepetitionTold) {
    Log4("\t Inside JSONTextToHash() \n");
    if (text.size() > largestJsonDocument) return Failure("the document is larger than 35 million characters");
    if (std::string excess = ExcessIn(text); !excess.empty()) return Failure(std::move(excess));
    const JsonTokenerPtr tokener(json_tokener_new_ex(static_cast<int>(nestingLimit)));
    if (!tokener) return Failure("not enough memory");
    const std::string narrow = NarrowJson(text);
    // The terminating zero tells the parser that the document ends here.
    const JsonObjectPtr top(json_tokener_parse_ex(tokener.get(), narrow.c_str(), static_cast<int>(narrow.size()) + 1));
    const std::size_t end = json_tokener_get_parse_end(tokener.get());
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (error != json_tokener_success) return Failure(std::string(ParserWords(error)) + " " + Place(text, end));
    if (json_object_get_type(top.get()) != json_type_object) return Failure("the top level is not an object");
    PassedOverList passedOver{.members = {}, .isWanted = isRepetitionTold};
    JSONObjectToHash(table, top.get(), passedOver);
    return {.ok = true, .message = TextBehindTheEnd(text, narrow, end), .repeated = RepeatedKeys(text, passedOver)};
}

}  // namespace kv
