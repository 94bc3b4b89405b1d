/* The one formatting helper the library adds beside cJSON. */
#ifndef QV_CJSON_H
#define QV_CJSON_H

#include <cjson/cJSON.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

/* Formats its arguments as printf does and adds the text to object as a
 * string member called name; returns the new member, or null. */
QV_EXPORT cJSON *cJSON_AddStringToObject_fmt(cJSON *object, const char *name, const char *format,
                                             ...) QV_NOEXCEPT __attribute__((format(printf, 3, 4)));

QV_END_DECLS

#endif
