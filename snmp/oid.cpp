#include "snmp/oid.h"
