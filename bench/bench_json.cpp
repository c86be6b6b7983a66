// HashToJSONString of a result of 1,000 rows: at most 1.5 times json-c's own narrow print of the same document.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <json-c/json.h>
#include <string>
#include <vector>

#include "bench/medians.h"
#include "foundation/hash_table.h"
#include "jsontext/hash_json.h"
#include "platform/backend.h"
#include "platform/utf.h"

namespace {

using namespace kv;

constexpr int rowCount = 1000;

HashTablePtr result;
json_object* peer = nullptr;

/// A query result as WMI gives it: the properties of a service in each row.
HashTablePtr MakeResult() {
    VectorPtr rows = MakeVector();
    for (int i = 0; i < rowCount; ++i) {
        const std::u16string number = platform::WideFromUtf8(std::to_string(i));
        HashTablePtr row = MakeHashTable();
        PutHashText(row.get(), u"Name", u"Service" + number);
        PutHashText(row.get(), u"DisplayName", u"Service number " + number + u" of the computer \"HOST\"");
        PutHashText(row.get(), u"Description",
                    u"Pr\u00fcft regelm\u00e4\u00dfig, ob alles l\u00e4uft; bei Fehlern wird neu gestartet.");
        PutHashText(row.get(), u"PathName", u"C:\\Windows\\System32\\svchost.exe /k netsvcs");
        PutHashText(row.get(), u"ProcessId", number);
        PutHashText(row.get(), u"Started", u"TRUE");
        PutHashText(row.get(), u"StartMode", u"Auto");
        PutHashText(row.get(), u"State", u"Running");
        AppendTable(rows.get(), std::move(row));
    }
    HashTablePtr table = MakeHashTable();
    PutHashVector(table.get(), u"Services", std::move(rows));
    PutHashText(table.get(), u"ERRORMSG", u"NO ERROR");
    PutHashText(table.get(), u"DATACOLLECTTIME", u"1772701507");
    return table;
}

void JsonCPrint(benchmark::State& state) {
    for (auto iteration : state) benchmark::DoNotOptimize(json_object_to_json_string(peer));
}

void WidePrint(benchmark::State& state) {
    for (auto iteration : state) benchmark::DoNotOptimize(HashToJSONString(result.get()).data());
}

BENCHMARK(JsonCPrint)->Unit(benchmark::kMicrosecond)->Repetitions(9);
BENCHMARK(WidePrint)->Unit(benchmark::kMicrosecond)->Repetitions(9);

}  // namespace

int main(int argc, char** argv) {
    constexpr double limit = 1.5;
    kv::bench::InitializeInterleaved(argc, argv);

    platform::InstallBackend();
    result = MakeResult();
    const std::string text = platform::Utf8FromWide(HashToJSONString(result.get()));
    peer = json_tokener_parse(text.c_str());
    if (text != json_object_to_json_string(peer)) {
        std::fprintf(stderr, "the two printed forms differ\n");
        return 2;
    }
    kv::bench::MedianReporter reporter("JsonCPrint");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    json_object_put(peer);
    const double ratio = reporter.own / reporter.peer;
    std::printf("printing %d rows (%zu bytes in UTF-8): %.0f us, json-c %.0f us, ratio %.2f (limit %.1f)\n", rowCount,
                text.size(), reporter.own, reporter.peer, ratio, limit);
    return ratio <= limit ? 0 : 1;
}
