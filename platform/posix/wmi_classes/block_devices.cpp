#include "platform/posix/wmi_classes/block_devices.h"
