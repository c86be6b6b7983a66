#include "platform/process.h"
