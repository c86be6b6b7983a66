#include "lab/commands/known_names.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

#include "lab/commands/command_line.h"
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

/// What may have been meant.
std::string Advice(const std::string& name, const std::vector<std::string>& known) {
    if (known.empty()) return "; nothing has come yet";
    if (const std::string near = NearestOf(name, known); !near.empty())
        return "; did you mean '" + OneLine(near) + "'?";
    std::string list;
    for (std::size_t at = 0; at < std::min(known.size(), namesTold); ++at)
        list += (at > 0 ? ", " : "") + (known[at].empty() ? "''" : OneLine(known[at]));
    return fmt::format("; those that came: {}{}", list, known.size() > namesTold ? ", …" : "");
}

void Require(Store& store, std::string_view what, const std::optional<std::string>& name, const Filter& alone,
             std::vector<std::string> FilterChoices::*choices) {
    if (!name || SourceExists(store, alone)) return;
    throw NotFoundError(fmt::format("no record {} '{}'{}", what, OneLine(*name),
                                    Advice(*name, ReadFilterChoices(store, namesRead).*choices)));
}

}  // namespace

void RequireKnown(Store& store, const Filter& filter) {
    if (filter.agent && !AgentExists(store, *filter.agent))
        Require(store, "came from an agent with the key", filter.agent, {filter.agent, {}, {}, false},
                &FilterChoices::agents);
    Require(store, "is of the device", filter.device, {{}, filter.device, {}, false}, &FilterChoices::devices);
    Require(store, "has the name", filter.name, {{}, {}, filter.name, false}, &FilterChoices::names);
}

void RequireKnownMember(Store& store, const Filter& filter, const std::optional<std::string>& member) {
    if (!member) return;
    const Range always{INT64_MIN, INT64_MAX};
    if (!ReadSeries(store, always, filter, member, 1).series.empty()) return;
    std::vector<std::string> known;
    for (const SeriesName& series : ReadSeries(store, always, filter, std::nullopt, namesRead).series)
        if (std::find(known.begin(), known.end(), series.member) == known.end()) known.push_back(series.member);
    throw NotFoundError(fmt::format("these records have no number '{}'{}", OneLine(*member), Advice(*member, known)));
}

}  // namespace kv::lab
