#include "platform/service_host.h"
