#include "foundation/text.h"
