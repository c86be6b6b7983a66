#include "wql/associations.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "wql/class_tree.h"
#include "wql/object_query.h"
#include "wql/system_properties.h"

namespace kv::wql {

namespace {

bool IsReference(const PropertyInfo& property) { return property.type == CimType::reference; }

bool IsAssociation(const ClassInfo& classInfo) {
    return classInfo.gather != nullptr && std::ranges::any_of(classInfo.properties, IsReference);
}

bool IsWanted(std::u16string_view wanted, std::u16string_view name) {
    return wanted.empty() || CompareNames(wanted, name) == 0;
}

bool IsWantedClass(std::u16string_view wanted, const ClassInfo& classInfo) {
    return wanted.empty() || IsA(classInfo, wanted);
}

/// An object that exists, by its own class and its keys.
struct FoundObject {
    const ClassInfo* classInfo = nullptr;
    ObjectName name;
};

ObjectName NameOf(const ClassInfo& classInfo, const void* row) {
    return {std::u16string(classInfo.name), KeysOf(classInfo, row)};
}

/// Whether a path names the object. A path may name it by a superclass.
bool Names(std::optional<ObjectName> path, const FoundObject& object) {
    if (!path || !IsA(*object.classInfo, path->className)) return false;
    path->className = object.name.className;
    return AreSame(*path, object.name);
}

/// A reference of one association.
struct End {
    const PropertyInfo* property = nullptr;
    std::u16string path;
};

std::vector<End> EndsOf(const ClassQuery& association, const void* row) {
    std::vector<End> ends;
    for (const PropertyInfo* property : association.properties) {
        if (!IsReference(*property) || property->read == nullptr) continue;
        const CimValue value = property->read(row, *property);
        if (const auto* path = std::get_if<std::u16string>(&value.held)) ends.push_back({property, *path});
    }
    return ends;
}

/// The run of one query.
struct Search {
    const AssociationQuery& query;
    const ResultSink& sink;
    FoundObject source;
    std::set<std::u16string> given;  // names of classes, or paths of objects, that need not be given again
    BoundQuery results;              // the objects at the other ends
};

/// A class as an object without values.
ResultObject DefinitionOf(const ClassInfo& classInfo) {
    ResultObject definition;
    for (const PropertyInfo& property : classInfo.properties) {
        definition.push_back({property.name, VariantOf(property.type, {})});
    }
    return definition;
}

/// Gives an object, or its class if classes are wanted.
void Give(Search& search, const ClassQuery& part, const void* row) {
    const ClassInfo& classInfo = *part.classInfo;
    if (!search.query.wantsClasses) return search.sink.object(ObjectOf(part, row));
    if (search.given.insert(std::u16string(classInfo.name)).second) search.sink.object(DefinitionOf(classInfo));
}

/// Adds an object of one class to those that a query asks for.
void Add(ClassQuery part, BoundQuery& query) {
    const auto present = std::ranges::find(query.parts, part.classInfo, &ClassQuery::classInfo);
    if (present == query.parts.end()) {
        if (part.where) {
            BoundCondition where{.form = BoundCondition::Form::disjunction, .comparison = {}, .operands = {}};
            where.operands.push_back(*std::move(part.where));
            part.where = std::move(where);
        }
        query.parts.push_back(std::move(part));
    } else if (part.where && present->where) {
        present->where->operands.push_back(*std::move(part.where));
    }
}

/// Adds the object that a path names, if it is of a class that is wanted.
void AddResult(Search& search, const std::u16string& path) {
    if (!search.given.insert(path).second) return;
    const std::optional<ObjectName> object = ParseObjectPath(path);
    BoundQuery bound;
    if (!object || IsFailure(BindObject(*object, AllProperties, bound))) return;
    for (ClassQuery& part : bound.parts) {
        if (IsWantedClass(search.query.resultClass, *part.classInfo)) Add(std::move(part), search.results);
    }
}

void TakeRow(Search& search, const ClassQuery& association, const void* row) {
    const std::vector<End> ends = EndsOf(association, row);
    for (const End& own : ends) {
        if (!IsWanted(search.query.role, own.property->name)) continue;
        if (!Names(ParseObjectPath(own.path), search.source)) continue;
        if (search.query.wantsReferences) return Give(search, association, row);
        for (const End& other : ends) {
            const bool isOther = other.property != own.property;
            if (isOther && IsWanted(search.query.resultRole, other.property->name)) AddResult(search, other.path);
        }
    }
}

/// The objects of all associations that the query wants to know of.
BoundQuery AssociationsOf(const AssociationQuery& query) {
    const std::u16string& wanted = query.wantsReferences ? query.resultClass : query.associationClass;
    BoundQuery bound{.parts = {}, .named = FindClass(wanted)};
    for (const ClassInfo* association : AllClasses()) {
        if (!IsAssociation(*association) || !IsWantedClass(wanted, *association)) continue;
        bound.parts.push_back({association, AllProperties(*association), std::nullopt});
    }
    return bound;
}

/// Whether two names of the same object have their keys' texts in the same letters.
bool IsWrittenAs(const ObjectName& query, const ObjectName& object) {
    return std::ranges::all_of(query.keys, [&object](const PathKey& key) {
        return std::ranges::any_of(object.keys, [&key](const PathKey& own) {
            const auto* text = std::get_if<std::u16string>(&own.value.held);
            const auto* wanted = std::get_if<std::u16string>(&key.value.held);
            return text != nullptr && wanted != nullptr && *text == *wanted;
        });
    });
}

/// Finds the object that the query starts from. If several differ only in the case of letters, it is the one that is
/// written as in the query.
WmiStatus FindSource(const AssociationQuery& query, const ResultSink& sink, FoundObject& found) {
    BoundQuery bound;
    WmiStatus status = BindObject(query.object, KeyProperties, bound);
    if (IsFailure(status)) return status;
    status = GatherRows(bound, sink, [&](const ClassQuery& part, const void* row) {
        ObjectName name = NameOf(*part.classInfo, row);
        if (found.classInfo == nullptr || IsWrittenAs(query.object, name)) found = {part.classInfo, std::move(name)};
    });
    if (IsFailure(status)) return status;
    return found.classInfo != nullptr ? wmi_status::ok : wmi_status::notFound;
}

bool IsClassOrEmpty(std::u16string_view name) { return name.empty() || FindClass(name) != nullptr; }

}  // namespace

WmiStatus CheckAssociations(const AssociationQuery& query) {
    if (!IsClassOrEmpty(query.associationClass) || !IsClassOrEmpty(query.resultClass)) return wmi_status::invalidClass;
    BoundQuery bound;
    return BindObject(query.object, KeyProperties, bound);
}

WmiStatus RunAssociations(const AssociationQuery& query, const ResultSink& sink) {
    Search search{query, sink, {}, {}, {}};
    WmiStatus status = FindSource(query, sink, search.source);
    if (IsFailure(status)) return status;
    status = GatherRows(AssociationsOf(query), sink, [&search](const ClassQuery& association, const void* row) {
        TakeRow(search, association, row);
    });
    const WmiStatus ofResults = GatherRows(
        search.results, sink, [&search](const ClassQuery& part, const void* row) { Give(search, part, row); });
    return IsFailure(status) ? status : ofResults;
}

}  // namespace kv::wql
