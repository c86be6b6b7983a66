#include "platform/backend.h"
