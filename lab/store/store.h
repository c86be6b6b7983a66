// What the lab server knows, in one database that servers and commands use at the same time:
//
//   agent     a row for each agent, by its key
//   delivery  a row for each accepted zip; the same zip with other content is another delivery
//   record    a row for each record file of a delivery, in the order of the zip
//   source    a row for each agent, device and name of records, with the state of its newest record
//   series    a row for each numeric value that a source's records have
//   sample    the numbers of the series, each with the time and the record that it is from
//   refused   a row for each different refusal of an upload, with the number of times it happened
//   notice    actions that agents reported in a query, with the request to which they belong
//   answer    documents that agents posted, with the request to which they belong
//   fault     faults that are set; the oldest that fits applies
//   request, conf  what agents are asked to do, see lab/store/requests.h
//
// Times are milliseconds since 1970, texts are UTF-8. All routines throw DatabaseError when the database fails. Each
// thread opens its own Store.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store/database.h"

namespace kv::lab {

struct Store {
    std::unique_ptr<Database> database;
};

/// Opens a lab's database, a file or postgresql://... Makes its file and its tables if they are missing, where opening
/// allows that, and upgrades it if it is of an older version. DatabaseError also when it is something else.
Store OpenStore(const std::string& place, Opening opening = Opening::orCreate);

/// The longest name of a zip, in bytes. Of a refusal's texts and of a request's id only as much is kept.
inline constexpr std::size_t maxIndexedBytes = 800;

/// Milliseconds since 1970.
std::int64_t Now();

// --- Agents

/// What an agent says about itself when it enrols.
struct AgentDetails {
    std::string key;
    std::string id;
    std::string dns;
    std::string address;
    std::string customer;
    std::string office;
    std::string osName;
};

struct Agent {
    AgentDetails details;
    std::int64_t firstContact = 0;
    std::int64_t lastContact = 0;
    std::string status;  // of the last status report since it enrolled; empty if there was none
    std::int64_t statusTime = 0;
};

/// Stores an agent's details and gives its key. An agent without a key gets the one that its id and DNS name got
/// before, else a new one: "LAB" and a number.
std::string EnrolAgent(Store& store, const AgentDetails& details, bool hasKey);

/// Notes that an agent called. An agent that is not known yet gets a row with its key and address.
void NoteContact(Store& store, std::string_view key, std::string_view address);

/// Notes a status report of a known agent.
void NoteStatus(Store& store, std::string_view key, std::string_view status);

std::vector<Agent> Agents(Store& store);
bool AgentExists(Store& store, std::string_view key);

// --- Uploads

/// One record file of a zip.
struct RecordText {
    std::string file;  // name in the zip
    std::string text;
    bool isJson = false;
};

struct Record {
    std::int64_t number = 0;  // counts all records of the database from 1
    std::string agent;
    std::string zip;
    std::int64_t time = 0;  // when it was accepted
    RecordText content;
    std::int64_t bytes = 0;  // of the whole text; content.text may be only its start
};

enum class Delivery { stored, repeated };

/// Stores one zip's records with their facts in one transaction; they are on the disk when it returns. repeated, with
/// nothing stored, if the same records came before from the same agent in the same zip.
Delivery StoreDelivery(Store& store, std::string_view agent, std::string_view zip,
                       const std::vector<RecordText>& records);

struct Refusal {
    std::string agent;
    std::string zip;
    std::string reason;
    std::string address;    // of the last sender
    std::int64_t time = 0;  // of the last refusal
    std::int64_t times = 0;
};

/// The newest refusals are kept, so many: strangers send what they like.
inline constexpr std::int64_t maxKeptRefusals = 10'000;
void NoteRefusal(Store& store, const Refusal& refusal);
std::vector<Refusal> LatestRefusals(Store& store, std::int64_t limit);

// --- What agents report

/// An action that an agent reported; text holds what it posted with it, if anything.
struct Report {
    std::string agent;
    std::string action;
    std::string requestId;
    std::string text;
    std::int64_t time = 0;
};
void NoteAction(Store& store, const Report& report);
void StoreAnswer(Store& store, const Report& report);

/// Newest first.
std::vector<Report> LatestActions(Store& store, std::int64_t limit);

/// The same of answers. An empty agent means all, and so does an empty request.
std::vector<Report> LatestAnswers(Store& store, std::string_view agent, std::string_view requestId, std::int64_t limit);

// --- Faults

/// What faults can be set for: the servlets, and "conf" for the download of configurations. "*" stands for all.
inline constexpr std::array<std::string_view, 5> servletNames{"RegisterAgent", "FileCollector", "StatusUpdateServlet",
                                                              "DataAgentHandlerServlet", "conf"};

enum class FaultKind {
    status = 0,  // value: the HTTP status that is answered; nothing is stored
    delay = 1,   // value: milliseconds before the work
    drop = 2,    // the connection is closed without an answer; nothing is stored
    cut = 3      // the work is done, half of the answer's body is sent
};

struct Fault {
    std::int64_t number = 0;
    std::string servlet;
    FaultKind kind = FaultKind::status;
    std::int64_t value = 0;
    std::int64_t remaining = 0;  // requests to which it still applies; 0 until it is cleared
};

/// Sets a fault and returns its number.
std::int64_t AddFault(Store& store, const Fault& fault);

/// Removes the fault with that number, if it is of that servlet; number 0 stands for all, an empty servlet for any.
/// Returns how many were removed.
std::int64_t ClearFaults(Store& store, std::int64_t number, std::string_view servlet);

/// Oldest first.
std::vector<Fault> Faults(Store& store);

/// The fault that applies to a request to this servlet, if there is one. Counts it down, and removes it at its last
/// request.
std::optional<Fault> TakeFault(Store& store, std::string_view servlet);

/// "status 503", "delay 200 ms", "drop" or "cut".
std::string FaultText(const Fault& fault);

// --- Counts

struct Totals {
    std::int64_t agents = 0;
    std::int64_t zips = 0;
    std::int64_t records = 0;
    std::int64_t refused = 0;
};
Totals CountAll(Store& store);

}  // namespace kv::lab
