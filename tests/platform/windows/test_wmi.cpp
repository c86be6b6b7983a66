// WMI through COM: every step on doubles of COM's interfaces, which note their calls, and a few queries to the system's
// own WMI.

// The interfaces as tables of functions, because a double fills in only those that are called.
#define CINTERFACE
#include "platform/windows/com_variant.h"
#include "platform/windows/wmi_source.h"

// These need the system's main header before them.
#include <atomic>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <thread>
#include <utility>
#include <vector>
#include <wbemcli.h>

#include "platform/backend.h"
#include "platform/utf.h"
#include "tests/support/wmi_query.h"

namespace platform::test {

namespace {

/// What happens in a query, which finds two objects. The call whose first word is `special` returns `result`.
struct Script {
    std::string special, calls;
    HRESULT result = S_OK;
    std::vector<std::pair<std::wstring, VARIANT>> properties = {};
    std::size_t property = 0;
    long objects = 0, references = 0;

    HRESULT Call(const std::string& call) {
        calls += call + '\n';
        if (call.substr(0, call.find(' ')) != special) return S_OK;
        if (result == static_cast<HRESULT>(WBEM_E_INVALID_QUERY)) Describe(L"FROM is missing");
        return result;
    }

    /// What a component tells COM of its failure.
    static void Describe(const wchar_t* failure) {
        ICreateErrorInfo* maker = nullptr;
        IErrorInfo* information = nullptr;
        ASSERT_EQ(::CreateErrorInfo(&maker), S_OK);
        maker->lpVtbl->SetDescription(maker, const_cast<LPOLESTR>(failure));
        maker->lpVtbl->QueryInterface(maker, IID_IErrorInfo, reinterpret_cast<void**>(&information));
        ::SetErrorInfo(0, information);
        information->lpVtbl->Release(information);
        maker->lpVtbl->Release(maker);
    }
};
Script script;

std::string Narrow(const wchar_t* text) { return text ? Utf8FromWide(Utf16FromWide(text)) : "-"; }

template <class Interface, class Table>
struct Double : Interface {
    Table table{};

    explicit Double(void (*fill)(Table&)) {
        this->lpVtbl = &table;
        table.QueryInterface = [](Interface*, REFIID, void**) -> HRESULT { return E_NOINTERFACE; };
        table.AddRef = [](Interface*) -> ULONG { return static_cast<ULONG>(++script.references); };
        table.Release = [](Interface*) -> ULONG { return static_cast<ULONG>(--script.references); };
        fill(table);
    }
    /// Gives the caller a reference if the call succeeds.
    HRESULT GiveTo(Interface** to, HRESULT result) {
        if (SUCCEEDED(result)) *to = this;
        if (SUCCEEDED(result)) ++script.references;
        return result;
    }
};

Double<IWbemClassObject, IWbemClassObjectVtbl> object([](auto& table) {
    table.BeginEnumeration = [](IWbemClassObject*, LONG flags) {
        script.property = 0;
        return script.Call(fmt::format("begin {:x}", flags));
    };
    table.Next = [](IWbemClassObject*, LONG flags, BSTR* name, VARIANT* value, CIMTYPE*, LONG*) -> HRESULT {
        if (script.property == script.properties.size()) return WBEM_S_NO_MORE_DATA;
        auto& [text, content] = script.properties[script.property++];
        *name = ::SysAllocString(text.c_str());
        ::VariantCopy(value, &content);
        return script.Call(fmt::format("property {}", flags));
    };
    table.EndEnumeration = [](IWbemClassObject*) { return script.Call("end"); };
});

Double<IEnumWbemClassObject, IEnumWbemClassObjectVtbl> enumerator([](auto& table) {
    table.Next = [](IEnumWbemClassObject*, LONG limit, ULONG many, IWbemClassObject** to, ULONG* count) {
        const HRESULT result = script.Call(fmt::format("next{} {} {}", ++script.objects, limit, many));
        if (result != S_OK || script.objects > 2) return result == S_OK ? HRESULT{WBEM_S_FALSE} : result;
        *count = 1;
        return object.GiveTo(to, S_OK);
    };
});

Double<IClientSecurity, IClientSecurityVtbl> security([](auto& table) {
    table.SetBlanket = [](IClientSecurity*, IUnknown*, DWORD authentication, DWORD authorization, OLECHAR* principal,
                          DWORD level, DWORD impersonation, void* identity, DWORD capabilities) {
        return script.Call(fmt::format("blanket {} {} {} {} {} {} {}", authentication, authorization, Narrow(principal),
                                       level, impersonation, identity == nullptr, capabilities));
    };
});

Double<IWbemServices, IWbemServicesVtbl> services([](auto& table) {
    table.QueryInterface = [](IWbemServices*, REFIID wanted, void** to) -> HRESULT {
        if (wanted != IID_IClientSecurity) return E_NOINTERFACE;
        return security.GiveTo(reinterpret_cast<IClientSecurity**>(to), S_OK);
    };
    table.ExecQuery = [](IWbemServices*, const BSTR language, const BSTR text, LONG flags, IWbemContext* context,
                         IEnumWbemClassObject** to) {
        return enumerator.GiveTo(to, script.Call(fmt::format("query {} {} {:x} {}", Narrow(language), Narrow(text),
                                                             flags, context == nullptr)));
    };
});

Double<IWbemLocator, IWbemLocatorVtbl> locator([](auto& table) {
    table.ConnectServer = [](IWbemLocator*, const BSTR name, const BSTR user, const BSTR password, const BSTR locale,
                             LONG flags, const BSTR authority, IWbemContext* context, IWbemServices** to) {
        return services.GiveTo(
            to, script.Call(fmt::format("connect {} {}{}{}{} {} {}", Narrow(name), Narrow(user), Narrow(password),
                                        Narrow(locale), Narrow(authority), flags, context == nullptr)));
    };
});

const WmiSource doubles{.initializeSecurity = [] { return script.Call("security"); },
                        .createLocator = [](auto to) { return locator.GiveTo(to, script.Call("create")); },
                        .objectLimit = std::chrono::milliseconds(70)};

VARIANT VariantHolding(VARTYPE type, auto VARIANT::*member, auto content) {
    VARIANT value{};
    value.*member = content;
    value.vt = type;
    return value;
}

class WindowsWmiTest : public ::testing::Test {
  protected:
    WindowsWmiTest() {
        InstallBackend();
        InstallWmi();
    }

    /// Runs a query on the doubles; its status and its rows.
    static std::string QueryDoubles(const Script& start) {
        const ScopedOperations<WmiOperations> scoped{WmiFrom(doubles)};
        script = start;
        const kv::test::WmiResult result = kv::test::RunWmiQuery("SELECT");
        std::string text = fmt::format("{:x}", static_cast<std::uint32_t>(result.status)) + result.refusal;
        for (const kv::test::WmiRow& row : result.rows) {
            text += " [";
            for (const auto& [name, property] : row) text += name + "=" + property.text + ";";
            text += "]";
        }
        return text;
    }
};

TEST_F(WindowsWmiTest, ReleasesEveryStepWhereverAQueryEnds) {
    const std::vector<std::pair<std::wstring, VARIANT>> one{{L"P", VariantHolding(VT_I4, &VARIANT::lVal, 7)}};
    for (const auto& [special, result, expected] : std::vector<std::tuple<std::string, HRESULT, std::string>>{
             {"nothing fails", S_OK, "0 [P=7;] [P=7;]"},
             {"security", RPC_E_TOO_LATE, "80010119"},
             {"create", REGDB_E_CLASSNOTREG, "80040154"},
             {"connect", WBEM_E_INVALID_NAMESPACE, "8004100e"},
             {"blanket", E_ACCESSDENIED, "80070005"},
             {"query", WBEM_E_INVALID_QUERY, "80041017FROM is missing"},
             {"next2", WBEM_E_INVALID_CLASS, "80041010 [P=7;]"},
             {"next2", WBEM_S_TIMEDOUT, "80041069 [P=7;]"},
             {"begin", E_FAIL, "0 [] []"},
             {"property", E_FAIL, "0 [] []"},
         }) {
        EXPECT_EQ(QueryDoubles({special, "", result, one}), expected) << special;
        EXPECT_EQ(script.references, 0) << special;
        APTTYPE apartment{};
        APTTYPEQUALIFIER qualifier{};
        EXPECT_EQ(::CoGetApartmentType(&apartment, &qualifier), CO_E_NOTINITIALIZED) << special;
    }
    QueryDoubles({"", "", S_OK, one});
    EXPECT_EQ(
        script.calls,
        "security\ncreate\nconnect ROOT\\CIMV2 ---- 128 true\nblanket 10 0 - 3 3 true 0\nquery WQL SELECT 30 true\n"
        "next1 70 1\nbegin 40\nproperty 0\nend\nnext2 70 1\nbegin 40\nproperty 0\nend\nnext3 70 1\n");
}

TEST_F(WindowsWmiTest, RefusesAThreadThatUsesComOtherwise) {
    ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    EXPECT_EQ(QueryDoubles({}), "80010106");
    ::CoUninitialize();
}

TEST_F(WindowsWmiTest, CopiesAndClearsValuesOfEveryType) {
    const OwnedBstr text(::SysAllocString(L"x"));
    const auto unknown = reinterpret_cast<IUnknown*>(&object);
    EXPECT_EQ(QueryDoubles({"next2",
                            "",
                            WBEM_S_FALSE,
                            {{L"null", VariantHolding(VT_NULL, &VARIANT::lVal, 0)},
                             {L"i2", VariantHolding(VT_I2, &VARIANT::iVal, SHORT{-2})},
                             {L"r4", VariantHolding(VT_R4, &VARIANT::fltVal, 0.5F)},
                             {L"r8", VariantHolding(VT_R8, &VARIANT::dblVal, 3.5)},
                             {L"date", VariantHolding(VT_DATE, &VARIANT::date, 3.5)},
                             {L"bool", VariantHolding(VT_BOOL, &VARIANT::boolVal, VARIANT_TRUE)},
                             {L"ui1", VariantHolding(VT_UI1, &VARIANT::bVal, BYTE{0x41})},
                             {L"ui4", VariantHolding(VT_UI4, &VARIANT::lVal, 9)},
                             {L"nullText", VariantHolding(VT_BSTR, &VARIANT::bstrVal, BSTR{nullptr})},
                             {L"text", VariantHolding(VT_BSTR, &VARIANT::bstrVal, text.get())},
                             {L"object", VariantHolding(VT_UNKNOWN, &VARIANT::punkVal, unknown)}}}),
              "0 [bool=true;date=[];i2=-2;null=NULL;nullText=;object=[];r4=0.5;r8=3.5;text=x;ui1=65;ui4=[];]");
    EXPECT_EQ(script.references, 0);
}

TEST_F(WindowsWmiTest, TwoThreadsQueryInTurn) {
    std::atomic<int> inside{0}, most{0};
    WmiSource slow = doubles;
    slow.initializeSecurity = [&] {
        most = std::max<int>(most, ++inside);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        --inside;
        return E_FAIL;
    };
    const ScopedOperations<WmiOperations> scoped{WmiFrom(slow)};
    const auto begun = std::chrono::steady_clock::now();
    std::thread other([] { kv::test::RunWmiQuery("SELECT"); });
    kv::test::RunWmiQuery("SELECT");
    other.join();
    EXPECT_EQ(most, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10)) << "each ends its turn";
}

TEST_F(WindowsWmiTest, QueriesTheSystemsWmi) {
    for (int round = 0; round < 2; ++round) {
        const kv::test::WmiResult system = kv::test::RunWmiQuery("SELECT Caption FROM Win32_OperatingSystem");
        EXPECT_EQ(system.status, wmi_status::ok);
        ASSERT_EQ(system.rows.size(), 1U);
        EXPECT_NE(kv::test::PropertyText(system.rows[0], "Caption").find("Windows"), std::string::npos);
    }
    EXPECT_EQ(kv::test::RunWmiQuery("SELECT * FROM X", u"ROOT\\NOWHERE").status, wmi_status::invalidNamespace);
    EXPECT_EQ(kv::test::RunWmiQuery("SELECT FROM WHERE").status, wmi_status::invalidQuery);
}

}  // namespace

}  // namespace platform::test
