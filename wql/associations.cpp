#include "wql/associations.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "wql/class_tree.h"
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

/// An object that exists.
struct FoundObject {
    const ClassInfo* classInfo = nullptr;
    std::vector<PathKey> keys;
};

/// Whether a key of a path is one of the object's, with the same value.
bool HasKey(const FoundObject& object, const PathKey& key) {
    return std::ranges::any_of(object.keys, [&](const PathKey& own) {
        const PropertyInfo* property = FindProperty(*object.classInfo, own.name);
        const bool isSame = key.name.empty() || CompareNames(own.name, key.name) == 0;
        return isSame && CompareValues(own.value, BroughtTo(property->type, key.value)) == 0;
    });
}

/// Whether a path names the object. A path may name it by a superclass.
bool Names(const std::optional<ObjectName>& path, const FoundObject& object) {
    return path && IsA(*object.classInfo, path->className) && path->keys.size() == object.keys.size() &&
           std::ranges::all_of(path->keys, [&object](const PathKey& key) { return HasKey(object, key); });
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
    std::set<std::u16string> given;   // paths of the results so far; names of classes if those are wanted
    std::vector<std::u16string> due;  // paths of objects to give
};

/// A class as an object without values.
ResultObject DefinitionOf(const ClassInfo& classInfo) {
    ResultObject definition;
    for (const PropertyInfo& property : classInfo.properties) {
        definition.push_back({property.name, VariantOf(property.type, {})});
    }
    return definition;
}

void GiveClass(Search& search, const ClassInfo& classInfo) {
    if (search.given.insert(std::u16string(classInfo.name)).second) search.sink.object(DefinitionOf(classInfo));
}

void TakeAssociation(Search& search, const ClassQuery& association, const void* row) {
    if (search.query.wantsClasses) return GiveClass(search, *association.classInfo);
    const std::u16string path = RelativePath(association.classInfo->name, KeysOf(*association.classInfo, row));
    if (search.given.insert(path).second) search.sink.object(ObjectOf(association, row));
}

void TakeOtherEnds(Search& search, const std::vector<End>& ends, const End& own) {
    for (const End& end : ends) {
        if (end.property == own.property || !IsWanted(search.query.resultRole, end.property->name)) continue;
        if (search.given.insert(end.path).second) search.due.push_back(end.path);
    }
}

void TakeRow(Search& search, const ClassQuery& association, const void* row) {
    const std::vector<End> ends = EndsOf(association, row);
    for (const End& end : ends) {
        if (!IsWanted(search.query.role, end.property->name)) continue;
        if (!Names(ParseObjectPath(end.path), search.source)) continue;
        if (search.query.wantsReferences) {
            TakeAssociation(search, association, row);
        } else {
            TakeOtherEnds(search, ends, end);
        }
    }
}

WmiStatus ReadAssociations(Search& search, const ClassInfo& association) {
    return GatherRows(BindWholeClass(association), search.sink,
                      [&search](const ClassQuery& query, const void* row) { TakeRow(search, query, row); });
}

/// Gives the object that a path names, if it is of a class that is wanted. One that has gone meanwhile is left out.
WmiStatus GiveObject(Search& search, const std::u16string& path) {
    const std::optional<ObjectName> object = ParseObjectPath(path);
    BoundQuery bound;
    if (!object || IsFailure(BindObject(*object, bound))) return wmi_status::ok;
    return GatherRows(bound, search.sink, [&search](const ClassQuery& query, const void* row) {
        if (!IsWantedClass(search.query.resultClass, *query.classInfo)) return;
        if (search.query.wantsClasses) {
            GiveClass(search, *query.classInfo);
        } else {
            search.sink.object(ObjectOf(query, row));
        }
    });
}

WmiStatus FindSource(const AssociationQuery& query, const ResultSink& sink, FoundObject& found) {
    BoundQuery bound;
    WmiStatus status = BindObject(query.object, bound);
    if (IsFailure(status)) return status;
    status = GatherRows(bound, sink, [&found](const ClassQuery& part, const void* row) {
        found = {part.classInfo, KeysOf(*part.classInfo, row)};
    });
    if (IsFailure(status)) return status;
    return found.classInfo != nullptr ? wmi_status::ok : wmi_status::notFound;
}

bool IsClassOrEmpty(std::u16string_view name) { return name.empty() || FindClass(name) != nullptr; }

}  // namespace

WmiStatus CheckAssociations(const AssociationQuery& query) {
    if (!IsClassOrEmpty(query.associationClass) || !IsClassOrEmpty(query.resultClass)) return wmi_status::invalidClass;
    BoundQuery bound;
    return BindObject(query.object, bound);
}

WmiStatus RunAssociations(const AssociationQuery& query, const ResultSink& sink) {
    Search search{query, sink, {}, {}, {}};
    WmiStatus status = FindSource(query, sink, search.source);
    const std::u16string& wantedClass = query.wantsReferences ? query.resultClass : query.associationClass;
    for (const ClassInfo* association : AllClasses()) {
        if (IsFailure(status) || !sink.wantsMore()) return status;
        if (!IsAssociation(*association) || !IsWantedClass(wantedClass, *association)) continue;
        status = ReadAssociations(search, *association);
    }
    for (const std::u16string& path : search.due) {
        if (IsFailure(status) || !sink.wantsMore()) return status;
        status = GiveObject(search, path);
    }
    return status;
}

}  // namespace kv::wql
