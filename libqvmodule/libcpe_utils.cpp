// String attributes kept as charged heap copies. An unchanged text keeps
// its allocation, so that callers may refresh attributes on every
// configuration pass without churning the heap or the cookie counters.

#include <string.h>

#include "libcpe_utils.h"
#include "qv_memory.h"

extern "C" {
QV_EXPORT char __str[12];
}

extern "C" QV_EXPORT void libcpe_copy_string_attribute(qvmodule *tp, char **dest_str,
                                                       const char *src_str) noexcept
{
    if (dest_str == nullptr)
        return;
    if (*dest_str != nullptr && src_str != nullptr && strcmp(*dest_str, src_str) == 0)
        return;
    libcpe_free_string_attribute(tp, dest_str);
    // A NULL source yields NULL and is counted as a call on the cookie.
    *dest_str = qvmodule_mem_strdup(tp, src_str);
}

extern "C" QV_EXPORT void libcpe_free_string_attribute(qvmodule *tp, char **dest_str) noexcept
{
    if (dest_str == nullptr || *dest_str == nullptr)
        return;
    qvmodule_mem_free(tp, *dest_str);
    *dest_str = nullptr;
}
