#include "snmp/asn.h"
