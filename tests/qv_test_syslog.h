// Syslog capture for test programs: the library's syslog messages go to the
// file named by QV_TEST_SYSLOG, one "priority|message" line each, and
// nowhere without it. The test binary's vsyslog takes the place of libc's
// for the statically linked library. One test source per binary includes it.
#pragma once

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" void vsyslog(int priority, const char *fmt, va_list ap)
{
    const char *out = getenv("QV_TEST_SYSLOG");
    if (out == nullptr)
        return;
    char msg[4096];
    vsnprintf(msg, sizeof(msg), fmt, ap);
    if (FILE *f = fopen(out, "a")) {
        fprintf(f, "%d|%s\n", priority, msg);
        fclose(f);
    }
}
