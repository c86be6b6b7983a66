// Requests to agents: the queue by state, the plans that were pushed, and each request with its answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lab/page/table.h"
#include "lab/store/requests.h"

namespace kv::lab {

struct AnsweredRequest {
    Request request;
    std::vector<Report> answers;              // newest first
    std::optional<std::int64_t> planFetched;  // see ConfigurationFetched
};

struct RequestsView {
    std::string agent;                                         // whose requests these are; empty for all
    std::vector<std::pair<std::string, std::int64_t>> states;  // and how many requests are in each
    std::vector<AnsweredRequest> plans;                        // those that push plans, newest first
    std::vector<AnsweredRequest> requests;                     // newest first
    std::vector<Report> notices;                               // newest first
};

void AddRequests(std::string& html, const RequestsView& view);

/// One line for the overview; nothing without requests.
void AddRequestCounts(std::string& html, const std::vector<std::pair<std::string, std::int64_t>>& states);

Table RequestTable(const std::vector<AnsweredRequest>& requests);
Table PlanTable(const std::vector<AnsweredRequest>& requests);
Table NoticeTable(const std::vector<Report>& notices);

}  // namespace kv::lab
