#include "exchange/request_dispatch.h"

namespace kv {

bool ParseRequestList(std::u16string_view /*fileName*/) { return true; }

}  // namespace kv
