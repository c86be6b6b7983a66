#include "foundation/file_utils.h"
