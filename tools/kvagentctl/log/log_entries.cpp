#include "tools/kvagentctl/log/log_entries.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "commandline/run.h"
#include "http/http_answers.h"

namespace kv::control {

namespace {

constexpr std::string_view datePattern = "0000/00/00  00:00:00:000 ";  // 0: a digit
constexpr std::size_t maximumEntry = 1U << 20;                         // bytes; what is longer is not for reading

bool BeginsWithDate(std::string_view line) {
    if (line.size() < datePattern.size()) return false;
    return std::equal(datePattern.begin(), datePattern.end(), line.begin(), [](char pattern, char given) {
        return pattern == '0' ? given >= '0' && given <= '9' : given == pattern;
    });
}

std::string_view WithoutBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// Parts of entries that come at every first start, at every start, or at every look for requests. docs/running.md
/// names them.
struct UsualEntry {
    std::string_view beginning;  // of the text behind the date; empty: anywhere
    std::string_view part;
    bool isAtEnd = false;  // nothing stands behind the part, as more digits of a number would
};
constexpr UsualEntry usualEntries[] = {
    // Settings that are absent and have a default.
    {"ReadDwordRegistryData: Error while reading DWORD value of ", " : 2", true},
    {"ReadDwordRegistryData: Error while opening registry key for ", " : 2", true},
    {"ReadRegSZ: Error while opening registry key for ", "serverName 2", true},
    {"getCSDetails() :: Not able to fetch the GetOCAgentKey", ""},
    {"getCSDetails() :: Not able to fetch the MasterAgent", ""},
    {"getCSDetails() :: Not able to fetch the KVServerProtocol", ""},
    {"getCSDetails :: Not able to fetch the KVAgentResourceID", ""},
    {"GetConfigInterval :: Not able to fetch", ""},
    {"GetWriteInterval :: Not able to fetch", ""},
    {"GetMaxFilesInDir :: Not able to fetch", ""},
    {"GetMaxFilestobeSend :: Not able to fetch", ""},
    {"GetSysInfoInterval :: Not able to fetch", ""},
    {"GetDataCollectionTimeout :: Not able to fetch", ""},
    {"RequestCentralServer() :: Not able to fetch the RequestAvailable", ""},
    // Directories that are still empty.
    {"DeleteDirectoryRecursively :: Invalid File Handle", ""},
    {"parseFiles -- ", "No files exist"},
    {"SendDetailstoCS :: No zip file exists", ""},
    {"LoadConfFiles :: No query conf file exists under slaves directory", ""},
    // What went well.
    {"Error code : 0,", ""},
    {"Error Code : 0", ""},
    {"", "retVal of InternetDownloadFile is [0]"},
    {"Inside RequestCentralServer :: Sleep for 30 seconds", ""},
    {"RequestCentralServer() :: ", "Going to set RequestAvailable flag as NO"},
    // Of every start on Linux.
    {"", "Problem in identifying the operating system"},
};

using Meaning = std::string (*)(std::uint32_t number);

/// Of an error number of the system or of the transport.
std::string ErrorMeaning(std::uint32_t number) {
    std::string meaning = TransactionFailure(number);
    return meaning.starts_with(' ') ? std::string() : meaning;  // the system does not know the number
}

/// Of what a request came to.
std::string RequestMeaning(std::uint32_t number) {
    return number == platform::error::invalidData ? "the server refused it, with the HTTP status told above"
                                                  : ErrorMeaning(number);
}

std::string StatusMeaning(std::uint32_t number) {
    constexpr std::pair<std::uint32_t, const char*> meanings[] = {
        {301, "moved; the settings name another address than the server's"},
        {302, "moved; the settings name another address than the server's"},
        {400, "the server does not understand the request"},
        {401, "the server wants credentials"},
        {403, "the server forbids it"},
        {404, "the server does not have this page; is it the right server and port?"},
        {405, "the server does not take this kind of request"},
        {407, "the proxy refuses the credentials"},
        {408, "the server waited too long for the request"},
        {411, "the server wants the length ahead"},
        {413, "too large for the server"},
        {429, "too many requests for the server"},
        {500, "the server failed"},
        {502, "a proxy or gateway got no good answer from the server"},
        {503, "the server is busy, or down for maintenance"},
        {504, "a proxy or gateway got no answer from the server in time"},
        {507, "the server has no room"},
    };
    for (const auto& [status, meaning] : meanings) {
        if (status == number) return meaning;
    }
    return number >= 500 ? "the server failed" : number >= 400 ? "the server refuses the request" : "";
}

std::string ExitMeaning(std::uint32_t number) {
    if (number == 126) return "of a shell: the command may not be executed";
    return number == 127 ? "of a shell: a command was not found" : "";
}

/// What stands before a number, and how that is explained.
struct NumberMark {
    std::string_view text;
    Meaning meaning;
};
constexpr NumberMark numberMarks[] = {
    {"retVal is [", RequestMeaning},
    {"retVal of InternetDownloadFile is [", RequestMeaning},
    {"InternetUploadBinaryFile. return value [", RequestMeaning},
    {"to server with error code [", RequestMeaning},
    {"Error is [", ErrorMeaning},
    {"Last error is [", ErrorMeaning},
    {"-> ", ErrorMeaning},
    {"while getting http status code ", ErrorMeaning},
    {"agent key. Error code : ", ErrorMeaning},
    {"with http status code ", StatusMeaning},
    {"with the http status code ", StatusMeaning},
    {"Error Code : ", ExitMeaning},
};

/// The number behind a mark; 0 when the entry does not have one, or tells a success.
std::uint32_t NumberBehind(std::string_view text, std::string_view mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos) return 0;
    std::uint32_t number = 0;
    const char* const begin = text.data() + at + mark.size();
    const auto [end, failure] = std::from_chars(begin, text.data() + text.size(), number);
    const bool isWhole = failure == std::errc() && (end == text.data() + text.size() || *end == ']' || *end == ' ');
    return isWhole ? number : 0;
}

/// The meaning of the first number of an entry that has one; empty when none does.
std::string NumberMeaning(std::string_view text) {
    for (const NumberMark& mark : numberMarks) {
        const std::uint32_t number = NumberBehind(text, mark.text);
        if (std::string meaning = number == 0 ? "" : mark.meaning(number); !meaning.empty()) return meaning;
    }
    return "";
}

}  // namespace

void LogEntries::Feed(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        line_ += bytes.substr(0, std::min(end, maximumEntry - std::min(line_.size(), maximumEntry)));
        if (end == std::string_view::npos) return;
        TakeLine(std::exchange(line_, {}));
        bytes.remove_prefix(end + 1);
    }
}

void LogEntries::Finish() {
    if (!line_.empty()) TakeLine(std::exchange(line_, {}));
    if (!entry_.empty()) take_(std::exchange(entry_, {}));
}

void LogEntries::TakeLine(std::string_view line) {
    const bool isNew = BeginsWithDate(line);
    const std::string_view text = WithoutBlanks(line);
    if (isNew && !entry_.empty()) take_(std::exchange(entry_, {}));
    if (text.empty()) return;
    if (!entry_.empty()) entry_ += " | ";
    if (entry_.size() + text.size() <= maximumEntry) entry_ += text;
}

bool IsUsual(std::string_view entry) {
    const std::string_view text =
        WithoutBlanks(BeginsWithDate(entry) ? entry.substr(datePattern.size()) : std::string_view());
    return std::any_of(std::begin(usualEntries), std::end(usualEntries), [text](const UsualEntry& usual) {
        return text.starts_with(usual.beginning) &&
               (usual.isAtEnd ? text.ends_with(usual.part) : text.find(usual.part) != std::string_view::npos);
    });
}

std::string ReadableEntry(std::string_view entry) {
    std::string readable(entry);
    if (BeginsWithDate(entry)) {
        constexpr std::size_t dateLength = 10;
        constexpr std::size_t timeLength = 12;
        const std::string_view text = WithoutBlanks(entry.substr(datePattern.size()));
        std::string time(entry.substr(dateLength + 2, timeLength));
        time[timeLength - 4] = '.';
        readable = std::string(entry.substr(0, dateLength)) + ' ' + time + ' ' + std::string(text);
    }
    if (const std::string meaning = NumberMeaning(readable); !meaning.empty()) readable += ": " + meaning;
    return commandline::InLine(readable);
}

}  // namespace kv::control
