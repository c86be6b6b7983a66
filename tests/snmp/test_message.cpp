#include "snmp/message.h"
