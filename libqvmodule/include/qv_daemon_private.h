/* Daemon runtime internals: the libevent hooks, the giant lock's state and
 * the scoped form of the lock that every section of the library uses. */
#ifndef QV_DAEMON_PRIVATE_H
#define QV_DAEMON_PRIVATE_H

#include "qv_daemon.h"
#include "qv_memory.h"

/* The library's internal names stand in its own namespace, so that a
 * daemon linking the static archive keeps every other name for itself. The
 * library's sources and tests name them unqualified. */
namespace qv
{

void qv_libevent_trace_fn(int severity, const char *msg) noexcept;

/* Start-up steps: the double fork, and taking the pid lock file (nothing
 * when the context names none). */
void qv_daemon_daemonize() noexcept;
void qv_daemon_pid_open() noexcept;
/* The locked pid file's descriptor; -1 when none is open. */
extern int daemon_pid_fd;

/* The body of every trace on/off command: sets or clears one bit of
 * trace_global's mask. */
jrpc_method_retval_t qv_ui_trace_switch(uint32_t bit, bool on) noexcept;
/* The library's management commands as qv_ui_init registers them: a show,
 * or one half (on is 1 or 0) of a keyword's trace switch. The show server's
 * bridge serves the same trace keywords from it. */
struct UiCommand {
    jrpc_reg_kind_t kind;
    const char *name;
    const char *help;
    const char *keyword;
    int on;
    jrpc_method_handler_t handler;
};
extern const UiCommand ui_commands[];
extern const size_t ui_command_count;

/* Adds {"Name": name} to a show list under its repeating entry key. */
void qv_show_add_name(cJSON *list, const char *entry_key, const char *name) noexcept;
void qv_libevent_fatal_fn(int err) noexcept;

/* Whether the caller runs on the event loop's thread. A record whose
 * event another thread deletes may have its callback under way there, so
 * it is freed by libevent's finalizer on the loop thread instead. */
bool qv_on_loop_thread() noexcept;

extern qv_giant_lock_func qv_giant_lock_unlock_fn;
extern const char *qv_gian_lock_last_caller;
extern int qv_gian_lock_last_caller_line;

/* The lock and unlock steps once a lock function is known to be installed;
 * the exported calls and the scoped guard below share them. */
inline int qv_giant_lock_take(qv_giant_lock_func fn, const char *func, int line) noexcept
{
    int res = fn(1, 0);
    if (res == -1) {
        qv_gian_lock_last_caller = func;
        qv_gian_lock_last_caller_line = line;
    }
    return res;
}

inline void qv_giant_lock_release(qv_giant_lock_func fn, int lock_res) noexcept
{
    if (lock_res == 0)
        qv_gian_lock_last_caller = nullptr;
    fn(0, lock_res);
}

/* Holds the giant lock from construction to the end of the scope, so it
 * is released on every path out of the section. It sits on every dispatch
 * and every charged allocation, so it works inline: without an installed
 * lock function there is nothing to call at all. */
class QvGiantLockGuard
{
  public:
    QvGiantLockGuard(const char *func, int line) noexcept
    {
        qv_giant_lock_func fn = qv_giant_lock_unlock_fn;
        held_ = fn != nullptr;
        res_ = held_ ? qv_giant_lock_take(fn, func, line) : -1;
    }
    ~QvGiantLockGuard()
    {
        qv_giant_lock_func fn = qv_giant_lock_unlock_fn;
        if (held_ && fn != nullptr)
            qv_giant_lock_release(fn, res_);
    }
    QvGiantLockGuard(const QvGiantLockGuard &) = delete;
    QvGiantLockGuard &operator=(const QvGiantLockGuard &) = delete;

  private:
    bool held_;
    int res_;
};

} // namespace qv

using namespace qv;

#define QV_GIANT_LOCK_SCOPE() ::qv::QvGiantLockGuard qv_giant_lock_scope_(__func__, __LINE__)

namespace qv
{

/* The finalizer of a timer's or job's event deleted from another thread:
 * returns the record to its pool on the loop thread, once no callback of
 * the event can still be under way. */
template <block_t *Pool> void free_finalized(struct event *, void *record) noexcept
{
    QV_GIANT_LOCK_SCOPE();
    qvmodule_block_free(*Pool, record);
}

} // namespace qv

#endif
