// Any bytes through every parser of the codec, in a buffer that ends as soon as the codec allows. What a parser returns
// is built again, perhaps shorter, and must parse to the same; without room for all of it, it is not built.
//
// The first byte is the room for the parsed value (bytes, or sub-identifiers). The second follows the end of the rest,
// and decides how much room for building there is when there is too little.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "snmp/asn.h"

namespace {

using namespace kv::snmp;
using Position = const std::uint8_t*;
using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint32_t>;

constexpr std::size_t maxInput = 1024;
constexpr std::size_t maxSubIds = 128;  // of a value

struct Input {
    Position begin;
    std::int32_t size;
    std::uint8_t room;
    std::uint8_t fill;
    Position end() const { return begin + size; }
};

void Expect(bool holds) {
    if (!holds) std::abort();
}

/// What build(position, remaining) writes; absent if it refuses even with enough room.
template <class Build>
std::optional<Bytes> Built(const Input& input, Build build) {
    static std::array<std::uint8_t, 4096> roomy;
    std::int32_t remaining = roomy.size();
    const std::uint8_t* end = build(roomy.data(), &remaining);
    if (!end) return {};
    const auto size = static_cast<std::int32_t>(end - roomy.data());
    Expect(size + remaining == static_cast<std::int32_t>(roomy.size()));
    remaining = input.fill % size;
    const auto tight = std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(remaining));
    Expect(!build(tight.get(), &remaining) && remaining >= 0);
    return Bytes(roomy.data(), roomy.data() + size);
}

/// The value comes with room for what is parsed.
template <class Value, class Parse, class Build>
void RoundTrip(const Input& input, Value value, Parse parse, Build build) {
    Value again = value;
    std::int32_t remaining = input.size;
    std::uint8_t tag = 0;
    const Position next = parse(input.begin, &remaining, &tag, value);
    if (!next) return;
    Expect(next > input.begin && remaining >= 0 && next + remaining <= input.end());
    // Only for an object identifier without enough room the parser stops in the middle.
    if constexpr (!std::is_same_v<Value, Words>) Expect(next + remaining == input.end());

    const std::optional<Bytes> built =
        Built(input, [&](std::uint8_t* position, std::int32_t* left) { return build(position, left, tag, value); });
    Expect(built.has_value());
    remaining = static_cast<std::int32_t>(built->size());
    std::uint8_t tagAgain = 0;
    Expect(parse(built->data(), &remaining, &tagAgain, again) == built->data() + built->size());
    Expect(remaining == 0 && tagAgain == tag && again == value);
}

// The codec's routines in the shape that RoundTrip takes.

auto WordParser(auto parse) {
    return [parse](Position position, std::int32_t* remaining, std::uint8_t* tag, auto& value) {
        return parse(position, remaining, tag, &value, sizeof value);
    };
}

auto WordBuilder(auto build) {
    return [build](std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, auto& value) {
        return build(position, remaining, tag, &value, sizeof value);
    };
}

auto BytesParser(auto parse) {
    return [parse](Position position, std::int32_t* remaining, std::uint8_t* tag, Bytes& bytes) {
        std::size_t size = bytes.size();
        const Position next = parse(position, remaining, tag, bytes.data(), &size);
        if (next) bytes.resize(size);
        return next;
    };
}

auto BytesBuilder(auto build) {
    return [build](std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, const Bytes& bytes) {
        return build(position, remaining, tag, bytes.data(), bytes.size());
    };
}

/// An empty object identifier is built as 0.0, and so counts as that here.
void SetCount(Words& oid, std::int32_t count) {
    Expect(count >= 1 && static_cast<std::size_t>(count) <= oid.size());
    oid.resize(static_cast<std::size_t>(std::max(count, 2)));
}

Position ParseOid(Position position, std::int32_t* remaining, std::uint8_t* tag, Words& oid) {
    auto count = static_cast<std::int32_t>(oid.size());
    const Position next = AsnParseObjectId(position, remaining, tag, oid.data(), &count);
    if (next) SetCount(oid, count);
    return next;
}

std::uint8_t* BuildOid(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, const Words& oid) {
    return AsnBuildObjectId(position, remaining, tag, oid.data(), static_cast<std::int32_t>(oid.size()));
}

Position ParseNull(Position position, std::int32_t* remaining, std::uint8_t* tag, const Bytes&) {
    return AsnParseNull(position, remaining, tag);
}

std::uint8_t* BuildNull(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, const Bytes&) {
    return AsnBuildNull(position, remaining, tag);
}

Words RoomForOid(const Input& input) { return Words(2u + input.room % (asnMaxBuildSubIds - 1u)); }

void Header(const Input& input) {
    std::int32_t remaining = input.size;
    std::uint8_t tag = 0;
    const Position content = AsnParseHeader(input.begin, &remaining, &tag);
    if (!content) return;
    Expect(remaining >= 0 && content + remaining <= input.end() && AsnSkipHeader(input.begin) == content);
    const auto length = static_cast<std::uint32_t>(remaining);
    for (const auto build : {AsnBuildHeader, AsnBuildSequence}) {
        std::optional<Bytes> built = Built(
            input, [&](std::uint8_t* position, std::int32_t* left) { return build(position, left, tag, length); });
        const std::size_t headerSize = built.value().size();
        built->resize(headerSize + length + asnReadAhead);
        remaining = static_cast<std::int32_t>(headerSize + length);
        std::uint8_t tagAgain = 0;
        Expect(AsnParseHeader(built->data(), &remaining, &tagAgain) == built->data() + headerSize);
        Expect(tagAgain == tag && static_cast<std::uint32_t>(remaining) == length);
    }
}

/// A variable taken apart, with its value in the form from which it is built.
struct Variable {
    Words oid;
    std::uint8_t tag = 0;
    Bytes bytes = {};
    Words words = {};
    bool operator==(const Variable&) const = default;
};

/// Sets bytes or words; false when no builder accepts the value.
bool ReadValue(Variable& variable, Position position, std::int32_t length) {
    const Position content = AsnSkipHeader(position);
    auto remaining = static_cast<std::int32_t>(content - position) + length;
    std::uint8_t tag = 0;
    std::int32_t number = 0;
    switch (variable.tag) {
        case tag::integer:
            if (!AsnParseInteger(position, &remaining, &tag, &number, sizeof number)) return false;
            variable.words = {static_cast<std::uint32_t>(number)};
            return true;
        case tag::counter32:
        case tag::gauge32:
        case tag::timeTicks:
        case tag::uInteger32:
            variable.words = {0};
            return AsnParseUnsigned(position, &remaining, &tag, variable.words.data(), sizeof number) != nullptr;
        case tag::counter64: {
            variable.words = {0, 0};
            std::uint64_t value = 0;
            for (std::int32_t i = 0; i < length; ++i) value = value << 8 | content[i];
            variable.words = {static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)};
            return true;
        }
        case tag::objectId:
            variable.words = Words(maxSubIds);
            return ParseOid(position, &remaining, &tag, variable.words) != nullptr;
        case tag::bitString:
            variable.bytes = Bytes(static_cast<std::size_t>(length));
            return BytesParser(AsnParseBitString)(position, &remaining, &tag, variable.bytes) != nullptr;
        case tag::octetString:
        case tag::ipAddress:
        case tag::opaque:
        case tag::nsapAddress:
            variable.bytes.assign(content, content + length);
            return true;
        default:
            return variable.tag == tag::null ||
                   (variable.tag >= tag::noSuchObject && variable.tag <= tag::endOfMibView);
    }
}

/// The end of the variable. isValue tells whether its value can be built.
Position ParseVariable(Position begin, std::int32_t* remaining, Variable& variable, bool& isValue) {
    auto count = static_cast<std::int32_t>(variable.oid.size());
    std::int32_t length = 0;
    Position value = nullptr;
    const Position next =
        SnmpParseVarBind(begin, variable.oid.data(), &count, &variable.tag, &length, &value, remaining);
    if (!next) return nullptr;
    SetCount(variable.oid, count);
    Expect(AsnSkipHeader(value) + length == next);
    isValue = ReadValue(variable, value, length);
    return next;
}

void VarBind(const Input& input) {
    Variable variable{RoomForOid(input)};
    Variable again = variable;
    bool isValue = false;
    std::int32_t remaining = input.size;
    const Position next = ParseVariable(input.begin, &remaining, variable, isValue);
    if (!next) return;
    Expect(next + remaining == input.end());

    const auto oidCount = static_cast<std::int32_t>(variable.oid.size());
    const std::size_t size = variable.bytes.size() + variable.words.size() * sizeof(std::uint32_t);
    const void* value =
        variable.words.empty() ? static_cast<const void*>(variable.bytes.data()) : variable.words.data();
    const std::optional<Bytes> built = Built(input, [&](std::uint8_t* position, std::int32_t* left) {
        return SnmpBuildVarBind(position, variable.oid.data(), &oidCount, variable.tag, static_cast<std::int32_t>(size),
                                value, left);
    });
    if (!isValue) return;
    Expect(built.has_value());
    remaining = static_cast<std::int32_t>(built->size());
    Expect(ParseVariable(built->data(), &remaining, again, isValue) == built->data() + built->size());
    Expect(isValue && remaining == 0 && again == variable);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size - 2 > maxInput) return 0;
    const std::size_t length = size - 2;
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(length + asnReadAhead);
    std::fill_n(std::copy_n(data + 2, length, buffer.get()), asnReadAhead, data[1]);
    const Input input{buffer.get(), static_cast<std::int32_t>(length), data[0], data[1]};

    RoundTrip(input, std::int32_t{0}, WordParser(AsnParseInteger), WordBuilder(AsnBuildInteger));
    RoundTrip(input, std::uint32_t{0}, WordParser(AsnParseUnsigned), WordBuilder(AsnBuildUnsigned));
    RoundTrip(input, Bytes(input.room), BytesParser(AsnParseString), BytesBuilder(AsnBuildString));
    RoundTrip(input, Bytes(input.room), BytesParser(AsnParseBitString), BytesBuilder(AsnBuildBitString));
    RoundTrip(input, Bytes(), ParseNull, BuildNull);
    RoundTrip(input, RoomForOid(input), ParseOid, BuildOid);
    Header(input);
    VarBind(input);
    return 0;
}
