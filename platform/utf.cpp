#include "platform/utf.h"
