#include "platform/crypto.h"
