// One-off requests to agents, and the configurations that agents are told to download: tables of the store.
//
//   waiting     added, not handed out yet
//   listed      handed out in a list; comes again in the agent's next lists, maxListings times in all
//   answered    the agent answered, or said that it loaded the configuration
//   dropped     the agent went down while serving it, and said so
//   done        of a kind that gets no answer, and the agent has passed it
//   unanswered  handed out maxListings times, and the agent asked for a list once more; an answer may still come
//
// An agent serves a list in its order, which is that of adding, and asks for the next list when it has finished.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/store/store.h"

namespace kv::lab {

/// How often one request is handed out: more than once, because a list may be lost on its way, but not forever.
inline constexpr std::int64_t maxListings = 3;

struct NewRequest {
    std::string agent;  // key of the agent that fetches it
    std::string type;
    std::string id;                                            // if it is empty, a number is chosen
    std::vector<std::pair<std::string, std::string>> members;  // besides type and id; the last of one name counts
};

/// There is a request with this id already.
struct RequestExists : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Queues a request of any kind, unchecked, and gives its id; RequestExists when the given id is taken.
std::string AddRequest(Store& store, const NewRequest& request);

/// Stores a configuration, a zip, and queues the request to download it from "/conf/<number>/queryconf.zip". It is for
/// the agent with the key planKey, which may be a slave of the one that fetches. Gives the request's id.
std::string AddConfiguration(Store& store, std::string_view agent, std::string_view planKey, std::string_view zip);

/// The zip of the configuration with a path, noted as fetched unless a fault keeps it from arriving; absent when the
/// path leads to none.
std::optional<std::string> TakeConfiguration(Store& store, std::string_view path, bool arrives);

/// The list for an agent as it is sent: a JSON document in UTF-16LE, or empty when there is nothing to do. If a fault
/// keeps it from arriving (arrives is false), nothing counts as listed.
std::string TakeRequestList(Store& store, std::string_view agent, bool arrives);

/// Stores an answer and ends the request that it belongs to.
void TakeAnswer(Store& store, const Report& report);

/// Stores a notice and ends the requests that it is about: the dropped one, or those that had configurations downloaded
/// for planKeys, keys with commas between.
void TakeNotice(Store& store, const Report& report, std::string_view planKeys);

struct Request {
    std::int64_t number = 0;  // counts all requests of the database from 1
    std::string agent;
    std::string id;
    std::string type;
    std::string members;  // a JSON object of texts
    std::string state;    // see above
    std::int64_t added = 0;
    std::int64_t listed = 0;  // the last time; 0 if never
    std::int64_t ended = 0;   // 0 if not yet
    std::int64_t listings = 0;
};

/// When the configuration that a request speaks of was fetched last, 0 if never; absent when it is not one of the
/// store's.
std::optional<std::int64_t> ConfigurationFetched(Store& store, const Request& request);

/// In the order of adding; an empty agent means all.
std::vector<Request> Requests(Store& store, std::string_view agent);

/// Newest first; an empty agent means all.
std::vector<Request> LatestRequests(Store& store, std::string_view agent, std::int64_t limit);

/// Those of them that push plans.
std::vector<Request> LatestPlans(Store& store, std::string_view agent, std::int64_t limit);

/// How many requests are in each state that some are in; an empty agent means all.
std::vector<std::pair<std::string, std::int64_t>> RequestStates(Store& store, std::string_view agent = "");

/// Newest first.
std::vector<Report> AnswersTo(Store& store, const Request& request, std::int64_t limit);

}  // namespace kv::lab
