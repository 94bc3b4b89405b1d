#include "qv_assert.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "qv_daemon.h"

void qv::qv_assert_fail(const char *cond, const char *file, const char *func) noexcept
{
    const char *slash = strrchr(file, '/');
    const char *base = slash ? slash + 1 : file;
    /* A detached daemon's stderr is /dev/null: the trace file and syslog
     * are where an operator will look. */
    fprintf(stderr, "%s:%s: assertion \"%s\" failed\n", base, func, cond);
    trace_cb(trace_global, trace_global != nullptr, LOG_CRIT, "%s:%s: assertion \"%s\" failed",
             base, func, cond);
    abort();
}
