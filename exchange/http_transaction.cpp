#include "exchange/http_transaction.h"
