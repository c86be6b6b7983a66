#include "http/server_certificate.h"

#include <chrono>
#include <fmt/format.h>

#include "http/http_attempt.h"
#include "http/server_trust.h"

namespace kv {

platform::Error FetchServerCertificate(std::u16string_view address, std::int32_t port, ServerCertificate& certificate,
                                       std::string& reason) {
    TransactionTarget target = TargetAt(address, port);
    target.secure = true;
    HttpAttempt attempt{
        .routine = "FetchServerCertificate",
        .target = target,
        .url = u"/",
        .verb = u"GET",
        .acceptTypes = {},
        .securityFlags = platform::ignoreUnknownAuthority | platform::ignoreInvalidCommonName |
                         platform::ignoreInvalidDate | platform::ignoreWrongUsage,
        .limitConnectTime = true,
        .keepAlive = false,
        .restartReopensSession = false,
    };
    attempt.trust.systemAuthorities = true;
    platform::HttpPresentedCertificate presented;
    platform::Error result = LookAtCertificate(attempt, presented, reason);
    if (result == platform::error::success) {
        result = platform::Http().ReadCertificate(presented.der, certificate.certificate);
    }
    certificate.server = presented.server;
    certificate.keyProblem = presented.keyProblem;
    certificate.caFileProblem = presented.authoritiesProblem;
    certificate.systemProblem = presented.systemProblem;
    if (result != platform::error::success) reason = FailureReason(result, reason);
    return result;
}

std::string UtcText(std::int64_t seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} UTC", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), clock.hours().count(),
                       clock.minutes().count(), clock.seconds().count());
}

}  // namespace kv
