// Trace files: one timestamped line per message, size-based rotation into
// numbered files, a file-system-full state that drops lines until there is
// room again, and syslog forwarding from the same entry point.

#include <errno.h>
#include <fcntl.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "qv_assert.h"
#include "qv_daemon.h"
#include "qv_trace_private.h"

int (*qv::qv_trace_fputs_fn)(const char *s, FILE *fp) = fputs;
int (*qv::qv_trace_statfs_fn)(const char *path, struct statfs *buf) = statfs;
void (*qv::qv_trace_vsyslog_fn)(int priority, const char *fmt, va_list ap) = vsyslog;

namespace
{

constexpr int kBudget = QV_TRACE_LINE_BUF - 1;
constexpr char kRotating[] = "Rotating trace files\n";

// Whether the file system has room for len bytes again, leaving the full
// state when it has.
bool fs_has_room(trace_file_t *tf, size_t len)
{
    struct statfs sfs;
    if (qv_trace_statfs_fn(tf->trace_file, &sfs) != 0)
        return false;
    uint64_t room = static_cast<uint64_t>(sfs.f_bavail) * static_cast<uint64_t>(sfs.f_bsize);
    if (len > room)
        return false;
    tf->trace_file_fs_full = FALSE;
    return true;
}

bool write_line(trace_file_t *tf, const char *line, size_t len)
{
    if (tf->trace_file_fs_full && !fs_has_room(tf, len))
        return false;
    if (static_cast<uint64_t>(tf->trace_size) + len > tf->trace_max_size)
        trace_rotate(tf);
    if (qv_trace_fputs_fn(line, tf->trace_fileptr) == EOF) {
        int err = errno;
        // The line is lost: keep stdio from retrying it ahead of later ones.
        __fpurge(tf->trace_fileptr);
        clearerr(tf->trace_fileptr);
        if (err == ENOSPC)
            tf->trace_file_fs_full = TRUE;
        return false;
    }
    tf->trace_size += static_cast<uint32_t>(len);
    return true;
}

} // namespace

FILE *qv::trace_file_open_internal(const char *file_name, int perms) noexcept
{
    // Without O_NONBLOCK, a FIFO at the path would block the open until a
    // reader came; only a regular file is taken, in blocking mode.
    int fd = open(file_name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, perms);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        fcntl(fd, F_SETFL, O_WRONLY | O_APPEND) != 0) {
        close(fd);
        return nullptr;
    }
    FILE *fp = fdopen(fd, "a");
    if (fp == nullptr) {
        close(fd);
        return nullptr;
    }
    setlinebuf(fp);
    return fp;
}

void qv::trace_file_close_internal(trace_file_t *traceptr) noexcept
{
    if (traceptr == nullptr || traceptr->trace_fileptr == nullptr)
        return;
    fclose(traceptr->trace_fileptr);
    traceptr->trace_fileptr = nullptr;
}

void qv::rotate_log(const char *log_file, unsigned int max_files) noexcept
{
    char target[4101];
    char source[4101];
    int i = static_cast<int>(max_files) - 2;
    if (i >= 0) {
        snprintf(target, sizeof(target), "%s.%d", log_file, i);
        unlink(target);
    }
    for (; i >= 0; i--) {
        snprintf(target, sizeof(target), "%s.%d", log_file, i);
        if (i == 0)
            snprintf(source, sizeof(source), "%s", log_file);
        else
            snprintf(source, sizeof(source), "%s.%d", log_file, i - 1);
        struct stat st;
        if (stat(source, &st) == 0)
            rename(source, target);
    }
}

void qv::trace_rotate(trace_file_t *traceptr) noexcept
{
    if (traceptr->trace_fileptr != nullptr)
        fputs(kRotating, traceptr->trace_fileptr);
    trace_file_close_internal(traceptr);
    rotate_log(traceptr->trace_file, traceptr->trace_max_files);
    traceptr->trace_size = 0;
    traceptr->trace_fileptr = trace_file_open_internal(traceptr->trace_file, traceptr->trace_perms);
    QV_ASSERT(traceptr->trace_fileptr);
}

char *qv::trace_msg(trace_file_t *traceptr, char *trace_buffer, int *msg_len, const char *fmt,
                    va_list ap) noexcept
{
    if (traceptr == nullptr || traceptr->trace_fileptr == nullptr)
        return nullptr;

    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    char when[32];
    ctime_r(&ts.tv_sec, when);
    const char *prog = qv_daemon_get_progname();

    // The prefix is cut short of the budget so that a newline always fits.
    int n =
        snprintf(trace_buffer, kBudget - 1, "%.15s.%06d %s [%s]  ", when + 4,
                 static_cast<int>(ts.tv_nsec / 1000), qv_daemon_get_hostname(), prog ? prog : "");
    n = std::clamp(n, 0, kBudget - 2);
    int m = vsnprintf(trace_buffer + n, kBudget - n, fmt, ap);
    int len = n + std::clamp(m, 0, kBudget - n - 1);
    if (len == 0 || trace_buffer[len - 1] != '\n')
        trace_buffer[len++] = '\n';
    trace_buffer[len] = '\0';
    *msg_len = len;

    return write_line(traceptr, trace_buffer, static_cast<size_t>(len)) ? trace_buffer : nullptr;
}

extern "C" QV_EXPORT trace_file_t *trace_file_open(const char *file_name, uint32_t file_size,
                                                   uint32_t file_count) noexcept
{
    QV_ASSERT(file_name);
    struct stat st;
    uint32_t size = 0;
    mode_t mode = 0666;
    if (stat(file_name, &st) == 0) {
        if (!(st.st_mode & S_IFREG))
            QV_ASSERT(0);
        size = static_cast<uint32_t>(st.st_size);
        mode = st.st_mode & 07777;
    }
    auto *traceptr = static_cast<trace_file_t *>(calloc(1, sizeof(trace_file_t)));
    QV_ASSERT(traceptr);
    traceptr->trace_file = strdup(file_name);
    QV_ASSERT(traceptr->trace_file);
    traceptr->trace_perms = mode;
    traceptr->trace_size = size;
    traceptr->trace_max_size = file_size;
    traceptr->trace_max_files = file_count;
    traceptr->trace_file_fs_full = FALSE;
    traceptr->trace_fileptr = trace_file_open_internal(file_name, static_cast<int>(mode));
    QV_ASSERT(traceptr->trace_fileptr);
    return traceptr;
}

extern "C" QV_EXPORT void trace_file_close(trace_file_t *traceptr) noexcept
{
    if (traceptr == nullptr)
        return;
    trace_file_close_internal(traceptr);
    free(traceptr->trace_file);
    free(traceptr);
}

extern "C" QV_EXPORT void trace_cb(trace_file_t *traceptr, boolean do_log, int syslog_level,
                                   const char *fmt, ...) noexcept
{
    va_list ap;
    if (do_log && traceptr != nullptr) {
        char line[QV_TRACE_LINE_BUF];
        int len;
        va_start(ap, fmt);
        trace_msg(traceptr, line, &len, fmt, ap);
        va_end(ap);
    }
    if (syslog_level != -1) {
        va_start(ap, fmt);
        qv_trace_vsyslog_fn(syslog_level, fmt, ap);
        va_end(ap);
    }
}

// A null handle is treated as one with every bit clear, so that code that
// traces can run before start-up has opened the trace file.
extern "C" QV_EXPORT void trace_type_enable(trace_file_t *traceptr, uint32_t trm_type) noexcept
{
    if (traceptr != nullptr)
        traceptr->trace_mask |= trm_type;
}

extern "C" QV_EXPORT void trace_type_disable(trace_file_t *traceptr, uint32_t trm_type) noexcept
{
    if (traceptr != nullptr)
        traceptr->trace_mask &= ~trm_type;
}

extern "C" QV_EXPORT boolean trace_type_is_enabled(trace_file_t *traceptr,
                                                   uint32_t trm_type) noexcept
{
    return traceptr != nullptr && (traceptr->trace_mask & trm_type) != 0;
}
