#include "agent/log_file.h"
