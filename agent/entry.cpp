#include "agent/entry.h"
