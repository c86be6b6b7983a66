#include "wql/query.h"

#include <algorithm>
#include <exception>
#include <fmt/format.h>
#include <new>
#include <utility>

#include "wql/class_tree.h"
#include "wql/system_properties.h"

namespace kv::wql {

namespace {

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

/// What a gather is told of a query, without what it hands over.
Gathering GatheringOf(const ClassQuery& query) {
    Gathering gathering;
    gathering.needs = NeedsOf(query);
    if (query.where) {
        gathering.leeway = {RestrictionsOf(*query.where), RangesOf(*query.where)};
        gathering.alternatives = AlternativesOf(*query.where);
    } else {
        gathering.alternatives.emplace_back();
    }
    return gathering;
}

WmiStatus GatherClass(const ClassQuery& query, bool isOnlyClass, const ResultSink& sink, const RowSink& take) {
    Gathering gathering = GatheringOf(query);
    gathering.isOnlyClass = isOnlyClass;
    gathering.wantsMore = sink.wantsMore;
    gathering.notice = sink.notice;
    gathering.row = [&](const void* row) {
        if (!query.where || Matches(*query.where, row)) {
            ++gathering.kept;
            take(query, row);
        }
        return sink.wantsMore();
    };
    try {
        return query.classInfo->gather(gathering);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        sink.notice(failure.what());
        return wmi_status::failed;
    }
}

std::string LossNotice(const ClassQuery& query, WmiStatus status) {
    return fmt::format("Objects of {} are missing: status {:08x}", platform::Utf8FromWide(query.classInfo->name),
                       status);
}

/// Whether a failure of a part is that of the query.
bool IsDecisive(const BoundQuery& query, const ClassQuery& part) {
    return part.classInfo == query.named || query.parts.size() == 1;
}

}  // namespace

const std::vector<CimValue>* Leeway::valuesOf(std::u16string_view property) const {
    for (const Restriction& restriction : restrictions) {
        if (CompareNames(restriction.property, property) == 0) return &restriction.values;
    }
    return nullptr;
}

Range Leeway::rangeOf(std::u16string_view property) const {
    for (const Range& range : ranges) {
        if (CompareNames(range.property, property) == 0) return range;
    }
    return {.property = property};
}

WmiStatus BindQuery(const WqlQuery& query, BoundQuery& bound) {
    if (CompareNames(query.className, u"meta_class") == 0) return wmi_status::notSupported;
    const ClassInfo* named = FindClass(query.className);
    if (named == nullptr) return wmi_status::invalidClass;
    bound.named = named;
    ClassQuery asNamed;
    WmiStatus status = BindClass(query, *named, asNamed);
    if (IsFailure(status)) return status;
    for (const ClassInfo* classInfo : ClassesOf(*named)) {
        ClassQuery part;
        status = BindClass(query, *classInfo, part);
        if (IsFailure(status)) return status;
        if (!part.where || CanMatch(*part.where)) bound.parts.push_back(std::move(part));
    }
    return wmi_status::ok;
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

WmiStatus JudgeDemands(const BoundQuery& query, const std::function<void(std::string text)>& notice) {
    for (const ClassQuery& part : query.parts) {
        if (part.classInfo->demand == nullptr || !IsDecisive(query, part)) continue;
        Gathering gathering = GatheringOf(part);
        gathering.notice = notice;
        if (const WmiStatus status = part.classInfo->demand(gathering); IsFailure(status)) return status;
    }
    return wmi_status::ok;
}

WmiStatus GatherRows(const BoundQuery& query, const ResultSink& sink, const RowSink& take) {
    std::vector<WmiStatus> failures;
    for (const ClassQuery& part : query.parts) {
        const WmiStatus status = GatherClass(part, query.parts.size() == 1, sink, take);
        if (!sink.wantsMore()) return wmi_status::ok;
        if (!IsFailure(status)) continue;
        if (IsDecisive(query, part)) return status;
        failures.push_back(status);
        sink.notice(LossNotice(part, status));
    }
    return !failures.empty() && failures.size() == query.parts.size() ? failures.front() : wmi_status::ok;
}

WmiStatus RunQuery(const BoundQuery& query, const ResultSink& sink) {
    return GatherRows(query, sink,
                      [&sink](const ClassQuery& part, const void* row) { sink.object(ObjectOf(part, row)); });
}

}  // namespace kv::wql
