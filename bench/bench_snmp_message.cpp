// Encoding a get of ten variables and decoding its answer, with the allocations of each beside the time. No more than
// one allocation is allowed for each part that a variable owns: itself, its name, its value, and its place in the list.
#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/backend.h"
#include "snmp/asn.h"
#include "snmp/message.h"
#include "snmp/oid.h"
#include "snmp/pdu.h"
#include "snmp/var_bind.h"

namespace {

std::atomic<long> allocations{0};

void* Allocate(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size > 0 ? size : 1);
}

}  // namespace

// Not inlined, because the compiler would take new and free for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (void* memory = Allocate(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

namespace snmp = kv::snmp;

constexpr int variables = 10;
using Buffer = std::array<std::uint8_t, snmp::messageBufferSize + snmp::asnReadAhead>;

/// A PDU with a number, a text and an OID in turn.
snmp::SnmpPduPtr MakePdu(std::uint8_t command) {
    const std::array<std::uint32_t, 11> name{1, 3, 6, 1, 2, 1, 2, 2, 1, 10, 4'000'000};
    const snmp::VarBindListPtr list = snmp::MakeVarBindList();
    const std::int32_t number = 123456789;
    for (int i = 0; i < variables; ++i) {
        snmp::VarBind* variable =
            i % 3 == 0   ? snmp::CreateAVarBind(name.data(), 11, snmp::tag::integer, &number, 4)
            : i % 3 == 1 ? snmp::CreateAVarBind(name.data(), 11, snmp::tag::octetString, "GigabitEthernet1/0/1", 20)
                         : snmp::CreateAVarBind(name.data(), 11, snmp::tag::objectId, name.data(), 44);
        snmp::AddElement(list.get(), new snmp::TkVectorNode{variable, nullptr});
    }
    snmp::SnmpPduPtr pdu(snmp::CreateSnmpPdu(snmp::versionV2c, "public", command, 1, 0, 1, list.get()));
    snmp::FreeVector(list.get());
    return pdu;
}

/// Allocations of one run, shown and kept for the verdict.
class AllocationCount {
  public:
    AllocationCount(benchmark::State& state, double& each) : state_(state), each_(each), before_(allocations) {}
    ~AllocationCount() {
        each_ = static_cast<double>(allocations - before_) / static_cast<double>(state_.iterations());
        state_.counters["allocations"] = each_;
    }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

  private:
    benchmark::State& state_;
    double& each_;
    long before_;
};

double encodeAllocations = 0;
double decodeAllocations = 0;

void Encode(benchmark::State& state) {
    const snmp::SnmpPduPtr pdu = MakePdu(snmp::command::get);
    static Buffer buffer{};
    const AllocationCount count(state, encodeAllocations);
    for (auto iteration : state) {
        std::int32_t size = snmp::messageBufferSize;
        if (snmp::CreateSnmpMsgForPdu(buffer.data(), &size, pdu.get()) != 1) state.SkipWithError("not built");
        benchmark::DoNotOptimize(buffer);
    }
}

void Decode(benchmark::State& state) {
    const snmp::SnmpPduPtr pdu = MakePdu(snmp::command::get);
    static Buffer buffer{};
    std::int32_t size = snmp::messageBufferSize;
    snmp::CreateSnmpMsgForPdu(buffer.data(), &size, pdu.get());
    const AllocationCount count(state, decodeAllocations);
    for (auto iteration : state) {
        const snmp::SnmpPduPtr parsed(snmp::AllocateAndInitSnmpPdu());
        const std::uint8_t result = snmp::ParseSnmpMessageForPdu(buffer.data(), size, parsed.get());
        if (result != snmp::parse_result::done || parsed->varBindCount != variables) state.SkipWithError("not parsed");
    }
}

BENCHMARK(Encode);
BENCHMARK(Decode);

}  // namespace

int main(int argc, char** argv) {
    // Besides the variables, encoding needs nothing, and decoding a record and a community.
    constexpr double encodeLimit = 0;
    constexpr double decodeLimit = 2 + 3 * variables;
    platform::InstallBackend();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("%d variables: %.0f allocations to encode (limit %.0f), %.0f to decode (limit %.0f)\n", variables,
                encodeAllocations, encodeLimit, decodeAllocations, decodeLimit);
    return encodeAllocations <= encodeLimit && decodeAllocations <= decodeLimit ? 0 : 1;
}
