#include "http/server_probe.h"

#include "http/http_attempt.h"

namespace kv {

platform::Error ProbeServer(std::u16string_view address, std::int32_t port, std::uint32_t& status) {
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
    };
    if (const platform::Error failure = SendAndReceive(attempt)) return failure;
    return ReadStatus(attempt, status);
}

}  // namespace kv
