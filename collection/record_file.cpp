#include "collection/record_file.h"
