#include "wql/statement.h"

#include <ctime>
#include <memory>
#include <utility>

#include "wql/associations.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

std::u16string DeclaredName(std::u16string_view name) {
    const ClassInfo* classInfo = FindClass(name);
    return std::u16string(classInfo != nullptr ? classInfo->name : name);
}

WmiStatus Prepare(const WqlQuery& query, PreparedStatement& prepared) {
    auto bound = std::make_shared<BoundQuery>();
    const WmiStatus status = BindQuery(query, *bound);
    prepared.subject = DeclaredName(query.className);
    prepared.run = [bound](const ResultSink& sink) { return RunQuery(*bound, sink); };
    prepared.judge = [bound](const std::function<void(std::string)>& notice) { return JudgeDemands(*bound, notice); };
    return status;
}

WmiStatus Prepare(const AssociationQuery& query, PreparedStatement& prepared) {
    prepared.subject = u"what is associated with " + DeclaredName(query.object.className);
    prepared.run = [query](const ResultSink& sink) { return RunAssociations(query, sink); };
    prepared.judge = [](const std::function<void(std::string)>&) { return wmi_status::ok; };
    return CheckAssociations(query);
}

}  // namespace

WmiStatus PrepareStatement(std::u16string_view text, PreparedStatement& prepared) {
    WqlStatement statement;
    const WmiStatus status = ParseWql(text, statement);
    if (IsFailure(status)) return status;
    tzset();  // the computer's time zone may have been changed
    return std::visit([&prepared](const auto& parsed) { return Prepare(parsed, prepared); }, statement);
}

}  // namespace kv::wql
