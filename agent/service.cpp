#include "agent/service.h"

#include "foundation/log.h"

namespace kv {

void ServiceMain() { Log1("ServiceMain :: Running under a service manager is not built yet\n"); }

}  // namespace kv
