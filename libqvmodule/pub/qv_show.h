/* Show shell: operator commands registered by the daemon and run one per
 * connection of its TCP show server. A handler either fills the JSON
 * object of its context or switches to the text format and writes to the
 * context's file. */
#ifndef QV_SHOW_H
#define QV_SHOW_H

#include <stdio.h>
#include <sys/socket.h>
#include <cjson/cJSON.h>
#include "qv_defs.h"
#include "qv_hbtree.h"

QV_BEGIN_DECLS

/* Argument ids: indexes of a context's argument slots and of arg_names. */
typedef enum qvsh_arg_id {
    QVSH_ARG_ID_INTERFACE = 0,
    QVSH_ARG_ID_DISP_LEVEL = 1,
    QVSH_ARG_ID_DEVICE = 2,
    QVSH_ARG_ID_VDCF = 3,
    QVSH_ARG_ID_VM = 4,
    QVSH_ARG_ID_CLIENT = 5,
    QVSH_ARG_ID_DEVICE_TYPE = 6,
    QVSH_ARG_ID_DEVICE_SERIAL_NUMBER = 7,
    QVSH_ARG_ID_MAX = 8
} qvsh_arg_id_t;

typedef enum qvsh_out_fmt {
    QV_SHOW_OUT_FMT_JSON = 1, /* the handler fills the JSON object */
    QV_SHOW_OUT_FMT_APP = 2   /* the handler writes its own text to the file */
} qvsh_out_fmt_t;

/* One argument of a request; the value points into the request text and
 * is valid only during the handler's call. */
typedef struct qvsh_cmd_arg_s {
    boolean arg_present;
    const char *arg_value;
} qvsh_cmd_arg_t;

typedef struct cmd_ctx_s {
    FILE *fp;
    cJSON *app_jroot;
    uint8_t out_fmt;
    qvsh_cmd_arg_t args_list[QVSH_ARG_ID_MAX];
} cmd_ctx_t;

typedef struct cmd_ctx_s *cmd_ctx_handle;
typedef void (*cmd_handler_cb)(cmd_ctx_handle cmd_ctx);

/* A registered command, keyed in cmd_root by its text without whitespace. */
typedef struct cmd_s {
    hbt_node_t cmd_node;
    char *cmd_str;
    const char *cmd_str_orig;
    cmd_handler_cb cmd_func;
} cmd_t;

/* An entry of the show server table: a sibling daemon and its listening
 * address, a struct sockaddr_in held in host byte order. */
typedef struct qvsh_server_s {
    uint32_t server_id;
    const char *server_name;
    struct sockaddr *addr;
    int socklen;
} qvsh_server_t;

struct _qvmodule;
struct qvmodule_block;

QV_EXPORT extern hbt_node_t *cmd_root;
QV_EXPORT extern struct _qvmodule *sh_qvmodule;
QV_EXPORT extern struct qvmodule_block *qvsh_client_ctx_block;
QV_EXPORT extern struct qvmodule_block *qvsh_cmd_ctx_block;
QV_EXPORT extern struct qvmodule_block *qvsh_cmd_block;

/* Makes the shell's pools and module and registers "show all"; later
 * calls do nothing. Start-up calls it before the application's modules. */
QV_EXPORT void qvsh_init(void) QV_NOEXCEPT;
/* cmd_str is kept by pointer and must outlive the daemon. Commands match
 * whatever whitespace they are written with; registering one twice is
 * fatal. */
QV_EXPORT void qvsh_register_cmd(const char *cmd_str, cmd_handler_cb cmd_func) QV_NOEXCEPT;
QV_EXPORT FILE *qvsh_cmd_get_file(cmd_ctx_t *cmd_ctx) QV_NOEXCEPT;
QV_EXPORT cJSON *qvsh_cmd_get_json(cmd_ctx_handle cmd_ctx) QV_NOEXCEPT;
/* QVSH_ARG_ID_MAX slots indexed by the argument ids. */
QV_EXPORT qvsh_cmd_arg_t *qvsh_cmd_get_args_list(cmd_ctx_t *cmd_ctx) QV_NOEXCEPT;
QV_EXPORT void qvsh_cmd_set_output_fmt(cmd_ctx_t *cmd_ctx, qvsh_out_fmt_t fmt) QV_NOEXCEPT;

/* Makes the library's management commands reachable through the show
 * server: "show memory", "show module", "show timer", "show job" and
 * "show libevent" answer with the JSON of the handlers that qv_ui_init
 * registers with the management library, and "trace on" / "trace off"
 * with level=KEYWORD (module, libevent, job, timer or socket) switch the
 * same trace bits as its trace commands; any other keyword is answered
 * with an "Error". Call it once, after qv_daemon_init. */
QV_EXPORT void qvsh_register_ui_cmds(void) QV_NOEXCEPT;

/* Opens this process's show server on the entry's address: 0 when it is
 * listening, -1 when it could not be opened or one is open already. */
QV_EXPORT int qvsh_app_init(qvsh_server_t *server) QV_NOEXCEPT;

QV_END_DECLS

#endif
