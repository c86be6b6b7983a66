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

/// The number of the last failed call of this thread, WinHTTP's own also where a socket's has come through it.
Error LastHttpError();

/// The result of a call that says whether it has succeeded.
inline Error HttpResultOf(BOOL succeeded) { return succeeded ? error::success : LastHttpError(); }

/// A session, connection or request.
inline Error CloseInternetHandle(HINTERNET handle) { return HttpResultOf(::WinHttpCloseHandle(handle)); }
using InternetHandle = OwnedHandle<HINTERNET, CloseInternetHandle>;

Error SetNumber(HINTERNET handle, DWORD option, DWORD value);
Error SetText(HINTERNET handle, DWORD option, std::wstring text);

/// The text of a header of the request's answer; winHttpHeaderNotFound where it has none. The query is WinHTTP's.
Error QueryHeaderText(HINTERNET request, DWORD query, std::wstring& text);

/// The length that the answer declares for its body; winHttpInvalidServerResponse when it is not a number.
Error QueryContentLength(HINTERNET request, std::uint64_t& length);

/// The answer's status.
Error QueryStatus(HINTERNET request, DWORD& status);

}  // namespace platform
