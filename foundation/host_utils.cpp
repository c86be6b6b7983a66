#include "foundation/host_utils.h"
