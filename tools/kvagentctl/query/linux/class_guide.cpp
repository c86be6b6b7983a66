#include "tools/kvagentctl/query/class_guide.h"

#include <algorithm>

#include "platform/near_name.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/object_path.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;
using platform::WideFromUtf8;
using wql::ClassInfo;
using wql::PropertyInfo;

std::string MeaningOf(const ClassInfo& classInfo) {
    if (classInfo.gather != nullptr) return std::string(classInfo.meaning);
    std::string names;
    const std::vector<const ClassInfo*> below = wql::ClassesOf(classInfo);
    for (const ClassInfo* one : below) names += (names.empty() ? "" : ", ") + Utf8FromWide(one->name);
    return "superclass of " + names;
}

}  // namespace

std::vector<ListedClass> ListClasses() {
    std::vector<ListedClass> classes;
    for (const ClassInfo* classInfo : wql::AllClasses())
        classes.push_back({Utf8FromWide(classInfo->name), MeaningOf(*classInfo)});
    return classes;
}

std::optional<DescribedClass> DescribeClass(const std::string&, const std::string& name) {
    const ClassInfo* classInfo = wql::FindClass(WideFromUtf8(name));
    if (classInfo == nullptr) return std::nullopt;
    DescribedClass described{.name = Utf8FromWide(classInfo->name),
                             .meaning = MeaningOf(*classInfo),
                             .superclass = Utf8FromWide(classInfo->superclass),
                             .properties = {}};
    const std::vector<const PropertyInfo*> keys = wql::KeyProperties(*classInfo);
    for (const PropertyInfo& property : classInfo->properties) {
        const bool isKey = std::find(keys.begin(), keys.end(), &property) != keys.end();
        const bool isOfSubclasses = classInfo->gather == nullptr;
        described.properties.push_back({Utf8FromWide(property.name), NameOf(property.type), isKey,
                                        property.read != nullptr ? std::string(property.meaning)
                                        : isOfSubclasses         ? "as the subclass has it"
                                                                 : "NULL: Linux has no such value"});
    }
    return described;
}

std::string NearestClass(const std::string& name) {
    const std::u16string wide = WideFromUtf8(name);
    if (const ClassInfo* prefixed = wql::FindClass(u"Win32_" + wide)) return Utf8FromWide(prefixed->name);
    std::vector<std::u16string_view> names;
    for (const ClassInfo* classInfo : wql::AllClasses()) names.push_back(classInfo->name);
    return Utf8FromWide(platform::NearestName(wide, names));
}

std::string ClassGuideHint() { return {}; }

std::string OtherComputerHint(const std::string& nameSpace) {
    const bool isElsewhere = wql::CheckNamespace(WideFromUtf8(nameSpace)) == platform::wmi_status::serverUnavailable;
    return isElsewhere ? "only this computer is asked: leave the computer's name out, as in ROOT\\CIMV2" : "";
}

}  // namespace kv::control
