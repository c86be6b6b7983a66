#include "queryconf/query_config.h"
