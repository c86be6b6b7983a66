#include "platform/posix/wmi_classes/mounts.h"
