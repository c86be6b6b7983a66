#include "agent/service.h"

#include "foundation/log.h"

namespace kv {

void ServiceMain() { Log1("ServiceMain :: Running under a service manager is not built yet\n"); }

void Install() { Log1("Install :: Installing the service is not built yet\n"); }

void UnInstall() { Log1("UnInstall :: Removing the service is not built yet\n"); }

void StopService() { Log1("StopService :: Stopping the service is not built yet\n"); }

}  // namespace kv
