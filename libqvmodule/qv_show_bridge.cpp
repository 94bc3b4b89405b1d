// The management commands through the show server. The handlers that
// qv_ui_init registers with the management library fill a JSON object
// given in their context; the show server gives each request a JSON
// object too, so a show command only has to hand its object over.

#include <stdio.h>
#include <string.h>

#include <jrpc.h>

#include "qv_daemon_private.h"
#include "qv_memory.h"
#include "qv_show.h"

namespace
{

// The show commands of qv_ui_init, under their show-server names. A show
// command carries no data of its own, so each names its handler at compile
// time; the trace switches are looked up in qv_ui_init's own table.
struct UiShow {
    const char *command;
    cmd_handler_cb handler;
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

// The trace keywords, named for a request that gives none of them.
void add_keyword_error(cJSON *out)
{
    char text[128] = "level must be one of";
    size_t len = strlen(text);
    const char *sep = " ";
    for (size_t i = 0; i < ui_command_count; i++) {
        const UiCommand &c = ui_commands[i];
        if (c.kind == JRPC_REG_TRACE && c.on && len < sizeof(text)) {
            len += snprintf(text + len, sizeof(text) - len, "%s%s", sep, c.keyword);
            sep = ", ";
        }
    }
    cJSON_AddStringToObject(out, "Error", text);
}

// Runs the switch that qv_ui_init registers for the keyword and direction.
void trace_cmd(cmd_ctx_handle ctx, bool on)
{
    cJSON *out = qvsh_cmd_get_json(ctx);
    const qvsh_cmd_arg_t &level = qvsh_cmd_get_args_list(ctx)[QVSH_ARG_ID_DISP_LEVEL];
    for (size_t i = 0; level.arg_present && i < ui_command_count; i++) {
        const UiCommand &c = ui_commands[i];
        if (c.kind == JRPC_REG_TRACE && c.on == on && strcmp(level.arg_value, c.keyword) == 0) {
            run_handler(ctx, c.handler);
            cJSON_AddStringToObject(out, "Trace", c.keyword);
            cJSON_AddStringToObject(out, "State", on ? "on" : "off");
            return;
        }
    }
    add_keyword_error(out);
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
