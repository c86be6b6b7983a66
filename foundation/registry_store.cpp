#include "foundation/registry_store.h"
