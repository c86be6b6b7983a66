#include "queryconf/timer.h"
