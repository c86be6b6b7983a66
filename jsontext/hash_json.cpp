#include "jsontext/hash_json.h"
