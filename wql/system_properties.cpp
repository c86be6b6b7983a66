#include "wql/system_properties.h"

#include <algorithm>
#include <iterator>

#include "facts/network/host_names.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

constexpr std::u16string_view names[] = {u"__CLASS", u"__DERIVATION",     u"__DYNASTY", u"__GENUS",  u"__NAMESPACE",
                                         u"__PATH",  u"__PROPERTY_COUNT", u"__RELPATH", u"__SERVER", u"__SUPERCLASS"};

/// The classes above a class, the next one first. The last may be one that is not declared.
std::vector<std::u16string_view> SuperclassesOf(const ClassInfo& classInfo) {
    std::vector<std::u16string_view> above;
    for (const ClassInfo* at = &classInfo; at != nullptr && !at->superclass.empty(); at = FindClass(at->superclass)) {
        above.push_back(at->superclass);
    }
    return above;
}

struct PathOfClass : PropertyInfo {
    const ClassInfo* classInfo = nullptr;
    bool isFull = false;

    explicit PathOfClass(std::u16string_view pathName) : PropertyInfo(pathName, CimType::string) {}
};

CimValue ReadPath(const void* row, const PropertyInfo& property) {
    const auto& path = static_cast<const PathOfClass&>(property);
    const std::vector<PathKey> keys = KeysOf(*path.classInfo, row);
    return path.isFull ? ObjectPath(path.classInfo->name, keys) : RelativePath(path.classInfo->name, keys);
}

}  // namespace

bool IsSystemProperty(std::u16string_view name) {
    return std::any_of(std::begin(names), std::end(names),
                       [name](std::u16string_view known) { return CompareNames(known, name) == 0; });
}

std::optional<ClassFact> ClassFactOf(const ClassInfo& classInfo, std::u16string_view name) {
    constexpr int genusOfObjects = 2;
    const auto is = [name](std::u16string_view known) { return CompareNames(known, name) == 0; };
    const std::vector<std::u16string_view> above = SuperclassesOf(classInfo);
    if (is(u"__CLASS")) return ClassFact{CimType::string, classInfo.name};
    if (is(u"__DERIVATION")) return ClassFact{ArrayOf(CimType::string), ListOf(above)};
    if (is(u"__DYNASTY")) return ClassFact{CimType::string, above.empty() ? classInfo.name : above.back()};
    if (is(u"__GENUS")) return ClassFact{CimType::sint32, genusOfObjects};
    if (is(u"__NAMESPACE")) return ClassFact{CimType::string, u"root\\cimv2"};
    if (is(u"__PROPERTY_COUNT")) return ClassFact{CimType::sint32, classInfo.properties.size()};
    if (is(u"__SERVER")) return ClassFact{CimType::string, facts::HostName()};
    if (is(u"__SUPERCLASS")) {
        return ClassFact{CimType::string, above.empty() ? CimValue() : CimValue(above.front())};
    }
    return std::nullopt;
}

std::shared_ptr<const PropertyInfo> PathProperty(const ClassInfo& classInfo, std::u16string_view name) {
    const bool isFull = CompareNames(name, u"__PATH") == 0;
    if (!isFull && CompareNames(name, u"__RELPATH") != 0) return nullptr;
    auto path = std::make_shared<PathOfClass>(isFull ? u"__PATH" : u"__RELPATH");
    path->classInfo = &classInfo;
    path->isFull = isFull;
    path->read = ReadPath;
    for (const PropertyInfo* key : KeyProperties(classInfo)) path->needs |= key->needs;
    return path;
}

std::vector<PathKey> KeysOf(const ClassInfo& classInfo, const void* row) {
    std::vector<PathKey> keys;
    for (const PropertyInfo* key : KeyProperties(classInfo)) {
        CimValue value = key->read != nullptr ? key->read(row, *key) : CimValue();
        keys.push_back({std::u16string(key->name), BroughtTo(key->type, std::move(value))});
    }
    return keys;
}

}  // namespace kv::wql
