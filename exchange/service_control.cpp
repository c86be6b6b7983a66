#include "exchange/service_control.h"

namespace kv {}
