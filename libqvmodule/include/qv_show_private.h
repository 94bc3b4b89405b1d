/* Show shell internals: the client record, the request runner that the
 * server calls, and the settings that tests and fuzzers point elsewhere. */
#ifndef QV_SHOW_PRIVATE_H
#define QV_SHOW_PRIVATE_H

#include <event2/event.h>
#include "qv_shared.h"
#include "qv_show.h"

#define QVSH_IN_BUF_SIZE 1024
/* A file name, its terminator included, fits this buffer. */
#define QVSH_OUT_FILE_NAME_SIZE 256

typedef struct client_ctx_s {
    int client_fd;               /* 0 when none */
    struct event *client_revent; /* read event while receiving, then while draining */
    char in_buf[QVSH_IN_BUF_SIZE];
    uint32_t in_buf_len;
} client_ctx_t;

namespace qv
{

/* Directory of the output files, with its trailing "/"; "/var/tmp/". */
extern const char *show_out_dir;
/* A client that sends nothing for this long is released. */
extern struct timeval show_idle_timeout;
/* A reply that the client does not take within this long is abandoned. */
extern struct timeval show_send_timeout;
/* Times accept found the descriptors exhausted and paused the listener. */
extern unsigned show_accept_pauses;

/* Runs one request on the client's behalf, streams the reply and releases
 * the client. The text is modified in place. */
void qvsh_handle_cmd(client_ctx_t *client, char *complete_cmd_str) noexcept;
void qvsh_free_client(client_ctx_t *client_ctx) noexcept;
cmd_t *cmd_node_lookup(const char *cmd_str) noexcept;
/* Copies input to output without any whitespace character. */
void trim_string(const char *input, char *output) noexcept;
char *ltrim_string(char *s) noexcept;
void rtrim_string(char *s) noexcept;
void qvsh_show_all_cmds(cmd_ctx_handle cmd_ctx) noexcept;

} // namespace qv

using namespace qv;

#endif
