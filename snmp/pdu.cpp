#include "snmp/pdu.h"
