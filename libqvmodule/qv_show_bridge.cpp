// The management commands through the show server. The handlers that
// qv_ui_init registers with the management library fill a JSON object
// given in their context; the show server gives each request a JSON
// object too, so a show command only has to hand its object over.

#include <string.h>

#include <jrpc.h>

#include "qv_daemon.h"
#include "qv_memory.h"
#include "qv_show.h"

namespace
{

// The show commands of qv_ui_init, under their show-server names.
struct UiShow {
    const char *command;
    cmd_handler_cb handler;
};

// The trace keywords of qv_ui_init with their two handlers.
struct UiTrace {
    const char *keyword;
    jrpc_method_handler_t on;
    jrpc_method_handler_t off;
};

const UiTrace kTraces[] = {
    {"module", qvmodule_module_trace_on, qvmodule_module_trace_off},
    {"libevent", qv_libevent_trace_on, qv_libevent_trace_off},
    {"job", qvmodule_job_trace_on, qvmodule_job_trace_off},
    {"timer", qvmodule_timer_trace_on, qvmodule_timer_trace_off},
    {"socket", qvmodule_socket_trace_on, qvmodule_socket_trace_off},
};

void run_handler(cmd_ctx_handle ctx, jrpc_method_handler_t handler)
{
    jrpc_method_ctx mctx = {nullptr, qvsh_cmd_get_json(ctx)};
    handler(&mctx);
}

template <jrpc_method_handler_t Handler> void show_cmd(cmd_ctx_handle ctx)
{
    run_handler(ctx, Handler);
}

const UiShow kShows[] = {
    {"show memory", show_cmd<qvmodule_memory_show>},
    {"show module", show_cmd<qvmodule_module_show>},
    {"show libevent", show_cmd<qv_libevent_show>},
    {"show job", show_cmd<qvmodule_job_show>},
    {"show timer", show_cmd<qvmodule_timer_show>},
};

void trace_cmd(cmd_ctx_handle ctx, bool on)
{
    cJSON *out = qvsh_cmd_get_json(ctx);
    const qvsh_cmd_arg_t &level = qvsh_cmd_get_args_list(ctx)[QVSH_ARG_ID_DISP_LEVEL];
    if (level.arg_present) {
        for (const UiTrace &t : kTraces) {
            if (strcmp(level.arg_value, t.keyword) == 0) {
                run_handler(ctx, on ? t.on : t.off);
                cJSON_AddItemToObject(out, "Trace", cJSON_CreateString(t.keyword));
                cJSON_AddItemToObject(out, "State", cJSON_CreateString(on ? "on" : "off"));
                return;
            }
        }
    }
    cJSON_AddItemToObject(out, "Error",
                          cJSON_CreateString("level must be one of module, libevent, job, "
                                             "timer, socket"));
}

void trace_on_cmd(cmd_ctx_handle ctx)
{
    trace_cmd(ctx, true);
}
void trace_off_cmd(cmd_ctx_handle ctx)
{
    trace_cmd(ctx, false);
}

} // namespace

extern "C" QV_EXPORT void qvsh_register_ui_cmds(void) noexcept
{
    for (const UiShow &s : kShows)
        qvsh_register_cmd(s.command, s.handler);
    qvsh_register_cmd("trace on", trace_on_cmd);
    qvsh_register_cmd("trace off", trace_off_cmd);
}
