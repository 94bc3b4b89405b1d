/* Daemon runtime internals: the libevent hooks, the giant lock's state and
 * the scoped form of the lock that every section of the library uses. */
#ifndef QV_DAEMON_PRIVATE_H
#define QV_DAEMON_PRIVATE_H

#include "qv_daemon.h"

void qv_libevent_trace_fn(int severity, const char *msg) noexcept;

/* The body of every trace on/off command: sets or clears one bit of
 * trace_global's mask. */
jrpc_method_retval_t qv_ui_trace_switch(uint32_t bit, bool on) noexcept;
/* Adds {"Name": name} to a show list under its repeating entry key. */
void qv_show_add_name(cJSON *list, const char *entry_key, const char *name) noexcept;
void qv_libevent_fatal_fn(int err) noexcept;

extern qv_giant_lock_func qv_giant_lock_unlock_fn;
extern const char *qv_gian_lock_last_caller;
extern int qv_gian_lock_last_caller_line;

/* Holds the giant lock from construction to the end of the scope, so it
 * is released on every path out of the section. Without an installed lock
 * function both calls would do nothing, so hot paths skip them inline. */
class QvGiantLockGuard
{
  public:
    QvGiantLockGuard(const char *func, int line) noexcept
        : held_(qv_giant_lock_unlock_fn != nullptr), res_(held_ ? qv_giant_lock(func, line) : -1)
    {
    }
    ~QvGiantLockGuard()
    {
        if (held_)
            qv_giant_unlock(res_);
    }
    QvGiantLockGuard(const QvGiantLockGuard &) = delete;
    QvGiantLockGuard &operator=(const QvGiantLockGuard &) = delete;

  private:
    bool held_;
    int res_;
};

#define QV_GIANT_LOCK_SCOPE() QvGiantLockGuard qv_giant_lock_scope_(__func__, __LINE__)

#endif
