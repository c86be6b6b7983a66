#include "agent/main_thread.h"
