#include "foundation/server_limit.h"

#include <algorithm>
#include <iterator>

#include "foundation/registry_store.h"
#include "foundation/request_types.h"
#include "foundation/text.h"
#include "platform/name_pattern.h"

namespace kv {

namespace {

namespace error = platform::error;

/// What no wildcard stands for. The name of a service never has one.
constexpr char16_t separator = u'/';

/// A path without its parts "." and without doubled separators, which do not lead into a folder. ".." stays.
std::u16string WithoutDots(std::u16string_view path) {
    std::u16string plain(path.starts_with(separator) ? 1 : 0, separator);
    while (!path.empty()) {
        const std::u16string_view part = path.substr(0, path.find(separator));
        const bool hasMore = part.size() < path.size();
        if (part != u"." && !part.empty()) plain.append(part).append(hasMore ? 1 : 0, separator);
        path.remove_prefix(part.size() + (hasMore ? 1 : 0));
    }
    return plain;
}

/// A text in the form in which patterns and names are compared.
std::u16string Comparable(std::u16string_view text, ServerLimit::Kind kind) {
    std::u16string form(text);
    if (kind == ServerLimit::Kind::names) {
        std::transform(form.begin(), form.end(), form.begin(), platform::UpperCaseOf);
    } else {
        std::replace(form.begin(), form.end(), u'\\', separator);
        form = WithoutDots(form);
    }
    return form;
}

std::u16string_view WithoutBlanks(std::u16string_view text) {
    constexpr std::u16string_view blanks = u" \t";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// The patterns of a list, without the blanks around them; empty ones are left out.
std::vector<std::u16string_view> PatternsOf(std::u16string_view list) {
    std::vector<std::u16string_view> patterns;
    while (!list.empty()) {
        const std::u16string_view part = list.substr(0, list.find(u','));
        if (const auto pattern = WithoutBlanks(part); !pattern.empty()) patterns.push_back(pattern);
        list.remove_prefix(std::min(part.size() + 1, list.size()));
    }
    return patterns;
}

bool IsOne(char16_t wanted, char16_t unit) { return wanted == u'?' ? unit != separator : wanted == unit; }

/// Only the last "*" seen needs to be tried again: every other step has one outcome.
bool Matches(std::u16string_view pattern, std::u16string_view name) {
    std::size_t inPattern = 0;
    std::size_t inName = 0;
    std::size_t afterStar = std::u16string_view::npos;
    std::size_t starTo = 0;
    while (inPattern < pattern.size() || inName < name.size()) {
        const bool hasBoth = inPattern < pattern.size() && inName < name.size();
        if (inPattern < pattern.size() && pattern[inPattern] == u'*') {
            afterStar = ++inPattern;
            starTo = inName;
        } else if (hasBoth && IsOne(pattern[inPattern], name[inName])) {
            ++inPattern;
            ++inName;
        } else if (afterStar != std::u16string_view::npos && starTo < name.size() && name[starTo] != separator) {
            inPattern = afterStar;
            inName = ++starTo;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

ServerLimit::ServerLimit(std::u16string_view setting, Kind kind, std::atomic<bool>& wasAbsent)
    : setting_(setting), kind_(kind) {
    OptionalText text;
    const platform::Error failure = LookUpText(monitoringKeyPath, setting, text);
    const bool isAbsent = failure == error::fileNotFound || failure == error::pathNotFound;
    if (isAbsent || failure == error::success || failure == error::invalidData) wasAbsent = isAbsent;
    isSet_ = !wasAbsent;
    if (!isSet_) return;
    if (failure == error::invalidData) {
        fault_ = u" is not a text, so nothing is allowed";
    } else if (failure != error::success) {
        fault_ = u" cannot be read (error " + DecimalText(failure) + u"), so nothing is allowed";
    }
    for (const auto pattern : PatternsOf(text ? *text : std::u16string_view()))
        patterns_.push_back(Comparable(pattern, kind));
    if (fault_.empty() && patterns_.empty()) fault_ = u" is empty, so nothing is allowed";
}

std::u16string UnfitRequestPattern(std::u16string_view list) {
    for (const std::u16string_view pattern : PatternsOf(list)) {
        const std::u16string form = Comparable(pattern, ServerLimit::Kind::names);
        const bool isFit = std::any_of(std::begin(requestTypeNames), std::end(requestTypeNames),
                                       [&](auto name) { return Matches(form, name); });
        if (!isFit) return std::u16string(pattern);
    }
    return {};
}

std::u16string RegularExpression(std::u16string_view list) {
    constexpr std::u16string_view parts[] = {u"|", u"[", u"]", u".+", u"\\.", u")?", u")*", u")+"};
    for (const std::u16string_view pattern : PatternsOf(list)) {
        const bool hasEnds = pattern.starts_with(u'^') || pattern.ends_with(u'$') || pattern.starts_with(u".*");
        const bool isExpression = hasEnds || std::any_of(std::begin(parts), std::end(parts), [pattern](auto part) {
                                      return pattern.find(part) != std::u16string_view::npos;
                                  });
        if (isExpression) return std::u16string(pattern);
    }
    return {};
}

std::u16string UselessPattern(std::u16string_view list, bool areScripts) {
    constexpr std::u16string_view quotes = u"\"'";
    for (const std::u16string_view pattern : PatternsOf(list)) {
        const bool isQuoted = quotes.find(pattern.front()) != std::u16string_view::npos;
        const std::u16string form = u'/' + Comparable(pattern, ServerLimit::Kind::paths) + u'/';
        const bool isElsewhere = areScripts ? form.starts_with(u"//") || form.find(u"/../") != std::u16string::npos ||
                                                  form.find(u"/conf/scripts/") != std::u16string::npos ||
                                                  (form.size() > 2 && form[2] == u':')
                                            : pattern.find(separator) != std::u16string_view::npos;
        if (isQuoted || isElsewhere || pattern.find(u';') != std::u16string_view::npos) return std::u16string(pattern);
    }
    return {};
}

std::u16string UnpartedPattern(std::u16string_view list) {
    for (const std::u16string_view pattern : PatternsOf(list)) {
        const bool isTitle = pattern.find(u" - ") != std::u16string_view::npos;
        if (!isTitle && pattern.find_first_of(u" \t") != std::u16string_view::npos) return std::u16string(pattern);
    }
    return {};
}

std::u16string WordForAll(std::u16string_view list) {
    for (const std::u16string_view pattern : PatternsOf(list)) {
        if (CompareIgnoreCase(pattern, u"all") == 0 || CompareIgnoreCase(pattern, u"any") == 0)
            return std::u16string(pattern);
    }
    return {};
}

std::optional<std::u16string> ServerLimit::RefusalOfAll() const {
    return fault_.empty() ? std::nullopt : std::optional(setting_ + fault_);
}

std::optional<std::u16string> ServerLimit::Refusal(std::span<const std::u16string> names) const {
    if (!isSet_) return std::nullopt;
    if (std::optional<std::u16string> ofAll = RefusalOfAll()) return ofAll;
    for (const std::u16string& name : names) {
        const std::u16string form = Comparable(name, kind_);
        const auto matches = [&form](const std::u16string& pattern) { return Matches(pattern, form); };
        if (std::any_of(patterns_.begin(), patterns_.end(), matches)) return std::nullopt;
    }
    return setting_ + u" does not have it";
}

ServerLimit LimitOfRequests() {
    static std::atomic<bool> wasAbsent{false};
    return {u"AllowedRequests", ServerLimit::Kind::names, wasAbsent};
}

ServerLimit LimitOfServices() {
    static std::atomic<bool> wasAbsent{false};
    return {u"AllowedServices", ServerLimit::Kind::names, wasAbsent};
}

ServerLimit LimitOfScripts() {
    static std::atomic<bool> wasAbsent{false};
    return {u"AllowedScripts", ServerLimit::Kind::paths, wasAbsent};
}

}  // namespace kv
