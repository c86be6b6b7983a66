#include "platform/posix/posix.h"
