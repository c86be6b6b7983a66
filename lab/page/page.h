// The server's page, made from what the store gives: agents, faults, refused uploads, requests and what agents reported
// about them, and the latest records with their values. Pure text; all that comes from outside is escaped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/store/requests.h"
#include "lab/store/store.h"

namespace kv::lab {

/// How much the page shows. Larger texts are cut to a preview, so that the page stays small.
inline constexpr std::int64_t pageRecords = 40;
inline constexpr std::int64_t pageRequests = 15;
inline constexpr std::int64_t pageReports = 15;
inline constexpr std::int64_t maxPageTextBytes = 32768;
inline constexpr std::int64_t previewCharacters = 2000;

/// An agent that has not called for this long is shown as silent. By default it uploads every 5 minutes.
inline constexpr std::int64_t silentMilliseconds = 15 * 60 * 1000;

struct Overview {
    std::int64_t time = 0;
    Totals totals;
    std::vector<Agent> agents;
    std::vector<Fault> faults;
    std::vector<Refusal> refusals;
    std::vector<Request> requests;
    std::vector<Report> actions;
    std::vector<Report> answers;
    std::vector<Record> records;
};
Overview ReadOverview(Store& store);

/// The changing part of the page.
std::string Fragment(const Overview& overview);

/// The whole page. It fetches /fragment every few seconds, or reloads itself if scripts are off.
std::string Page(const Overview& overview);

}  // namespace kv::lab
