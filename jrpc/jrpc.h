/* Management JSON-RPC interface, as the daemons use it.
 *
 * This build carries a small stand-in for the system's management
 * library: it keeps every registration in order and can invoke a show or
 * trace handler with a fresh result object, which is what tests and tools
 * need of it. */
#ifndef JRPC_H
#define JRPC_H

#include <stddef.h>
#include <cjson/cJSON.h>

#ifdef __cplusplus
extern "C" {
#define JRPC_NOEXCEPT noexcept
#else
#define JRPC_NOEXCEPT
#endif

#define JRPC_EXPORT __attribute__((visibility("default")))

typedef void *jrpc_session_handle;

typedef enum { JRPC_REQUEST = 1, JRPC_RESPONSE = 2, JRPC_NOTIFICATION = 3 } jrpc_msg_type_t;

typedef struct jrpc_parse_info_ {
    jrpc_msg_type_t jrpc_mtype;
    const char *jrpc_method;
    int jrpc_response_id;
    cJSON *jrpc_params;
    cJSON *jrpc_result;
    cJSON *jrpc_error;
    cJSON *jrpc_id;
    cJSON *jrpc_root;
} jrpc_parse_info_t;

typedef struct jrpc_method_ctx {
    jrpc_parse_info_t *jrpc_parse_info;
    cJSON *jrpc_result_root;
} jrpc_method_ctx;

typedef jrpc_method_ctx *jrpc_method_ctx_handle;

typedef enum { JRPC_FAIL = 1, JRPC_SUCCESS = 2 } jrpc_method_retval_t;

typedef jrpc_method_retval_t (*jrpc_method_handler_t)(jrpc_method_ctx_handle ctx);

static inline cJSON *jrpc_ctx_get_result_jroot(jrpc_method_ctx_handle ctx)
{
    return ctx->jrpc_result_root;
}

/* The process's management session. */
JRPC_EXPORT extern jrpc_session_handle jrpc_gl_amd_session;

JRPC_EXPORT int jrpc_register_show_command(jrpc_session_handle session, const char *app,
                                           const char *name, const char *help, const char *keyword,
                                           jrpc_method_handler_t handler) JRPC_NOEXCEPT;
JRPC_EXPORT int jrpc_register_trace_command(jrpc_session_handle session, const char *app, int on,
                                            const char *keyword,
                                            jrpc_method_handler_t handler) JRPC_NOEXCEPT;

/* What the stand-in offers tests and tools. */
typedef enum { JRPC_REG_SHOW = 1, JRPC_REG_TRACE = 2 } jrpc_reg_kind_t;

typedef struct jrpc_registration {
    jrpc_reg_kind_t kind;
    const char *app;
    const char *name;
    const char *help;
    const char *keyword;
    int on;
    jrpc_method_handler_t handler;
} jrpc_registration_t;

JRPC_EXPORT size_t jrpc_registry_count(void) JRPC_NOEXCEPT;
/* The i-th registration in registration order, or null past the end. */
JRPC_EXPORT const jrpc_registration_t *jrpc_registry_get(size_t i) JRPC_NOEXCEPT;
/* Runs the show handler registered for app and keyword on a fresh empty
 * object and hands the object to the caller, who frees it. JRPC_FAIL and a
 * null result when there is no such command. */
JRPC_EXPORT jrpc_method_retval_t jrpc_invoke_show(const char *app, const char *keyword,
                                                  cJSON **result) JRPC_NOEXCEPT;
/* The same for the trace command of app, keyword and on (1) or off (0). */
JRPC_EXPORT jrpc_method_retval_t jrpc_invoke_trace(const char *app, const char *keyword,
                                                   int on) JRPC_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
