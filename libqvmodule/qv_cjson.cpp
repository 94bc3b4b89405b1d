#include "qv_cjson.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" QV_EXPORT cJSON *cJSON_AddStringToObject_fmt(cJSON *object, const char *name,
                                                        const char *format, ...) noexcept
{
    va_list ap;
    va_start(ap, format);
    char *text = nullptr;
    int n = vasprintf(&text, format, ap);
    va_end(ap);
    if (n < 0)
        return nullptr;
    cJSON *item = cJSON_AddStringToObject(object, name, text);
    free(text);
    return item;
}
