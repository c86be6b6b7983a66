#include "platform/http.h"
