#include "tools/kvreg/reg_file.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <optional>
#include <utility>

#include "platform/registry_names.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::RegistryType;

constexpr std::u16string_view header = u"Windows Registry Editor Version 5.00";
constexpr std::string_view olderHeader = "REGEDIT4";  // that format is in the code page of the system that wrote it
constexpr std::u16string_view rootName = u"HKEY_LOCAL_MACHINE";
constexpr std::u16string_view shortRootName = u"HKLM";
constexpr std::size_t printedWidth = 78;  // of a line of hexadecimal bytes, before its backslash

/// A cursor over the whole text. A routine that fails notes where and why.
struct Cursor {
    std::u16string_view text;
    std::size_t position;
    RegFileError& error;
    std::size_t line = 1;  // where what is being parsed begins
};

constexpr bool IsLineEnd(char16_t unit) { return unit == u'\n' || unit == u'\r'; }
constexpr bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t'; }

constexpr char16_t LowerAscii(char16_t unit) {
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

bool EqualIgnoreCase(std::u16string_view a, std::u16string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t left, char16_t right) { return LowerAscii(left) == LowerAscii(right); });
}

constexpr int HexDigit(char16_t unit) {
    if (unit >= u'0' && unit <= u'9') return unit - u'0';
    const char16_t lower = LowerAscii(unit);
    return lower >= u'a' && lower <= u'f' ? lower - u'a' + 10 : -1;
}

/// The number of the line that holds a position, counted on from an earlier position and its line.
std::size_t LineAt(std::u16string_view text, std::size_t position, std::size_t from = 0, std::size_t line = 1) {
    for (std::size_t i = from; i < position; ++i) {
        const bool firstOfTwo = text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n';
        if (IsLineEnd(text[i]) && !firstOfTwo) ++line;
    }
    return line;
}

bool Fail(Cursor& at, std::size_t position, std::string message) {
    at.error = {LineAt(at.text, position), std::move(message)};
    return false;
}

bool Fail(Cursor& at, std::string message) { return Fail(at, at.position, std::move(message)); }

bool AtEnd(const Cursor& at) { return at.position == at.text.size(); }

/// The unit under the cursor; the end of the text counts as the end of a line.
char16_t Peek(const Cursor& at) { return AtEnd(at) ? u'\n' : at.text[at.position]; }

void SkipBlanks(Cursor& at) {
    while (IsBlank(Peek(at))) ++at.position;
}

/// Takes the rest of the line, without its end.
std::u16string_view TakeLine(Cursor& at) {
    const std::size_t begin = at.position;
    while (!IsLineEnd(Peek(at))) ++at.position;
    return at.text.substr(begin, at.position - begin);
}

void SkipLineEnd(Cursor& at) {
    if (at.text.substr(at.position).starts_with(u"\r\n")) {
        at.position += 2;
    } else if (!AtEnd(at)) {
        ++at.position;
    }
}

/// Takes a word if it is next, without regard to case.
bool TakeWord(Cursor& at, std::u16string_view word) {
    if (!EqualIgnoreCase(at.text.substr(at.position, word.size()), word)) return false;
    at.position += word.size();
    return true;
}

std::u16string_view WithoutBlanksAtEnd(std::u16string_view text) {
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

/// A quoted text, whose opening quote is next.
bool ParseQuoted(Cursor& at, std::u16string& text) {
    const std::size_t begin = at.position++;
    while (!AtEnd(at)) {
        const char16_t unit = at.text[at.position++];
        if (unit == u'"') return true;
        if (unit != u'\\') {
            text += unit;
            continue;
        }
        const char16_t escaped = Peek(at);
        if (escaped != u'\\' && escaped != u'"') {
            return Fail(at, at.position - 1, "inside quotes a backslash must be written twice, and \\\" for a quote");
        }
        text += escaped;
        ++at.position;
    }
    return Fail(at, begin, "the closing quote is missing");
}

/// One to maximumDigits hexadecimal digits.
bool ParseHexNumber(Cursor& at, std::size_t maximumDigits, std::uint32_t& number) {
    const std::size_t begin = at.position;
    number = 0;
    for (int digit = HexDigit(Peek(at)); digit >= 0; digit = HexDigit(Peek(at))) {
        number = number << 4 | static_cast<std::uint32_t>(digit);
        ++at.position;
        if (at.position - begin > maximumDigits) return false;
    }
    return at.position > begin;
}

bool ParseDword(Cursor& at, RegFileValue& value) {
    std::uint32_t number = 0;
    if (!ParseHexNumber(at, 8, number)) return Fail(at, "dword: takes one to eight hexadecimal digits");
    value.type = RegistryType::dword;
    for (int shift = 0; shift < 32; shift += 8) value.data.push_back(static_cast<std::byte>(number >> shift));
    return true;
}

/// Skips blanks, and a backslash at the end of a line with the blanks that begin the next line.
bool SkipBlanksAndContinuations(Cursor& at) {
    SkipBlanks(at);
    while (Peek(at) == u'\\') {
        ++at.position;
        SkipBlanks(at);
        if (!IsLineEnd(Peek(at))) return Fail(at, "between bytes a backslash may only stand at the end of a line");
        if (AtEnd(at)) return Fail(at, "the file ends where a line should go on");
        SkipLineEnd(at);
        SkipBlanks(at);
    }
    return true;
}

/// Bytes separated by commas, over any number of lines. There may be no bytes.
bool ParseBytes(Cursor& at, std::vector<std::byte>& data) {
    if (!SkipBlanksAndContinuations(at)) return false;
    if (IsLineEnd(Peek(at)) || Peek(at) == u';') return true;
    while (true) {
        std::uint32_t byte = 0;
        if (!ParseHexNumber(at, 2, byte)) return Fail(at, "a byte of one or two hexadecimal digits is missing");
        data.push_back(static_cast<std::byte>(byte));
        if (!SkipBlanksAndContinuations(at)) return false;
        if (Peek(at) != u',') return true;
        ++at.position;
        if (!SkipBlanksAndContinuations(at)) return false;
    }
}

/// What follows the word hex: an optional type in parentheses, a colon, bytes.
bool ParseHex(Cursor& at, RegFileValue& value) {
    value.type = RegistryType::binary;
    if (TakeWord(at, u"(")) {
        std::uint32_t type = 0;
        if (!ParseHexNumber(at, 8, type) || !TakeWord(at, u")")) {
            return Fail(at, "hex( takes the number of a type and a closing parenthesis");
        }
        value.type = static_cast<RegistryType>(type);
    }
    if (!TakeWord(at, u":")) return Fail(at, "the colon after hex is missing");
    return ParseBytes(at, value.data);
}

bool ParseText(Cursor& at, RegFileValue& value) {
    std::u16string text;
    if (!ParseQuoted(at, text)) return false;
    value.type = RegistryType::text;
    value.data = DataOfText(text);
    return true;
}

bool ParseData(Cursor& at, RegFileValue& value) {
    if (Peek(at) == u'"') return ParseText(at, value);
    if (TakeWord(at, u"dword:")) return ParseDword(at, value);
    if (TakeWord(at, u"hex")) return ParseHex(at, value);
    value.deleted = TakeWord(at, u"-");
    return value.deleted || Fail(at, "the data must be \"text\", dword:, hex:, hex(n): or -");
}

bool ParseName(Cursor& at, std::u16string& name) {
    if (TakeWord(at, u"@")) return true;
    const std::size_t begin = at.position;
    if (!ParseQuoted(at, name)) return false;
    return platform::IsRegistryValueName(name) ||
           Fail(at, begin, "a value's name has at most 16383 characters, none of them a control character");
}

bool ParseValueLine(Cursor& at, RegFile& file) {
    const std::size_t begin = at.position;
    if (file.empty()) return Fail(at, "a value comes before the first [key]");
    if (file.back().deleted) return Fail(at, "a key that is to be deleted has a value");
    RegFileValue value;
    if (!ParseName(at, value.name)) return false;
    SkipBlanks(at);
    if (!TakeWord(at, u"=")) return Fail(at, "the = after the value's name is missing");
    SkipBlanks(at);
    if (!ParseData(at, value)) return false;
    SkipBlanks(at);
    if (Peek(at) == u';') TakeLine(at);
    if (!IsLineEnd(Peek(at))) return Fail(at, "there is something after the data");
    if (value.data.size() > platform::maximumValueBytes) return Fail(at, begin, "the data is larger than 1 MB");
    value.line = at.line;
    file.back().values.push_back(std::move(value));
    return true;
}

bool ParseKeyLine(Cursor& at, RegFile& file) {
    const std::size_t begin = at.position;
    std::u16string_view line = WithoutBlanksAtEnd(TakeLine(at));
    if (line.size() < 2 || line.back() != u']') return Fail(at, begin, "the line must end with the ] of its key");
    line = line.substr(1, line.size() - 2);
    RegFileKey key;
    key.deleted = line.starts_with(u'-');
    if (key.deleted) line.remove_prefix(1);
    std::u16string_view path;
    if (!SplitRootName(line, path)) {
        const std::string root = platform::Utf8FromWide(line.substr(0, line.find(u'\\')));
        return Fail(at, begin, fmt::format("only HKEY_LOCAL_MACHINE can be imported, not '{}'", root));
    }
    if (!platform::IsRegistryKeyPath(path)) {
        return Fail(at, begin, "each name in a key has 1 to 255 characters, none of them a control character");
    }
    if (key.deleted && path.empty()) return Fail(at, begin, "the root itself cannot be deleted");
    key.path = path;
    key.line = at.line;
    file.push_back(std::move(key));
    return true;
}

bool ParseLine(Cursor& at, RegFile& file) {
    SkipBlanks(at);
    switch (Peek(at)) {
        case u'\n':
        case u'\r':
            return true;
        case u';':
            TakeLine(at);
            return true;
        case u'[':
            return ParseKeyLine(at, file);
        case u'@':
        case u'"':
            return ParseValueLine(at, file);
        default:
            return Fail(at, "a line must be a [key], a \"name\"=data, an @=data or a ; comment");
    }
}

bool ParseLines(Cursor& at, RegFile& file) {
    if (WithoutBlanksAtEnd(TakeLine(at)) != header) {
        return Fail(at, 0, "the first line must be \"Windows Registry Editor Version 5.00\"");
    }
    std::size_t counted = 0;
    while (!AtEnd(at)) {
        SkipLineEnd(at);
        at.line = LineAt(at.text, at.position, std::exchange(counted, at.position), at.line);
        if (!ParseLine(at, file)) return false;
    }
    return true;
}

std::u16string DecodeUtf16(std::string_view bytes, bool bigEndian) {
    std::u16string text;
    text.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto first = static_cast<unsigned char>(bytes[i]);
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        text += static_cast<char16_t>(bigEndian ? first << 8 | second : second << 8 | first);
    }
    return text;
}

/// UTF-8, checked line by line so that an error can name the line.
bool DecodeUtf8(std::string_view bytes, std::u16string& text, RegFileError& error) {
    for (std::size_t line = 1, begin = 0; begin < bytes.size(); ++line) {
        const std::size_t end = std::min(bytes.find('\n', begin), bytes.size() - 1) + 1;
        if (!platform::IsValidUtf8(bytes.substr(begin, end - begin))) {
            error = {line, "the line is not UTF-8, and the file does not begin with the mark of UTF-16"};
            return false;
        }
        begin = end;
    }
    text = platform::WideFromUtf8(bytes);
    return true;
}

bool Decode(std::string_view bytes, std::u16string& text, RegFileError& error) {
    const bool littleEndian = bytes.starts_with("\xFF\xFE");
    const bool bigEndian = bytes.starts_with("\xFE\xFF");
    if (littleEndian || bigEndian) {
        text = DecodeUtf16(bytes.substr(2), bigEndian);
        if (bytes.size() % 2 != 0) {
            error = {LineAt(text, text.size()), "the file ends in the middle of a UTF-16 character"};
            return false;
        }
    } else {
        if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
        if (!DecodeUtf8(bytes, text, error)) return false;
    }
    const std::size_t zero = text.find(u'\0');
    if (zero == std::u16string::npos) return true;
    error = {LineAt(text, zero), "the line holds a zero character; UTF-16 needs its byte order mark"};
    return false;
}

/// Whether a parser reads the same text back if the data is printed in quotes: the data is a whole text, with all of
/// its terminator, part of it or nothing of it, and nothing else.
bool FitsQuotes(std::span<const std::byte> data, const std::u16string& text) {
    const std::size_t textBytes = text.size() * sizeof(char16_t);
    if (data.empty() || data.size() < textBytes || data.size() > textBytes + sizeof(char16_t)) return false;
    const auto terminator = data.subspan(textBytes);
    return std::all_of(terminator.begin(), terminator.end(), [](std::byte byte) { return byte == std::byte{0}; }) &&
           platform::IsWellFormedWide(text) &&
           std::none_of(text.begin(), text.end(), [](char16_t unit) { return unit < u' ' && unit != u'\t'; });
}

void PrintQuoted(std::u16string& out, std::u16string_view text) {
    out += u'"';
    for (const char16_t unit : text) {
        if (unit == u'\\' || unit == u'"') out += u'\\';
        out += unit;
    }
    out += u'"';
}

/// Appends narrow ASCII text.
void PrintAscii(std::u16string& out, std::string_view text) { out.append(text.begin(), text.end()); }

void PrintBytes(std::u16string& out, std::size_t column, std::span<const std::byte> data) {
    for (std::size_t i = 0; i < data.size(); ++i) {
        const bool last = i + 1 == data.size();
        PrintAscii(out, fmt::format("{:02x}{}", std::to_integer<unsigned>(data[i]), last ? "" : ","));
        column += 3;
        if (last || column < printedWidth - 2) continue;
        out += u"\\\r\n  ";
        column = 2;
    }
}

void PrintValue(std::u16string& out, const RegFileValue& value) {
    const std::size_t begin = out.size();
    if (value.name.empty()) {
        out += u'@';
    } else {
        PrintQuoted(out, value.name);
    }
    out += u'=';
    if (value.deleted) {
        out += u'-';
    } else if (value.type == RegistryType::dword && value.data.size() == 4) {
        out += u"dword:";
        for (int i = 3; i >= 0; --i) {
            PrintAscii(out, fmt::format("{:02x}", std::to_integer<unsigned>(value.data[static_cast<std::size_t>(i)])));
        }
    } else if (const std::u16string text = TextOfData(value.data);
               value.type == RegistryType::text && FitsQuotes(value.data, text)) {
        PrintQuoted(out, text);
    } else {
        const auto type = static_cast<std::uint32_t>(value.type);
        PrintAscii(out, value.type == RegistryType::binary ? "hex:" : fmt::format("hex({:x}):", type));
        PrintBytes(out, out.size() - begin, value.data);
    }
    out += u"\r\n";
}

}  // namespace

bool ParseRegFile(std::string_view bytes, RegFile& file, RegFileError& error) {
    file.clear();
    if (bytes.starts_with(olderHeader)) {
        error = {1, "a REGEDIT4 file cannot be read; export it as \"Windows Registry Editor Version 5.00\""};
        return false;
    }
    std::u16string text;
    if (!Decode(bytes, text, error)) return false;
    Cursor at{text, 0, error};
    const bool parsed = ParseLines(at, file);
    if (!parsed) file.clear();
    return parsed;
}

bool BeginsAsRegFile(std::string_view bytes) {
    const bool bigEndian = bytes.starts_with("\xFE\xFF");
    if (bigEndian || bytes.starts_with("\xFF\xFE"))
        return DecodeUtf16(bytes.substr(2, header.size() * 2), bigEndian) == header;
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    return bytes.starts_with(platform::Utf8FromWide(header)) || bytes.starts_with(olderHeader);
}

std::string PrintRegFile(const RegFile& file) {
    std::u16string out = u"\xFEFF";
    out += header;
    out += u"\r\n";
    for (const RegFileKey& key : file) {
        out += u"\r\n[";
        if (key.deleted) out += u'-';
        out += rootName;
        if (!key.path.empty()) out += u'\\';
        out += key.path;
        out += u"]\r\n";
        for (const RegFileValue& value : key.values) PrintValue(out, value);
    }
    out += u"\r\n";
    std::string bytes;
    bytes.reserve(out.size() * 2);
    for (const char16_t unit : out) {
        bytes += static_cast<char>(unit & 0xFF);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

bool SplitRootName(std::u16string_view wholePath, std::u16string_view& path) {
    const std::u16string_view root = platform::TakeKeyName(wholePath);
    path = wholePath;
    return EqualIgnoreCase(root, rootName) || EqualIgnoreCase(root, shortRootName);
}

std::u16string TextOfData(std::span<const std::byte> data) {
    std::u16string text;
    for (std::size_t i = 0; i < data.size(); i += 2) {
        const auto low = std::to_integer<unsigned>(data[i]);
        const auto high = i + 1 < data.size() ? std::to_integer<unsigned>(data[i + 1]) : 0U;
        const auto unit = static_cast<char16_t>(high << 8 | low);
        if (unit == u'\0') break;
        text += unit;
    }
    return text;
}

std::vector<std::byte> DataOfText(std::u16string_view text) {
    std::vector<std::byte> data;
    data.reserve((text.size() + 1) * 2);
    for (const char16_t unit : text) {
        data.push_back(static_cast<std::byte>(unit & 0xFF));
        data.push_back(static_cast<std::byte>(unit >> 8));
    }
    data.resize(data.size() + 2);
    return data;
}

}  // namespace kv
