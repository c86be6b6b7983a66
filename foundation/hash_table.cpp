#include "foundation/hash_table.h"
