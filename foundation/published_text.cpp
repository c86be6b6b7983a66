#include "foundation/published_text.h"
