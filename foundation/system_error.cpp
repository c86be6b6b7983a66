#include "foundation/system_error.h"
