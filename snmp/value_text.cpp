#include "snmp/value_text.h"
