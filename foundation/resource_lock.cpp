#include "foundation/resource_lock.h"
