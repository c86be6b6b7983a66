#include "facts/system_text.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace kv::facts {

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::optional<std::uint64_t> WholeNumber(std::string_view text, int base) {
    std::uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace

std::optional<std::string> ReadFileIfThere(const std::string& path) {
    std::optional<std::string> text = platform::ReadSystemFile(path);
    std::error_code failure;
    const bool isAbsent = !text && !std::filesystem::exists(path, failure) && !failure;
    return isAbsent ? std::string() : text;
}

std::optional<std::string> ReadSystemLine(const std::string& path) {
    const std::optional<std::string> text = platform::ReadSystemFile(path);
    if (!text || Trimmed(*text).empty()) return std::nullopt;
    return std::string(Trimmed(*text));
}

std::optional<std::uint64_t> ReadSystemNumber(const std::string& path) {
    const std::optional<std::string> line = ReadSystemLine(path);
    return line ? NumberOf(*line) : std::nullopt;
}

std::string_view Trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool TakeLine(std::string_view& text, std::string_view& line) {
    if (text.empty()) return false;
    const std::size_t end = std::min(text.find('\n'), text.size());
    line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

std::string_view TakeField(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end);
    return field;
}

std::string_view TakeUpTo(std::string_view separator, std::string_view& text) {
    const std::size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return taken;
}

bool TakeJoinedLine(std::string_view& text, std::string& joined, std::string_view commentSigns) {
    joined.clear();
    bool isTaken = false;
    for (std::string_view line; TakeLine(text, line);) {
        isTaken = true;
        line = Trimmed(line);
        const bool isComment =
            joined.empty() && !line.empty() && commentSigns.find(line.front()) != std::string_view::npos;
        if (isComment) break;
        if (!line.ends_with('\\')) {
            joined += line;
            break;
        }
        line.remove_suffix(1);
        joined += line;
    }
    return isTaken;
}

std::optional<std::uint64_t> NumberOf(std::string_view text) {
    constexpr int decimal = 10;
    return WholeNumber(text, decimal);
}

std::optional<std::uint64_t> HexNumberOf(std::string_view text) {
    constexpr int hexadecimal = 16;
    constexpr std::string_view mark = "0x";
    return WholeNumber(text.substr(text.starts_with(mark) ? mark.size() : 0), hexadecimal);
}

std::optional<std::string> KnownText(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

}  // namespace kv::facts
