#include "snmp/snmp_manager.h"
