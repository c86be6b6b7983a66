// The codec: every form is read, cut at every length and written again; refusals and their lines.
#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <tuple>

#include "snmp/asn.h"
#include "snmp/toolkit_log.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"

namespace kv::snmp {
namespace {

using test::FromHex;
using Position = const std::uint8_t*;
using SubIds = std::vector<std::uint32_t>;

enum class Kind { integer, word, string, bits, null, oid, varBind };

std::string DottedOid(const SubIds& subIds, std::int32_t count) {
    return fmt::format(".{}", fmt::join(subIds.begin(), subIds.begin() + count, "."));
}

/// The value of a variable named 1.3, built with more and more room until it fits; empty if it never does.
std::string BuildValue(std::uint8_t tag, const void* value, std::size_t length, std::int32_t room = 0) {
    const SubIds name{1, 3};
    for (const std::int32_t count = 2; room < 300; ++room) {
        std::vector<std::uint8_t> buffer(static_cast<std::size_t>(room));
        std::int32_t left = room;
        const Position end =
            SnmpBuildVarBind(buffer.data(), name.data(), &count, tag, static_cast<std::int32_t>(length), value, &left);
        if (!end) continue;
        EXPECT_EQ(end + left, buffer.data() + room);
        const std::string bytes(buffer.begin(), buffer.end() - left);
        EXPECT_EQ(bytes.substr(0, 7), FromHex("30 82 00") + static_cast<char>(bytes.size() - 4) + FromHex("06 01 2b"));
        return bytes.substr(7);
    }
    return "";
}

/// What a parser made of an item: its values as text, and the item written again.
struct Outcome {
    std::string values = {};
    Position next = nullptr;
    std::int32_t remaining = 0;
    std::string rewritten = {};
};

Outcome ParseItem(Kind kind, Position item, std::int32_t left) {
    std::uint8_t tag = 0;
    std::int32_t number = 0, count = 7;
    std::uint32_t word = 0;
    std::size_t size = 130;
    const auto bytes = std::make_unique<std::uint8_t[]>(size);
    SubIds subIds(7, 99);
    Position next = nullptr, value = nullptr;
    const auto done = [&](const std::string& values, const void* from, std::size_t length) {
        return next ? Outcome{std::to_string(tag) + ": " + values, next, left, BuildValue(tag, from, length)}
                    : Outcome{};
    };
    switch (kind) {
        case Kind::integer:
            next = AsnParseInteger(item, &left, &tag, &number, 4);
            return done(std::to_string(number), &number, 4);
        case Kind::word:
            next = AsnParseUnsigned(item, &left, &tag, &word, 4);
            return done(std::to_string(word), &word, 4);
        case Kind::string:
        case Kind::bits:
            next = (kind == Kind::bits ? AsnParseBitString : AsnParseString)(item, &left, &tag, bytes.get(), &size);
            return done(std::to_string(size), bytes.get(), size);
        case Kind::null:
            next = AsnParseNull(item, &left, &tag);
            return done("", nullptr, 0);
        case Kind::oid:
            next = AsnParseObjectId(item, &left, &tag, subIds.data(), &count);
            return done(DottedOid(subIds, count), subIds.data(), 4 * static_cast<std::size_t>(count));
        default:
            next = SnmpParseVarBind(item, subIds.data(), &count, &tag, &number, &value, &left);
            return done(DottedOid(subIds, count), next ? AsnSkipHeader(value) : nullptr,
                        static_cast<std::size_t>(number));
    }
}

struct Row {
    const char* title;
    Kind kind;
    std::string hex;
    const char* outcome;              // tag and values; of a refused item, its log lines
    const char* rewritten = nullptr;  // hex; null: the same bytes, empty: nothing
    int behind = 0;                   // the bytes after the end
};

struct Asn : test::TestAgent {
    Asn() { toolkitLogLevel = 1; }
    ~Asn() override { toolkitLogLevel = 0; }

    /// Parses a row's first bytes, in a buffer that ends where a parser has to stop.
    static void Offer(const Row& row, std::int32_t size, int behind, bool succeeds) {
        const auto held = static_cast<std::size_t>(std::max(size, 0));
        std::vector<std::uint8_t> buffer(held + asnReadAhead, static_cast<std::uint8_t>(behind));
        const std::string bytes = FromHex(row.hex);
        std::copy_n(bytes.begin(), held, buffer.begin());
        const Outcome outcome = ParseItem(row.kind, buffer.data(), size);
        EXPECT_EQ(outcome.values, succeeds ? row.outcome : "") << size << " bytes, then " << behind;
        EXPECT_EQ(outcome.next, succeeds ? buffer.data() + held : nullptr);
        EXPECT_EQ(outcome.remaining, 0);
        EXPECT_EQ(outcome.rewritten, !succeeds ? "" : row.rewritten ? FromHex(row.rewritten) : bytes);
    }
};

TEST_F(Asn, ReadsEveryWholeFormAndWritesTheShortest) {
    toolkitLogLevel = 0;
    for (const Row& row : std::vector<Row>{
             {"-1 is one byte", Kind::integer, "02 01 ff", "2: -1"},
             {"128 needs a sign byte", Kind::integer, "02 02 00 80", "2: 128"},
             {"128 in four bytes", Kind::integer, "02 04 00 00 00 80", "2: 128", "02 02 00 80"},
             {"the least integer", Kind::integer, "02 84 00 00 00 04 80 00 00 00", "2: -2147483648",
              "02 04 80 00 00 00"},
             {"a tag of several bytes is not noticed", Kind::integer, "1f 01 05", "31: 5", ""},
             {"no content, 7f after it", Kind::integer, "02 00", "2: 0", "02 01 00", 0x7f},
             {"no content, 80 after it", Kind::integer, "02 00", "2: -1", "02 01 ff", 0x80},
             {"bit 31", Kind::word, "42 05 00 80 00 00 00", "66: 2147483648"},
             {"bit 31 without the 00", Kind::word, "41 04 80 00 00 00", "65: 2147483648", "41 05 00 80 00 00 00"},
             {"the sign is extended", Kind::word, "47 01 80", "71: 4294967168", "47 05 00 ff ff ff 80"},
             {"seven bytes, length 81", Kind::string, "45 81 04 61 62 63 64", "69: 4", "45 04 61 62 63 64"},
             {"the longest with a short length", Kind::string, "44 7f" + std::string(254, '6'), "68: 127"},
             {"the shortest with a long length", Kind::string, "40 81 80" + std::string(256, '6'), "64: 128"},
             {"seven bits unused", Kind::bits, "03 02 07 80", "3: 2"},
             {"length padded to two bytes", Kind::string, "04 82 00 04 61 62 63 64", "4: 4", "04 04 61 62 63 64"},
             {"an exception", Kind::null, "80 00", "128: "},
             {"an exception, four length bytes", Kind::null, "82 84 00 00 00 00", "130: ", "82 00"},
             {"the first is 3", Kind::oid, "06 01 78", "6: .3.0"},
             {"the largest of each size", Kind::oid, "06 10 77 7f ff7f ffff7f ffffff7f 8fffffff7f",
              "6: .2.39.127.16383.2097151.268435455.4294967295"},
             {"the least of each size", Kind::oid, "06 0f 27 8100 818000 81808000 8180808000",
              "6: .0.39.128.16384.2097152.268435456"},
             {"padded, wrapped, broken off", Kind::oid, "06 0a 2b 8005 9fffffff7f 8182", "6: .1.3.5.4294967295.130",
              "06 09 2b 05 8fffffff7f 8102"},
             {"without a sub-identifier", Kind::oid, "06 00", "6: .0", "06 01 00"},
             {"a variable", Kind::varBind, "30 82 00 0a 06 03 2b 06 01 04 03 61 62 63", "4: .1.3.6.1",
              "04 03 61 62 63"},
         }) {
        SCOPED_TRACE(row.title);
        const auto size = static_cast<std::int32_t>(FromHex(row.hex).size());
        Offer(row, size, row.behind, true);
        for (std::int32_t cut = -1; cut < size; ++cut) {
            for (const int behind : {0x00, 0xff, 0x84}) Offer(row, cut, behind, false);
        }
    }
}

TEST_F(Asn, LogsWhatItRefuses) {
    for (const Row& row : std::vector<Row>{
             {"five length bytes", Kind::string, "04 85 00 00 00 00 00", "we can't support data lengths that long"},
             {"a length that wraps", Kind::varBind, "30 84 ff ff ff fd 00 00",
              "asn length too longNo header for variable"},
             {"a negative length", Kind::string, "04 84 80 00 00 00 00", "overflow of message"},
             {"without a length", Kind::integer, "02", "bad length"},
             {"an integer of indefinite length", Kind::word, "41 80", "We don't support indefinite lengthsbad length"},
             {"an integer of five bytes", Kind::integer, "02 05 00 80 00 00 00", "I don't support such large integers"},
             {"a long string", Kind::string, "04 81 83" + std::string(262, '6'), "I don't support such long strings"},
             {"eight bits unused", Kind::bits, "03 02 08 00", "Invalid bitstring"},
             {"null with content", Kind::null, "05 01 00", "Malformed NULL"},
             {"without a header", Kind::varBind, "3f 00", "can't process ID >= 30No header for variable"},
             {"another constructed item", Kind::varBind, "31 07 06 03 2b 06 01 05 00", ""},
             {"a name that is too long", Kind::varBind, "30 07 06 06 2b 06 01 05 00",
              "overflow of messageNo OID for variable"},
             {"a value that is too long", Kind::varBind, "30 07 06 03 2b 06 01 04 01 61", "No header for value"},
         }) {
        SCOPED_TRACE(row.title);
        const std::size_t logged = LogText().size();
        Offer(row, static_cast<std::int32_t>(FromHex(row.hex).size()), 0, false);
        EXPECT_EQ(LogText().substr(logged), row.outcome);
    }
}

TEST_F(Asn, WritesValuesByTheirTag) {
    const std::string refused = "Can't build value";
    const std::tuple<std::uint8_t, SubIds, std::size_t, std::string> rows[] = {
        {0x02, {1, 1}, 8, refused},
        {0x03, {0x08080808}, 2, "Building invalid bitstring" + refused},
        {0x04, {}, 0, "04 00"},
        {0x03, {}, 0, "Building invalid bitstring" + refused},
        {0x06, {7}, 4, "06 01 00"},
        {0x06, SubIds(132, 0x11), 528, "06 81 84 85 39" + std::string(260, '1')},
        {0x06, SubIds(133, 1), 532, refused},
        {0x46, {0xffffffff, 0xfffffffe}, 8, "46 09 00 ff ff ff ff ff ff ff fe"},
        {0x46, {0x7fffff, 1}, 8, "46 07 7f ff ff 00 00 00 01"},
        {0x46, {0, 0}, 8, "46 01 00"},
        {0x48, {0}, 4, "wrong type"}};
    for (const auto& [tag, value, length, outcome] : rows) {
        const std::size_t logged = LogText().size();
        const std::string bytes = BuildValue(tag, value.empty() ? nullptr : value.data(), length, 299);
        const std::string lines = LogText().substr(logged);
        EXPECT_TRUE(lines.empty() ? bytes == FromHex(outcome) : lines.ends_with(outcome)) << lines;
    }
    for (const auto& [length, header] : {std::pair(255u, "04 81 ff"), {256u, "04 82 01 00"}, {65537u, "04 82 00 01"}}) {
        std::uint8_t buffer[4];
        std::int32_t left = 4;
        EXPECT_EQ(std::string(buffer, AsnBuildHeader(buffer, &left, 0x04, length)), FromHex(header));
    }
}

}  // namespace
}  // namespace kv::snmp
