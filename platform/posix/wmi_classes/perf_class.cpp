#include "platform/posix/wmi_classes/perf_class.h"
