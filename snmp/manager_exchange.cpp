#include "snmp/manager_operations.h"
