#include "foundation/thread_pool.h"
