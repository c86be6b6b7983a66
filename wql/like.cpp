#include "platform/name_pattern.h"
#include "wql/condition.h"

namespace kv::wql {

namespace {

bool AreSame(char16_t left, char16_t right) { return platform::UpperCaseOf(left) == platform::UpperCaseOf(right); }

bool IsBetween(char16_t unit, char16_t first, char16_t last) {
    const char16_t upper = platform::UpperCaseOf(unit);
    return platform::UpperCaseOf(first) <= upper && upper <= platform::UpperCaseOf(last);
}

/// Whether a character is in a set: the text between the brackets, without the ^.
bool IsInSet(char16_t unit, std::u16string_view set) {
    while (!set.empty()) {
        const bool isRange = set.size() >= 3 && set[1] == u'-';
        if (isRange ? IsBetween(unit, set[0], set[2]) : AreSame(unit, set[0])) return true;
        set.remove_prefix(isRange ? 3 : 1);
    }
    return false;
}

struct Pattern {
    std::u16string_view text;
    std::size_t lastBracket;  // the place of the last ], after which no set can begin; npos if there is no ]
};

/// The place of the ] that closes the set beginning at a place; npos if it is never closed.
std::size_t EndOfSet(const Pattern& pattern, std::size_t begin) {
    const std::size_t first = begin + (pattern.text.substr(begin + 1).starts_with(u'^') ? 3 : 2);
    const bool isClosed = pattern.lastBracket != pattern.text.npos && first <= pattern.lastBracket;
    return isClosed ? pattern.text.find(u']', first) : pattern.text.npos;
}

/// Whether a character matches the pattern at a place; if so, the place moves past what matched.
bool MatchesOne(char16_t unit, const Pattern& pattern, std::size_t& at) {
    const std::size_t end = pattern.text[at] == u'[' ? EndOfSet(pattern, at) : pattern.text.npos;
    if (end == pattern.text.npos) {
        if (pattern.text[at] != u'_' && !AreSame(unit, pattern.text[at])) return false;
        ++at;
        return true;
    }
    const bool isNegated = pattern.text[at + 1] == u'^';
    const std::size_t first = at + (isNegated ? 2 : 1);
    if (IsInSet(unit, pattern.text.substr(first, end - first)) == isNegated) return false;
    at = end + 1;
    return true;
}

}  // namespace

// On a mismatch only the last % takes one more character. An earlier % need not try again: what it could leave to the
// last one, that one has tried.
bool IsLike(std::u16string_view text, std::u16string_view pattern) {
    const Pattern parts{pattern, pattern.rfind(u']')};
    std::size_t at = 0;
    std::size_t behindPercent = pattern.npos;
    std::size_t retry = 0;
    for (std::size_t next = 0; next < text.size();) {
        if (at < pattern.size() && pattern[at] == u'%') {
            behindPercent = ++at;
            retry = next;
        } else if (at < pattern.size() && MatchesOne(text[next], parts, at)) {
            ++next;
        } else if (behindPercent != pattern.npos) {
            at = behindPercent;
            next = ++retry;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(u'%', at) == pattern.npos;
}

}  // namespace kv::wql
