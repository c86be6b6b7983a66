#include "foundation/time_utils.h"
