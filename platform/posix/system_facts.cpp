#include "platform/system_facts.h"
