#include "exchange/local_requests.h"

namespace kv {

void ExecWMIQuery(const HashTable*) {}

}  // namespace kv
