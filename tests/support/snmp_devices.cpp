#include "tests/support/snmp_devices.h"
