#include "exchange/http_answers.h"
