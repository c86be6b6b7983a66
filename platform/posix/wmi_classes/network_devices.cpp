#include "platform/posix/wmi_classes/network_devices.h"
