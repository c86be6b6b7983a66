#include "platform/posix/wmi_classes/smbios.h"
