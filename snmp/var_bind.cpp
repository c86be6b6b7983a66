#include "snmp/var_bind.h"
