#include "platform/name_pattern.h"

#include <algorithm>

namespace platform {

namespace {

std::u16string UpperCase(std::u16string_view text) {
    std::u16string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(), UpperCaseOf);
    return upper;
}

/// Matches an upper-case name against an upper-case pattern. "*" stands for any characters, "?" for one character or,
/// at a dot or the end of the name, for nothing. The end of the name also matches a dot followed by a wildcard, so that
/// "A*.*" finds "ABC". Only the last "*" seen needs to be tried again: every other step has one outcome.
bool MatchesUpperCase(std::u16string_view pattern, std::u16string_view name) {
    constexpr std::size_t none = std::u16string_view::npos;
    std::size_t inPattern = 0;
    std::size_t inName = 0;
    std::size_t afterStar = none;
    std::size_t starTo = 0;
    while (inPattern < pattern.size() || inName < name.size()) {
        const char16_t wanted = inPattern < pattern.size() ? pattern[inPattern] : u'\0';
        const bool nameEnds = inName == name.size();
        if (wanted == u'*') {
            afterStar = ++inPattern;
            starTo = inName;
        } else if (wanted == u'?' && (nameEnds || name[inName] == u'.')) {
            ++inPattern;
        } else if (wanted != u'\0' && !nameEnds && (wanted == u'?' || wanted == name[inName])) {
            ++inPattern;
            ++inName;
        } else if (wanted == u'.' && nameEnds && pattern.find_first_of(u"*?", inPattern) == inPattern + 1) {
            ++inPattern;
        } else if (afterStar != none && starTo < name.size()) {
            inPattern = afterStar;
            inName = ++starTo;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

NamePattern::NamePattern(std::u16string_view pattern) : upper_(UpperCase(pattern == u"*.*" ? u"*" : pattern)) {
    if (upper_.ends_with(u"*.")) {
        upper_.pop_back();
        refusesDots_ = true;
    }
}

bool NamePattern::Matches(std::u16string_view name) const {
    if (refusesDots_ && name.find(u'.') != std::u16string_view::npos) return false;
    return MatchesUpperCase(upper_, UpperCase(name));
}

bool ComesBefore(const FindData& left, const FindData& right) {
    const std::u16string& a = left.fileName;
    const std::u16string& b = right.fileName;
    const auto [inA, inB] = std::mismatch(a.begin(), a.end(), b.begin(), b.end(),
                                          [](char16_t x, char16_t y) { return UpperCaseOf(x) == UpperCaseOf(y); });
    if (inA == a.end() && inB == b.end()) return a < b;
    if (inA == a.end() || inB == b.end()) return inA == a.end();
    return UpperCaseOf(*inA) < UpperCaseOf(*inB);
}

std::size_t DirectoryLength(std::u16string_view pattern) {
    const std::size_t separator = pattern.find_last_of(u"\\/");
    if (separator != std::u16string_view::npos) return separator + 1;
    return pattern.size() >= 2 && pattern[1] == u':' ? 2 : 0;
}

}  // namespace platform
