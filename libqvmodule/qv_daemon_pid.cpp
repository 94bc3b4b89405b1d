// Daemonizing and the pid lock file: the double fork that detaches a daemon
// from its terminal and session, and the flock-ed file that lets one copy
// of a daemon run at a time.
//
// Every pid-file message goes to syslog only, at LOG_ERR.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "qv_daemon_private.h"

int qv::daemon_pid_fd = -1;

namespace
{

constexpr size_t kPathMax = 4096;
constexpr size_t kPidTextMax = 2048;
constexpr int kLockAttempts = 8;

// The path the lock was taken at, made absolute: start-up changes the
// working directory afterwards, and quit must remove the same file.
char pid_path[kPathMax];

// Forks; the parent leaves at once with _exit, so that stdio buffers and
// atexit handlers are left to the process that goes on.
void fork_and_leave_parent()
{
    pid_t pid = fork();
    if (pid < 0) {
        perror("qv_daemon_daemonize: fork");
        exit(1);
    }
    if (pid > 0)
        _exit(0);
}

int qv_daemon_nullify_file(int f, int fd)
{
    int nfd = open("/dev/null", f);
    if (nfd < 0)
        return -1;
    if (nfd == fd)
        return fd;
    int res = dup2(nfd, fd);
    close(nfd);
    return res < 0 ? -1 : fd;
}

// "%%" stands for "%"; any other "%" is kept as written. The text is never
// used as a printf format, so a stray conversion reads nothing.
void qv_daemon_format_pid_filename(char *buf, size_t len)
{
    std::string_view in = daemon_app_ctx->pid_filename;
    size_t n = 0;
    for (size_t i = 0; i < in.size() && n + 1 < len; i++) {
        buf[n++] = in[i];
        if (in[i] == '%' && i + 1 < in.size() && in[i + 1] == '%')
            i++;
    }
    buf[n] = '\0';
}

[[noreturn]] void refuse_open(const char *path, int err)
{
    trace_cb(trace_global, FALSE, LOG_ERR, "Unable to open %s: errno:%d", path, err);
    errno = err;
    exit(0);
}

void form_pid_path()
{
    char formed[kPathMax];
    qv_daemon_format_pid_filename(formed, sizeof(formed));
    if (formed[0] == '/') {
        memcpy(pid_path, formed, sizeof(formed));
        return;
    }
    char cwd[kPathMax];
    if (getcwd(cwd, sizeof(cwd)) == nullptr)
        refuse_open(formed, errno);
    int n = snprintf(pid_path, sizeof(pid_path), "%s/%s", cwd, formed);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(pid_path))
        refuse_open(formed, ENAMETOOLONG);
}

// Whether the path still names the file open at fd: another copy may have
// removed it, or a new file taken its place.
bool names_file(const char *filename, int fd)
{
    struct stat open_st, path_st;
    return fstat(fd, &open_st) == 0 && lstat(filename, &path_st) == 0 &&
           open_st.st_dev == path_st.st_dev && open_st.st_ino == path_st.st_ino;
}

void report_lock_holder(int fd, const char *filename, int err)
{
    char text[kPidTextMax + 1];
    ssize_t n = pread(fd, text, kPidTextMax, 0);
    text[std::max<ssize_t>(n, 0)] = '\0';
    long pid = std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX);
    if (n > 0 && pid != 0)
        trace_cb(trace_global, FALSE, LOG_ERR,
                 "Unable to obtain a lock on %s, %s[%d] is still running: errno:%d", filename,
                 progname, static_cast<int>(pid), err);
    else
        trace_cb(trace_global, FALSE, LOG_ERR,
                 "Unable to obtain a lock on %s, is another copy of running?: errno:%d", filename,
                 err);
}

// Close-on-exec, so that a program the daemon runs does not keep the lock
// alive; never through a symbolic link planted at the path.
int qv_daemon_lockfile_open(const char *filename)
{
    for (int attempt = 1;; attempt++) {
        int fd = open(filename, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0)
            refuse_open(filename, errno);
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            // Removed by a copy on its way out between our open and lock:
            // lock the file that the path names now, but never spin.
            if (names_file(filename, fd) || attempt == kLockAttempts)
                return fd;
            close(fd);
            continue;
        }
        int err = errno;
        if (err != EWOULDBLOCK)
            trace_cb(trace_global, FALSE, LOG_ERR, "flock(%s, LOCK_EX): errno:%d", filename, err);
        else
            report_lock_holder(fd, filename, err);
        errno = 0;
        close(fd);
        exit(0);
    }
}

void qv_daemon_lockfile_writepid(int lock_fd)
{
    char text[kPidTextMax];
    int len = snprintf(text, sizeof(text), "%d\n", daemon_pid);
    if (lseek(lock_fd, 0, SEEK_SET) < 0 || ftruncate(lock_fd, 0) < 0 ||
        write(lock_fd, text, len) != len) {
        int err = errno;
        trace_cb(trace_global, FALSE, LOG_ERR, "Unable to write to fd %d: errno:%d err:%s", lock_fd,
                 err, strerror(err));
        exit(0);
    }
}

// The file goes before its lock does, so a new copy can only lock a file
// of its own, never one about to be removed. Only the daemon whose pid the
// file holds removes it: a forked child just drops its descriptor.
void qv_daemon_lockfile_close(int lock_fd, const char *filename)
{
    if (lock_fd < 0)
        return;
    int err = 0;
    if (getpid() == daemon_pid && names_file(filename, lock_fd) && unlink(filename) != 0)
        err = errno;
    if (close(lock_fd) != 0 && err == 0)
        err = errno;
    if (err != 0)
        trace_cb(trace_global, FALSE, LOG_ERR, "Unable to close and remove %s: errno:%d", filename,
                 err);
}

} // namespace

void qv::qv_daemon_daemonize() noexcept
{
    for (int sig : {SIGTTOU, SIGTTIN, SIGTSTP})
        qvmodule_signal_ignore(sig);
    // What the program wrote so far leaves once, before the copies do.
    fflush(nullptr);
    fork_and_leave_parent();
    if (setsid() < 0) {
        perror("qv_daemon_daemonize: setsid");
        exit(1);
    }
    fork_and_leave_parent();
    if (qv_daemon_nullify_file(O_RDONLY, 0) < 0 || qv_daemon_nullify_file(O_WRONLY, 1) < 0 ||
        qv_daemon_nullify_file(O_WRONLY, 2) < 0)
        exit(1);
}

void qv::qv_daemon_pid_open() noexcept
{
    if (daemon_app_ctx->pid_filename == nullptr)
        return;
    form_pid_path();
    daemon_pid_fd = qv_daemon_lockfile_open(pid_path);
    qv_daemon_lockfile_writepid(daemon_pid_fd);
}

extern "C" QV_EXPORT void qv_daemon_pid_close(void) noexcept
{
    qv_daemon_lockfile_close(daemon_pid_fd, pid_path);
    daemon_pid_fd = -1;
}
