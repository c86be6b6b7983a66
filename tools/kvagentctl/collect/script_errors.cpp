#include "tools/kvagentctl/collect/script_errors.h"

#include <algorithm>
#include <cstddef>
#include <fmt/format.h>
#include <new>
#include <utility>

#include "collection/script_output.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

constexpr std::uint64_t largestFile = 1 << 20;  // bytes; a longer one is emptied, so that no script fills the disk
constexpr std::size_t keptBytes = 1 << 16;      // of one that is emptied
constexpr std::size_t shownLines = 20;          // at the beginning, and as many at the end
constexpr std::size_t shownCharacters = 400;    // of a line

std::vector<std::string> LinesOf(std::string_view bytes) {
    ScriptOutputConverter converter;
    std::string utf16;
    FeedScriptOutput(converter, bytes, utf16);
    FinishScriptOutput(converter, utf16);
    const std::u16string text = TextFromUtf16LittleEndian(utf16);
    std::vector<std::string> lines;
    for (std::u16string_view rest = text; !rest.empty();) {
        std::u16string_view line = rest.substr(0, rest.find(u'\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.ends_with(u'\r')) line.remove_suffix(1);
        const char* const more = line.size() > shownCharacters ? "..." : "";
        lines.push_back(platform::Utf8FromWide(line.substr(0, shownCharacters)) + more);
    }
    return lines;
}

}  // namespace

ScriptErrors::ScriptErrors(const std::u16string& folder)
    : path_(folder + u"\\script.stderr"), operations_(Operations()) {}

platform::ProcessOperations ScriptErrors::Operations() {
    platform::ProcessOperations operations = platform::Processes();
    operations.ComposeScriptLine = [this, compose = operations.ComposeScriptLine](platform::ScriptCommand command) {
        command.errorsPath = path_;
        return compose(command);
    };
    operations.WaitForSingleObject = [this, wait = operations.WaitForSingleObject](platform::ProcessHandle process,
                                                                                   std::uint32_t milliseconds) {
        const platform::Error result = wait(process, milliseconds);
        EmptyLongFile();
        return result;
    };
    return operations;
}

void ScriptErrors::EmptyLongFile() try {
    std::string bytes;
    if (ReadWholeFile(path_, bytes, largestFile) != platform::error::moreData) return;
    OpenFile file;
    bytes.resize(keptBytes);
    std::size_t size = 0;
    if (begun_.empty() &&
        file.Open(path_, platform::FileAccess::read, platform::FileShare::readWrite,
                  platform::FileDisposition::openExisting) == platform::error::success &&
        platform::Files().ReadFile(file.handle, bytes.data(), bytes.size(), size) == platform::error::success)
        begun_ = bytes.substr(0, size);
    OpenFile emptied;
    static_cast<void>(emptied.Open(path_, platform::FileAccess::write, platform::FileShare::readWrite,
                                   platform::FileDisposition::createAlways));
} catch (const std::bad_alloc&) {
    // It is tried again in a moment.
}

std::vector<std::string> ScriptErrors::Take() {
    std::string bytes;
    static_cast<void>(ReadWholeFile(path_, bytes, largestFile));
    platform::Files().DeleteFileW(path_);
    const std::string begun = std::exchange(begun_, {});
    std::vector<std::string> lines = LinesOf(begun + bytes);
    if (begun.empty() && lines.size() <= 2 * shownLines) return lines;
    const auto count = static_cast<std::ptrdiff_t>(std::min(lines.size() / 2, shownLines));
    const std::string rest =
        begun.empty() ? fmt::format("({} lines are left out)", lines.size() - 2 * shownLines) : "(much is left out)";
    lines.erase(lines.begin() + count, lines.end() - count);
    lines.insert(lines.begin() + count, rest);
    return lines;
}

}  // namespace kv::control
