// Time values and their text form, and timers: each timer is one libevent
// timeout on the global base plus one pool record on the global list.
//
// A timer's function may set, reset, expire or delete its own timer. The
// dispatcher therefore marks the record while the function runs and, when
// it returns, lets the function's decision stand: a deletion is carried
// out only then, and a timer the function re-scheduled is not re-armed.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <event2/event.h>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_memory.h"
#include "qv_queue.h"
#include "qv_timer_private.h"

extern "C" {
QV_EXPORT qvmodule_timer timer_head = {&timer_head, &timer_head, nullptr, "Head timer", 0,
                                       {0, 0},      0,           nullptr, nullptr,      nullptr};
QV_EXPORT struct qvmodule_block *qvmodule_timer_block_index = nullptr;
}

// Two 32-bit fields on every build, as on the 32-bit target.
static_assert(sizeof(utime_t) == 8 && sizeof(((utime_t *)nullptr)->ut_sec) == 4);

namespace
{

constexpr int32_t kUsecPerSec = 1000000;
constexpr unsigned int kSuspendAfterUsec = 100000;

char time_print_buf[128];
char timer_name_buf[128];

// Two's-complement arithmetic of the target's 32-bit time_t, without the
// undefined behaviour of signed overflow.
int32_t sub32(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

void utime_diff(utime_t *result, utime_t big, utime_t little)
{
    int32_t sec = sub32(big.ut_sec, little.ut_sec);
    int32_t usec = sub32(big.ut_usec, little.ut_usec);
    if (usec < 0) {
        sec = sub32(sec, 1);
        usec += kUsecPerSec;
    }
    result->ut_sec = sec;
    result->ut_usec = usec;
}

// Microseconds brought into 0 to 999999, whole seconds carried: libevent
// takes a timeval's microseconds as they are and would misplace a count
// of a million or more in its queue.
struct timeval normalised(int64_t sec, int64_t usec)
{
    if (usec >= 0 && usec < kUsecPerSec) // the usual case, without a division
        return {static_cast<time_t>(sec), static_cast<suseconds_t>(usec)};
    sec += usec / kUsecPerSec;
    usec %= kUsecPerSec;
    if (usec < 0) {
        sec -= 1;
        usec += kUsecPerSec;
    }
    return {static_cast<time_t>(sec), static_cast<suseconds_t>(usec)};
}

struct timeval to_timeval(const utime_t *u)
{
    return normalised(u->ut_sec, u->ut_usec);
}

utime_t seconds(time_t s)
{
    return {static_cast<int32_t>(s), 0};
}

utime_t microseconds(time_t us)
{
    struct timeval tv = normalised(0, us);
    return {static_cast<int32_t>(tv.tv_sec), static_cast<int32_t>(tv.tv_usec)};
}

bool tracing()
{
    return trace_type_is_enabled(trace_global, QV_TRACE_TIMER);
}

void trace_name(const char *func, const qvmodule_timer *tip)
{
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s: name:%s", func, tip->timer_name);
}

} // namespace

/* ---------------------------------------------------------------- */
/* Time values                                                      */

extern "C" QV_EXPORT void qvmodule_utime_subtract(utime_t *result, const utime_t *big,
                                                  const utime_t *little) noexcept
{
    utime_diff(result, *big, *little);
}

extern "C" QV_EXPORT void qvmodule_get_current_utime(utime_t *time_val) noexcept
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    time_val->ut_sec = static_cast<int32_t>(tv.tv_sec);
    time_val->ut_usec = static_cast<int32_t>(tv.tv_usec);
}

extern "C" QV_EXPORT time_t qvmodule_get_current_time(void) noexcept
{
    utime_t now;
    qvmodule_get_current_utime(&now);
    return now.ut_sec;
}

extern "C" QV_EXPORT void qvmodule_get_elapsed_utime(utime_t *elapsed,
                                                     const utime_t *tstamp) noexcept
{
    utime_t now;
    qvmodule_get_current_utime(&now);
    utime_diff(elapsed, now, *tstamp);
}

extern "C" QV_EXPORT time_t qvmodule_get_elapsed_time(time_t tstamp) noexcept
{
    utime_t then = seconds(tstamp);
    utime_t elapsed;
    qvmodule_get_elapsed_utime(&elapsed, &then);
    return elapsed.ut_sec;
}

extern "C" QV_EXPORT boolean qvmodule_utime_longer(utime_t *elapsed,
                                                   unsigned int uinterval) noexcept
{
    uint32_t s = uinterval / kUsecPerSec;
    uint32_t u = uinterval % kUsecPerSec;
    uint32_t es = static_cast<uint32_t>(elapsed->ut_sec);
    if (es != s)
        return es > s;
    return static_cast<uint32_t>(elapsed->ut_usec) >= u;
}

extern "C" QV_EXPORT boolean qvmodule_utime_should_suspend(utime_t *elapsed) noexcept
{
    return qvmodule_utime_longer(elapsed, kSuspendAfterUsec);
}

extern "C" QV_EXPORT const char *time_print(time_t timev) noexcept
{
    memset(time_print_buf, 0, sizeof(time_print_buf));
    long v = static_cast<long>(timev);
    struct Piece {
        long value;
        const char *fmt;
    } pieces[] = {{v / 86400, " %ldd:"},
                  {v % 86400 / 3600, " %ldh:"},
                  {v % 86400 % 3600 / 60, " %ldm:"},
                  {v % 86400 % 3600 % 60, " %lds "}};
    size_t len = 0;
    for (const Piece &p : pieces) {
        if (p.value == 0)
            continue;
        int n = snprintf(time_print_buf + len, sizeof(time_print_buf) - len, p.fmt, p.value);
        if (n > 0)
            len += static_cast<size_t>(n);
    }
    return time_print_buf;
}

/* ---------------------------------------------------------------- */
/* Jitter                                                           */

uint32_t qv::grand(uint32_t n) noexcept
{
    uint64_t r = static_cast<uint32_t>(lrand48());
    return static_cast<uint32_t>((r * n) >> 32);
}

// The unit follows the interval's size so that the 32-bit products cannot
// overflow: microseconds up to 41 s, milliseconds up to 42948 s, seconds
// beyond.
void qv::timer_apply_jitter(struct timeval *exptime, const struct timeval *interval,
                            unsigned int jitter) noexcept
{
    uint32_t j = jitter > QVMODULE_TIMER_MAX_JITTER ? QVMODULE_TIMER_MAX_JITTER : jitter;
    uint32_t sec = static_cast<uint32_t>(interval->tv_sec);
    uint32_t usec = static_cast<uint32_t>(interval->tv_usec);
    uint32_t dsec, dusec;
    if (sec <= 41) {
        uint32_t r = grand((sec * 1000000u + usec) * j / 100);
        dsec = r / 1000000;
        dusec = r % 1000000;
    } else if (sec <= 42948) {
        uint32_t r = grand((sec * 1000u + usec / 1000) * j / 100);
        dsec = r / 1000;
        dusec = (r % 1000) * 1000;
    } else {
        dsec = grand(sec * j / 100);
        dusec = 0;
    }
    exptime->tv_sec -= static_cast<time_t>(dsec);
    exptime->tv_usec -= static_cast<suseconds_t>(dusec);
    if (exptime->tv_usec < 0) {
        exptime->tv_sec -= 1;
        exptime->tv_usec += kUsecPerSec;
    }
}

/* ---------------------------------------------------------------- */
/* Creation                                                         */

qvmodule_timer *qv::qvmodule_timer_create_internal(qvmodule *tp, const char *name, flag_t flags,
                                                   const utime_t *interval, const utime_t *offset,
                                                   unsigned int jitter, qvmodule_timer_func func,
                                                   void_t data) noexcept
{
    QV_ASSERT(flags == 0);
    QV_GIANT_LOCK_SCOPE();
    auto *tip = static_cast<qvmodule_timer *>(qvmodule_block_alloc(qvmodule_timer_block_index));
    QV_ASSERT(tip);
    tip->timer_name = name;
    tip->timer_qvmodule = tp;
    tip->timer_func = func;
    tip->timer_data = data;
    // EV_FINALIZE: another thread's event_del must not wait for a callback
    // that is itself waiting for the giant lock which that thread holds.
    tip->timer_event =
        event_new(g_event_base, -1, EV_TIMEOUT | EV_FINALIZE, qvmodule_timer_event_cb, tip);
    QV_ASSERT(tip->timer_event);
    qv::append(tip, &timer_head);
    trace_name("qvmodule_timer_create_internal", tip);
    if (interval || offset)
        qvmodule_timer_uset(tip, interval, offset, jitter);
    return tip;
}

extern "C" QV_EXPORT qvmodule_timer *qvmodule_timer_ucreate(qvmodule *tp, const char *name,
                                                            flag_t flags, utime_t *interval,
                                                            utime_t *offset, unsigned int jitter,
                                                            qvmodule_timer_func func,
                                                            void_t data) noexcept
{
    return qvmodule_timer_create_internal(tp, name, flags, interval, offset, jitter, func, data);
}

extern "C" QV_EXPORT qvmodule_timer *qvmodule_timer_create(qvmodule *tp, const char *name,
                                                           flag_t flags, time_t interval,
                                                           time_t offset, qvmodule_timer_func func,
                                                           void_t data) noexcept
{
    utime_t ival = seconds(interval), off = seconds(offset);
    return qvmodule_timer_create_internal(tp, name, flags, interval > 0 ? &ival : nullptr,
                                          offset > 0 ? &off : nullptr, 0, func, data);
}

extern "C" QV_EXPORT qvmodule_timer *
qvmodule_timer_create_jittered(qvmodule *tp, const char *name, flag_t flags, time_t interval,
                               unsigned int jitter, qvmodule_timer_func func, void_t data) noexcept
{
    utime_t ival = seconds(interval);
    return qvmodule_timer_create_internal(tp, name, flags, interval != 0 ? &ival : nullptr, nullptr,
                                          jitter, func, data);
}

extern "C" QV_EXPORT qvmodule_timer *
qvmodule_timer_create_oneshot(qvmodule *tp, const char *name, flag_t flags, time_t offset,
                              unsigned int jitter, qvmodule_timer_func func, void_t data) noexcept
{
    utime_t off = seconds(offset);
    return qvmodule_timer_create_internal(tp, name, flags, nullptr, &off, jitter, func, data);
}

extern "C" QV_EXPORT qvmodule_timer *
qvmodule_timer_ucreate_oneshot(qvmodule *tp, const char *name, flag_t flags, time_t offset,
                               unsigned int jitter, qvmodule_timer_func func, void_t data) noexcept
{
    utime_t off = microseconds(offset);
    return qvmodule_timer_create_internal(tp, name, flags, nullptr, &off, jitter, func, data);
}

/* ---------------------------------------------------------------- */
/* Arming                                                           */

extern "C" QV_EXPORT void qvmodule_timer_uset(qvmodule_timer *tip, const utime_t *interval,
                                              const utime_t *offset, unsigned int jitter) noexcept
{
    tip->timer_jitter = jitter;
    struct timeval first;
    if (interval) {
        tip->timer_uinterval = to_timeval(interval);
        first = offset ? to_timeval(offset) : tip->timer_uinterval;
    } else {
        tip->timer_uinterval = {0, 0};
        if (!offset) {
            qvmodule_timer_reset(tip);
            return;
        }
        first = to_timeval(offset);
    }
    struct timeval tv = first;
    if (jitter != 0)
        timer_apply_jitter(&tv, &first, jitter);
    {
        QV_GIANT_LOCK_SCOPE();
        QV_ASSERT(event_add(tip->timer_event, &tv) == 0);
    }
    tip->timer_flags |= QVMODULE_TIMER_FLAG_RESCHEDULED | QVMODULE_TIMER_FLAG_ARMED;
}

extern "C" QV_EXPORT void qvmodule_timer_set(qvmodule_timer *tip, time_t interval,
                                             time_t offset) noexcept
{
    utime_t ival = seconds(interval), off = seconds(offset);
    qvmodule_timer_uset(tip, interval != 0 ? &ival : nullptr, offset != 0 ? &off : nullptr, 0);
}

extern "C" QV_EXPORT void qvmodule_timer_set_periodic(qvmodule_timer *tip, time_t interval,
                                                      unsigned int jitter) noexcept
{
    utime_t ival = seconds(interval);
    qvmodule_timer_uset(tip, &ival, nullptr, jitter);
}

extern "C" QV_EXPORT void qvmodule_timer_uset_periodic(qvmodule_timer *tip, time_t interval,
                                                       unsigned int jitter) noexcept
{
    utime_t ival = microseconds(interval);
    qvmodule_timer_uset(tip, &ival, nullptr, jitter);
}

extern "C" QV_EXPORT void qvmodule_timer_set_oneshot(qvmodule_timer *tip, time_t offset,
                                                     unsigned int jitter) noexcept
{
    utime_t off = seconds(offset);
    qvmodule_timer_uset(tip, nullptr, &off, jitter);
}

extern "C" QV_EXPORT void qvmodule_timer_uset_oneshot(qvmodule_timer *tip, time_t offset,
                                                      unsigned int jitter) noexcept
{
    utime_t off = microseconds(offset);
    qvmodule_timer_uset(tip, nullptr, &off, jitter);
}

extern "C" QV_EXPORT void qvmodule_timer_set_uoffset(qvmodule_timer *tip, const utime_t *offset,
                                                     unsigned int jitter) noexcept
{
    qvmodule_timer_uset(tip, nullptr, offset, jitter);
}

/* ---------------------------------------------------------------- */
/* Dispatch                                                         */

void qv::qvmodule_timer_event_cb(int, short event, void *arg) noexcept
{
    auto *tip = static_cast<qvmodule_timer *>(arg);
    QV_ASSERT((event & 0x01) == 0x01);
    // The record is another thread's to change until the lock is held.
    QV_GIANT_LOCK_SCOPE();
    if (tip->timer_flags & QVMODULE_TIMER_FLAG_FINALIZING)
        return;
    if (tip->timer_flags & QVMODULE_TIMER_FLAG_DELETED) {
        qvmodule_timer_delete_internal(tip);
        return;
    }
    tip->timer_flags =
        (tip->timer_flags & ~QVMODULE_TIMER_FLAG_RESCHEDULED) | QVMODULE_TIMER_FLAG_DISPATCHING;
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s: dispatching timer name:%s", "qvmodule_timer_event_cb",
                 tip->timer_name);
    tip->timer_func(tip, tip->timer_uinterval.tv_sec);
    tip->timer_flags &= ~QVMODULE_TIMER_FLAG_DISPATCHING;

    if (tip->timer_flags & QVMODULE_TIMER_FLAG_DELETED) {
        qvmodule_timer_delete_internal(tip);
    } else if (tip->timer_flags & QVMODULE_TIMER_FLAG_RESCHEDULED) {
        // The function chose the next state itself.
    } else if (timerisset(&tip->timer_uinterval)) {
        struct timeval tv = tip->timer_uinterval;
        if (tip->timer_jitter != 0)
            timer_apply_jitter(&tv, &tip->timer_uinterval, tip->timer_jitter);
        QV_ASSERT(event_add(tip->timer_event, &tv) == 0);
    }
}

/* ---------------------------------------------------------------- */
/* Control                                                          */

extern "C" QV_EXPORT void qvmodule_timer_reset(qvmodule_timer *tip) noexcept
{
    tip->timer_flags =
        (tip->timer_flags | QVMODULE_TIMER_FLAG_RESCHEDULED) & ~QVMODULE_TIMER_FLAG_ARMED;
    QV_GIANT_LOCK_SCOPE();
    tip->timer_uinterval = {0, 0};
    QV_ASSERT(event_del(tip->timer_event) == 0);
}

extern "C" QV_EXPORT void qvmodule_timer_expire_immediately(qvmodule_timer *tip) noexcept
{
    {
        QV_GIANT_LOCK_SCOPE();
        event_active(tip->timer_event, EV_TIMEOUT, 1);
    }
    tip->timer_flags |= QVMODULE_TIMER_FLAG_RESCHEDULED | QVMODULE_TIMER_FLAG_ARMED;
}

void qv::qvmodule_timer_delete_internal(qvmodule_timer *tip) noexcept
{
    trace_name("qvmodule_timer_delete_internal", tip);
    QV_GIANT_LOCK_SCOPE();
    qv::remque(tip);
    if (!qv_on_loop_thread()) {
        // The callback may have begun and be waiting for the lock.
        tip->timer_flags |= QVMODULE_TIMER_FLAG_FINALIZING;
        QV_ASSERT(event_free_finalize(0, tip->timer_event,
                                      free_finalized<&qvmodule_timer_block_index>) == 0);
        return;
    }
    QV_ASSERT(event_del(tip->timer_event) == 0);
    event_free(tip->timer_event);
    qvmodule_block_free(qvmodule_timer_block_index, tip);
}

extern "C" QV_EXPORT void qvmodule_timer_delete(qvmodule_timer *tip) noexcept
{
    if (tip == nullptr)
        return;
    trace_name("qvmodule_timer_delete", tip);
    tip->timer_flags =
        (tip->timer_flags | QVMODULE_TIMER_FLAG_DELETED) & ~QVMODULE_TIMER_FLAG_ARMED;
    tip->timer_qvmodule = nullptr;
    if (!(tip->timer_flags & QVMODULE_TIMER_FLAG_DISPATCHING))
        qvmodule_timer_delete_internal(tip);
}

extern "C" QV_EXPORT void qvmodule_timer_delete_all(qvmodule *tp) noexcept
{
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s:", "qvmodule_timer_delete_all");
    qv::for_each(&timer_head, [tp](qvmodule_timer *tip) {
        if (tip->timer_qvmodule == tp)
            qvmodule_timer_delete(tip);
    });
}

/* ---------------------------------------------------------------- */
/* Queries                                                          */

extern "C" QV_EXPORT boolean qvmodule_timer_running(qvmodule_timer *tip) noexcept
{
    if (tip == nullptr)
        return FALSE;
    bool pending;
    {
        QV_GIANT_LOCK_SCOPE();
        pending = event_pending(tip->timer_event, EV_TIMEOUT, nullptr) == EV_TIMEOUT;
    }
    return pending || (tip->timer_flags & QVMODULE_TIMER_FLAG_ARMED);
}

extern "C" QV_EXPORT void qvmodule_timer_utime_left(qvmodule_timer *tip,
                                                    utime_t *remaining) noexcept
{
    if (tip == nullptr)
        return;
    *remaining = {0, 0};
    struct timeval expiry;
    int pending;
    {
        QV_GIANT_LOCK_SCOPE();
        pending = event_pending(tip->timer_event, EV_TIMEOUT, &expiry);
    }
    if (!pending)
        return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    if (timercmp(&expiry, &now, >)) {
        utime_t e = {static_cast<int32_t>(expiry.tv_sec), static_cast<int32_t>(expiry.tv_usec)};
        utime_t n = {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_usec)};
        utime_diff(remaining, e, n);
    }
}

extern "C" QV_EXPORT time_t qvmodule_timer_time_left(qvmodule_timer *tip) noexcept
{
    if (tip == nullptr)
        return 0;
    utime_t left;
    qvmodule_timer_utime_left(tip, &left);
    return left.ut_sec;
}

extern "C" QV_EXPORT void qvmodule_timer_periodic_getval(qvmodule_timer *tip,
                                                         struct timeval *val) noexcept
{
    *val = tip->timer_uinterval;
}

extern "C" QV_EXPORT qvmodule *qvmodule_timer_qvmodule(qvmodule_timer *tip) noexcept
{
    return tip->timer_qvmodule;
}

extern "C" QV_EXPORT void_t qvmodule_timer_data(qvmodule_timer *tip) noexcept
{
    return tip->timer_data;
}

extern "C" QV_EXPORT void qvmodule_timer_set_data(qvmodule_timer *tip, void_t data) noexcept
{
    tip->timer_data = data;
}

extern "C" QV_EXPORT char *qvmodule_timer_name(qvmodule_timer *tip) noexcept
{
    if (tip->timer_qvmodule)
        snprintf(timer_name_buf, sizeof(timer_name_buf), "%s.%s",
                 qvmodule_name(tip->timer_qvmodule), tip->timer_name ? tip->timer_name : "");
    else if (tip->timer_name)
        snprintf(timer_name_buf, sizeof(timer_name_buf), "%s", tip->timer_name);
    else
        timer_name_buf[0] = '\0';
    return timer_name_buf;
}

/* ---------------------------------------------------------------- */
/* Management commands and start-up                                 */

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_timer_show(jrpc_method_ctx_handle ctx) noexcept
{
    cJSON *list = cJSON_CreateObject();
    cJSON_AddItemToObject(jrpc_ctx_get_result_jroot(ctx), "Timer List", list);
    qv::for_each(&timer_head, [list](qvmodule_timer *tip) {
        qv_show_add_name(list, "Timer", qvmodule_timer_name(tip));
    });
    return JRPC_SUCCESS;
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_timer_trace_on(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_TIMER, true);
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_timer_trace_off(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_TIMER, false);
}

extern "C" QV_EXPORT void qvmodule_timer_init(void) noexcept
{
    qv::queue_init(&timer_head);
    timer_head.timer_name = "Head timer";
    qvmodule_timer_block_index = qvmodule_block_init(sizeof(qvmodule_timer), "qvmodule_timer");
}
