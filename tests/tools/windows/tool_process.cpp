#include "tests/tools/tool_process.h"

#include "platform/utf.h"

namespace kv::test {

namespace {

/// A word that the shell and the tool take off the command line as it is.
std::wstring Quoted(const std::string& word) {
    const std::u16string wide = platform::WideFromUtf8(word);
    const std::size_t backslashes = wide.size() - (wide.find_last_not_of(u'\\') + 1);  // before the closing quote
    return L" \"" + std::wstring(wide.begin(), wide.end()) + std::wstring(backslashes, L'\\') + L'"';
}

}  // namespace

std::FILE* StartTool(const std::vector<std::string>& words, const std::filesystem::path& errors) {
    std::wstring line = L"\"" + Quoted(KVREG_PROGRAM);  // the shell takes the outer quotes away
    for (const std::string& word : words) line += Quoted(word);
    line += L" 2>" + Quoted(errors.string()) + L"\"";
    return ::_wpopen(line.c_str(), L"r");
}

int EndTool(std::FILE* tool) { return ::_pclose(tool); }

/// Nothing of a process's own can be given to another: the tests keep to a key of theirs.
void ShareRegistry(const std::filesystem::path&) {}

}  // namespace kv::test
