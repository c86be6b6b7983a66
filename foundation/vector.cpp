#include "foundation/vector.h"
