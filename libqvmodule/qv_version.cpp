// The version of the loaded library, and checks of how the library is built.
#include <sys/types.h>

#include "qv_version.h"

// Trace files may grow past 2 GiB on 32-bit targets as well.
static_assert(sizeof(off_t) == 8, "the library must be built with _FILE_OFFSET_BITS=64");

extern "C" QV_EXPORT const char *qv_version(void) noexcept
{
    return QV_VERSION_STRING;
}

extern "C" QV_EXPORT int qv_version_number(void) noexcept
{
    return QV_VERSION_NUMBER;
}
