#include "snmp/tk_vector.h"
