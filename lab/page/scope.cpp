#include "lab/page/scope.h"

#include <algorithm>
#include <fmt/chrono.h>

namespace kv::lab {

namespace {

std::tm Utc(std::int64_t time) { return fmt::gmtime(static_cast<std::time_t>(time / 1000)); }

const RangeChoice& ChoiceOf(const std::string& word) {
    const auto* const found = std::find_if(std::begin(rangeChoices), std::end(rangeChoices),
                                           [&](const RangeChoice& choice) { return choice.word == word; });
    if (found == std::end(rangeChoices)) throw BadRequest("the parameter range is 15m, 1h, 1d or 1w");
    return *found;
}

/// Absent for all; `empty` is the word for the empty text.
std::optional<std::string> FilterText(const ServletRequest& request, const std::string& name, std::string_view empty) {
    const std::string text = Parameter(request, name);
    if (text.empty()) return std::nullopt;
    return text == empty ? std::string() : text;
}

void AddParameter(std::string& query, std::string_view name, std::string_view value) {
    query += query.empty() ? '?' : '&';
    query += fmt::format("{}={}", name, UrlText(value));
}

}  // namespace

Scope ScopeOf(const ServletRequest& request, std::int64_t now) {
    Scope scope;
    if (const std::string word = Parameter(request, "range"); !word.empty()) scope.choice = &ChoiceOf(word);
    scope.range = {now - scope.choice->milliseconds, now};
    scope.filter.agent = FilterText(request, "agent", "");
    scope.filter.device = FilterText(request, "device", ownDevice);
    scope.filter.name = FilterText(request, "name", unnamedRecord);
    scope.filter.failedOnly = Parameter(request, "failed") == "1";
    return scope;
}

std::string ScopeQuery(const Scope& scope) {
    std::string query;
    if (scope.choice != &rangeChoices[0]) AddParameter(query, "range", scope.choice->word);
    const Filter& filter = scope.filter;
    if (filter.agent) AddParameter(query, "agent", *filter.agent);
    if (filter.device) AddParameter(query, "device", filter.device->empty() ? ownDevice : *filter.device);
    if (filter.name) AddParameter(query, "name", NameText(*filter.name));
    if (filter.failedOnly) AddParameter(query, "failed", "1");
    return query;
}

std::string SourceQuery(const Scope& scope, const Source& source) {
    return ScopeQuery({scope.range, scope.choice, {source.agent, source.device, source.name, scope.filter.failedOnly}});
}

std::string QueryWithMember(const std::string& query, std::string_view member) {
    return query + (query.empty() ? "?" : "&") + "member=" + UrlText(member);
}

std::string UrlText(std::string_view text) {
    std::string encoded;
    for (const char character : text) {
        const bool isPlain = (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
                             (character >= 'A' && character <= 'Z') ||
                             std::string_view("-._~").find(character) != std::string_view::npos;
        if (isPlain)
            encoded += character;
        else
            encoded += fmt::format("%{:02X}", static_cast<unsigned char>(character));
    }
    return encoded;
}

const std::string& Sender(const Source& source) { return source.device.empty() ? source.agent : source.device; }

std::string NameText(std::string_view name) { return std::string(name.empty() ? unnamedRecord : name); }

std::string SourceTitle(const Source& source) {
    const std::string title = Sender(source) + " · " + NameText(source.name);
    // Several agents may poll devices of one name.
    return source.device.empty() ? title : title + " (" + source.agent + ")";
}

std::string ClockText(std::int64_t time) { return fmt::format("{:%H:%M:%S}", Utc(time)); }

std::string MinuteText(std::int64_t time, std::int64_t now) {
    if (time / dayMilliseconds == now / dayMilliseconds) return fmt::format("{:%H:%M}", Utc(time));
    return fmt::format("{:%e %b %H:%M}", Utc(time));
}

}  // namespace kv::lab
