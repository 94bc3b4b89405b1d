/* Daemon runtime: start-up, the main loop, process globals, the giant
 * lock hook, management commands, and the module registry. */
#ifndef QV_DAEMON_H
#define QV_DAEMON_H

#include <signal.h>
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
    /* Path of the pid lock file; "%%" in it stands for "%", any other "%"
     * is taken literally. A relative path is taken from the working
     * directory at start-up. Null: no pid file at all, no lock taken and
     * nothing removed at quit. */
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
/* Removes the pid file and then releases its lock. Only the process whose
 * pid the file holds removes it; in any other (a forked child) the
 * descriptor is just closed. Nothing without an open pid file. */
QV_EXPORT void qv_daemon_pid_close(void) QV_NOEXCEPT;

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
/* Signals                                                             */

#define QVMODULE_SIGNAL_MAX 32

/* A signal taken through the event loop; fd and signo both carry the
 * signal number. */
typedef void (*qvmodule_signal_func)(int fd, int signo);
typedef void (*qvmodule_sig_handler)(int signo);
#if defined(_POSIX_C_SOURCE) && _POSIX_C_SOURCE >= 199309L
typedef void (*qvmodule_sig_sigaction)(int signo, siginfo_t *info, void *context);
#else
/* Strict ISO C declares no siginfo_t. This stand-in keeps the record's
 * layout and the calls as they are; define _POSIX_C_SOURCE to write a
 * three-argument action. */
struct qvmodule_siginfo_unavailable;
typedef void (*qvmodule_sig_sigaction)(int signo, struct qvmodule_siginfo_unavailable *info,
                                       void *context);
#endif

typedef struct qvmodule_signal_ {
    int sig_sig; /* 0: entry not used yet */
    const char *sig_name;
    struct event *sig_event;
    qvmodule_signal_func sig_func;
    qvmodule_sig_handler sig_handler;
    qvmodule_sig_sigaction sig_sigaction;
    boolean sig_kevent_disabled;
} qvmodule_signal;

/* Registrations in order; entries are never released. */
QV_EXPORT extern qvmodule_signal qvmodule_signals[QVMODULE_SIGNAL_MAX];
QV_EXPORT extern uint8_t sig_count;

/* Each signal is registered once, by one of the two registrations; a
 * second registration or a 33rd one is fatal. */

/* Calls func from the event loop, under the giant lock. */
QV_EXPORT void qvmodule_signal_register_kevent(int signo, qvmodule_signal_func func) QV_NOEXCEPT;
/* Stops the calls. Until it is re-enabled the signal has the disposition
 * it had before the registration, normally its default action: a SIGTERM
 * that arrives meanwhile ends the daemon. */
QV_EXPORT void qvmodule_signal_disable_kevent(int signo) QV_NOEXCEPT;
QV_EXPORT void qvmodule_signal_reenable_kevent(int signo) QV_NOEXCEPT;
/* Installs exactly one of the two with sigaction (SA_RESTART, plus
 * SA_SIGINFO for the three-argument form); it runs in signal context,
 * without the giant lock. */
QV_EXPORT void qvmodule_signal_register_action(int signo, qvmodule_sig_handler sig_handler,
                                               qvmodule_sig_sigaction sig_sigaction) QV_NOEXCEPT;
/* Ignores sig; a failure goes to syslog and ends the process with 0. */
QV_EXPORT void qvmodule_signal_ignore(int sig) QV_NOEXCEPT;
/* libc's description of sig; "Real-time signal" for a real-time signal,
 * "Unknown signal" outside 1 to 64. */
QV_EXPORT const char *qvmodule_signame(int sig) QV_NOEXCEPT;
/* Start-up: writing to a closed peer fails with EPIPE instead of ending
 * the daemon. */
QV_EXPORT void qvmodule_signal_init(void) QV_NOEXCEPT;

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
/* Module sockets                                                      */

/* A module owns at most one socket. Once attached (qvmodule_set_socket, or
 * a descriptor stored before qvmodule_create) its read event runs the
 * accept method while QVMODULE_FLAG_ACCEPT is set, else the recv method;
 * its write event runs the connect method while QVMODULE_FLAG_CONNECT is
 * set, else the write method. A readiness that finds no method disarms
 * its direction. A method may close or delete its own module.
 *
 * Both events persist, so a daemon must not leave either one firing with
 * nothing to do, or its loop spins at full speed:
 * - a module with nothing to send disarms its write event
 *   (qvmodule_socket_disable_write) or clears its write method, and
 *   re-enables it when it has data again;
 * - a listener whose accept fails (EMFILE, ENFILE, ENOBUFS) keeps the
 *   connection queued and stays readable: disarm it with
 *   qvmodule_socket_disable_receive and re-enable it later, for example
 *   from a timer or once a descriptor has been closed.
 *
 * Operations report to syslog on failure (LOG_ERR) and on notable success
 * (LOG_INFO), and write debug lines to the trace file while socket tracing
 * (QV_TRACE_SOCKET) is on. Writing to a peer that has gone raises SIGPIPE,
 * which a daemon ignores. */

/* Option codes of qvmodule_set_option, each followed by its int value
 * (LINGER takes two: on/off, then seconds). NONBLOCK only ever turns
 * non-blocking mode on, whatever its value. */
#define QVMODULE_OPT_RCVBUF 0
#define QVMODULE_OPT_SNDBUF 1
#define QVMODULE_OPT_LINGER 2
#define QVMODULE_OPT_REUSEADDR 3
#define QVMODULE_OPT_DONTROUTE 5
#define QVMODULE_OPT_KEEPALIVE 6
#define QVMODULE_OPT_DEBUG 7
#define QVMODULE_OPT_NONBLOCK 8
#define QVMODULE_OPT_IP_TTL 15
#define QVMODULE_OPT_IP_TOS 16
#define QVMODULE_OPT_TCP_MAXSEG 25

/* Opens a socket and records domain in the module (also on failure); the
 * descriptor is not attached. Retries while interrupted, and twice after
 * a 5-second pause while the kernel is short of buffers. -1 with errno
 * set on failure; -1 for a null tp. */
QV_EXPORT int qvmodule_get_socket(qvmodule *tp, int domain, int type, int proto) QV_NOEXCEPT;
QV_EXPORT int qvmodule_get_socket_ip(qvmodule *tp, int proto) QV_NOEXCEPT;
QV_EXPORT int qvmodule_get_socket_udp(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT int qvmodule_get_socket_tcp(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT int qvmodule_get_socket_unix(qvmodule *tp) QV_NOEXCEPT;

/* Attaches s and arms the events whose methods are set. Attaching a
 * second, different descriptor is a fatal error; the same one again is
 * allowed. */
QV_EXPORT void qvmodule_set_socket(qvmodule *tp, int s) QV_NOEXCEPT;
/* Stores fd as the module's descriptor without any check or arming. */
QV_EXPORT void qvmodule_fixup_socket(qvmodule *tp, int fd) QV_NOEXCEPT;
/* Detaches the socket without closing it: frees its events, clears the
 * four methods and the accept and connect flags. */
QV_EXPORT void qvmodule_reset_socket(qvmodule *tp) QV_NOEXCEPT;
/* Detaches and closes the socket; the address stays with the module. The
 * descriptor is closed once, even when close is interrupted: Linux has
 * released it by then, and a retry could close one another thread has
 * just been given. */
QV_EXPORT void qvmodule_close(qvmodule *tp) QV_NOEXCEPT;

/* These three return 0 or the failing call's errno, also left in errno;
 * 22 (EINVAL) for a null tp. Binding reports a UNIX address by its path,
 * an IPv4 one by its address as a number; ap is not kept, and a null ap is
 * refused with EINVAL. */
QV_EXPORT int qvmodule_addr_local(qvmodule *tp, qvsockaddr_t *ap) QV_NOEXCEPT;
/* Connects to qvmodule_addr; EINPROGRESS for a non-blocking connect under
 * way, EDESTADDRREQ when the module has no address. */
QV_EXPORT int qvmodule_connect(qvmodule *tp) QV_NOEXCEPT;
/* Listens and re-arms the read event. */
QV_EXPORT int qvmodule_listen(qvmodule *tp, int backlog) QV_NOEXCEPT;
/* The new descriptor, unattached, with the peer's address in *addr (the
 * caller's to free), or -1. An unnamed UNIX peer is named after the
 * listener's path with "_local" appended: the path of the listener's
 * qvmodule_addr, else the one its socket is bound to; a listener without
 * a path of its own gives the peer an empty one. */
QV_EXPORT int qvmodule_accept(qvmodule *tp, qvsockaddr_t **addr) QV_NOEXCEPT;
/* The peer's address, the caller's to free, or null. A peer reported with
 * no address gives null on a listener and else the module's own
 * qvmodule_addr, which stays the module's. */
QV_EXPORT qvsockaddr_t *qvmodule_get_addr_remote(qvmodule *tp) QV_NOEXCEPT;
/* The socket's own address, the caller's to free, or null (also when the
 * kernel reports no address at all). */
QV_EXPORT qvsockaddr_t *qvmodule_get_addr_local(qvmodule *tp) QV_NOEXCEPT;
/* 0 or -1 (errno set). IP_TTL and IP_TOS on a UNIX socket do nothing and
 * succeed. */
QV_EXPORT int qvmodule_set_option(qvmodule *tp, int option, ...) QV_NOEXCEPT;

QV_EXPORT void qvmodule_set_recv(qvmodule *tp, qvmodule_recv_func func) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_accept(qvmodule *tp, qvmodule_accept_func func) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_write(qvmodule *tp, qvmodule_write_func func) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_connect(qvmodule *tp, qvmodule_connect_func func) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_accept_flag(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_clear_accept_flag(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_connect_flag(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_clear_connect_flag(qvmodule *tp) QV_NOEXCEPT;
/* Stores the module's address, which the module then owns; the previous
 * one is not freed. */
QV_EXPORT void qvmodule_set_addr(qvmodule *tp, qvsockaddr_t *addr) QV_NOEXCEPT;
QV_EXPORT void qvmodule_set_qvmodule_addr(qvmodule *tp, qvsockaddr_t *addr) QV_NOEXCEPT;
/* Forgets the address without freeing it. */
QV_EXPORT void qvmodule_reset_qvmodule_addr(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT qvsockaddr_t *qvmodule_get_addr(qvmodule *tp) QV_NOEXCEPT;
/* Frees the address and forgets it. */
QV_EXPORT void qvmodule_sockfree(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT int qvmodule_socket(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT int qvmodule_socket_domain(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT boolean qvmodule_socket_domain_unix(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_proto_set(qvmodule *tp, int proto) QV_NOEXCEPT;
QV_EXPORT int qvmodule_proto_get(qvmodule *tp) QV_NOEXCEPT;

/* Pause and resume a direction; resuming needs an attached socket and a
 * method for that direction. */
QV_EXPORT void qvmodule_socket_disable_receive(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_socket_reenable_receive(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_socket_disable_write(qvmodule *tp) QV_NOEXCEPT;
QV_EXPORT void qvmodule_socket_reenable_write(qvmodule *tp) QV_NOEXCEPT;
/* The module whose recv or accept method is running, else null. */
QV_EXPORT qvmodule *qvmodule_current_rx_module_get(void) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_socket_trace_on(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_socket_trace_off(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;

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
