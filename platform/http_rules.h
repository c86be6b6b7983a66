// What every backend of the HTTP transport goes by: the text of a URL, which redirects are followed, and the limits
// that no option changes. For platform/, and for who follows redirects one by one; callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

/// Percent-encodes, as UTF-8, what a request line cannot carry: blanks, control characters, everything beyond ASCII,
/// the characters "<>\^`{|} and #, and a "%" that begins no escape. All else stays, escapes included, so that the
/// server decodes to the text that was given.
std::string EncodeUrlText(std::u16string_view text);

/// Whether a text can be the host of a URL: a name or an address, without any of the characters that would end it
/// there.
bool IsHostName(std::u16string_view server);

/// Whether a text can be one header line: a name, a colon and more, without a line end or a zero character.
bool IsHeaderLine(std::u16string_view header);

/// Whether a list of proxies has more in it than separators.
bool NamesProxy(std::u16string_view list);

/// Whether an answer with this status is a redirect that is followed. A POST is only when the status asks for its body
/// again: it would become a GET otherwise, which is answered while the data is lost.
bool IsFollowedRedirect(std::uint32_t status, bool post);

/// Redirects that one request follows, as WinHTTP does by default.
inline constexpr int maxRedirects = 10;

/// From the last byte of the request to the last header of the answer. A server sends its headers in one go: after the
/// longest silence allowed by default there is a minute for them, and no peer holds a thread with a line now and then.
inline constexpr std::chrono::seconds httpHeaderLimit{90};

/// A transfer of fewer bytes than this within this time is given up. The slowest modem line carries a hundred times as
/// much.
inline constexpr std::int64_t slowestPaceBytes = 1024;
inline constexpr std::chrono::minutes slowestPaceTime{5};

/// Holds a transfer to that pace: counts its bytes from a moment on, and begins again when they are enough.
class HttpPace {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit HttpPace(TimePoint start) : start_(start) {}

    void Count(std::int64_t bytes, TimePoint now);

    /// When the pace is lost, unless enough bytes are counted by then.
    TimePoint end() const { return start_ + slowestPaceTime; }

  private:
    TimePoint start_;
    std::int64_t bytes_ = 0;
};

}  // namespace platform
