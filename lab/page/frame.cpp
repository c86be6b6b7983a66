#include "lab/page/frame.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <set>

#include "foundation/version.h"
#include "lab/page/record_html.h"
#include "lab/page/style.h"
#include "lab/page/table.h"

namespace kv::lab {

namespace {

/// From this many choices on, a field is typed into.
constexpr std::size_t maxOptions = 100;

struct Way {
    std::string_view path;
    std::string_view title;
};
constexpr Way ways[]{{"/", "Overview"}, {"/records", "Records"}, {"/requests", "Requests"}, {"/agents", "Agents"}};

void AddWays(std::string& html, std::string_view path) {
    html += "<nav class=tabs aria-label=Pages>";
    for (const Way& way : ways)
        Add(html, "<a href=\"{}\"{}>{}</a>\n", way.path, way.path == path ? " aria-current=page" : "", way.title);
    html += "</nav>";
}

/// The path with a scope, and with the value that it may be about.
std::string PathOf(std::string_view path, const Scope& scope, std::string_view member) {
    const std::string query = ScopeQuery(scope);
    return std::string(path) + (member.empty() ? query : QueryWithMember(query, member));
}

void AddRanges(std::string& html, const Scope& scope, std::string_view path, std::string_view member) {
    html += "<nav class=tabs aria-label=Range><span>last</span>";
    for (const RangeChoice& choice : rangeChoices) {
        Add(html, "<a href=\"{}\"{}>{}</a>\n", Escape(PathOf(path, {scope.range, &choice, scope.filter}, member)),
            &choice == scope.choice ? " aria-current=true" : "", choice.title);
    }
    html += "</nav>";
}

void AddOptions(std::string& html, const std::vector<std::string>& choices, const std::string& chosen) {
    html += "<option value=''>all</option>";
    for (const std::string& choice : choices)
        Add(html, "<option{}>{}</option>", choice == chosen ? " selected" : "", Escape(choice));
    if (!chosen.empty() && std::find(choices.begin(), choices.end(), chosen) == choices.end())
        Add(html, "<option selected>{}</option>", Escape(chosen));
}

struct FilterField {
    std::string_view name;
    std::string_view title;
    std::string_view empty;  // what stands for the empty text
};

void AddField(std::string& html, const FilterField& field, std::vector<std::string> choices,
              const std::optional<std::string>& value) {
    for (std::string& choice : choices)
        if (choice.empty()) choice = field.empty;
    const std::string chosen = value ? (value->empty() ? std::string(field.empty) : *value) : "";
    Add(html, "<label>{}", field.title);
    if (choices.size() < maxOptions) {
        Add(html, "<select name={}>", field.name);
        AddOptions(html, choices, chosen);
        html += "</select>";
    } else {
        Add(html, "<input name={} value=\"{}\">", field.name, Escape(chosen));
    }
    html += "</label>\n";
}

/// The filter in words: "LAB1, failed only".
std::string FilterWords(const Filter& filter) {
    std::string words;
    const auto add = [&](const std::string& word) { words += (words.empty() ? "" : ", ") + word; };
    if (filter.agent) add(*filter.agent);
    if (filter.device) add(filter.device->empty() ? std::string(ownDevice) : *filter.device);
    if (filter.name) add(NameText(*filter.name));
    if (filter.failedOnly) add("failed only");
    return words;
}

}  // namespace

std::string TitleOf(Store& store) {
    std::set<std::string> customers;
    std::string first;
    for (const Agent& agent : Agents(store)) {
        const std::string& customer = agent.details.customer;
        if (!customer.empty() && customers.insert(customer).second && first.empty()) first = customer;
    }
    if (customers.empty()) return "Lab server";
    return customers.size() == 1 ? first : fmt::format("{} and {} more", first, customers.size() - 1);
}

const std::string& PagePolicy() {
    static const std::string policy = [] {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
        unsigned int size = 0;
        EVP_Digest(script.data(), script.size(), digest.data(), &size, EVP_sha256(), nullptr);
        std::array<unsigned char, 2 * EVP_MAX_MD_SIZE> base64;
        const int length = EVP_EncodeBlock(base64.data(), digest.data(), static_cast<int>(size));
        return fmt::format(
            "default-src 'none'; script-src 'sha256-{}'; style-src 'unsafe-inline'; img-src data:; connect-src 'self'; "
            "form-action 'self'; base-uri 'none'; frame-ancestors 'none'",
            std::string(base64.begin(), base64.begin() + length));
    }();
    return policy;
}

std::string Document(const Frame& frame) {
    std::string html;
    Add(html,
        "<!DOCTYPE html>\n<html lang=en>\n<head>\n<meta charset=utf-8>\n<meta name=viewport "
        "content='width=device-width'>\n<title>{}</title>\n<link rel=icon href='data:,'>\n",
        Escape(frame.title));
    if (frame.refreshSeconds > 0)
        Add(html, "<noscript><meta http-equiv=refresh content={}></noscript>\n", frame.refreshSeconds * 4);
    Add(html,
        "<style>{}{}</style>\n</head>\n<body>\n<a class=skip href='#live'>To the content</a>\n<header class=top>"
        "<h1>{}</h1>",
        style, valueStyle, Escape(frame.title));
    AddWays(html, frame.path);
    Add(html, "</header>\n{}<main id=live data-from=\"{}\" data-every={}>\n{}</main>\n", frame.controls, frame.fragment,
        frame.refreshSeconds, frame.body);
    Add(html, "<footer class=soft>kvlab {}</footer>\n", programVersion);
    if (frame.refreshSeconds > 0) Add(html, "<script>{}</script>\n", script);
    html += "</body>\n</html>\n";
    return html;
}

std::string ClockPlace(std::int64_t now) {
    return fmt::format(
        "<span><span id=clock>as of {} UTC</span> <span id=trouble class=bad role=status></span></span>\n",
        ClockText(now));
}

std::string ScopeControls(const Scope& scope, const FilterChoices& choices, std::string_view path,
                          std::string_view member) {
    const std::string words = FilterWords(scope.filter);
    std::string html = "<div class=bar>";
    AddRanges(html, scope, path, member);
    html += ClockPlace(scope.range.to);
    if (path == "/") AddTableLinks(html, "/summary", ScopeQuery(scope));
    Add(html, "<details{}><summary>{}</summary>\n<form action=\"{}\"><input type=hidden name=range value={}>\n",
        words.empty() || !member.empty() ? "" : " open", words.empty() ? "Filter" : "Filter: " + Escape(words), path,
        scope.choice->word);
    if (!member.empty()) Add(html, "<input type=hidden name=member value=\"{}\">\n", Escape(member));
    AddField(html, {"agent", "Agent", ""}, choices.agents, scope.filter.agent);
    AddField(html, {"device", "Device", ownDevice}, choices.devices, scope.filter.device);
    AddField(html, {"name", "Record", unnamedRecord}, choices.names, scope.filter.name);
    Add(html,
        "<label><input type=checkbox name=failed value=1{}> failed only</label>\n<button>Filter</button>\n"
        "<a href=\"{}\">clear</a></form></details></div>\n",
        scope.filter.failedOnly ? " checked" : "", Escape(PathOf(path, {scope.range, scope.choice, {}}, member)));
    return html;
}

void AddSectionTitle(std::string& html, std::string_view title, std::string_view tablePath, std::string_view query) {
    Add(html, "<div class=title><h2>{}</h2>", Escape(title));
    if (!tablePath.empty()) AddTableLinks(html, tablePath, query);
    html += "</div>\n";
}

void AddMore(std::string& html, std::int64_t more) {
    if (more > 0) Add(html, "<p class=soft>… {} more; narrow it down by agent, device or record</p>\n", more);
}

}  // namespace kv::lab
