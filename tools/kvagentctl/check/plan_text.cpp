#include "tools/kvagentctl/check/plan_text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <utf8.h>
#include <utility>
#include <vector>

#include "foundation/file_utils.h"
#include "foundation/text.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

using namespace std::string_view_literals;
using platform::Utf8FromWide;

constexpr std::string_view offsetMark = " at offset ";  // in a message of the reader
constexpr const char* saveAsUtf8 = "save it as UTF-8";

/// The text of a plan's file as the reader's offsets count it: without a mark, CR LF as LF.
std::u16string TextOfPlan(std::string_view bytes) {
    const bool isMarked = bytes.starts_with("\xFF\xFE"sv);
    std::u16string text;
    if (isMarked || bytes.find('\0') < 2)
        text = TextFromUtf16LittleEndian(bytes.substr(isMarked ? 2 : 0));
    else
        text = platform::WideFromUtf8(bytes.substr(bytes.starts_with("\xEF\xBB\xBF"sv) ? 3 : 0));
    std::u16string folded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != u'\r' || text[std::min(at + 1, text.size() - 1)] != u'\n') folded += text[at];
    }
    return folded;
}

/// The offset in a message of the reader.
std::optional<std::size_t> OffsetIn(std::string_view message) {
    const std::size_t at = message.rfind(offsetMark);
    if (at == std::string::npos) return std::nullopt;
    std::size_t offset = 0;
    const char* const begin = message.data() + at + offsetMark.size();
    if (std::from_chars(begin, message.data() + message.size(), offset).ec != std::errc()) return std::nullopt;
    return offset;
}

template <class Text>
std::size_t LineAt(const Text& text, std::size_t offset) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
    return static_cast<std::size_t>(std::count(text.begin(), end, '\n')) + 1;
}

std::string PlaceAt(const std::u16string& text, std::size_t offset) {
    const std::size_t lineEnd = text.rfind(u'\n', offset == 0 ? 0 : offset - 1);
    const std::size_t begin = lineEnd == std::string::npos || lineEnd >= offset ? 0 : lineEnd + 1;
    return fmt::format(", line {}, column {}", LineAt(text, offset), offset - begin + 1);
}

/// Length of the comment that a text begins with; 0 when it does not begin with one.
std::size_t CommentLength(std::u16string_view text) {
    const bool isLine = text.starts_with(u"//");
    if (!isLine && !text.starts_with(u"/*")) return 0;
    const std::u16string_view end = isLine ? u"\n" : u"*/";
    return std::min(text.size(), std::min(text.find(end, 2), text.size()) + end.size());
}

/// What is open at the end of a text: the line of a bracket or of a quotation mark, as the beginning of a sentence.
std::string OpenAtEnd(const std::u16string& text) {
    std::vector<std::pair<char16_t, std::size_t>> open;  // with the offset of each
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char16_t unit = text[at];
        const bool isInText = !open.empty() && open.back().first == u'"';
        const bool closes = isInText ? unit == u'"' : (unit == u'}' || unit == u']') && !open.empty();
        if (const std::size_t comment = isInText ? 0 : CommentLength(std::u16string_view(text).substr(at)))
            at += comment - 1;
        else if (closes)
            open.pop_back();
        else if (isInText)
            at += unit == u'\\' ? 1 : 0;
        else if (unit == u'"' || unit == u'{' || unit == u'[')
            open.emplace_back(unit, at);
    }
    if (open.empty()) return "is it whole?";
    return fmt::format("is it whole? The {} of line {} is not closed", static_cast<char>(open.back().first),
                       LineAt(text, open.back().second));
}

/// What to do about the character that the reader does not take; empty when that does not tell.
std::string HintOfCharacter(char16_t unit) {
    constexpr std::u16string_view quotes = u"\u201C\u201D\u201E\u201F\u2018\u2019\u201A\u00AB\u00BB\u2033\u2032";
    const std::string shown = Utf8FromWide({&unit, 1});
    if (quotes.find(unit) != std::string::npos)
        return fmt::format("{} is a typographic quotation mark: write \" (U+0022), with an editor for programs", shown);
    if (unit == u'\u00A0' || unit == u'\uFEFF') return "a blank that is not a plain one stands here: write a plain one";
    if (unit == u'#') return "a comment begins with // or stands in /* */";
    return "";
}

/// What to do about a text that the parser gave up at an offset.
std::string HintAt(const std::u16string& text, std::size_t offset, std::string_view message) {
    if (offset >= text.size()) return OpenAtEnd(text);
    if (std::string hint = HintOfCharacter(text[offset]); !hint.empty()) return hint;
    if (message.find("',' expected") != std::string::npos) return "is a comma missing before it?";
    if (message.find("':' expected") != std::string::npos)
        return "a colon stands between a member's name and its value";
    if (message.find("property name") != std::string::npos)
        return "a member's name stands in quotation marks: \"interval\"";
    if (message.find("string sequence") != std::string::npos) return "write each backslash twice: \"C:\\\\folder\"";
    return "";
}

/// What the file seems to be instead of UTF-8 or UTF-16LE; empty when it may be one of these.
std::string OddEncoding(std::string_view bytes) {
    if (bytes.starts_with("\xFF\xFE\0\0"sv) || (bytes.size() > 3 && bytes.substr(1, 3) == "\0\0\0"sv))
        return "it is UTF-32, which is not read";
    if (bytes.starts_with("\xFE\xFF"sv) || (bytes.size() > 1 && bytes[0] == '\0' && bytes[1] != '\0'))
        return "it is UTF-16 with the high byte first, which is not read";
    return "";
}

}  // namespace

Finding FaultOfPlanText(const std::string& where, std::string_view bytes, const std::string& failure) {
    constexpr std::string_view refused = ": the agent would refuse it";
    const auto error = [&](std::string place, std::string what, std::string next) {
        return Finding{Severity::error, where + std::move(place), std::move(what.append(refused)), std::move(next)};
    };
    if (const std::string odd = OddEncoding(bytes); !odd.empty()) return error("", odd, saveAsUtf8);
    const std::u16string text = TextOfPlan(bytes);
    if (text.find_first_not_of(u" \t\r\n") == std::string::npos)
        return error("", bytes.empty() ? "it is empty" : "it has only blanks",
                     "put a plan there, or delete it and wait for the server to send one");
    const std::optional<std::size_t> offset = OffsetIn(failure);
    if (failure.find("neither UTF-16LE nor UTF-8") != std::string::npos) {
        const auto valid = static_cast<std::size_t>(utf8::find_invalid(bytes.begin(), bytes.end()) - bytes.begin());
        return error(fmt::format(", line {}", LineAt(bytes, valid)), failure, saveAsUtf8);
    }
    if (offset && failure.find("NUL") != std::string::npos)
        return error(fmt::format(", line {}", LineAt(bytes, *offset)), failure, "take it out; is it a text file?");
    if (!offset) {
        const bool isOther = failure.find("top level") != std::string::npos;
        return error("", failure, isOther ? "a plan is an object: {\"WorkFlows\": [...]}" : "");
    }
    const std::u16string_view rest = std::u16string_view(text).substr(std::min(*offset, text.size()));
    const std::string shown = Utf8FromWide(rest.substr(0, std::min(rest.find(u'\n'), std::size_t{20})));
    return error(
        PlaceAt(text, std::min(*offset, text.size())),
        failure.substr(0, failure.rfind(offsetMark)) + (shown.empty() ? "" : fmt::format(", before '{}'", shown)),
        HintAt(text, *offset, failure));
}

}  // namespace kv::control
