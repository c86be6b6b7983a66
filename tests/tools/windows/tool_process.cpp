#include "tests/tools/tool_process.h"

#include "platform/utf.h"

namespace kv::test {

namespace {

/// A word, quoted so that the shell and the tool get it unchanged.
std::wstring Quoted(const std::string& word) {
    const std::u16string wide = platform::WideFromUtf8(word);
    const std::size_t backslashes = wide.size() - (wide.find_last_not_of(u'\\') + 1);  // before the closing quote
    return L" \"" + std::wstring(wide.begin(), wide.end()) + std::wstring(backslashes, L'\\') + L'"';
}

}  // namespace

std::FILE* StartTool(const ToolFiles& files, const std::vector<std::string>& words) {
    std::wstring line = L"\"" + Quoted(files.program);  // the shell removes the outer quotes
    for (const std::string& word : words) line += Quoted(word);
    line += L" <" + Quoted(files.input.string()) + L" 2>" + Quoted(files.errors.string()) + L"\"";
    return ::_wpopen(line.c_str(), L"r");
}

int EndTool(std::FILE* tool) { return ::_pclose(tool); }

/// A process cannot share its own registry, so the tests stay below one key.
void ShareRegistry(const std::filesystem::path&) {}

}  // namespace kv::test
