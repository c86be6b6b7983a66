#include "collection/wmi_query.h"

#include <memory>
#include <new>
#include <string_view>

#include "collection/wmi_text.h"
#include "foundation/hash_table.h"
#include "foundation/log.h"
#include "platform/utf.h"
#include "platform/wmi.h"

namespace kv {

namespace {

using platform::OwnedWmiHandle;
using platform::Wmi;
using platform::WmiHandle;
using platform::WmiStatus;
namespace wmi_status = platform::wmi_status;

/// COM on this thread, once it is up.
struct ComUse {
    bool isUp = false;

    ComUse() = default;
    ComUse(const ComUse&) = delete;
    ComUse& operator=(const ComUse&) = delete;
    ~ComUse() {
        if (isUp) Wmi().CoUninitialize();
    }
};

/// Ends the enumeration of an object's properties.
struct EnumerationEnd {
    WmiHandle object;

    explicit EnumerationEnd(WmiHandle enumerated) : object(enumerated) {}
    EnumerationEnd(const EnumerationEnd&) = delete;
    EnumerationEnd& operator=(const EnumerationEnd&) = delete;
    ~EnumerationEnd() { Wmi().EndEnumeration(object); }
};

/// One query and what it holds of the system, given back from the last member to the first.
struct Query {
    std::u16string_view nameSpace;
    std::u16string_view text;
    ComUse com = {};
    OwnedWmiHandle locator = {};
    OwnedWmiHandle services = {};
    OwnedWmiHandle enumerator = {};
};

struct ConnectStep {
    const char16_t* failure;
    WmiStatus (*run)(Query& query);
};

constexpr ConnectStep connectSteps[] = {
    {u"Failed to initialize COM library",
     [](Query& query) {
         const WmiStatus status = Wmi().CoInitializeEx();
         query.com.isUp = !platform::IsFailure(status);
         return status;
     }},
    {u"Failed to initialize security", [](Query&) { return Wmi().CoInitializeSecurity(); }},
    {u"Failed to create IWbemLocator object",
     [](Query& query) { return Wmi().CoCreateInstance(query.locator.Place()); }},
    {u"Could not connect to nameSpace",
     [](Query& query) {
         const WmiStatus status = Wmi().ConnectServer(query.locator.get(), query.nameSpace, query.services.Place());
         if (platform::IsFailure(status)) Log1("\t WMIFunction :: The nameSpace is %s \n", query.nameSpace);
         return status;
     }},
    {u"Could not set proxy blanket", [](Query& query) { return Wmi().CoSetProxyBlanket(query.services.get()); }},
};

WmiOutcome Connect(Query& query) {
    for (const ConnectStep& step : connectSteps) {
        const WmiStatus status = step.run(query);
        if (!platform::IsFailure(status)) continue;
        Log1("\t WMIFunction :: %s [%x]\n", step.failure, status);
        return {.status = status, .text = step.failure};
    }
    return {};
}

/// Beside the lines that have only the status: what is wrong with the query, as far as the system tells.
std::u16string LogRefusal(const Query& query) {
    std::u16string refusal = Wmi().TakeRefusal(query.services.get());
    if (!refusal.empty()) Log1("\t WMIFunction :: The query is refused: %s \n", refusal);
    return refusal;
}

WmiOutcome Start(Query& query) {
    const WmiStatus status = Wmi().ExecQuery(query.services.get(), query.text, query.enumerator.Place());
    if (!platform::IsFailure(status)) return {};
    Log1("\t WMIFunction ::ExecQuery Failed for %s. Last Error code is [%x] \n", query.text, status);
    return {.status = status, .text = query.text, .refusal = LogRefusal(query)};
}

void AppendRow(WmiHandle object, Vector* rows) {
    HashTablePtr row = MakeHashTable();
    if (!row) {
        Log1("\tWMIFunction :: InitHashTable Failed\n");
        return;
    }
    const bool isTaken = TakeProperties(object, [&](const std::u16string& name, const platform::Variant& value) {
        if (PutHashText(row.get(), name, VariantToString(value)) != 1)
            Log1("\t WMIFunction :: No memory for the property %s, it is left out\n", name);
    });
    if (isTaken) AppendTable(rows, std::move(row));
}

/// Takes objects until there are no more or the next cannot be obtained: the status says which.
WmiStatus TakeObjects(WmiHandle enumerator, const WmiObjectSink& take, int& taken) {
    while (true) {
        OwnedWmiHandle object;
        std::uint32_t count = 0;
        const WmiStatus status = Wmi().Next(enumerator, object.Place(), count);
        if (status != wmi_status::ok || count != 1) return status;
        take(object.get());
        ++taken;
    }
}

std::u16string_view NamespaceOf(const OptionalText& nameSpace) {
    return nameSpace ? *nameSpace : std::u16string_view(u"ROOT\\CIMV2");
}

}  // namespace

WmiOutcome RunWmiQuery(std::u16string_view nameSpace, std::u16string_view text, const WmiObjectSink& take) {
    Query query{.nameSpace = nameSpace, .text = text};
    WmiOutcome outcome = Connect(query);
    if (!platform::IsFailure(outcome.status)) outcome = Start(query);
    if (platform::IsFailure(outcome.status)) return outcome;
    int taken = 0;
    outcome = {.status = TakeObjects(query.enumerator.get(), take, taken), .text = u"ERROR"};
    outcome.notices = Wmi().TakeNotices(query.enumerator.get());
    for (const std::u16string& notice : outcome.notices) Log1("\t WMIFunction :: %s \n", notice);
    if (!platform::IsFailure(outcome.status)) return outcome;
    Log1("\t WMIFunction :: Next failed after %d rows [%x]\n", taken, outcome.status);
    outcome.refusal = LogRefusal(query);
    return outcome;
}

bool TakeProperties(WmiHandle object, const WmiPropertySink& take) {
    const WmiStatus begun = Wmi().BeginEnumeration(object);
    if (platform::IsFailure(begun)) {
        Log1("\t WMIFunction :: BeginEnumeration failed, its row is left out [%x]\n", begun);
        return false;
    }
    const EnumerationEnd end(object);
    std::u16string name;
    platform::Variant value;
    WmiStatus status = Wmi().NextProperty(object, name, value);
    for (; status == wmi_status::ok; status = Wmi().NextProperty(object, name, value)) take(name, value);
    if (platform::IsFailure(status)) Log1("\t WMIFunction :: A row ends at a property that failed [%x]\n", status);
    return true;
}

std::optional<std::u16string> WMIQueryFault(const OptionalText& nameSpace, std::u16string_view wmiQuery) {
    const auto said = [](std::u16string_view what, WmiStatus status) {
        return platform::WideFromUtf8(LogText("%s [%x]", what, status));
    };
    Query query{.nameSpace = NamespaceOf(nameSpace), .text = wmiQuery};
    const WmiOutcome outcome = Connect(query);
    if (platform::IsFailure(outcome.status))
        return said(u"nameSpace " + std::u16string(query.nameSpace) + u": " + std::u16string(outcome.text),
                    outcome.status);
    bool isJudged = false;
    const WmiStatus status = Wmi().JudgeQuery(query.services.get(), wmiQuery, isJudged);
    if (!isJudged) return std::nullopt;
    if (!platform::IsFailure(status)) return u"";
    const std::u16string refusal = Wmi().TakeRefusal(query.services.get());
    return said(refusal.empty() ? u"it cannot be run" : refusal, status);
}

std::u16string WMIFunction(const OptionalText& nameSpace, const OptionalText& wmiQuery, Vector* rows) {
    Log3("\t Inside WMIFunction() \n");
    if (!wmiQuery) return u"wmiQuery is NULL";
    // What failed is named only when everything has been given back.
    WmiOutcome outcome;
    try {
        outcome = RunWmiQuery(NamespaceOf(nameSpace), *wmiQuery, [rows](WmiHandle object) { AppendRow(object, rows); });
    } catch (const std::bad_alloc&) {
        Log1("\t WMIFunction :: No memory for all of the rows [%x]\n", wmi_status::outOfMemory);
        outcome = {.status = wmi_status::outOfMemory, .text = u"ERROR"};
    }
    return platform::IsFailure(outcome.status) ? FormatWMIError(outcome.status, outcome.text) : u"NO ERROR";
}

}  // namespace kv
