// What the sources of the HTTP transport share of WinHTTP: its handles, its errors, and what an answer's headers say.
//
// Callable from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "platform/owned_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <winhttp.h>

namespace platform {

/// The number of this thread's last failed call: WinHTTP's own, also where WinHTTP has passed on a socket's.
[[nodiscard]] Error LastHttpError();

/// The result of a call that says whether it has succeeded.
[[nodiscard]] inline Error HttpResultOf(BOOL succeeded) { return succeeded ? error::success : LastHttpError(); }

/// WinHTTP's own text of a failure (UTF-8), which may be empty.
[[nodiscard]] std::string FailureText(Error failure);

/// Ends the connection of a request that is about to be sent. On Windows closing the request does that, and this does
/// nothing; Wine goes on with the sending, so its socket is shut down.
void CutConnection(HINTERNET request);

/// A session, connection or request.
inline Error CloseInternetHandle(HINTERNET handle) { return HttpResultOf(::WinHttpCloseHandle(handle)); }
using InternetHandle = OwnedHandle<HINTERNET, CloseInternetHandle>;

Error SetNumber(HINTERNET handle, DWORD option, DWORD value);
Error SetText(HINTERNET handle, DWORD option, std::wstring text);

/// The text of a header of the request's answer; winHttpHeaderNotFound when it is absent. The query is WinHTTP's.
[[nodiscard]] Error QueryHeaderText(HINTERNET request, DWORD query, std::wstring& text);

/// The length that the answer declares for its body; winHttpInvalidServerResponse when it is not a number.
[[nodiscard]] Error QueryContentLength(HINTERNET request, std::uint64_t& length);

/// The answer's status.
[[nodiscard]] Error QueryStatus(HINTERNET request, DWORD& status);

}  // namespace platform
