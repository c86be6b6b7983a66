#include "lab/servlets.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>

#include "lab/archive.h"
#include "lab/page.h"
#include "lab/record_text.h"
#include "lab/requests.h"

namespace kv::lab {

namespace {

/// Seconds that agents wait for an SNMP device.
constexpr const char* snmpTimeout = "5";

constexpr std::int64_t maxApiRecords = 1000;

/// The longest agent key that is accepted.
constexpr std::size_t maxKeyLength = 100;

constexpr const char* htmlType = "text/html; charset=utf-8";
constexpr const char* listType = "text/plain; charset=utf-16le";

/// What is wrong with a request, in one line.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string Parameter(const ServletRequest& request, const std::string& name) {
    const auto found = request.query.find(name);
    return found == request.query.end() ? "" : CleanUtf8(found->second);
}

std::string RequiredParameter(const ServletRequest& request, const std::string& name) {
    std::string value = Parameter(request, name);
    if (value.empty()) throw BadRequest("the parameter " + name + " is missing");
    return value;
}

/// Only characters that can stand in a header and in file names are accepted: a key goes into both.
std::string KeyParameter(const ServletRequest& request, const std::string& name) {
    std::string key = RequiredParameter(request, name);
    const auto good = [](char c) { return c > ' ' && c < 0x7F && c != '/' && c != '\\'; };
    if (key.size() > maxKeyLength || !std::all_of(key.begin(), key.end(), good))
        throw BadRequest("the parameter " + name + " is not an agent key");
    return key;
}

std::int64_t NumberParameter(const ServletRequest& request, const std::string& name, std::int64_t fallback) {
    const std::string text = Parameter(request, name);
    if (text.empty()) return fallback;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0)
        throw BadRequest("the parameter " + name + " is not a number");
    return number;
}

/// Whether a text is a key. An agent without a key sends one of these two.
bool IsKey(std::string key) {
    std::transform(key.begin(), key.end(), key.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return key != "HUBCENTER" && key != "NULL";
}

Answer Register(Store& store, const Enrolment& enrolment, const ServletRequest& request) {
    const AgentDetails details{KeyParameter(request, "agentKey"),  Parameter(request, "agentID"),
                               Parameter(request, "agentDNS"),     Parameter(request, "ipAddress"),
                               Parameter(request, "customerName"), Parameter(request, "remoteOffice"),
                               Parameter(request, "osName")};
    const bool hasKey = IsKey(details.key);
    // Keys are given by agentID: without it, all agents would get the same key.
    if (!hasKey && details.id.empty()) throw BadRequest("the parameter agentID is missing");
    const std::string key = EnrolAgent(store, details, hasKey);
    Answer answer;
    answer.headers = {{"timeDiff", std::to_string(enrolment.timeDiff)},
                      {"AgentKey", key},
                      {"AgentRun", enrolment.refusedKeys.contains(key) ? "0" : "1"},
                      {"SNMPTimeout", snmpTimeout}};
    return answer;
}

void StoreUpload(Store& store, const ServletRequest& request) {
    const std::string key = KeyParameter(request, "AGENTKEY");
    const std::string zip = RequiredParameter(request, "FILENAME");
    if (request.body.empty()) throw BadRequest("the body is empty");
    StoreDelivery(store, key, zip, [&](const RecordSink& sink) {
        ReadArchive(request.body,
                    [&](const std::string& name, std::string_view content) { sink(DecodeRecord(name, content)); });
    });
    NoteContact(store, key, request.address);
}

Answer Refuse(Store& store, const ServletRequest& request, int status, const std::string& reason) {
    NoteRefusal(store, {Parameter(request, "AGENTKEY"), Parameter(request, "FILENAME"), reason, request.address, 0, 0});
    return TextAnswer(status, reason);
}

Answer Upload(Store& store, const Enrolment&, const ServletRequest& request) {
    try {
        StoreUpload(store, request);
        return {};
    } catch (const BadRequest& error) {
        return Refuse(store, request, 400, error.what());
    } catch (const MalformedArchive& error) {
        return Refuse(store, request, 400, error.what());
    }
}

Answer UpdateStatus(Store& store, const Enrolment&, const ServletRequest& request) {
    const std::string key = KeyParameter(request, "agentKey");
    const std::string status = RequiredParameter(request, "agentStatus");
    NoteContact(store, key, request.address);
    NoteStatus(store, key, status);
    return {};
}

/// Takes a posted document or a notice of what was done, or answers the question for the list of requests.
Answer HandleRequests(Store& store, const Enrolment&, const ServletRequest& request) {
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
Answer ServeConfiguration(Store& store, const Enrolment&, const ServletRequest& request) {
    std::optional<std::string> zip = Configuration(store, request.path);
    if (!zip) return TextAnswer(404, "there is no such configuration");
    return {200, std::move(*zip), "application/zip", {}};
}

struct Servlet {
    std::string_view name;
    std::string_view methods;
    Answer (*serve)(Store&, const Enrolment&, const ServletRequest&);
};

constexpr std::array<Servlet, servletNames.size()> servlets{{{servletNames[0], "GET", Register},
                                                             {servletNames[1], "POST", Upload},
                                                             {servletNames[2], "GET", UpdateStatus},
                                                             {servletNames[3], "GET POST", HandleRequests},
                                                             {servletNames[4], "GET", ServeConfiguration}}};

}  // namespace

Answer TextAnswer(int status, const std::string& line) {
    Answer answer;
    answer.status = status;
    answer.body = line + "\n";
    return answer;
}

Answer Serve(Store& store, const Enrolment& enrolment, std::string_view servlet, const ServletRequest& request) {
    const auto* const found = std::find_if(servlets.begin(), servlets.end(),
                                           [&](const Servlet& candidate) { return candidate.name == servlet; });
    if (found == servlets.end()) return TextAnswer(404, "there is no such servlet");
    if (found->methods.find(request.method) == std::string_view::npos)
        return TextAnswer(405, "this servlet is called with " + std::string(found->methods));
    try {
        return found->serve(store, enrolment, request);
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

Answer ServePage(Store& store) { return {200, Page(ReadOverview(store)), htmlType, {}}; }
Answer ServeFragment(Store& store) { return {200, Fragment(ReadOverview(store)), htmlType, {}}; }

Answer ServeRecords(Store& store, const ServletRequest& request) {
    try {
        RecordQuery query;
        query.after = NumberParameter(request, "after", 0);
        query.agent = Parameter(request, "agent");
        query.limit = std::min(NumberParameter(request, "limit", maxApiRecords), maxApiRecords);
        return {200, RecordsJson(RecordsAfter(store, query)), "application/json", {}};
    } catch (const BadRequest& error) {
        return TextAnswer(400, error.what());
    }
}

}  // namespace kv::lab
