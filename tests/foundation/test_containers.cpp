// Vector and HashTable: order, ownership and edges. The address sanitizer shows leaks and double frees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "foundation/hash_table.h"
#include "foundation/resource_lock.h"
#include "foundation/text.h"
#include "foundation/vector.h"
#include "platform/backend.h"

namespace kv {
namespace {

using ::testing::ElementsAre;

class Containers : public ::testing::Test {
  protected:
    Containers() { platform::InstallBackend(); }
};

VectorElementPtr NewElement(Word value, ValueType type = ValueType::integer) {
    return VectorElementPtr(new VectorElement{value, type, nullptr});
}

VectorPtr MakeVectorOf(const std::vector<Word>& values) {
    VectorPtr vector = MakeVector();
    for (const Word value : values) AddElement(vector.get(), NewElement(value));
    return vector;
}

/// The values from head to tail. Fails the test if count or tail do not match the chain, or the lock is still held.
std::vector<Word> VectorValues(Vector* vector) {
    std::vector<Word> values;
    VectorElement* last = nullptr;
    for (VectorElement* element = vector->head; element; element = element->next) {
        values.push_back(element->value);
        last = element;
    }
    EXPECT_EQ(vector->count, static_cast<std::int32_t>(values.size()));
    EXPECT_EQ(vector->tail, last);
    EXPECT_EQ(IsResourceLocked_MSP(vector), 2);
    return values;
}

TEST_F(Containers, VectorAnswersByIndex) {
    const struct {
        const char* title;
        std::int32_t index;
        Word element;  // 0: null
        int inserted;
        std::vector<Word> afterInsert, afterDelete;
    } rows[] = {
        {"before the first", -1, 0, 0, {1, 2, 3}, {1, 2, 3}},
        {"first", 0, 1, 1, {9, 1, 2, 3}, {2, 3}},
        {"middle", 1, 2, 1, {1, 9, 2, 3}, {1, 3}},
        {"last", 2, 3, 1, {1, 2, 9, 3}, {1, 2}},
        {"count", 3, 0, 1, {1, 2, 3, 9}, {1, 2, 3}},
        {"past count", 4, 0, 0, {1, 2, 3}, {1, 2, 3}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const VectorPtr vector = MakeVectorOf({1, 2, 3});
        const VectorElement* element = ElementAt(vector.get(), row.index);
        EXPECT_EQ(element ? element->value : 0, row.element);
        EXPECT_EQ(GetNthElement(vector.get(), row.index, vector->head), element);
        EXPECT_EQ(DeleteElementAt(vector.get(), row.index), row.element != 0);
        EXPECT_EQ(VectorValues(vector.get()), row.afterDelete);

        const VectorPtr grown = MakeVectorOf({1, 2, 3});
        EXPECT_EQ(InsertElementAt(grown.get(), NewElement(9), row.index), row.inserted);
        EXPECT_EQ(VectorValues(grown.get()), row.afterInsert);
    }
}

TEST_F(Containers, AVectorTakesElementsAgainAfterItWasEmptied) {
    const VectorPtr vector = MakeVectorOf({1, 5});
    VectorElement stranger{7, ValueType::integer, nullptr};
    EXPECT_EQ(DeleteElement(vector.get(), &stranger), 1) << "it is not in the vector";
    EXPECT_THAT(VectorValues(vector.get()), ElementsAre(1, 5));
    for (int left = 2; left > 0; --left) EXPECT_EQ(DeleteElement(vector.get(), vector->tail), 1);
    EXPECT_TRUE(VectorValues(vector.get()).empty());
    EXPECT_EQ(DeleteElement(vector.get(), &stranger), 0);
    for (const Word value : {2U, 3U, 4U}) AddElement(vector.get(), NewElement(value));
    DeleteLCDVector(vector.get(), 4);
    FreeVector(vector.get());
    AddElement(vector.get(), NewElement(6));
    EXPECT_THAT(VectorValues(vector.get()), ElementsAre(6));
}

std::vector<std::u16string> TableKeys(const HashTable* table) {
    std::vector<std::u16string> keys;
    const auto array = GetHashKeys(table);
    for (const char16_t* const* key = array.get(); *key; ++key) keys.emplace_back(*key);
    EXPECT_EQ(CountHashKeys(table), static_cast<std::int32_t>(keys.size()));
    return keys;
}

TEST_F(Containers, TableKeepsTheOrderOfFirstInsertion) {
    const struct {
        const char* title;
        const char16_t* key;
        std::vector<std::u16string> keys;
        bool isPut = true;
    } steps[] = {
        {"first key", u"b", {u"b"}},
        {"later keys go last", u"a", {u"b", u"a"}},
        {"case counts", u"A", {u"b", u"a", u"A"}},
        {"a known key keeps its place", u"b", {u"b", u"a", u"A"}},
        {"remove from the middle", u"a", {u"b", u"A"}, false},
        {"remove the first", u"b", {u"A"}, false},
        {"remove the only one", u"A", {}, false},
        {"a key in the empty table", u"c", {u"c"}},
    };
    const HashTablePtr owner = MakeHashTable();
    HashTable* const table = owner.get();
    for (const auto& step : steps) {
        EXPECT_EQ(step.isPut ? PutHashText(table, step.key, u"value") : RemoveHashKey(table, step.key), 1);
        EXPECT_EQ(TableKeys(table), step.keys) << step.title;
        EXPECT_EQ(ContainsHashKey(table, step.key), step.isPut) << step.title;
    }
}

TEST_F(Containers, ATableOfManyKeysIsLikeOneOfFew) {
    const HashTablePtr table = MakeHashTable(), other = MakeHashTable();
    std::vector<std::u16string> keys;
    for (int i = 0; i < 10000; ++i) {
        keys.push_back(DecimalText(i * 7919 % 10007));
        PutHashValue(table.get(), keys.back(), Word(i), ValueType::integer);
    }
    PutHashValue(table.get(), keys[9000], 5, ValueType::integer);
    EXPECT_EQ(TableKeys(table.get()), keys);
    EXPECT_EQ(GetHashValue(table.get(), keys[9000]), 5U);
    PutHashValue(table.get(), keys[70] + u'\0', 8, ValueType::integer);  // a key ends at its first zero
    EXPECT_EQ(GetHashValue(table.get(), keys[70]) + GetHashValue(table.get(), keys[70] + u'\0' + u'x'), 16U);
    EXPECT_EQ(RemoveHashKey(table.get(), keys[70] + u'\0'), 1);
    for (const std::size_t gone : {9999U, 5000U}) EXPECT_EQ(RemoveHashKey(table.get(), keys[gone]), 1);
    EXPECT_EQ(RemoveHashKey(table.get(), keys[9999]), 0);
    PutHashValue(other.get(), keys[5000], 1, ValueType::integer);
    EXPECT_EQ(MergeHashTable(other.get(), table.get()) + MergeHashTable(table.get(), other.get()), 2);
    EXPECT_EQ(TableKeys(table.get()).back(), keys[5000]);
    for (const std::u16string& key : TableKeys(other.get())) EXPECT_EQ(RemoveHashKey(other.get(), key), 1);
    PutHashValue(other.get(), u"new", 1, ValueType::integer);
    EXPECT_THAT(TableKeys(other.get()), ElementsAre(u"new"));
}

TEST_F(Containers, AVectorIsSortedByTheOrderOfItsTables) {
    const VectorPtr list = MakeVector();
    for (const int order : {3, -1, 2, 1}) {
        HashTablePtr row = MakeHashTable();
        PutHashValue(row.get(), u"order", static_cast<std::uint32_t>(order), ValueType::integer);
        AppendTable(list.get(), std::move(row));
    }
    SortVectorByOrder(list.get());
    std::vector<std::int32_t> sorted;
    for (const Word row : VectorValues(list.get()))
        sorted.push_back(static_cast<std::int32_t>(GetHashValue(reinterpret_cast<HashTable*>(row), u"order")));
    EXPECT_THAT(sorted, ElementsAre(-1, 1, 2, 3));
}

TEST_F(Containers, ATableOfSeveralBucketsIsLikeOneOfOne) {
    auto *table = new HashTable{}, *one = new HashTable{};
    EXPECT_EQ(InitHashTable(table, 37) + InitHashTable(one, 0), 2);
    EXPECT_EQ(one->size, 1);
    EXPECT_EQ(HashOfKey(table, u"az"), (97 % 37 * 26 + 122) % 37);
    for (const char16_t* key : {u"a", u"az", u"b"}) PutHashText(table, key, key);
    EXPECT_EQ(CountHashKeys(table) + CountHashKeys(one), 3);
    EXPECT_EQ(GetHashText(table, u"az"), std::u16string(u"az"));
    EXPECT_EQ(MergeHashTable(table, one) + MergeHashTable(nullptr, one) + MergeHashTable(table, nullptr), 1);
    FreeHashTable(table);
    EXPECT_EQ(CountHashKeys(one), 3);
    FreeHashTable(one);
}

TEST_F(Containers, FreesTheWholeTree) {
    const HashTablePtr table = MakeHashTable();
    VectorPtr list = MakeVector();
    HashTablePtr row = MakeHashTable();
    PutHashText(row.get(), u"name", u"value");
    EXPECT_EQ(GetHashVector(row.get(), u"name"), nullptr) << "a text is not a list";
    AppendTable(list.get(), std::move(row));
    AddElement(list.get(), NewElement(reinterpret_cast<Word>(CopyText(u"text")), ValueType::text));
    AppendVector(list.get(), MakeVector());
    const VectorPtr sharing = MakeVector();
    EXPECT_EQ(MergeVector(sharing.get(), list.get()), 1);
    EXPECT_EQ(sharing->tail->type, ValueType::none) << "a shared value is not owned";
    PutHashVector(table.get(), u"rows", std::move(list));
    EXPECT_EQ(GetHashVector(table.get(), u"rows")->count, sharing->count);
}

}  // namespace
}  // namespace kv
