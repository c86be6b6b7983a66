#include "platform/messages.h"
