#include "platform/sockets.h"
