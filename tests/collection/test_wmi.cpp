// The agent's WMI query on scripted operations, and the texts of values and failures in a record.
#include <cmath>
#include <new>
#include <tuple>

#include "collection/wmi.h"
#include "collection/wmi_query.h"
#include "collection/wmi_text.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "platform/messages.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

using namespace std::string_literals;
using platform::Variant;
using enum platform::VariantType;

/// The system does not know WMI's numbers; WMI's library does.
const platform::MessageOperations messageTexts{
    .FormatMessageW = [](auto) { return std::nullopt; },
    .LoadLibraryW =
        [](auto name, auto&) {
            return name == u"wmiutils.dll" ? platform::error::success : platform::error::fileNotFound;
        },
    .FormatModuleMessageW =
        [](auto, auto code) {
            const bool isOfMemory = code == platform::wmi_status::outOfMemory;
            return std::optional(isOfMemory ? u"Out of memory\r\n"s : u"Generic failure\r\n"s);
        },
};

/// Answers a query with the objects 4 and 5, which have two properties each. The call with the text `failing` fails, or
/// throws if `failure` is ok.
class WmiQuery : public TestAgent {
  protected:
    using Handle = platform::WmiHandle;

    /// Notes a call and gives out a handle.
    platform::WmiStatus Call(const std::string& call, Handle number = 0, Handle* handle = nullptr) {
        calls += call + ' ';
        if (call == failing && failure == platform::wmi_status::ok) throw std::bad_alloc();
        if (call == failing) return failure;
        if (handle) *handle = number;
        return platform::wmi_status::ok;
    }

    platform::WmiOperations Scripted() {
        return {
            .CoInitializeEx = [this] { return Call("up"); },
            .CoUninitialize = [this] { Call("down"); },
            .CoInitializeSecurity = [this] { return Call("security"); },
            .CoCreateInstance = [this](Handle& to) { return Call("create", 1, &to); },
            .ConnectServer = [this](Handle, auto in, Handle& to) { return Call(platform::Utf8FromWide(in), 2, &to); },
            .CoSetProxyBlanket = [this](Handle) { return Call("blanket"); },
            .ExecQuery = [this](Handle, auto, Handle& to) { return Call("query", 3, &to); },
            .JudgeQuery = {},
            .Next =
                [this](Handle, auto& object, auto& count) {
                    count = ++last <= 5 ? 1 : 0;
                    return Call("next" + std::to_string(last), last, count == 1 ? &object : nullptr);
                },
            .BeginEnumeration =
                [this](Handle object) {
                    property = 0;
                    return Call("begin" + std::to_string(object));
                },
            .NextProperty =
                [this](Handle object, auto& name, auto& value) {
                    name = property == 0 ? u"First" : u"Second";
                    value = {i4, static_cast<std::int32_t>(object), 0, u""};
                    return ++property > 2 ? platform::wmi_status::noMoreData
                                          : Call("property" + std::to_string(object));
                },
            .EndEnumeration = [this](Handle) { return Call("end"); },
            .Release = [this](Handle handle) { Call("-" + std::to_string(handle)); },
            .TakeNotices = [](Handle) { return std::vector<std::u16string>{u"C: was left out"}; },
            .TakeRefusal = [](Handle of) { return of == 2 ? u"Nmae is unknown"s : u""s; },
        };
    }

    std::string failing, calls;
    platform::WmiStatus failure = platform::wmi_status::failed;
    Handle last = 3;
    int property = 0;
    const platform::ScopedOperations<platform::WmiOperations> scoped{Scripted()};
    const platform::ScopedOperations<platform::MessageOperations> scopedTexts{messageTexts};
};

TEST_F(WmiQuery, ReleasesEverythingInReverseOrderWhereverItEnds) {
    const std::string started = "up security create ROOT\\CIMV2 blanket query ", end = "-3 -2 -1 down ";
    const std::string row4 = "next4 begin4 property4 property4 end -4 ";
    const std::string row5 = "next5 begin5 property5 property5 end -5 ";
    const std::string generic = " ERRORCODE:80041001 MESSAGE:Generic failure\r\n";
    struct Row {
        std::string failing, result, calls;
        int rows = 0;
    };
    for (const Row& row : std::vector<Row>{
             {"up", "FAILED:Failed to initialize COM library" + generic, "up "},
             {"security", "FAILED:Failed to initialize security" + generic, "up security down "},
             {"create", "FAILED:Failed to create IWbemLocator object" + generic, "up security create down "},
             {"ROOT\\CIMV2", "FAILED:Could not connect to nameSpace" + generic,
              "up security create ROOT\\CIMV2 -1 down "},
             {"blanket", "FAILED:Could not set proxy blanket" + generic,
              "up security create ROOT\\CIMV2 blanket -2 -1 down "},
             {"query", "FAILED:SELECT" + generic, started + "-2 -1 down "},
             {"begin4", "NO ERROR", started + "next4 begin4 -4 " + row5 + "next6 " + end, 1},
             {"property5", "FAILED:ERROR ERRORCODE:80041006 MESSAGE:Out of memory\r\n",
              started + row4 + "next5 begin5 property5 end -5 " + end, 1},
             {"next6", "FAILED:ERROR" + generic, started + row4 + row5 + "next6 " + end, 2},
             {"nothing", "NO ERROR", started + row4 + row5 + "next6 " + end, 2},
         }) {
        failing = row.failing;
        failure = row.failing == "property5" ? platform::wmi_status::ok : platform::wmi_status::failed;
        last = 3;
        calls.clear();
        const VectorPtr rows = MakeVector();
        const std::u16string result = WMIFunction(std::nullopt, u"SELECT", rows.get());
        EXPECT_EQ(platform::Utf8FromWide(result), row.result);
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(rows->count, row.rows) << failing;
    }
    EXPECT_EQ(WMIFunction(std::nullopt, std::nullopt, nullptr), u"wmiQuery is NULL");
    for (const char* line : {"\t WMIFunction :: Failed to initialize COM library [80041001]\n",
                             "\t WMIFunction ::ExecQuery Failed for SELECT. Last Error code is [80041001] \n",
                             "\t WMIFunction :: The query is refused: Nmae is unknown \n",
                             "\t WMIFunction :: The nameSpace is ROOT\\CIMV2 \n"})
        EXPECT_TRUE(Logged(line)) << line;
}

TEST_F(WmiQuery, KeepsTheRowsBeforeAnErrorInTheRecord) {
    agentState.gv_agentKey.Publish(u"K");
    failing = "next6";
    ExecuteWMIQuery(u"ROOT\\X", u"SELECT", u"Disks");
    EXPECT_NE(
        TextFromUtf16LittleEndian(Read(data / "Agent_K_1.txt"))
            .find(uR"(MESSAGE:Generic failure\r\n", "Disks": [ { "Second": "4", "First": "4" }, { "Second": "5", )"),
        std::u16string::npos);
    EXPECT_NE(calls.find("ROOT\\X"), calls.npos);
    EXPECT_TRUE(Logged("\t WMIFunction :: C: was left out \n"));
}

TEST(WmiText, HasAFormForEveryType) {
    for (const auto& [title, value, text] : std::vector<std::tuple<const char*, Variant, std::u16string_view>>{
             {"NULL", {null, 0, 0, u""}, u"-"},
             {"16 bits are unsigned", {i2, -2, 0, u""}, u"65534"},
             {"32 bits are signed", {i4, INT32_MIN, 0, u""}, u"-2147483648"},
             {"real to ten places", {r8, 0, 3.5, u""}, u"    3.5000"},
             {"real of 31 characters", {r8, 0, 1e25, u""}, u"10000000000000000905969664.0000"},
             {"longer real is cut", {r8, 0, -1e25, u""}, u"-10000000000000000905969664.000"},
             {"not a number that can be written", {r8, 0, -INFINITY, u""}, u"      -inf"},
             {"false", {boolean, 0, 0, u""}, u"False"},
             {"true", {boolean, -1, 0, u""}, u"True"},
             {"a byte below the blank", {ui1, 0x1F, 0, u""}, u"31"},
             {"a byte from the blank on", {ui1, 0x20, 0, u""}, u"' '"},
             {"date", {date, 0, 0, u""}, u"<conversion error>"},
             {"no value", {empty, 0, 0, u""}, u"<conversion error>"},
         }) {
        EXPECT_EQ(VariantToString(value), text) << title;
    }
}

}  // namespace
}  // namespace kv::test
