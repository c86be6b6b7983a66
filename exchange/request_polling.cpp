#include "exchange/request_polling.h"

#include "foundation/log.h"

namespace kv {

std::uint32_t RequestCentralServer(void*) {
    Log1("\t RequestCentralServer :: Request polling is not built yet\n");
    return 0;
}

}  // namespace kv
