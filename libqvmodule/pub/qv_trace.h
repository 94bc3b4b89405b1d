/* Trace files: timestamped lines, size-based rotation, per-subsystem
 * trace-type bits, and syslog forwarding through the same entry point. */
#ifndef QV_TRACE_H
#define QV_TRACE_H

#include <stdio.h>
#include <sys/types.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

#define QV_TRACE_TIMER 0x2u
#define QV_TRACE_JOB 0x4u
#define QV_TRACE_SOCKET 0x8u
#define QV_TRACE_MODULE 0x10u
#define QV_TRACE_LIBEVENT 0x400u

typedef struct trace_file_s {
    FILE *trace_fileptr;
    char *trace_file;
    uint32_t trace_size;
    uint32_t trace_max_size;
    unsigned int trace_max_files;
    mode_t trace_perms;
    boolean trace_file_fs_full;
    uint32_t trace_mask;
} trace_file_t;

typedef struct trace_file_s trace_handle;

/* Opens (creating if needed) a trace file for appending; aborts when the
 * file cannot be opened. */
QV_EXPORT trace_file_t *trace_file_open(const char *file_name, uint32_t file_size,
                                        uint32_t file_count) QV_NOEXCEPT;
/* Closes the stream and frees the handle; null is ignored. */
QV_EXPORT void trace_file_close(trace_file_t *traceptr) QV_NOEXCEPT;
/* Writes one line to the file when do_log is true, and hands the same
 * message to syslog when syslog_level is not -1. */
QV_EXPORT void trace_cb(trace_file_t *traceptr, boolean do_log, int syslog_level, const char *fmt,
                        ...) QV_NOEXCEPT __attribute__((format(printf, 4, 5)));
QV_EXPORT void trace_type_enable(trace_file_t *traceptr, uint32_t trm_type) QV_NOEXCEPT;
QV_EXPORT void trace_type_disable(trace_file_t *traceptr, uint32_t trm_type) QV_NOEXCEPT;
/* True when any bit of trm_type is set. */
QV_EXPORT boolean trace_type_is_enabled(trace_file_t *traceptr, uint32_t trm_type) QV_NOEXCEPT;

QV_END_DECLS

#endif
