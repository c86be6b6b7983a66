#include "http/http_answers.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "http/server_trust.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

struct ErrorLine {
    platform::Error code;
    const char* line;
};

/// In ascending order of the code.
constexpr ErrorLine errorLines[] = {
    {12001, "HttpGetLastError: No more handles could be generated at this time (Obsolete; no longer used.)\n"},
    {12002, "HttpGetLastError: The request has timed out.\n"},
    {12003, "HttpGetLastError: An extended error was returned from the server.\n"},
    {12004, "HttpGetLastError: An internal error has occurred.\n"},
    {12005, "HttpGetLastError: The URL is invalid.\n"},
    {12006,
     "HttpGetLastError: The URL scheme could not be recognized, or is not supported.(other than 'http:' or "
     "'https:'.)\n"},
    {12007, "HttpGetLastError: The server name could not be resolved.\n"},
    {12008, "HttpGetLastError: The requested protocol could not be located.\n"},
    {12009,
     "HttpGetLastError: A request to InternetQueryOption or InternetSetOption specified an invalid option value.\n"},
    {12010,
     "HttpGetLastError: The length of an option supplied to InternetQueryOption or InternetSetOption is incorrect for "
     "the type of option specified.\n"},
    {12011, "HttpGetLastError: The request option can not be set, only queried.\n "},
    {12012, "HttpGetLastError: The WinHTTP function support is being shutdown or unloaded.\n"},
    {12013,
     "HttpGetLastError: The request to connect and login to an FTP server could not be completed because the supplied "
     "user name is incorrect.\n"},
    {12014,
     "HttpGetLastError: The request to connect and login to an FTP server could not be completed because the supplied "
     "password is incorrect.\n"},
    {12015,
     "HttpGetLastError: The login attempt failed . A new request handle must be created before retrying the function "
     "that originally produced this error. \n"},
    {12016, "HttpGetLastError: The requested operation is invalid.\n"},
    {12017,
     "HttpGetLastError: The operation was canceled, usually because the handle on which the request was operating was "
     "closed before the operation completed.\n"},
    {12018, "HttpGetLastError: The type of handle supplied is incorrect for this operation.\n"},
    {12019,
     "HttpGetLastError: The requested operation can not be carried out because the handle supplied is not in the "
     "correct state.\n"},
    {12020, "HttpGetLastError: The request can not be made via a proxy.\n"},
    {12021, "HttpGetLastError: A required registry value could not be located.\n"},
    {12022,
     "HttpGetLastError: A required registry value was located but is an incorrect type or has an invalid value.\n"},
    {12023, "HttpGetLastError: Direct network access cannot be made at this time. \n"},
    {12024, "HttpGetLastError: An asynchronous request could not be made because a zero context value was supplied.\n"},
    {12025,
     "HttpGetLastError: An asynchronous request could not be made because a callback function has not been set.\n"},
    {12026,
     "HttpGetLastError: The required operation could not be completed because one or more requests are pending.\n"},
    {12027, "HttpGetLastError: The format of the request is invalid.\n"},
    {12028, "HttpGetLastError: The requested item could not be located.\n"},
    {12029, "HttpGetLastError: The attempt to connect to the server failed.\n"},
    {12030,
     "HttpGetLastError: The connection with the server has been terminated or an incompatible SSL protocol was "
     "encountered .\n"},
    {12031, "HttpGetLastError: The connection with the server has been reset.\n"},
    {12032,
     "HttpGetLastError: The WinHTTP function failed. The desired function can be retried on the same request handle "
     "\n"},
    {12033, "HttpGetLastError: The request to the proxy was invalid. \n"},
    {12034, "HttpGetLastError: Need UI\n"},
    {12035, "HttpGetLastError: Sec Cert Date Invalid\n"},
    {12036, "HttpGetLastError: The request failed because the handle already exists.\n"},
    {12037,
     "HttpGetLastError: SSL certificate date that was received from the server is bad. The certificate is expired. \n"},
    {12038,
     "HttpGetLastError: SSL certificate common name (host name field) is incorrect. For example, the certificate is "
     "for hub.example.net and the address asked for is www.example.net. \n"},
    {12039,
     "HttpGetLastError: The application is moving from a non-SSL to an SSL connection because of a redirect. \n"},
    {12040,
     "HttpGetLastError: The application is moving from an SSL to an non-SSL connection because of a redirect. \n"},
    {12041,
     "HttpGetLastError: Indicates that the content is not entirely secure. Some of the content being viewed may have "
     "come from unsecured servers. \n"},
    {12042,
     "HttpGetLastError: The application is posting and attempting to change multiple lines of text on a server that is "
     "not secure. \n"},
    {12043, "HttpGetLastError: The application is posting data to a server that is not secure. \n"},
    {12044, "HttpGetLastError: Client Auth Cert Needed\n"},
    {12045,
     "HttpGetLastError: Indicates that a certificate chain was processed, but terminated in a root certificate that is "
     "not trusted by the trust provider (equivalent to CERT_E_UNTRUSTEDROOT). \n"},
    {12046, "HttpGetLastError: Client Auth Not Setup\n"},
    {12057, "HttpGetLastError: requested operation cannot be performed before calling the Open method \n"},
    {12100, "HttpGetLastError: requested operation cannot be performed before calling the Send method \n"},
    {12101, "HttpGetLastError: Requested operation cannot be performed after calling the Send method. \n"},
    {12102, "HttpGetLastError: Option cannot be requested after the Open method has been called \n"},
    {12103, "HttpGetLastError: The requested header could not be located. \n"},
    {12150, "HttpGetLastError: The server did not return any headers. \n"},
    {12151, "HttpGetLastError: The server response could not be parsed. \n"},
    {12152, "HttpGetLastError: The supplied header is invalid. \n"},
    {12153, "HttpGetLastError: The request made to HttpQueryInfo is invalid. \n"},
    {12154, "HttpGetLastError: The header could not be added because it already exists. \n"},
    {12155,
     "HttpGetLastError: The redirection failed because either the scheme changed (for example, HTTP to FTP) or all "
     "attempts made to redirect failed (default is five attempts). \n"},
    {12156,
     "HttpGetLastError: Indicates that an error occurred having to do with a secure channel.The application "
     "experienced an internal error loading the SSL libraries\n"},
    {12157, "HttpGetLastError: The function was unable to cache the file\n"},
    {12158, "HttpGetLastError: TCP/IP not installed\n"},
    {12159,
     "HttpGetLastError: An error occurred executing the script code in the Proxy Auto-Configuration (PAC) file\n"},
    {12166,
     "HttpGetLastError: The PAC file cannot be downloaded. For example, the server referenced by the PAC URL may not "
     "have been reachable, or the server returned a 404 NOT FOUND response \n"},
    {12167,
     "HttpGetLastError:Indicates that a certificate is invalid (equivalent to errors such as CERT_E_ROLE, "
     "CERT_E_PATHLENCONST, CERT_E_CRITICAL, CERT_E_PURPOSE, CERT_E_ISSUERCHAINING, CERT_E_MALFORMED and "
     "CERT_E_CHAINING)."},
    {12169, "HttpGetLastError: Indicates that a certificate has been revoked (equivalent to CRYPT_E_REVOKED).\n"},
    {12170, "HttpGetLastError:Obsolete; no longer used.  \n"},
    {12172,
     "HttpGetLastError: One or more errors were found in the Secure Sockets Layer (SSL) certificate sent by the server "
     ".\n"},
    {12175, "HttpGetLastError: Proxy for the specified URL cannot be located\n"},
    {12178,
     "HttpGetLastError: Indicates that a certificate is not valid for the requested usage (equivalent to "
     "CERT_E_WRONG_USAGE).\n"},
    {12179, "HttpGetLastError: unable to discover the URL of the Proxy Auto-Configuration (PAC) file \n"},
    {12180, "HttpGetLastError: A larger number of headers were present in a response than WinHTTP could receive \n"},
    {12181, "HttpGetLastError: the size of headers received exceeds the limit for the request handle \n"},
    {12182, "HttpGetLastError:an overflow condition is encountered in the course of parsing chunked encoding  \n"},
    {12183,
     "HttpGetLastError: The WinHTTP function failed. The desired function can be retried on the same request handle "
     "\n"},
};

/// The first word after a header's name and blank, wherever in the text they are; null when they do not occur. A header
/// ends at its line feed.
std::optional<std::u16string_view> HeaderWord(std::u16string_view headers, std::u16string_view name) {
    constexpr std::u16string_view blanks = u" \t\r";
    const std::size_t start = SubString(headers, name);
    if (start == std::u16string_view::npos) return std::nullopt;
    std::u16string_view value = headers.substr(start + name.size());
    value = value.substr(0, value.find(u'\n'));
    value.remove_prefix(std::min(value.find_first_not_of(blanks), value.size()));
    return value.substr(0, value.find_first_of(blanks));
}

/// A number with an optional sign; 0 for anything else.
std::int32_t HeaderNumber(std::u16string_view word) {
    const std::string digits = platform::Utf8FromWide(word.starts_with(u'+') ? word.substr(1) : word);
    std::int32_t number = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == digits.data() + digits.size() ? number : 0;
}

void TakeTimeDifference(std::u16string_view headers) {
    const auto word = HeaderWord(headers, u"timeDiff: ");
    if (!word) {
        Log1("\t ParseHeader() :: SubString returned NULL for timeDiff\n");
        return;
    }
    agentState.gv_timeDiff = HeaderNumber(*word);
    Log1("\t ParseHeader() :: gv_timeDiff = [%u]\n", static_cast<std::uint32_t>(agentState.gv_timeDiff.load()));
}

/// The key becomes part of file names and URLs: only what can stand in both is taken.
bool IsAgentKey(std::u16string_view word) {
    constexpr std::size_t longestKey = 64;
    const bool isDotsOnly = word.find_first_not_of(u'.') == word.npos;  // the directory itself, or the one above
    return !isDotsOnly && word.size() <= longestKey && std::all_of(word.begin(), word.end(), [](char16_t c) {
        return c > u' ' && c < 0x7f && std::u16string_view(u"\\/:*?\"<>|&#%+").find(c) == std::u16string_view::npos;
    });
}

void TakeAgentKey(std::u16string_view headers) {
    const auto key = HeaderWord(headers, u"AgentKey: ");
    if (!key) return;
    if (!IsAgentKey(*key)) {
        Log1("\t ParseHeader() :: [%s] cannot be an agent key. gv_agentKey is not updated\n", *key);
        return;
    }
    if (*key != agentState.gv_agentKey.view()) {
        agentState.gv_agentKey.Publish(*key);
        Log1("\t ParseHeader() :: gv_agentKey = [%s]\n", *key);
    }
    // What counts is the stored key: an earlier answer's may have failed to be stored.
    OptionalText stored;
    if (GetOCAgentKey(stored) == platform::error::success && stored == *key) return;
    if (const platform::Error failure = SetOCAgentKey(*key)) {
        Log1("\t ParseHeader() :: Not able to store the agent key. Error code : %d\n", failure);
    }
}

void TakeRunFlag(std::u16string_view headers) {
    const auto flag = HeaderWord(headers, u"AgentRun: ");
    if (!flag) return;
    if (*flag != u"0" && *flag != u"1") {
        Log1("\t ParseHeader() :: AgentRun is [%s], neither 1 nor 0. gv_agentRunFlag is not updated\n", *flag);
        return;
    }
    agentState.gv_agentRunFlag = *flag == u"1" ? 1 : 0;
    Log1("\t ParseHeader() :: gv_agentRunFlag = [%s]\n", *flag);
}

void TakeSnmpTimeout(std::u16string_view headers) {
    const auto word = HeaderWord(headers, u"SNMPTimeout: ");
    if (!word) {
        Log1("\t WARNING!!!!!!!! ParseHeader() :: SubString returned NULL for SNMPTimeout\n");
        return;
    }
    constexpr std::size_t mostDigits = 9;  // so that the number fits 32 bits
    const auto isDigit = [](char16_t c) { return c >= u'0' && c <= u'9'; };
    if (word->size() > mostDigits || !std::all_of(word->begin(), word->end(), isDigit)) {
        Log1("\t ParseHeader() :: SNMPTimeout is [%s], not up to %d digits. gv_SNMPTimeout is not updated\n", *word,
             mostDigits);
        return;
    }
    agentState.gv_SNMPTimeout.Publish(*word);
    Log1("\t ParseHeader :: gv_SNMPTimeout is [%s]\n", agentState.gv_SNMPTimeout);
}

}  // namespace

void HttpGetLastError(platform::Error errorCode) {
    const auto* row = std::lower_bound(std::begin(errorLines), std::end(errorLines), errorCode,
                                       [](const ErrorLine& line, platform::Error code) { return line.code < code; });
    if (row != std::end(errorLines) && row->code == errorCode) {
        Log1(row->line);
    } else {
        LogLastSystemError(errorCode);
    }
}

std::string TransactionFailure(platform::Error errorCode) {
    constexpr std::pair<platform::Error, const char*> words[] = {
        {407, "the proxy refuses the credentials"},
        {platform::error::winHttpTimeout, "no answer in time"},
        {platform::error::winHttpNameNotResolved, "the name of the server or the proxy is not known"},
        {platform::error::winHttpCannotConnect, "no connection; nobody listens there, or a firewall is in between"},
        {platform::error::winHttpConnectionError, "the connection was closed"},
        {platform::error::winHttpSecureChannelError, "TLS failed; is it a TLS port?"},
        {platform::error::winHttpSecureFailure, "the server's certificate was refused"},
    };
    const std::string reason =
        errorCode == platform::error::winHttpSecureFailure ? ReasonToSendNothing(agentState.gv_httpsEnabled != 0) : "";
    if (!reason.empty()) return LogText("nothing is sent: %s (error %d)", reason, errorCode);
    for (const auto& [code, text] : words) {
        if (code == errorCode) return LogText("%s (error %d)", text, errorCode);
    }
    return LogText("%s (error %d)", platform::MessageInLine(errorCode), errorCode);
}

std::u16string_view PathOfUrl(std::u16string_view url) { return url.substr(0, url.find(u'?')); }

int ParseHeader(std::optional<std::u16string_view> headerBuffer) {
    Log3("\t Inside ParseHeader() \n");
    if (!headerBuffer) {
        Log1("\t ParseHeader() :: headerbuff is NULL\n");
        return 0;
    }
    TakeTimeDifference(*headerBuffer);
    TakeAgentKey(*headerBuffer);
    TakeRunFlag(*headerBuffer);
    TakeSnmpTimeout(*headerBuffer);
    return 1;
}

}  // namespace kv
