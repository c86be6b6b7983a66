#include "platform/posix/wmi/cim_value.h"
