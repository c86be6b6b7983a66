#include "platform/files.h"
