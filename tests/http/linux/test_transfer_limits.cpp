// When each limit of a transfer runs out.
#include <gtest/gtest.h>
#include <tuple>
#include <vector>

#include "platform/linux/http_transfer_limits.h"

namespace platform::test {
namespace {

using namespace std::chrono_literals;
using Stage = HttpTransferLimits::Stage;

/// What a transfer notes after a time of silence.
struct Sign {
    std::chrono::milliseconds after;
    char what;  // 'w' a wait begins, 'c' still connecting, 's' bytes sent, 'h' a header line, 'b' bytes of the body
    std::int64_t bytes = 1;
};

TEST(HttpTransferLimits, CountFromTheLastSignOfProgress) {
    const std::vector<Sign> aByteInTime(12, Sign{29s, 'b', 85}), headersInTime(4, Sign{20s, 'h'});
    const std::tuple<const char*, Stage, std::vector<Sign>, std::chrono::milliseconds> rows[] = {
        {"silence while sending", Stage::send, {{5s, 's'}, {3s, 'w'}}, 10s},
        {"received bytes do not count while sending", Stage::send, {{9s, 'h'}}, 1s},
        {"silence after the request", Stage::headers, {{31s, 'w'}}, 30s},
        {"a header line now and then", Stage::headers, headersInTime, 10s},
        {"the limit on headers ends with them", Stage::body, headersInTime, 30s},
        {"out of time", Stage::send, {{11s, 'h'}}, -1s},
        {"connecting does not count", Stage::send, {{301s, 'c'}}, 10s},
        {"the pace counts from the connection", Stage::body, {{200s, 'c'}, {280s, 'b', 1023}}, 20s},
        {"too slow a body", Stage::body, {{200s, 'b'}, {95s, 'b', 1022}}, 5s},
        {"just fast enough", Stage::body, {{200s, 'b'}, {95s, 'b', 1023}}, 30s},
        {"a byte now and then is too slow", Stage::body, aByteInTime, -48s},
        {"sent bytes count for the pace", Stage::send, {{295s, 's', 1024}}, 10s},
    };
    for (const auto& [title, stage, signs, left] : rows) {
        HttpTransferLimits::TimePoint now{100h};
        HttpTransferLimits limits(10s, 30s, now);
        for (const Sign& sign : signs) {
            now += sign.after;
            if (sign.what == 'w') limits.BeginWait(now);
            if (sign.what == 'c') limits.NoteConnecting(now);
            if (sign.what == 's') limits.NoteSent(sign.bytes, now);
            if (sign.what == 'h') limits.NoteHeader(now);
            if (sign.what == 'b') limits.NoteBody(sign.bytes, now);
        }
        EXPECT_EQ(limits.TimeLeft(stage, now), left) << title;
    }
    const HttpTransferLimits limits(1ms, 1ms, HttpTransferLimits::TimePoint{});
    EXPECT_EQ(limits.TimeLeft(Stage::send, HttpTransferLimits::TimePoint{1us}), 1ms) << "rounded up";
}

}  // namespace
}  // namespace platform::test
