#include "collection/collect.h"
