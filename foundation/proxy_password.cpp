#include "foundation/proxy_password.h"
