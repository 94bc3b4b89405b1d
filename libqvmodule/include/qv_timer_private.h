/* Timer internals: the state bits, the common constructor, the dispatcher
 * and the jitter arithmetic, reachable by tests. */
#ifndef QV_TIMER_PRIVATE_H
#define QV_TIMER_PRIVATE_H

#include <stdint.h>
#include <sys/time.h>

#include "qv_daemon.h"

/* Started by the application and not stopped; expiry does not clear it. */
#define QVMODULE_TIMER_FLAG_ARMED 0x01u
/* The timer's function is running. */
#define QVMODULE_TIMER_FLAG_DISPATCHING 0x02u
/* The application decided the next state after dispatch began, so the
 * dispatcher leaves the timer alone. */
#define QVMODULE_TIMER_FLAG_RESCHEDULED 0x04u
/* Deletion requested; freed as soon as its function is not running. */
#define QVMODULE_TIMER_FLAG_DELETED 0x08u
/* Deleted from another thread: libevent's finalizer frees it, and a
 * callback already under way leaves it alone. */
#define QVMODULE_TIMER_FLAG_FINALIZING 0x10u

/* Jitter percentages above this count as this. */
#define QVMODULE_TIMER_MAX_JITTER 50u

namespace qv
{

qvmodule_timer *qvmodule_timer_create_internal(qvmodule *tp, const char *name, flag_t flags,
                                               const utime_t *interval, const utime_t *offset,
                                               unsigned int jitter, qvmodule_timer_func func,
                                               void_t data) noexcept;
void qvmodule_timer_delete_internal(qvmodule_timer *tip) noexcept;
void qvmodule_timer_event_cb(int fd, short event, void *arg) noexcept;

/* Shortens exptime by a random part, below half of jitter percent, of
 * interval. */
void timer_apply_jitter(struct timeval *exptime, const struct timeval *interval,
                        unsigned int jitter) noexcept;
/* lrand48() scaled into 0 .. n/2. */
uint32_t grand(uint32_t n) noexcept;

} // namespace qv

using namespace qv;

#endif
