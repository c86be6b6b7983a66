#include "lab/commands/known_names.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

#include "lab/page/units.h"
#include "lab/store/record_text.h"
#include "lab/store/series.h"
#include "platform/near_name.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr std::int64_t namesRead = 5000;
constexpr std::size_t namesTold = 12;

std::string NearestOf(const std::string& name, const std::vector<std::string>& known) {
    std::vector<std::u16string> wide;
    for (const std::string& each : known) wide.push_back(platform::WideFromUtf8(each));
    const std::vector<std::u16string_view> views(wide.begin(), wide.end());
    return platform::Utf8FromWide(platform::NearestName(platform::WideFromUtf8(name), views));
}

/// What may have been meant; others are the known names in short.
std::string Advice(const std::string& name, const std::vector<std::string>& known,
                   const std::vector<std::string>& others = {}) {
    if (known.empty()) return "; nothing has come yet";
    for (const std::vector<std::string>& names : {known, others})
        if (const std::string near = NearestOf(name, names); !near.empty())
            return "; did you mean '" + OneLine(near) + "'?";
    std::string list;
    for (std::size_t at = 0; at < std::min(known.size(), namesTold); ++at)
        list += (at > 0 ? ", " : "") + (known[at].empty() ? "''" : OneLine(known[at]));
    return fmt::format("; those that came: {}{}", list, known.size() > namesTold ? " and others" : "");
}

void Require(Store& store, std::string_view what, const std::optional<std::string>& name, const Filter& alone,
             std::vector<std::string> FilterChoices::*choices) {
    if (!name || SourceExists(store, alone)) return;
    throw NotFoundError(fmt::format("no record {} '{}'{}", what, OneLine(*name),
                                    Advice(*name, ReadFilterChoices(store, namesRead).*choices)));
}

void Remember(std::vector<std::string>& names, const std::string& name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
}

/// Without the row: "FreeSpace" of "/ FreeSpace"; of an OID's name without the instance: "ifInOctets" of "ifInOctets
/// 2".
std::string PropertyOf(const std::string& member) {
    if (!member.starts_with('.')) return std::string(SplitMember(member).property);
    const std::string title = MemberTitle(member);
    return title.substr(0, title.find(' '));
}

}  // namespace

Filter FilterOf(const Given& given) {
    const auto text = [&](const char* option) {
        return Has(given, option) ? std::optional(StoredValue(given, option)) : std::nullopt;
    };
    Filter filter{text("--agent"), text("--device"), text("--name"), Has(given, "--failed")};
    if (filter.agent == "") filter.agent.reset();
    return filter;
}

bool IsCalled(const std::string& member, const std::string& name) {
    return member == name || MemberTitle(member) == name || PropertyOf(member) == name ||
           (name.starts_with('.') && member.starts_with(name + '.'));
}

void RequireAgent(Store& store, const std::string& key, const std::string& hint) {
    if (AgentExists(store, key)) return;
    std::vector<std::string> known;
    for (const Agent& agent : Agents(store)) known.push_back(agent.details.key);
    throw NotFoundError(fmt::format("no agent has the key '{}'{}{}", OneLine(key), Advice(key, known), hint));
}

std::string NewestText(Store& store, const Filter& filter) {
    const std::int64_t newest = Summarize(store, {INT64_MAX, INT64_MAX}, filter, INT64_MAX).lastCollected;
    return newest == 0 ? "; these names have not come together" : "; the newest record is of " + UtcText(newest);
}

void RequireKnown(Store& store, const Filter& filter) {
    if (filter.agent && !SourceExists(store, {filter.agent, {}, {}, false})) RequireAgent(store, *filter.agent);
    Require(store, "is of the device", filter.device, {{}, filter.device, {}, false}, &FilterChoices::devices);
    Require(store, "has the name", filter.name, {{}, {}, filter.name, false}, &FilterChoices::names);
}

void RequireKnownMember(Store& store, const Filter& filter, const std::optional<std::string>& member) {
    if (!member) return;
    constexpr Range always{INT64_MIN, INT64_MAX};
    std::vector<std::string> known;
    std::vector<std::string> properties;
    const SeriesList list = ReadSeries(store, always, filter, std::nullopt, seriesSearched);
    for (const SeriesName& series : list.series) {
        if (IsCalled(series.member, *member)) return;
        Remember(known, MemberTitle(series.member));
        Remember(properties, PropertyOf(series.member));
    }
    throw NotFoundError(
        fmt::format("these records have no number '{}'{}", OneLine(*member), Advice(*member, known, properties)));
}

}  // namespace kv::lab
