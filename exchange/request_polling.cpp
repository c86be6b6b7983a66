#include "exchange/request_polling.h"
