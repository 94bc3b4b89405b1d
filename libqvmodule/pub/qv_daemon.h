/* Daemon runtime: start-up, the main loop, process globals, the giant
 * lock hook, management commands, and the module registry. */
#ifndef QV_DAEMON_H
#define QV_DAEMON_H

#include <stdint.h>
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

/* Turns the process into a running daemon; returns only on success. */
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

/* ------------------------------------------------------------------ */
/* Jobs                                                                */

QV_END_DECLS

#endif
