// What a script prints, on its way to a record that the lab reads: converted into a record file, packed, unpacked by
// two readers, parsed.
//
// The first byte picks how: bit 0 that the script's host prints UTF-16LE, the others the size of the pieces in which
// the conversion is done a second time. With the greatest size the rest is repeated until it fills more than one block.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utf8.h>
#include <vector>

#include "collection/script.h"
#include "collection/script_output.h"
#include "exchange/upload_pipeline.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "fuzz/scratch_agent.h"
#include "jsontext/hash_json.h"
#include "lab/store/archive.h"
#include "lab/store/record_facts.h"
#include "lab/store/record_text.h"
#include "platform/process.h"
#include "zip/zip_reader.h"

namespace {

using namespace kv;

constexpr std::size_t moreThanOneBlock = 70'000;

void Require(bool holds) {
    if (!holds) __builtin_trap();
}

/// What the script of this run prints, and as what the agent takes it.
std::string printed;
platform::ScriptOutputEncoding encoding;

/// A script that has printed and ended as soon as it is started.
void InstallScript() {
    auto& processes = platform::CurrentOperations<platform::ProcessOperations>();
    processes.ComposeScriptLine = [](const platform::ScriptCommand& command) { return command.outputPath.value(); };
    processes.GetScriptOutputEncoding = [](std::u16string_view) { return encoding; };
    processes.CreateProcessW = [](std::u16string_view output, std::u16string_view, platform::ProcessHandle& process) {
        process = 1;
        return WriteCompleteFile(output, std::u16string(output) + u".new", printed);
    };
    processes.WaitForSingleObject = [](auto&&...) { return platform::error::success; };
    processes.GetExitCodeProcess = [](platform::ProcessHandle, std::uint32_t& exitCode) {
        exitCode = 0;
        return platform::error::success;
    };
    processes.CloseProcess = [](platform::ProcessHandle) {};
}

std::vector<std::u16string> FilesIn(std::u16string_view directory) {
    std::vector<std::u16string> names;
    for (FileSearch search(std::u16string(directory) + u"\\*"); search.hasFile(); search.Next())
        if (!search.file.isDirectory) names.push_back(search.file.fileName);
    return names;
}

std::u16string OnlyFileIn(std::u16string_view directory) {
    const std::vector<std::u16string> names = FilesIn(directory);
    Require(names.size() == 1);
    return names[0];
}

std::string BytesOf(std::u16string_view path) {
    std::string bytes;
    Require(ReadWholeFile(path, bytes) == platform::error::success);
    return bytes;
}

std::string ConvertedInPieces(std::size_t size) {
    ScriptOutputConverter converter;
    converter.encoding = encoding;
    std::string converted;
    for (std::size_t at = 0; at < printed.size(); at += size)
        FeedScriptOutput(converter, std::string_view(printed).substr(at, size), converted);
    FinishScriptOutput(converter, converted);
    return converted;
}

/// The record of a script that has printed good UTF-8; null when it has not.
std::optional<std::string> ExpectedRecord() {
    const bool mayBeWide = printed.find('\0') != std::string::npos;
    if (encoding != platform::ScriptOutputEncoding::utf8 || mayBeWide || !utf8::is_valid(printed)) return std::nullopt;
    std::u16string wide = utf8::utf8to16(printed);
    if (wide.starts_with(u'\xFEFF')) wide.erase(0, 1);
    return std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * 2);
}

std::string Unpacked(const std::string& zipBytes, const std::u16string& name) {
    ZipHandle zip = OpenZipMemory(zipBytes.data(), zipBytes.size(), nullptr);
    ZipItem item;
    Require(zip != nullptr && GetZipItem(zip, -1, item) == zip_result::ok && item.index == 1);
    Require(GetZipItem(zip, 0, item) == zip_result::ok && item.name == name);
    std::string bytes(item.uncompressedSize + 1, '\0');
    Require(UnzipItemToMemory(zip, 0, bytes.data(), bytes.size()) == zip_result::ok);
    CloseUnzip(zip);
    bytes.pop_back();
    return bytes;
}

/// Packs the record file as an upload pass does. Both readers give what it held.
void Pack(const std::string& record, const std::u16string& file) {
    PackRecordFiles(u"zipdata\\Agent_1_");
    Require(FilesIn(u"data").empty());
    const std::u16string path = u"zipdata\\" + OnlyFileIn(u"zipdata");
    const std::string zip = BytesOf(path);
    Require(Unpacked(zip, u"data/" + file) == record);
    int entries = 0;
    lab::ReadArchive(zip, [&](const std::string& name, std::string_view content) {
        Require(++entries == 1 && name == "data/" + platform::Utf8FromWide(file) && content == record);
    });
    Require(entries == 1 && platform::Files().DeleteFileW(path) == platform::error::success);
}

bool SameFacts(const lab::RecordFacts& one, const lab::RecordFacts& other) {
    const auto sameSample = [](const lab::Sample& a, const lab::Sample& b) {
        return a.member == b.member && a.number == b.number;
    };
    return one.device == other.device && one.name == other.name && one.collected == other.collected &&
           one.failed == other.failed && one.reason == other.reason &&
           std::equal(one.samples.begin(), one.samples.end(), other.samples.begin(), other.samples.end(), sameSample);
}

/// A document that the lab takes for JSON is read by it, and says the same when it is written and read again.
void ReadInLab(const std::string& record) {
    const lab::RecordText text = lab::DecodeRecord("data/Agent_1_1.txt", record);
    const lab::RecordFacts facts = lab::FactsOf("1", text, 0);
    Require(utf8::is_valid(text.text) && text.text.find('\0') == std::string::npos);
    lab::Record whole;
    whole.content = text;
    Require(lab::RecordLine(whole).find('\n') == std::string::npos);
    if (!text.isJson) return;
    const lab::ParsedJson document = lab::ParseJson(text.text);
    Require(document.valid);
    const std::string plain = lab::PlainJson(document.value.get());
    const lab::ParsedJson again = lab::ParseJson(plain);
    Require(again.valid && lab::PlainJson(again.value.get()) == plain);
    // What is not an object is quoted as it was written, also a number beyond 64 bits.
    if (json_object_is_type(document.value.get(), json_type_object))
        Require(SameFacts(facts, lab::FactsOf("1", {text.file, plain, true}, 0)));
}

/// What the agent's own reader takes stays as it is when it is written and read again. Each writing turns the order of
/// the members around.
void ReadInAgent(const std::string& record) {
    const HashTablePtr first = MakeHashTable();
    if (!JSONTextToHash(first.get(), TextFromUtf16LittleEndian(record)).ok) return;
    const std::u16string written = HashToJSONString(first.get());
    const HashTablePtr second = MakeHashTable();
    Require(JSONTextToHash(second.get(), written).ok);
    const HashTablePtr third = MakeHashTable();
    Require(JSONTextToHash(third.get(), HashToJSONString(second.get())).ok);
    Require(HashToJSONString(third.get()) == written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchAgent agent;
    static const bool scriptInstalled = (InstallScript(), true);
    if (!scriptInstalled || size < 2) return 0;
    const fuzz::InBin inBin(agent);
    encoding =
        (data[0] & 1) != 0 ? platform::ScriptOutputEncoding::utf16LittleEndian : platform::ScriptOutputEncoding::utf8;
    printed.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string once = printed;
    while (data[0] >= 0xfe && printed.size() < moreThanOneBlock) printed += once;
    ExecuteScript(u"record.sh", u"", u"true");
    const std::u16string file = OnlyFileIn(u"data");
    const std::string record = BytesOf(u"data\\" + file);
    if (printed.size() < moreThanOneBlock) Require(ConvertedInPieces(std::size_t{1} + data[0] / 2) == record);
    Require(ExpectedRecord().value_or(record) == record);
    Pack(record, file);
    if (printed.size() >= moreThanOneBlock) return 0;  // readers take a text as a whole: a longer one shows no more
    ReadInLab(record);
    ReadInAgent(record);
    return 0;
}
