#include "foundation/log.h"
