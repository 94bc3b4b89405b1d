/* The management commands through the show server: "show memory" and the
 * other show commands that qv_ui_init registered answer with the JSON of
 * their registered handlers, and "trace on" / "trace off" with
 * level=KEYWORD run the registered trace commands. */
#include "bridge.h"

#include <jrpc.h>
#include <qv_show.h>

static const char *bridge_app;

static void bridge_show(cmd_ctx_handle ctx, const char *keyword)
{
    cJSON *out = qvsh_cmd_get_json(ctx);
    cJSON *result = NULL, *item;

    if (jrpc_invoke_show(bridge_app, keyword, &result) != JRPC_SUCCESS || result == NULL) {
        cJSON_AddStringToObject(out, "Error", "management command failed");
        cJSON_Delete(result);
        return;
    }
    /* Moved member by member: the handlers repeat keys ("Block", "Timer"),
     * which a lookup by name would lose. */
    while ((item = result->child) != NULL) {
        cJSON_DetachItemViaPointer(result, item);
        cJSON_AddItemToObject(out, item->string, item);
    }
    cJSON_Delete(result);
}

static void show_memory(cmd_ctx_handle ctx)
{
    bridge_show(ctx, "memory");
}
static void show_module(cmd_ctx_handle ctx)
{
    bridge_show(ctx, "module");
}
static void show_timer(cmd_ctx_handle ctx)
{
    bridge_show(ctx, "timer");
}
static void show_job(cmd_ctx_handle ctx)
{
    bridge_show(ctx, "job");
}
static void show_libevent(cmd_ctx_handle ctx)
{
    bridge_show(ctx, "libevent");
}

static void bridge_trace(cmd_ctx_handle ctx, int on)
{
    cJSON *out = qvsh_cmd_get_json(ctx);
    const qvsh_cmd_arg_t *level = &qvsh_cmd_get_args_list(ctx)[QVSH_ARG_ID_DISP_LEVEL];

    if (!level->arg_present) {
        cJSON_AddStringToObject(out, "Error",
                                "level=KEYWORD needed: module, libevent, job, "
                                "timer or socket");
        return;
    }
    if (jrpc_invoke_trace(bridge_app, level->arg_value, on) != JRPC_SUCCESS) {
        cJSON_AddStringToObject(out, "Error", "no trace command of that keyword");
        return;
    }
    cJSON_AddStringToObject(out, "Trace", level->arg_value);
    cJSON_AddStringToObject(out, "State", on ? "on" : "off");
}

static void trace_on(cmd_ctx_handle ctx)
{
    bridge_trace(ctx, 1);
}
static void trace_off(cmd_ctx_handle ctx)
{
    bridge_trace(ctx, 0);
}

void bridge_init(const char *app_name)
{
    bridge_app = app_name;
    qvsh_register_cmd("show memory", show_memory);
    qvsh_register_cmd("show module", show_module);
    qvsh_register_cmd("show timer", show_timer);
    qvsh_register_cmd("show job", show_job);
    qvsh_register_cmd("show libevent", show_libevent);
    qvsh_register_cmd("trace on", trace_on);
    qvsh_register_cmd("trace off", trace_off);
}
