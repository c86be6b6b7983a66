#include "agent/service_admin.h"

#include "foundation/log.h"

namespace kv {

void Install() { Log1("Install :: Installing the service is not built yet\n"); }

void UnInstall() { Log1("UnInstall :: Removing the service is not built yet\n"); }

void StopService() { Log1("StopService :: Stopping the service is not built yet\n"); }

bool IsWin2kOS() { return false; }

}  // namespace kv
