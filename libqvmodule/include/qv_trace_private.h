/* Trace internals, reachable by tests. */
#ifndef QV_TRACE_PRIVATE_H
#define QV_TRACE_PRIVATE_H

#include <stdarg.h>
#include <stdio.h>
#include <sys/vfs.h>

#include "qv_trace.h"

/* A line is built in one buffer of this size; a line is at most one byte
 * shorter, its terminating zero excluded. */
#define QV_TRACE_LINE_BUF 2048

namespace qv
{

FILE *trace_file_open_internal(const char *file_name, int perms) noexcept;
void trace_file_close_internal(trace_file_t *traceptr) noexcept;
char *trace_msg(trace_file_t *traceptr, char *trace_buffer, int *msg_len, const char *fmt,
                va_list ap) noexcept;
void rotate_log(const char *log_file, unsigned int max_files) noexcept;
void trace_rotate(trace_file_t *traceptr) noexcept;

/* The two file-system calls whose failures the full state depends on;
 * tests replace them to simulate a full disk. */
extern int (*qv_trace_fputs_fn)(const char *s, FILE *fp);
extern int (*qv_trace_statfs_fn)(const char *path, struct statfs *buf);
/* Where trace_cb hands messages for syslog; tests read them from here. */
extern void (*qv_trace_vsyslog_fn)(int priority, const char *fmt, va_list ap);

} // namespace qv

using namespace qv;

#endif
