/* Daemon runtime: start-up, the main loop, process globals, the giant
 * lock hook, management commands, and the module registry. */
#ifndef QV_DAEMON_H
#define QV_DAEMON_H

#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <event2/event.h>
#include <jrpc.h>
#include "qv_defs.h"
#include "qv_trace.h"

QV_BEGIN_DECLS

/* ------------------------------------------------------------------ */
/* Application context and start-up                                    */

typedef void (*app_main_args_parsing_func)(int argc, char **argv);
typedef void (*app_module_init_func)(void);
typedef void (*app_module_var_init_func)(void);

struct app_module {
    unsigned int module_id;
    const char *name;
    app_module_init_func init;
    app_module_var_init_func var_init;
};

typedef struct qv_daemon_app_ctx {
    char *daemon_name;
    char *pid_filename;
    char *log_file_name;
    const char *args_daemon_description;
    uint32_t log_file_size;
    uint8_t log_file_count;
    char host_sw_version[256];
    char app_sw_version[256];
    char app_sw_install_time[256];
    app_main_args_parsing_func args_parser_fn;
    struct {
        uint32_t count;
        struct app_module *primary;
    } app_modules;
} qv_daemon_app_ctx_t;

QV_EXPORT extern char *progname;
QV_EXPORT extern char hostname[65];
QV_EXPORT extern int do_daemon;
QV_EXPORT extern int daemon_pid;
QV_EXPORT extern qv_daemon_app_ctx_t *daemon_app_ctx;
QV_EXPORT extern struct event_base *g_event_base;
QV_EXPORT extern trace_handle *trace_global;

/* Turns the process into a running daemon; returns only on success. The
 * event base locks itself (libevent's pthreads support), so that other
 * threads may arm timers and queue jobs under the giant lock while the loop
 * runs; the loop wakes for what they add. The loop runs on the thread that
 * calls qv_daemon_loop, by default the one that called qv_daemon_init. */
QV_EXPORT void qv_daemon_init(int argc, char **argv, struct qv_daemon_app_ctx *ctx) QV_NOEXCEPT;
/* Runs the event loop until libevent's loop returns. */
QV_EXPORT void qv_daemon_loop(void) QV_NOEXCEPT;
/* One run of the loop with libevent's loop flags (EVLOOP_ONCE, ...). */
QV_EXPORT void qv_daemon_json_event_hndl(int flag) QV_NOEXCEPT;
QV_EXPORT struct event_base *qv_get_global_event_base(void) QV_NOEXCEPT;
QV_EXPORT char *qv_daemon_get_progname(void) QV_NOEXCEPT;
QV_EXPORT char *qv_daemon_get_hostname(void) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Giant lock                                                          */

/* Called with (1, 0) to lock and (0, result of the lock) to unlock; must
 * let the holding thread take the lock again. */
typedef int (*qv_giant_lock_func)(int lock, int lock_res);

QV_EXPORT void qv_giant_lock_func_init(qv_giant_lock_func fn) QV_NOEXCEPT;
/* Returns the lock function's result, or -1 when none is installed. */
QV_EXPORT int qv_giant_lock(const char *func, int line) QV_NOEXCEPT;
QV_EXPORT void qv_giant_unlock(int lock_res) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Management commands                                                 */

/* Registers the library's show and trace commands under app_name. */
QV_EXPORT void qv_ui_init(const char *app_name) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qv_libevent_show(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qv_libevent_trace_on(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qv_libevent_trace_off(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Modules                                                             */

#define QVMODULE_FLAG_ACCEPT 0x1u
#define QVMODULE_FLAG_CONNECT 0x2u
#define QVMODULE_FLAG_NO_DELETE 0x4u
#define QVMODULE_FLAG_READ_DISABLED 0x20u
#define QVMODULE_FLAG_WRITE_DISABLED 0x40u

struct _qvmodule_mem_cookie;

typedef struct _qvmodule {
    struct _qvmodule *qvmodule_forw;
    struct _qvmodule *qvmodule_back;
    const char *qvmodule_name;
    struct event *sock_revent;
    struct event *sock_wevent;
    flag_t qvmodule_flags;
    int qvmodule_proto;
    int qvmodule_socket;
    int qvmodule_socket_domain;
    int qvmodule_priority;
    qvmodule_recv_func qvmodule_recv_method;
    qvmodule_accept_func qvmodule_accept_method;
    qvmodule_write_func qvmodule_write_method;
    qvmodule_connect_func qvmodule_connect_method;
    qvsockaddr_t *qvmodule_addr;
    void_t qvmodule_data;
    struct _qvmodule_mem_cookie *qvmodule_mem_cookie;
    unsigned int qvmodule_reads;
    unsigned int qvmodule_writes;
} qvmodule;

struct qvmodule_block;

QV_EXPORT extern qvmodule qvmodule_head;
QV_EXPORT extern struct qvmodule_block *qvmodule_block_index;

QV_EXPORT qvmodule *qvmodule_alloc(const char *name, int priority, void *trp) QV_NOEXCEPT;
QV_EXPORT int qvmodule_create(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT qvmodule *qvmodule_alloc_accept(const qvmodule *listen_tp, const char *name, int priority,
                                          void *trp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_free(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_delete(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_quit(int code) QV_NOEXCEPT __attribute__((noreturn));
QV_EXPORT char *qvmodule_name(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT boolean qvmodule_flags_isset(qvmodule *tp, flag_t flag) QV_NOEXCEPT;
QV_EXPORT flag_t qvmodule_flags_get(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_flags_set(qvmodule *tp, flag_t flag) QV_NOEXCEPT;
QV_EXPORT void qvmodule_flags_reset(qvmodule *tp, flag_t flag) QV_NOEXCEPT;
QV_EXPORT void_t qvmodule_get_data(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_data(qvmodule *tp, void_t data) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_terminate(qvmodule *tp, qvmodule_terminate_func func) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_module_show(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_module_trace_on(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_module_trace_off(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT void qvmodule_init(void) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Time values and timers                                              */

/* result = big - little with at most one borrow, never clamped; result may
 * be either operand. */
QV_EXPORT void qvmodule_utime_subtract(utime_t *result, const utime_t *big,
                                       const utime_t *little) QV_NOEXCEPT;
/* The wall-clock time of day. */
QV_EXPORT void qvmodule_get_current_utime(utime_t *time_val) QV_NOEXCEPT;
QV_EXPORT time_t qvmodule_get_current_time(void) QV_NOEXCEPT;
/* elapsed = now - tstamp, by the same arithmetic as the subtraction. */
QV_EXPORT void qvmodule_get_elapsed_utime(utime_t *elapsed, const utime_t *tstamp) QV_NOEXCEPT;
QV_EXPORT time_t qvmodule_get_elapsed_time(time_t tstamp) QV_NOEXCEPT;
/* True when elapsed is at least uinterval microseconds; the comparison is
 * unsigned, so a negative elapsed time (clock set back) is longer than any
 * interval. */
QV_EXPORT boolean qvmodule_utime_longer(utime_t *elapsed, unsigned int uinterval) QV_NOEXCEPT;
/* True once work measured by elapsed has run 100 ms and should return to
 * the event loop. */
QV_EXPORT boolean qvmodule_utime_should_suspend(utime_t *elapsed) QV_NOEXCEPT;
/* " 1d: 2h: 3m: 4s " style text of a number of seconds, zero pieces left
 * out, in a buffer shared by all callers and overwritten by every call. */
QV_EXPORT const char *time_print(time_t timev) QV_NOEXCEPT;

typedef struct _qvmodule_timer qvmodule_timer;

/* interval is the seconds part of the timer's period, 0 for a one-shot. */
typedef void (*qvmodule_timer_func)(qvmodule_timer *timer, time_t interval);

struct _qvmodule_timer {
    struct _qvmodule_timer *timer_forw;
    struct _qvmodule_timer *timer_back;
    struct event *timer_event;
    const char *timer_name;
    flag_t timer_flags;
    struct timeval timer_uinterval;
    unsigned int timer_jitter;
    qvmodule_timer_func timer_func;
    qvmodule *timer_qvmodule;
    void_t timer_data;
};

/* Head of the list of all timers, in creation order; never dispatched. */
QV_EXPORT extern qvmodule_timer timer_head;
QV_EXPORT extern struct qvmodule_block *qvmodule_timer_block_index;

/* Creation. flags must be 0. A timer given neither an interval nor an
 * offset is idle until it is set. Jitter is a percentage (at most 50
 * counts) by which each delay comes randomly early. The name is kept by
 * pointer and must outlive the timer. */
QV_EXPORT qvmodule_timer *qvmodule_timer_ucreate(qvmodule *tp, const char *name, flag_t flags,
                                                 utime_t *interval, utime_t *offset,
                                                 unsigned int jitter, qvmodule_timer_func func,
                                                 void_t data) QV_NOEXCEPT;
/* Seconds; zero or negative values count as absent. */
QV_EXPORT qvmodule_timer *qvmodule_timer_create(qvmodule *tp, const char *name, flag_t flags,
                                                time_t interval, time_t offset,
                                                qvmodule_timer_func func, void_t data) QV_NOEXCEPT;
QV_EXPORT qvmodule_timer *qvmodule_timer_create_jittered(qvmodule *tp, const char *name,
                                                         flag_t flags, time_t interval,
                                                         unsigned int jitter,
                                                         qvmodule_timer_func func,
                                                         void_t data) QV_NOEXCEPT;
QV_EXPORT qvmodule_timer *qvmodule_timer_create_oneshot(qvmodule *tp, const char *name,
                                                        flag_t flags, time_t offset,
                                                        unsigned int jitter,
                                                        qvmodule_timer_func func,
                                                        void_t data) QV_NOEXCEPT;
/* offset in microseconds. */
QV_EXPORT qvmodule_timer *qvmodule_timer_ucreate_oneshot(qvmodule *tp, const char *name,
                                                         flag_t flags, time_t offset,
                                                         unsigned int jitter,
                                                         qvmodule_timer_func func,
                                                         void_t data) QV_NOEXCEPT;

/* Arming; a running timer restarts with the new schedule. With neither an
 * interval nor an offset the timer is reset. */
QV_EXPORT void qvmodule_timer_uset(qvmodule_timer *tip, const utime_t *interval,
                                   const utime_t *offset, unsigned int jitter) QV_NOEXCEPT;
/* Seconds; only zero counts as absent. */
QV_EXPORT void qvmodule_timer_set(qvmodule_timer *tip, time_t interval, time_t offset) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_set_periodic(qvmodule_timer *tip, time_t interval,
                                           unsigned int jitter) QV_NOEXCEPT;
/* interval in microseconds. */
QV_EXPORT void qvmodule_timer_uset_periodic(qvmodule_timer *tip, time_t interval,
                                            unsigned int jitter) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_set_oneshot(qvmodule_timer *tip, time_t offset,
                                          unsigned int jitter) QV_NOEXCEPT;
/* offset in microseconds. */
QV_EXPORT void qvmodule_timer_uset_oneshot(qvmodule_timer *tip, time_t offset,
                                           unsigned int jitter) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_set_uoffset(qvmodule_timer *tip, const utime_t *offset,
                                          unsigned int jitter) QV_NOEXCEPT;

/* Stops the timer and forgets its period. */
QV_EXPORT void qvmodule_timer_reset(qvmodule_timer *tip) QV_NOEXCEPT;
/* The timer fires on the loop's next pass over active events. */
QV_EXPORT void qvmodule_timer_expire_immediately(qvmodule_timer *tip) QV_NOEXCEPT;
/* Deletes the timer; from its own function the record is freed when the
 * function returns. Null is ignored. */
QV_EXPORT void qvmodule_timer_delete(qvmodule_timer *tip) QV_NOEXCEPT;
/* Deletes every timer owned by tp. */
QV_EXPORT void qvmodule_timer_delete_all(qvmodule *tp) QV_NOEXCEPT;
/* Pending, or started and not stopped: a fired one-shot still counts. */
QV_EXPORT boolean qvmodule_timer_running(qvmodule_timer *tip) QV_NOEXCEPT;
/* Time until expiry, {0, 0} when not pending or due; a null timer leaves
 * remaining untouched. */
QV_EXPORT void qvmodule_timer_utime_left(qvmodule_timer *tip, utime_t *remaining) QV_NOEXCEPT;
QV_EXPORT time_t qvmodule_timer_time_left(qvmodule_timer *tip) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_periodic_getval(qvmodule_timer *tip, struct timeval *val) QV_NOEXCEPT;
QV_EXPORT qvmodule *qvmodule_timer_qvmodule(qvmodule_timer *tip) QV_NOEXCEPT;
QV_EXPORT void_t qvmodule_timer_data(qvmodule_timer *tip) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_set_data(qvmodule_timer *tip, void_t data) QV_NOEXCEPT;
/* "module.timer", or the bare name of an ownerless timer, in a buffer
 * shared by all callers. */
QV_EXPORT char *qvmodule_timer_name(qvmodule_timer *tip) QV_NOEXCEPT;

QV_EXPORT jrpc_method_retval_t qvmodule_timer_show(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_timer_trace_on(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_timer_trace_off(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT void qvmodule_timer_init(void) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Jobs                                                                */

/* Runs once, as soon as the loop processes active events. */
#define QVMODULE_JOB_PRIORITY_FOREGROUND 128
/* Runs every millisecond until deleted; levels 0 to 7 are taken as this. */
#define QVMODULE_JOB_PRIORITY_BACKGROUND 64

typedef struct _qvmodule_job qvmodule_job;

typedef void (*qvmodule_job_func)(qvmodule_job *job);

struct _qvmodule_job {
    struct _qvmodule_job *job_forw;
    struct _qvmodule_job *job_back;
    struct event *job_event;
    const char *job_name;
    qvmodule *job_qvmodule;
    byte job_priority;
    byte job_flags;
    qvmodule_job_func job_func;
    void_t job_data;
};

/* Heads of the two job queues, each in creation order. */
QV_EXPORT extern qvmodule_job qvmodule_job_fg_queue;
QV_EXPORT extern qvmodule_job qvmodule_job_bg_queue;

/* priority 128 makes a foreground job, 0 to 7 or 64 a background one. The
 * name is kept by pointer and must outlive the job. A foreground job is
 * freed after its run: its handle is invalid from then on. */
QV_EXPORT qvmodule_job *qvmodule_job_create(qvmodule *tp, int priority, const char *name,
                                            qvmodule_job_func job_func, void_t data) QV_NOEXCEPT;
QV_EXPORT qvmodule_job *qvmodule_job_create_foreground(qvmodule *tp, const char *name,
                                                       qvmodule_job_func job_func,
                                                       void_t data) QV_NOEXCEPT;
QV_EXPORT qvmodule_job *qvmodule_job_create_background(qvmodule *tp, int priority, const char *name,
                                                       qvmodule_job_func job_func,
                                                       void_t data) QV_NOEXCEPT;
/* Deletes the job; from its own function it is freed when the function
 * returns. Null and a job already being deleted are ignored. */
QV_EXPORT void qvmodule_job_delete(qvmodule_job *jp) QV_NOEXCEPT;
/* Deletes every job owned by tp. */
QV_EXPORT void qvmodule_job_delete_all(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT qvmodule *qvmodule_job_qvmodule(qvmodule_job *job) QV_NOEXCEPT;
QV_EXPORT void_t qvmodule_job_data(qvmodule_job *job) QV_NOEXCEPT;
QV_EXPORT void qvmodule_job_set_data(qvmodule_job *job, void_t data) QV_NOEXCEPT;
QV_EXPORT unsigned int qvmodule_job_priority(qvmodule_job *jp) QV_NOEXCEPT;
QV_EXPORT const char *qvmodule_get_job_name(qvmodule_job *jp) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_job_show(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_job_trace_on(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_job_trace_off(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT void qvmodule_job_init(void) QV_NOEXCEPT;

QV_END_DECLS

#endif
