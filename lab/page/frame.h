// What all pages for people share: the head, the ways to other pages, the range and the filter, and the foot.
#pragma once

#include <string>
#include <string_view>

#include "lab/page/scope.h"
#include "lab/store/history.h"

namespace kv::lab {

struct Frame {
    std::string title;
    std::string_view path;      // of the page among the ways to others; empty when it is another
    std::string controls;       // below the title, HTML
    std::string body;           // HTML
    std::string_view fragment;  // the path that gives the body alone
    int refreshSeconds = 0;     // how often it is fetched again; 0 for never
};

/// The customer of the agents, if all have the same, else what the server is.
std::string TitleOf(Store& store);

/// What a browser lets a page do, as the header Content-Security-Policy: nothing but its own script, whatever agents
/// have sent stands in it.
const std::string& PagePolicy();

std::string Document(const Frame& frame);

/// Where a page that is fetched again says of when it is, and aloud why it grows old; part of its controls.
std::string ClockPlace(std::int64_t now);

/// The range as links and the filter as a form that leads to the same path again; on the page of a value, to that
/// value.
std::string ScopeControls(const Scope& scope, const FilterChoices& choices, std::string_view path,
                          std::string_view member = {});

/// Appends a section's heading, with links to its table unless tablePath is empty.
void AddSectionTitle(std::string& html, std::string_view title, std::string_view tablePath, std::string_view query);

/// Appends "… 940 more", and what to do about it, unless more is 0.
void AddMore(std::string& html, std::int64_t more);

}  // namespace kv::lab
