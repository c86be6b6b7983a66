#include "agent/server_details.h"
