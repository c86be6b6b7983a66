#include <algorithm>

#include "platform/windows/win32.h"

namespace platform {

Error LastError() {
    const DWORD code = ::GetLastError();
    return code == error::success ? error::generalFailure : code;
}

std::wstring NativePathOf(std::u16string_view path) {
    std::wstring native = WideOf(path);
    std::replace(native.begin(), native.end(), L'\0', L'\xFFFD');
    return native;
}

}  // namespace platform
