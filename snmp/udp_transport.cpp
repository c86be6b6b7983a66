#include "snmp/udp_transport.h"
