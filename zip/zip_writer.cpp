#include "zip/zip_writer.h"
