// What the sources of the HTTP transport share of WinHTTP: its handles, its errors, and what an answer's headers say.
//
// Callable from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <winhttp.h>

namespace platform {

/// The number of the last failed call of this thread, WinHTTP's own also where a socket's has come through it.
Error LastHttpError();

/// The result of a call that says whether it has succeeded.
inline Error HttpResultOf(BOOL succeeded) { return succeeded ? error::success : LastHttpError(); }

/// Owns a session, connection or request; may be null.
class InternetHandle {
  public:
    InternetHandle() = default;
    explicit InternetHandle(HINTERNET handle) : handle_(handle) {}
    InternetHandle(InternetHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    InternetHandle& operator=(InternetHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~InternetHandle() { Close(); }

    explicit operator bool() const { return handle_ != nullptr; }
    HINTERNET Get() const { return handle_; }

    Error Close() {
        HINTERNET closed = std::exchange(handle_, nullptr);
        return closed == nullptr ? error::success : HttpResultOf(::WinHttpCloseHandle(closed));
    }

  private:
    HINTERNET handle_ = nullptr;
};

Error SetNumber(HINTERNET handle, DWORD option, DWORD value);
Error SetText(HINTERNET handle, DWORD option, std::wstring text);

/// The text of a header of the request's answer; winHttpHeaderNotFound where it has none. The query is WinHTTP's.
Error QueryHeaderText(HINTERNET request, DWORD query, std::wstring& text);

/// The length that the answer declares for its body; winHttpInvalidServerResponse when it is not a number.
Error QueryContentLength(HINTERNET request, std::uint64_t& length);

/// The answer's status.
Error QueryStatus(HINTERNET request, DWORD& status);

}  // namespace platform
