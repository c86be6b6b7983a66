#include "http/server_probe.h"

#include "foundation/text.h"
#include "http/http_attempt.h"
#include "platform/utf.h"

namespace kv {

namespace {

/// The value of the header Location in the raw headers of an answer; empty without one.
std::u16string_view LocationIn(std::u16string_view headers) {
    constexpr std::u16string_view name = u"Location:";
    while (!headers.empty()) {
        const std::size_t end = headers.find(u"\r\n");
        const std::u16string_view line = headers.substr(0, end);
        if (CompareIgnoreCase(line.substr(0, name.size()), name) == 0) {
            const std::size_t first = line.find_first_not_of(u" \t", name.size());
            return first == std::u16string_view::npos ? u"" : line.substr(first);
        }
        headers.remove_prefix(end == std::u16string_view::npos ? headers.size() : end + 2);
    }
    return u"";
}

}  // namespace

platform::Error ProbeServer(std::u16string_view address, std::int32_t port, ServerAnswer& answer) {
    const TransactionTarget target = TargetAt(address, port);
    HttpAttempt attempt{
        .routine = "ProbeServer",
        .target = target,
        .url = u"/",
        .verb = u"GET",
        .acceptTypes = u"*/*",
        .securityFlags =
            platform::ignoreUnknownAuthority | platform::ignoreInvalidCommonName | platform::ignoreInvalidDate,
        .limitConnectTime = true,
        .keepAlive = false,
        .restartReopensSession = true,
        .followsRedirects = false,
    };
    if (const platform::Error failure = SendAndReceive(attempt)) return failure;
    std::u16string headers;
    if (const platform::Error failure = ReadRawHeaders(attempt, headers)) return failure;
    std::uint32_t status = 0;
    if (const platform::Error failure = ReadStatus(attempt, status)) return failure;
    answer = {status, platform::Utf8FromWide(LocationIn(headers))};
    return platform::error::success;
}

}  // namespace kv
