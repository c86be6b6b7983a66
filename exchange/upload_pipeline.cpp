#include "exchange/upload_pipeline.h"
