#include "queryconf/schedule.h"
