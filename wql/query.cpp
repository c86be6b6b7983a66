#include "wql/query.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <utility>

#include "wql/class_tree.h"

namespace kv::wql {

namespace {

bool IsSystemProperty(std::u16string_view name) { return name.starts_with(u"__"); }

/// The properties of a class that a SELECT names, or all of them. invalidQuery if the class lacks one.
WmiStatus SelectProperties(const WqlQuery& query, const ClassInfo& classInfo,
                           std::vector<const PropertyInfo*>& properties) {
    if (query.properties.empty()) {
        for (const PropertyInfo& property : classInfo.properties) properties.push_back(&property);
        return wmi_status::ok;
    }
    for (const std::u16string& name : query.properties) {
        if (IsSystemProperty(name)) continue;
        const PropertyInfo* property = FindProperty(classInfo, name);
        if (property == nullptr) return wmi_status::invalidQuery;
        properties.push_back(property);
    }
    std::sort(properties.begin(), properties.end());
    properties.erase(std::unique(properties.begin(), properties.end()), properties.end());
    return wmi_status::ok;
}

WmiStatus BindClass(const WqlQuery& query, const ClassInfo& classInfo, ClassQuery& bound) {
    bound.classInfo = &classInfo;
    const WmiStatus status = SelectProperties(query, classInfo, bound.properties);
    if (IsFailure(status) || !query.where) return status;
    return BindCondition(*query.where, classInfo, bound.where.emplace());
}

std::uint32_t NeedsOf(const ClassQuery& query) {
    std::uint32_t needs = query.where ? NeedsOf(*query.where) : 0;
    for (const PropertyInfo* property : query.properties) needs |= property->needs;
    return needs;
}

ResultObject ObjectOf(const ClassQuery& query, const void* row) {
    ResultObject object;
    object.reserve(query.properties.size());
    for (const PropertyInfo* property : query.properties) {
        const CimValue value = property->read != nullptr ? property->read(row, *property) : CimValue();
        object.push_back({property->name, VariantOf(property->type, value)});
    }
    return object;
}

WmiStatus GatherClass(const ClassQuery& query, const ResultSink& sink) {
    Gathering gathering;
    gathering.needs = NeedsOf(query);
    if (query.where) {
        gathering.restrictions = RestrictionsOf(*query.where);
        gathering.ranges = RangesOf(*query.where);
    }
    gathering.notice = sink.notice;
    gathering.row = [&](const void* row) {
        if (!query.where || Matches(*query.where, row)) sink.object(ObjectOf(query, row));
        return sink.wantsMore();
    };
    return query.classInfo->gather(gathering);
}

std::string LossNotice(const ClassQuery& query, WmiStatus status) {
    return fmt::format("Objects of {} are missing: status {:08x}", platform::Utf8FromWide(query.classInfo->name),
                       status);
}

}  // namespace

const std::vector<CimValue>* Gathering::valuesOf(std::u16string_view property) const {
    for (const Restriction& restriction : restrictions) {
        if (CompareNames(restriction.property, property) == 0) return &restriction.values;
    }
    return nullptr;
}

Range Gathering::rangeOf(std::u16string_view property) const {
    for (const Range& range : ranges) {
        if (CompareNames(range.property, property) == 0) return range;
    }
    return {.property = property};
}

WmiStatus PrepareQuery(std::u16string_view text, BoundQuery& query) {
    WqlQuery parsed;
    WmiStatus status = ParseWql(text, parsed);
    if (IsFailure(status)) return status;
    const ClassInfo* named = FindClass(parsed.className);
    if (named == nullptr) return wmi_status::invalidClass;
    query.className = named->name;
    ClassQuery asNamed;
    status = BindClass(parsed, *named, asNamed);
    if (IsFailure(status)) return status;
    for (const ClassInfo* candidate : AllClasses()) {
        if (candidate->gather == nullptr || !IsA(*candidate, named->name)) continue;
        ClassQuery part;
        status = BindClass(parsed, *candidate, part);
        if (IsFailure(status)) return status;
        if (!part.where || CanMatch(*part.where)) query.parts.push_back(std::move(part));
    }
    return wmi_status::ok;
}

WmiStatus RunQuery(const BoundQuery& query, const ResultSink& sink) {
    tzset();  // the computer's time zone may have been changed
    std::vector<WmiStatus> failures;
    for (const ClassQuery& part : query.parts) {
        const WmiStatus status = GatherClass(part, sink);
        if (IsFailure(status)) failures.push_back(status);
        if (!sink.wantsMore()) return wmi_status::ok;
        if (IsFailure(status) && query.parts.size() > 1) sink.notice(LossNotice(part, status));
    }
    return !failures.empty() && failures.size() == query.parts.size() ? failures.front() : wmi_status::ok;
}

}  // namespace kv::wql
