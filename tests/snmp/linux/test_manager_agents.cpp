// The manager against Debian's snmpd and snmpsimd.
#include <iterator>
#include <latch>
#include <thread>
#include <tuple>

#include "tests/snmp/manager_test.h"

namespace kv::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST_F(SnmpManager, ReadsSnmpdInBothVersions) {
    const SnmpDaemon device(
        "sysName tower\nsysDescr a box\nview small included .1.3.6.1.2.1.1.5\nrocommunity small default -V small");
    const std::string both = "1: .1.3.6.1.2.1.1.1.0 4:a box | .1.3.6.1.2.1.1.5.0 4:tower";
    for (const auto& [title, asked, expected] : std::vector<std::tuple<const char*, Request, std::string>>{
             {"v2c", {.oids = {sysDescr, sysName}}, both},
             {"v1", {.oids = {sysDescr, sysName}, .version = "v1"}, both},
             {"another text counts as v1", {.oids = {sysDescr, sysName}, .version = "2"}, both},
             {"getnext", {.type = snmpGetNext, .oids = {".1.3.6.1.2.1.1.4.0"}}, "1: .1.3.6.1.2.1.1.5.0 4:tower"},
             {"an exception comes first", {.oids = {unknown, sysName}}, "0: .1.3.6.1.2.1.1.77.0 128:(null) | (null)"},
             {"an exception comes last",
              {.oids = {sysName, unknown}},
              "128: .1.3.6.1.2.1.1.5.0 4:tower | .1.3.6.1.2.1.1.77.0 128:(null)"},
             {"v1 has no exceptions", {.oids = {unknown}, .version = "v1"}, "1: .1.3.6.1.2.1.1.77.0 4:(null)"},
             {"a wrong community", {.oids = {sysName}, .community = "wrong"}, "0: (null)"},
             {"a walk to the end of a v1 tree",
              {.type = snmpWalk, .oids = {system}, .version = "v1", .community = "small"},
              "1: .1.3.6.1.2.1.1.5.0 4:tower"},
             {"an unknown host", {.oids = {sysName}, .host = "no.such.host.invalid"}, "0: (null)"},
             {"a host that is too long", {.oids = {sysName}, .host = std::string(300, 'h')}, "0: (null)"},
             {"a community that is too long", {.oids = {sysName}, .community = std::string(255, 'c')}, "null"},
         }) {
        SCOPED_TRACE(title);
        Request request = asked;
        request.port = device.port();
        EXPECT_EQ(AnswerText(request), expected);
    }
    EXPECT_TRUE(Logged("gives back the OID that it was asked from, with the error status 2. The walk ends with 1"));
}

TEST_F(SnmpManager, TakesEveryTypeFromTheSimulator) {
    const struct {
        const char *record, *shown;
        std::int32_t length;
    } rows[]{{"2|-2147483647", "2:-2147483647", 11},
             {"4|two words", "4:two words", 9},
             {"4x|00ff80", "4:", 3},
             {"4|", "4:(null)", 0},
             {"6|1.3.6.1.4.1.8072.2147483647", "6:.1.3.6.1.4.1.8072.2147483647", 1},
             {"64|10.0.0.255", "64:10.0.0.255", 10},
             {"65|4294967295", "65:4294967295", 10},
             {"66|2147483648", "66:2147483648", 10},
             {"68x|9f78", "68:\x9Fx", 2},
             {"70|4294967298", "70:4294967298", 0},
             {"70|9223372036854775808", "70:-9223372036854775808", 0},
             {"70|18446744073709551615", "70:-1", 0}};
    std::string records;
    for (std::size_t i = 0; i < std::size(rows); ++i) records += fmt::format("1.3.6.1.9.{}|{}\n", i, rows[i].record);
    const SnmpSimulator device("types", records);
    const SnmpResponsePtr response(
        SendRequest({.port = device.port(), .type = snmpWalk, .oids = {".1.3.6.1.9"}, .community = "types"}));
    ASSERT_THAT(ResponseText(response.get()), StartsWith("1: "));
    ASSERT_EQ(response->results[0]->valueCount, std::ssize(rows));
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const SnmpValue& value = *response->results[0]->values[i];
        EXPECT_EQ(ValueText(value), fmt::format(".1.3.6.1.9.{} {}", i, rows[i].shown));
        EXPECT_EQ(value.valueLength, rows[i].length) << rows[i].record;
    }
    EXPECT_EQ(std::string_view(response->results[0]->values[2]->value, 3), std::string_view("\0\xff\x80", 3));
}

TEST_F(SnmpManager, ServesSeveralThreadsAtOnce) {
    const SnmpDaemon device("sysName tower\nextend rows /bin/seq 1 50");
    std::latch start(4);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&device, &start, i] {
            start.arrive_and_wait();
            const bool walks = i % 2 == 0;
            const char* oid = walks ? ".1.3.6.1.4.1.8072.1.3.2.4.1.2" : sysName;
            for (int k = 0; k < 3; ++k)
                EXPECT_THAT(AnswerText({.port = device.port(), .type = walks ? snmpWalk : snmpGet, .oids = {oid}}),
                            HasSubstr(walks ? "4:50" : "4:tower"));
        });
    }
}

}  // namespace
}  // namespace kv::test
