// Daemon start-up and main loop, the process globals, the giant lock hook
// and the registration of the library's management commands.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <event2/event.h>
#include <event2/thread.h>
#include <iterator>
#include <pthread.h>

#include "libcpe_event_public_api.h"
#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_memory.h"
#include "qv_show.h"
#include "qv_trace_private.h"

extern "C" {
QV_EXPORT char *progname = nullptr;
QV_EXPORT char hostname[65] = "";
QV_EXPORT int do_daemon = 0;
QV_EXPORT int daemon_pid = -1;
QV_EXPORT qv_daemon_app_ctx_t *daemon_app_ctx = nullptr;
QV_EXPORT struct event_base *g_event_base = nullptr;
QV_EXPORT trace_handle *trace_global = nullptr;
}

qv_giant_lock_func qv::qv_giant_lock_unlock_fn = nullptr;
const char *qv::qv_gian_lock_last_caller = nullptr;
int qv::qv_gian_lock_last_caller_line = 0;

namespace
{

constexpr uint32_t kDefaultLogSize = 5000000;
constexpr uint8_t kDefaultLogCount = 5;

char log_file_name[256];

// The thread that runs the loop; until a daemon starts, every caller is.
pthread_t loop_thread;
bool loop_thread_known;

const char *basename_of(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

[[noreturn]] void refuse_trace_file(const char *path)
{
    trace_cb(nullptr, FALSE, LOG_ERR, "Unable to open trace_file:%s", path);
    exit(0);
}

// The same refusal for a default path too long for its buffer, named whole.
[[noreturn]] void refuse_default_trace_file()
{
    trace_cb(nullptr, FALSE, LOG_ERR, "Unable to open trace_file:/var/log/%s.log", progname);
    exit(0);
}

// Fills the defaulted trace settings of the context. A default path that
// would not fit its buffer is refused rather than cut, since a cut path
// would name some other file.
void default_trace_settings(qv_daemon_app_ctx_t *ctx)
{
    if (ctx->log_file_name == nullptr) {
        int n = snprintf(log_file_name, sizeof(log_file_name), "/var/log/%s.log", progname);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(log_file_name))
            refuse_default_trace_file();
        ctx->log_file_name = log_file_name;
    }
    if (ctx->log_file_size == 0)
        ctx->log_file_size = kDefaultLogSize;
    if (ctx->log_file_count == 0)
        ctx->log_file_count = kDefaultLogCount;
}

// The trace file's own open aborts on failure; start-up wants the quiet
// refusal instead, so it tries the path first. A path that exists but is
// no regular file is left to the open's own fatal check.
void open_trace_file(qv_daemon_app_ctx_t *ctx)
{
    struct stat st;
    if (stat(ctx->log_file_name, &st) != 0 || (st.st_mode & S_IFREG)) {
        FILE *probe = trace_file_open_internal(ctx->log_file_name, 0666);
        if (probe == nullptr)
            refuse_trace_file(ctx->log_file_name);
        fclose(probe);
    }
    trace_global = trace_file_open(ctx->log_file_name, ctx->log_file_size, ctx->log_file_count);
}

void init_subsystems()
{
    // Memory first: every later initialiser creates block pools.
    qvmodule_memory_init();
    qvmodule_init();
    qvmodule_timer_init();
    qvmodule_job_init();
    qvmodule_signal_init();
    evh_init();
    qvsh_init();
}

void run_app_modules(const qv_daemon_app_ctx_t *ctx)
{
    struct app_module *mods = ctx->app_modules.primary;
    if (mods == nullptr)
        return;
    for (uint32_t i = 0; i < ctx->app_modules.count; i++)
        if (mods[i].var_init)
            mods[i].var_init();
    for (uint32_t i = 0; i < ctx->app_modules.count; i++)
        if (mods[i].init)
            mods[i].init();
}

} // namespace

bool qv::qv_on_loop_thread() noexcept
{
    return !loop_thread_known || pthread_equal(loop_thread, pthread_self());
}

void qv::qv_libevent_trace_fn(int severity, const char *msg) noexcept
{
    if (trace_type_is_enabled(trace_global, QV_TRACE_LIBEVENT))
        trace_cb(trace_global, TRUE, -1, "libevent severity:%d %s", severity, msg);
}

void qv::qv_libevent_fatal_fn(int err) noexcept
{
    if (trace_type_is_enabled(trace_global, QV_TRACE_LIBEVENT))
        trace_cb(trace_global, TRUE, -1, "LIBEVENT FATAL ERROR: %d", err);
}

extern "C" QV_EXPORT void qv_daemon_init(int argc, char **argv,
                                         struct qv_daemon_app_ctx *ctx) noexcept
{
    progname = const_cast<char *>(basename_of(argv[0]));
    if (gethostname(hostname, sizeof(hostname)) != 0)
        exit(0);
    daemon_app_ctx = ctx;
    if (do_daemon)
        qv_daemon_daemonize();
    daemon_pid = getpid();

    default_trace_settings(ctx);
    open_trace_file(ctx);
    trace_cb(trace_global, TRUE, LOG_INFO, "%s: Daemon(%s) starting", "qv_daemon_init", progname);
    openlog(progname, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_INFO));
    qv_daemon_pid_open();

    umask(022);
    if (chdir("/var/tmp/") != 0) {
        // A daemon can run from wherever it was started.
    }
    event_set_log_callback(qv_libevent_trace_fn);
    event_set_fatal_callback(qv_libevent_fatal_fn);

    if (ctx->args_parser_fn)
        ctx->args_parser_fn(argc, argv);

    // Other threads arm timers and queue jobs under the giant lock while
    // the loop waits in the kernel or walks its queues without it: libevent
    // must lock its own base, and wake the loop for what they add.
    QV_ASSERT(evthread_use_pthreads() == 0);
    loop_thread = pthread_self();
    loop_thread_known = true;
    g_event_base = event_base_new();
    QV_ASSERT(g_event_base);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    srand48(tv.tv_sec);

    init_subsystems();
    run_app_modules(ctx);
}

extern "C" QV_EXPORT void qv_daemon_loop(void) noexcept
{
    if (!pthread_equal(loop_thread, pthread_self()))
        loop_thread = pthread_self();
    event_base_loop(g_event_base, 0);
}

extern "C" QV_EXPORT void qv_daemon_json_event_hndl(int flag) noexcept
{
    event_base_loop(g_event_base, flag);
}

extern "C" QV_EXPORT struct event_base *qv_get_global_event_base(void) noexcept
{
    return g_event_base;
}

extern "C" QV_EXPORT char *qv_daemon_get_progname(void) noexcept
{
    return progname;
}

extern "C" QV_EXPORT char *qv_daemon_get_hostname(void) noexcept
{
    return hostname;
}

/* ---------------------------------------------------------------- */
/* Giant lock                                                       */

extern "C" QV_EXPORT void qv_giant_lock_func_init(qv_giant_lock_func fn) noexcept
{
    qv_giant_lock_unlock_fn = fn;
}

extern "C" QV_EXPORT int qv_giant_lock(const char *func, int line) noexcept
{
    qv_giant_lock_func fn = qv_giant_lock_unlock_fn;
    return fn ? qv_giant_lock_take(fn, func, line) : -1;
}

extern "C" QV_EXPORT void qv_giant_unlock(int lock_res) noexcept
{
    if (qv_giant_lock_func fn = qv_giant_lock_unlock_fn)
        qv_giant_lock_release(fn, lock_res);
}

/* ---------------------------------------------------------------- */
/* Management commands                                              */

namespace
{

} // namespace

jrpc_method_retval_t qv::qv_ui_trace_switch(uint32_t bit, bool on) noexcept
{
    if (on)
        trace_type_enable(trace_global, bit);
    else
        trace_type_disable(trace_global, bit);
    return JRPC_SUCCESS;
}

void qv::qv_show_add_name(cJSON *list, const char *entry_key, const char *name) noexcept
{
    cJSON *entry = cJSON_CreateObject();
    cJSON_AddItemToObject(entry, "Name", cJSON_CreateString(name));
    cJSON_AddItemToObject(list, entry_key, entry);
}

extern "C" QV_EXPORT jrpc_method_retval_t qv_libevent_show(jrpc_method_ctx_handle) noexcept
{
    return JRPC_SUCCESS;
}

extern "C" QV_EXPORT jrpc_method_retval_t qv_libevent_trace_on(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_LIBEVENT, true);
}

extern "C" QV_EXPORT jrpc_method_retval_t qv_libevent_trace_off(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_LIBEVENT, false);
}

const qv::UiCommand qv::ui_commands[] = {
    {JRPC_REG_SHOW, "memory_usage", "daemon memory usage", "memory", 0, qvmodule_memory_show},
    {JRPC_REG_SHOW, "module_usage", "modules", "module", 0, qvmodule_module_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "module", 1, qvmodule_module_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "module", 0, qvmodule_module_trace_off},
    {JRPC_REG_SHOW, "libevent", "libevent", "libevent", 0, qv_libevent_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "libevent", 1, qv_libevent_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "libevent", 0, qv_libevent_trace_off},
    {JRPC_REG_SHOW, "job", "job information", "job", 0, qvmodule_job_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "job", 1, qvmodule_job_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "job", 0, qvmodule_job_trace_off},
    {JRPC_REG_SHOW, "timer", "timer information", "timer", 0, qvmodule_timer_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "timer", 1, qvmodule_timer_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "timer", 0, qvmodule_timer_trace_off},
    {JRPC_REG_TRACE, nullptr, nullptr, "socket", 1, qvmodule_socket_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "socket", 0, qvmodule_socket_trace_off},
};
const size_t qv::ui_command_count = std::size(ui_commands);

extern "C" QV_EXPORT void qv_ui_init(const char *app_name) noexcept
{
    for (size_t i = 0; i < ui_command_count; i++) {
        const UiCommand &c = ui_commands[i];
        if (c.kind == JRPC_REG_SHOW)
            jrpc_register_show_command(jrpc_gl_amd_session, app_name, c.name, c.help, c.keyword,
                                       c.handler);
        else
            jrpc_register_trace_command(jrpc_gl_amd_session, app_name, c.on, c.keyword, c.handler);
    }
}
