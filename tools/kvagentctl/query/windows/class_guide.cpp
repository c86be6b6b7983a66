#include "tools/kvagentctl/query/class_guide.h"

#include "collection/wmi_query.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;
using platform::WideFromUtf8;

/// A name that may stand in the text of a query.
bool IsClassName(const std::string& name) { return !name.empty() && name.find_first_of("'\"\\ ") == name.npos; }

}  // namespace

std::vector<ListedClass> ListClasses() { return {}; }

/// WMI gives a class's definition as an object, whose properties are the class's.
std::optional<DescribedClass> DescribeClass(const std::string& nameSpace, const std::string& name) {
    if (!IsClassName(name)) return std::nullopt;
    std::optional<DescribedClass> described;
    const std::u16string query = u"SELECT * FROM meta_class WHERE __CLASS = '" + WideFromUtf8(name) + u"'";
    RunWmiQuery(WideFromUtf8(nameSpace), query, [&](platform::WmiHandle object) {
        described = DescribedClass{.name = name, .meaning = {}, .superclass = {}, .properties = {}};
        TakeProperties(object, [&](const std::u16string& property, const platform::Variant& value) {
            described->properties.push_back({Utf8FromWide(property), NameOf(value.declared), false, {}});
        });
    });
    return described;
}

std::string NearestClass(const std::string&) { return {}; }

std::string ClassGuideHint() {
    return "Windows describes its classes itself: Get-CimClass Win32_* in PowerShell lists them, and "
           "(Get-CimClass Win32_Process).CimClassProperties tells of one";
}

/// Windows asks other computers, too.
std::string OtherComputerHint(const std::string&) { return {}; }

}  // namespace kv::control
