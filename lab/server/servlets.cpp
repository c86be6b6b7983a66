#include "lab/server/servlets.h"

#include <algorithm>
#include <optional>

#include "lab/store/archive.h"
#include "lab/store/record_text.h"
#include "lab/store/requests.h"

namespace kv::lab {

namespace {

/// Seconds that agents wait for an SNMP device.
constexpr const char* snmpTimeout = "5";

/// The longest agent key that is accepted.
constexpr std::size_t maxKeyLength = 100;

constexpr const char* listType = "text/plain; charset=utf-16le";

/// Only characters that can stand in a header and in file names are accepted: a key goes into both.
std::string KeyParameter(const ServletRequest& request, const std::string& name) {
    std::string key = RequiredParameter(request, name);
    const auto good = [](char c) { return c > ' ' && c < 0x7F && c != '/' && c != '\\'; };
    if (key.size() > maxKeyLength || !std::all_of(key.begin(), key.end(), good))
        throw BadRequest("the parameter " + name + " is not an agent key");
    return key;
}

/// Whether a text is a key. An agent without a key sends one of these two.
bool IsKey(std::string key) {
    std::transform(key.begin(), key.end(), key.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return key != "HUBCENTER" && key != "NULL";
}

Answer Register(Store& store, const ServletSettings& settings, const ServletRequest& request) {
    const AgentDetails details{KeyParameter(request, "agentKey"),  Parameter(request, "agentID"),
                               Parameter(request, "agentDNS"),     Parameter(request, "ipAddress"),
                               Parameter(request, "customerName"), Parameter(request, "remoteOffice"),
                               Parameter(request, "osName")};
    const bool hasKey = IsKey(details.key);
    // Keys are given by agentID: without it, all agents would get the same key.
    if (!hasKey && details.id.empty()) throw BadRequest("the parameter agentID is missing");
    const std::string key = EnrolAgent(store, details, hasKey);
    Answer answer;
    answer.headers = {{"timeDiff", std::to_string(settings.timeDiff)},
                      {"AgentKey", key},
                      {"AgentRun", settings.refusedKeys.contains(key) ? "0" : "1"},
                      {"SNMPTimeout", snmpTimeout}};
    return answer;
}

/// The records of a zip. Waits while uploads together hold too much.
std::vector<RecordText> ReadRecords(MemoryBudget::Share& memory, std::string_view zip) {
    std::vector<RecordText> records;
    ReadArchive(zip, [&](const std::string& name, std::string_view content) {
        memory.Take(content.size() / 2 * 3);  // what its text takes at most, in UTF-8
        records.push_back(DecodeRecord(name, content));
    });
    return records;
}

void StoreUpload(Store& store, MemoryBudget& budget, const ServletRequest& request) {
    const std::string key = KeyParameter(request, "AGENTKEY");
    const std::string zip = RequiredParameter(request, "FILENAME");
    if (zip.size() > maxIndexedBytes) throw BadRequest("the parameter FILENAME is too long for the name of a zip");
    if (request.body.empty()) throw BadRequest("the body is empty");
    MemoryBudget::Share memory(budget);
    const std::vector<RecordText> records = ReadRecords(memory, request.body);
    StoreDelivery(store, key, zip, records);
    NoteContact(store, key, request.address);
}

Answer Refuse(Store& store, const ServletRequest& request, int status, const std::string& reason) {
    NoteRefusal(store, {Parameter(request, "AGENTKEY"), Parameter(request, "FILENAME"), reason, request.address, 0, 0});
    return TextAnswer(status, reason);
}

Answer Upload(Store& store, const ServletSettings& settings, const ServletRequest& request) {
    try {
        StoreUpload(store, settings.unpacked, request);
        return {};
    } catch (const BadRequest& error) {
        return Refuse(store, request, 400, error.what());
    } catch (const MalformedArchive& error) {
        return Refuse(store, request, 400, error.what());
    }
}

Answer UpdateStatus(Store& store, const ServletSettings&, const ServletRequest& request) {
    const std::string key = KeyParameter(request, "agentKey");
    const std::string status = RequiredParameter(request, "agentStatus");
    NoteContact(store, key, request.address);
    NoteStatus(store, key, status);
    return {};
}

/// Takes a posted document or a notice of what was done, or answers the question for the list of requests.
Answer HandleRequests(Store& store, const ServletSettings&, const ServletRequest& request) {
    const std::string key = KeyParameter(request, "agentKey");
    Report report{key, Parameter(request, "action"), Parameter(request, "requestId"),
                  DecodeRecord("", request.body).text, 0};
    const bool posted = request.method == "POST";
    if (posted && request.body.empty()) throw BadRequest("the body is empty");
    NoteContact(store, key, request.address);
    if (posted) {
        TakeAnswer(store, report);
        return {};
    }
    if (report.action.empty()) return {200, TakeRequestList(store, key, !request.cut), listType, {}};
    report.text = Parameter(request, "status");
    TakeNotice(store, report, Parameter(request, "moId"));
    return {};
}

/// A configuration that an agent was told to download.
Answer ServeConfiguration(Store& store, const ServletSettings&, const ServletRequest& request) {
    std::optional<std::string> zip = TakeConfiguration(store, request.path, !request.cut);
    if (!zip) return TextAnswer(404, "no configuration was pushed under this path");
    return {200, std::move(*zip), "application/zip", {}};
}

struct Servlet {
    std::string_view name;
    std::string_view methods;
    Answer (*serve)(Store&, const ServletSettings&, const ServletRequest&);
};

constexpr std::array<Servlet, servletNames.size()> servlets{{{servletNames[0], "GET", Register},
                                                             {servletNames[1], "POST", Upload},
                                                             {servletNames[2], "GET", UpdateStatus},
                                                             {servletNames[3], "GET POST", HandleRequests},
                                                             {servletNames[4], "GET", ServeConfiguration}}};

}  // namespace

Answer Serve(Store& store, const ServletSettings& settings, std::string_view servlet, const ServletRequest& request) {
    const auto* const found = std::find_if(servlets.begin(), servlets.end(),
                                           [&](const Servlet& candidate) { return candidate.name == servlet; });
    if (found == servlets.end()) return TextAnswer(404, "there is no such servlet");
    if (found->methods.find(request.method) == std::string_view::npos)
        return TextAnswer(405, "this servlet is called with " + std::string(found->methods));
    try {
        return found->serve(store, settings, request);
    } catch (const BadRequest& error) {
        return TextAnswer(400, error.what());
    }
}

Answer RefuseBody(Store& store, BodyFault fault, std::string_view servlet, const ServletRequest& request) {
    const bool tooLarge = fault == BodyFault::tooLarge;
    const int status = tooLarge ? 413 : 400;
    const std::string reason = tooLarge ? "the body is larger than " + std::to_string(maxBodyBytes >> 20) + " MiB"
                                        : "the body did not arrive whole";
    return servlet == "FileCollector" ? Refuse(store, request, status, reason) : TextAnswer(status, reason);
}

}  // namespace kv::lab
