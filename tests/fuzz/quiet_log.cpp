// The fuzz targets are the host: its log function drops the library's lines.
#include "common/internal.h"

extern "C" void swLogWrite(int, int, const char *, int, const char *, ...) {}
