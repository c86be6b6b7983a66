#include "platform/posix/wmi_classes/process_files.h"
