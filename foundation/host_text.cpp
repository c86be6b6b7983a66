#include "foundation/host_text.h"

#include <algorithm>
#include <fmt/format.h>

#include "foundation/text.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::size_t longestLabel = 63;  // of a name in the DNS
constexpr std::u16string_view digits = u"0123456789";
constexpr std::u16string_view hexDigits = u"0123456789abcdefABCDEF";

bool HasOnly(std::u16string_view text, std::u16string_view characters) {
    return text.find_first_not_of(characters) == std::u16string_view::npos;
}

/// Takes what stands before the next separator off a text, and the separator.
std::u16string_view TakePart(std::u16string_view& text, char16_t separator) {
    const std::u16string_view part = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
}

/// How many groups of 16 bits a text has as one side of an address with "::", or as the whole; -1 when it is not one.
/// An IPv4 address at the end counts as two.
int CountGroups(std::u16string_view text) {
    int groups = 0;
    for (bool isLast = text.empty(); !isLast;) {
        isLast = text.find(u':') == std::u16string_view::npos;
        const std::u16string_view group = TakePart(text, u':');
        const bool isHex = !group.empty() && group.size() <= 4 && HasOnly(group, hexDigits);
        if (!isHex && !(isLast && IsIpv4Text(group))) return -1;
        groups += isHex ? 1 : 2;
    }
    return groups;
}

/// Characters without width, which come along when a name is copied from a page.
bool IsInvisible(char16_t unit) {
    return unit == u'\u00AD' || unit == u'\u2060' || unit == u'\uFEFF' || (unit >= u'\u200B' && unit <= u'\u200F');
}

/// The first character that no name has; 0 when each may stand in one. Of those beyond ASCII that can be seen the name
/// server decides.
char16_t UnfitCharacter(std::u16string_view name) {
    const auto isFit = [](char16_t unit) {
        return (unit >= 0x80 && !IsInvisible(unit)) || (unit >= u'a' && unit <= u'z') ||
               (unit >= u'A' && unit <= u'Z') || (unit >= u'0' && unit <= u'9') || unit == u'-' || unit == u'_' ||
               unit == u'.';
    };
    for (const char16_t unit : name) {
        if (!isFit(unit)) return unit;
    }
    return u'\0';
}

std::string CharacterFault(char16_t unit) {
    if (unit == u' ') return ": a name has no blanks";
    if (unit < u' ' || unit == u'\x7F') return ": a name has no control characters";
    if (IsInvisible(unit)) return fmt::format(": it has the invisible character U+{:04X}", unsigned{unit});
    return fmt::format(": a name has no '{}'", static_cast<char>(unit));
}

std::string NameFault(std::u16string_view name) {
    if (const char16_t unit = UnfitCharacter(name)) return CharacterFault(unit);
    if (HasOnly(name, u"0123456789."))
        return ": an IPv4 address has four numbers up to 255 with dots between them, and no zero ahead of one";
    if (name.ends_with(u'.')) name.remove_suffix(1);  // the root of the DNS
    if (name.empty() || name.starts_with(u'.') || name.ends_with(u'.') || name.find(u"..") != std::string::npos)
        return ": a name has something on both sides of each dot";
    while (!name.empty()) {
        if (TakePart(name, u'.').size() > longestLabel)
            return fmt::format(": a name has at most {} characters between two dots", longestLabel);
    }
    return "";
}

}  // namespace

bool IsIpv4Text(std::u16string_view text) {
    if (std::count(text.begin(), text.end(), u'.') != 3) return false;
    for (int number = 0; number < 4; ++number) {
        const std::u16string_view part = TakePart(text, u'.');
        if (part.empty() || part.size() > 3 || !HasOnly(part, digits) || ParseDecimal(part) > 255) return false;
        if (part.size() > 1 && part.starts_with(u'0')) return false;  // some read it as octal
    }
    return true;
}

bool IsIpv6Text(std::u16string_view text) {
    constexpr int most = 8;
    const std::size_t zone = text.find(u'%');
    if (zone != std::string::npos && (zone + 1 == text.size() || UnfitCharacter(text.substr(zone + 1)))) return false;
    text = text.substr(0, zone);
    const std::size_t gap = text.find(u"::");
    if (gap == std::string::npos) return CountGroups(text) == most;
    const int before = CountGroups(text.substr(0, gap));
    const int behind = CountGroups(text.substr(gap + 2));
    const bool endsInIpv4 = text.substr(0, gap).find(u'.') != std::string::npos;
    return before >= 0 && behind >= 0 && !endsInIpv4 && before + behind < most;
}

std::string HostFault(std::u16string_view text) {
    if (text.empty()) return ": it is empty";
    if (text.size() > longestHost) return fmt::format(": it has more than {} characters", longestHost);
    const bool isBracketed = text.starts_with(u'[') && text.ends_with(u']');
    const std::u16string_view address = isBracketed ? text.substr(1, text.size() - 2) : text;
    if (address == u"0.0.0.0" || address == u"::") return ", which stands for every address of a computer";
    if (IsIpv6Text(address) || (!isBracketed && IsIpv4Text(text))) return "";
    const bool isAddress =
        text.find_first_of(u"[]") != std::string::npos || std::count(text.begin(), text.end(), u':') > 1;
    if (isAddress && HasOnly(text, u"0123456789abcdefABCDEF:.%[]"))
        return ": an IPv6 address has eight hexadecimal numbers, or fewer and one ::, and both brackets or neither";
    return NameFault(text);
}

}  // namespace kv
