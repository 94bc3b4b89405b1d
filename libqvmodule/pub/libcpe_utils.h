/* String attributes: heap copies of texts that a module keeps in its
 * records, charged to the module's memory cookie. */
#ifndef QV_LIBCPE_UTILS_H
#define QV_LIBCPE_UTILS_H

#include "qv_defs.h"
#include "qv_daemon.h"

QV_BEGIN_DECLS

/* Makes *dest_str a copy of src_str (NULL for a NULL src_str), freeing the
 * string held before. An equal text keeps the allocation already held.
 * Copy and free an attribute through the same module tp: the memory is
 * charged to its cookie. A NULL dest_str does nothing. */
QV_EXPORT void libcpe_copy_string_attribute(qvmodule *tp, char **dest_str,
                                            const char *src_str) QV_NOEXCEPT;
/* Frees the held string, if any, and sets *dest_str to NULL. */
QV_EXPORT void libcpe_free_string_attribute(qvmodule *tp, char **dest_str) QV_NOEXCEPT;

/* Twelve bytes of scratch for applications; the library never touches
 * them. */
QV_EXPORT extern char __str[12];

QV_END_DECLS

#endif
