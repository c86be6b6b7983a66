#include "platform/threads.h"
