// The show shell: the registry of show commands, the run of one request
// into an output file, and the TCP server that gathers requests and
// streams the files back.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <event2/event.h>
#include <event2/util.h>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_memory_private.h"
#include "qv_show_private.h"

extern "C" {
QV_EXPORT hbt_node_t *cmd_root = nullptr;
QV_EXPORT qvmodule *sh_qvmodule = nullptr;
QV_EXPORT block_t qvsh_client_ctx_block = nullptr;
QV_EXPORT block_t qvsh_cmd_ctx_block = nullptr;
QV_EXPORT block_t qvsh_cmd_block = nullptr;
}

namespace qv
{
const char *show_out_dir = "/var/tmp/";
struct timeval show_idle_timeout = {30, 0};
struct timeval show_send_timeout = {5, 0};
unsigned show_accept_pauses = 0;
} // namespace qv

namespace
{

bool sh_inited = false;
int server_fd = -1;
struct event *server_event = nullptr;
struct event *accept_retry_event = nullptr;

// With the descriptors exhausted the listener stays readable; it is
// watched again after this pause instead of being spun on.
constexpr struct timeval kAcceptRetry = {0, 100000};
// After the reply, the client's late bytes are read and dropped for at
// most this long and this much, so that closing does not reset the
// connection and destroy the reply before the client has read it.
constexpr struct timeval kDrainTimeout = {2, 0};
constexpr uint32_t kDrainMax = 64 * 1024;
constexpr size_t kChunk = 1024;
// A client that takes its reply a trickle at a time, each write just
// within the send time-out, is cut off after this long all told.
constexpr int kReplyTimeLimit = 30;

constexpr char kNotFound[] = "command not found";
constexpr char kArgInvalid[] = "command argument invalid";
constexpr char kNoFile[] = "output file unavailable";

constexpr bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

cmd_t *cmdnode_to_entry(hbt_node_t *node)
{
    return reinterpret_cast<cmd_t *>(node);
}

int cmd_node_cmp(hbt_node_t *a, hbt_node_t *b)
{
    return strcmp(cmdnode_to_entry(a)->cmd_str, cmdnode_to_entry(b)->cmd_str);
}

void add_error(cJSON *obj, const char *text)
{
    cJSON_AddItemToObject(obj, "Error", cJSON_CreateString(text));
}

// A command text becomes part of a file name in a shared directory: it
// must name one file there, and nothing that a terminal would act on.
bool usable_in_file_name(const char *key)
{
    if (*key == '\0')
        return false;
    for (const char *p = key; *p; p++) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '/' || c < 0x20 || c == 0x7f)
            return false;
    }
    return true;
}

enum class OutFile { named, bad_name, unusable };

// Creates or reuses the output file without following a link planted at
// its name by someone else, and without writing into anybody's file but
// ours.
FILE *open_named_output(const char *path)
{
    int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (fd < 0)
        return nullptr;
    struct stat st;
    bool ours = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
                st.st_nlink == 1 && ftruncate(fd, 0) == 0;
    FILE *fp = ours ? fdopen(fd, "w+") : nullptr;
    if (fp == nullptr) {
        int err = errno;
        close(fd);
        errno = ours ? err : EPERM;
    }
    return fp;
}

// A refusal still needs a file to be streamed from: one that no name in
// the file system leads to.
FILE *anonymous_output()
{
    int fd = memfd_create("qvsh", MFD_CLOEXEC);
    FILE *fp = fd >= 0 ? fdopen(fd, "w+") : nullptr;
    if (fd >= 0 && fp == nullptr)
        close(fd);
    return fp;
}

FILE *open_output(const char *key, OutFile *kind)
{
    char path[QVSH_OUT_FILE_NAME_SIZE];
    int n =
        snprintf(path, sizeof(path), "%s%s.%s.", qv::show_out_dir, progname ? progname : "", key);
    constexpr int kStampLen = 14;
    if (!usable_in_file_name(key) || n < 0 || n + kStampLen >= int(sizeof(path))) {
        *kind = OutFile::bad_name;
        return anonymous_output();
    }
    struct timespec now;
    struct tm tm;
    if (clock_gettime(CLOCK_REALTIME, &now) == 0 && localtime_r(&now.tv_sec, &tm))
        strftime(path + n, sizeof(path) - n, "%Y%m%d%H%M%S", &tm);
    *kind = OutFile::named;
    if (FILE *fp = open_named_output(path))
        return fp;
    trace_cb(trace_global, TRUE, LOG_ERR, "%s: output file:%s unusable errno:%d", "qvsh_handle_cmd",
             path, errno);
    *kind = OutFile::unusable;
    return anonymous_output();
}

// Fills the argument slots from the fields after the command. False for a
// malformed or unknown argument, and for a request whose fields run out
// before the field "EOC".
bool parse_args(char **save, qvsh_cmd_arg_t *args)
{
    while (char *field = strtok_r(nullptr, ",", save)) {
        if (strcmp(field, "EOC") == 0)
            return true;
        char *part_save = nullptr;
        char *name = strtok_r(field, "=", &part_save);
        char *value = name ? strtok_r(nullptr, "=", &part_save) : nullptr;
        if (value == nullptr || strtok_r(nullptr, "=", &part_save) != nullptr)
            return false;
        name = ltrim_string(name);
        rtrim_string(name);
        value = ltrim_string(value);
        rtrim_string(value);
        int id = 0;
        while (id < QVSH_ARG_ID_MAX && strcmp(name, arg_names[id]) != 0)
            id++;
        if (id == QVSH_ARG_ID_MAX)
            return false;
        args[id].arg_present = TRUE;
        args[id].arg_value = value;
    }
    return false;
}

time_t monotonic_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

// Sends the whole file from its start. A write that fails (the peer gone,
// or the send time-out of a client that does not read) ends the transfer.
void send_file(const client_ctx_t *client, int file_fd)
{
    char buf[kChunk];
    off_t off = 0;
    time_t give_up = monotonic_seconds() + kReplyTimeLimit;
    while (monotonic_seconds() < give_up) {
        ssize_t got = pread(file_fd, buf, sizeof(buf), off);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return;
        off += got;
        for (ssize_t sent = 0; sent < got;) {
            ssize_t n = send(client->client_fd, buf + sent, size_t(got - sent), MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return;
            sent += n;
        }
    }
}

void qvsh_drain_client_cb(evutil_socket_t fd, short what, void *arg)
{
    auto *client = static_cast<client_ctx_t *>(arg);
    if (what & EV_READ) {
        char scratch[kChunk];
        ssize_t n = recv(fd, scratch, sizeof(scratch), MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n > 0 && (client->in_buf_len += uint32_t(n)) < kDrainMax)
            return;
    }
    qvsh_free_client(client);
}

// Ends the reply with an orderly shutdown and lets the connection finish
// from the loop; a client record that is not a connected socket is freed.
void release_client(client_ctx_t *client)
{
    if (client->client_revent == nullptr && client->client_fd > 0 && g_event_base != nullptr &&
        shutdown(client->client_fd, SHUT_WR) == 0) {
        client->in_buf_len = 0;
        client->client_revent = event_new(g_event_base, client->client_fd, EV_READ | EV_PERSIST,
                                          qvsh_drain_client_cb, client);
        QV_ASSERT(client->client_revent);
        QV_ASSERT(event_add(client->client_revent, &kDrainTimeout) == 0);
        return;
    }
    qvsh_free_client(client);
}

} // namespace

/* ---------------------------------------------------------------- */
/* Registry                                                         */

void qv::trim_string(const char *input, char *output) noexcept
{
    for (; *input; input++)
        if (!is_space(*input))
            *output++ = *input;
    *output = '\0';
}

char *qv::ltrim_string(char *s) noexcept
{
    while (is_space(*s))
        s++;
    return s;
}

void qv::rtrim_string(char *s) noexcept
{
    size_t n = strlen(s);
    while (n > 0 && is_space(s[n - 1]))
        s[--n] = '\0';
}

cmd_t *qv::cmd_node_lookup(const char *cmd_str) noexcept
{
    if (cmd_str == nullptr)
        return nullptr;
    cmd_t key{};
    key.cmd_str = const_cast<char *>(cmd_str);
    return cmdnode_to_entry(hbt_lookup(cmd_root, &key.cmd_node, cmd_node_cmp));
}

void qv::qvsh_show_all_cmds(cmd_ctx_handle cmd_ctx) noexcept
{
    cJSON *list = qvsh_cmd_get_json(cmd_ctx);
    for (hbt_node_t *n = hbt_iterate_next(cmd_root, nullptr); n; n = hbt_iterate_next(cmd_root, n))
        qv_show_add_name(list, "Command", cmdnode_to_entry(n)->cmd_str_orig);
}

extern "C" QV_EXPORT void qvsh_init(void) noexcept
{
    if (sh_inited)
        return;
    sh_inited = true;
    qvsh_client_ctx_block = qvmodule_block_init(sizeof(client_ctx_t), "client_ctx_t");
    qvsh_cmd_ctx_block = qvmodule_block_init(sizeof(cmd_ctx_t), "cmd_ctx_t");
    qvsh_cmd_block = qvmodule_block_init(sizeof(cmd_t), "cmd_t");
    sh_qvmodule = qvmodule_alloc("QV Show infra", 0, nullptr);
    if (qvmodule_create(sh_qvmodule) == 0)
        qvmodule_quit(22);
    qvsh_register_cmd("show all", qvsh_show_all_cmds);
}

extern "C" QV_EXPORT void qvsh_register_cmd(const char *cmd_str, cmd_handler_cb cmd_func) noexcept
{
    QV_ASSERT(sh_inited);
    QV_ASSERT(cmd_str && cmd_func);
    auto *new_cmd = QV_RECORD_ALLOC(cmd_t, qvsh_cmd_block);
    new_cmd->cmd_str_orig = cmd_str;
    new_cmd->cmd_str = static_cast<char *>(qvmodule_mem_malloc(sh_qvmodule, strlen(cmd_str) + 1));
    QV_ASSERT(new_cmd->cmd_str);
    trim_string(cmd_str, new_cmd->cmd_str);
    new_cmd->cmd_func = cmd_func;
    QV_ASSERT_TEXT(hbt_insert(&cmd_root, &new_cmd->cmd_node, cmd_node_cmp),
                   "hbt_insert(&cmd_root, &new_cmd->cmd_node, cmd_node_cmp)");
}

extern "C" QV_EXPORT FILE *qvsh_cmd_get_file(cmd_ctx_t *cmd_ctx) noexcept
{
    return cmd_ctx->fp;
}

extern "C" QV_EXPORT cJSON *qvsh_cmd_get_json(cmd_ctx_handle cmd_ctx) noexcept
{
    return cmd_ctx->app_jroot;
}

extern "C" QV_EXPORT qvsh_cmd_arg_t *qvsh_cmd_get_args_list(cmd_ctx_t *cmd_ctx) noexcept
{
    return cmd_ctx->args_list;
}

extern "C" QV_EXPORT void qvsh_cmd_set_output_fmt(cmd_ctx_t *cmd_ctx, qvsh_out_fmt_t fmt) noexcept
{
    cmd_ctx->out_fmt = static_cast<uint8_t>(fmt);
}

/* ---------------------------------------------------------------- */
/* One request                                                      */

void qv::qvsh_handle_cmd(client_ctx_t *client, char *complete_cmd_str) noexcept
{
    char *save = nullptr;
    const char *request = strtok_r(complete_cmd_str, ",", &save);
    if (request == nullptr)
        request = "";
    char *cmd_str = static_cast<char *>(qvmodule_mem_malloc(sh_qvmodule, strlen(request) + 1));
    QV_ASSERT(cmd_str);
    trim_string(request, cmd_str);

    OutFile kind;
    FILE *fp = open_output(cmd_str, &kind);
    cmd_ctx_t *new_cmd_ctx = nullptr;
    if (fp != nullptr) {
        cJSON *response = cJSON_CreateObject();
        cmd_t *cmd = kind == OutFile::named ? cmd_node_lookup(cmd_str) : nullptr;
        bool failed = true;
        if (kind == OutFile::unusable) {
            add_error(response, kNoFile);
        } else if (cmd == nullptr) {
            add_error(response, kNotFound);
        } else {
            new_cmd_ctx = QV_RECORD_ALLOC(cmd_ctx_t, qvsh_cmd_ctx_block);
            new_cmd_ctx->fp = fp;
            new_cmd_ctx->app_jroot = response;
            new_cmd_ctx->out_fmt = QV_SHOW_OUT_FMT_JSON;
            if (parse_args(&save, new_cmd_ctx->args_list)) {
                failed = false;
                cmd->cmd_func(new_cmd_ctx);
            } else {
                cJSON_Delete(response);
                response = cJSON_CreateObject();
                add_error(response, kArgInvalid);
            }
        }

        if (failed || new_cmd_ctx->out_fmt == QV_SHOW_OUT_FMT_JSON) {
            cJSON *wrapper = cJSON_CreateObject();
            cJSON_AddItemToObject(wrapper, "Request", cJSON_CreateString(request));
            cJSON_AddItemToObject(wrapper, "Response", response);
            char *text = cJSON_Print(wrapper);
            QV_ASSERT_TEXT(fseek(fp, 0, SEEK_END) == 0, "fseek(fp, 0, 2) == 0");
            QV_ASSERT_TEXT(ftell(fp) == 0, "ftell(fp) == 0");
            if (text != nullptr)
                fputs(text, fp);
            cJSON_free(text);
            cJSON_Delete(wrapper);
        } else {
            QV_ASSERT_TEXT(new_cmd_ctx->out_fmt == QV_SHOW_OUT_FMT_APP,
                           "new_cmd_ctx->out_fmt == QV_SHOW_OUT_FMT_APP");
            cJSON_Delete(response);
        }
        if (fflush(fp) == 0 && client != nullptr)
            send_file(client, fileno(fp));
        fclose(fp);
    }
    if (client != nullptr)
        release_client(client);
    if (new_cmd_ctx != nullptr)
        qvmodule_block_free(qvsh_cmd_ctx_block, new_cmd_ctx);
    qvmodule_mem_free(sh_qvmodule, cmd_str);
}

/* ---------------------------------------------------------------- */
/* Server                                                           */

void qv::qvsh_free_client(client_ctx_t *client_ctx) noexcept
{
    if (client_ctx->client_revent != nullptr) {
        QV_ASSERT(event_del(client_ctx->client_revent) == 0);
        event_free(client_ctx->client_revent);
    }
    if (client_ctx->client_fd != 0)
        evutil_closesocket(client_ctx->client_fd);
    qvmodule_block_free(qvsh_client_ctx_block, client_ctx);
}

static void qvsh_read_client_cb(evutil_socket_t fd, short what, void *arg) noexcept
{
    auto *client_ctx = static_cast<client_ctx_t *>(arg);
    if (what & EV_TIMEOUT) { // idle for too long
        qvsh_free_client(client_ctx);
        return;
    }
    QV_ASSERT_TEXT((what & EV_READ) == EV_READ, "(what & 0x02) == 0x02");
    // The last byte of the buffer stays the terminator.
    size_t room = sizeof(client_ctx->in_buf) - 1 - client_ctx->in_buf_len;
    ssize_t n = recv(fd, client_ctx->in_buf + client_ctx->in_buf_len, room, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (n <= 0) { // gone, or failed, before the end marker
        qvsh_free_client(client_ctx);
        return;
    }
    client_ctx->in_buf_len += uint32_t(n);
    client_ctx->in_buf[client_ctx->in_buf_len] = '\0';
    if (strstr(client_ctx->in_buf, "EOC") == nullptr) {
        if (client_ctx->in_buf_len == sizeof(client_ctx->in_buf) - 1)
            qvsh_free_client(client_ctx); // full without an end marker
        return;
    }
    QV_ASSERT(event_del(client_ctx->client_revent) == 0);
    event_free(client_ctx->client_revent);
    client_ctx->client_revent = nullptr;
    QV_GIANT_LOCK_SCOPE();
    qvsh_handle_cmd(client_ctx, client_ctx->in_buf);
}

static void qvsh_handle_new_request(int new_client_fd) noexcept
{
    // Descriptor 0 would read as "no descriptor" in the record.
    if (new_client_fd == 0) {
        int moved = fcntl(0, F_DUPFD_CLOEXEC, 1);
        close(0);
        if (moved < 0)
            return;
        new_client_fd = moved;
    }
    // The connection stays blocking; a client that does not read its
    // reply holds the daemon for this long at most.
    setsockopt(new_client_fd, SOL_SOCKET, SO_SNDTIMEO, &qv::show_send_timeout,
               sizeof(qv::show_send_timeout));
    auto *new_client = QV_RECORD_ALLOC(client_ctx_t, qvsh_client_ctx_block);
    new_client->client_fd = new_client_fd;
    new_client->in_buf_len = 0;
    new_client->client_revent = event_new(g_event_base, new_client_fd, EV_READ | EV_PERSIST,
                                          qvsh_read_client_cb, new_client);
    QV_ASSERT(new_client->client_revent);
    QV_ASSERT_TEXT(event_add(new_client->client_revent, &qv::show_idle_timeout) == 0,
                   "event_add(new_client->client_revent, ((void *)0)) == 0");
}

static void qvsh_accept_retry_cb(evutil_socket_t, short, void *) noexcept
{
    QV_ASSERT_TEXT(event_add(server_event, nullptr) == 0,
                   "event_add(server_event, ((void *)0)) == 0");
}

static void qvsh_server_read_cb(evutil_socket_t, short what, void *) noexcept
{
    QV_ASSERT_TEXT((what & EV_READ) == EV_READ, "(what & 0x02) == 0x02");
    struct sockaddr_storage addr = {};
    socklen_t len = sizeof(addr);
    int fd = accept4(server_fd, reinterpret_cast<struct sockaddr *>(&addr), &len, SOCK_CLOEXEC);
    if (fd >= 0) {
        qvsh_handle_new_request(fd);
        return;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The pending connection keeps the listener readable: stop
        // watching it until descriptors may be free again.
        qv::show_accept_pauses++;
        QV_ASSERT(event_del(server_event) == 0);
        QV_ASSERT(event_add(accept_retry_event, &kAcceptRetry) == 0);
    }
}

extern "C" QV_EXPORT int qvsh_app_init(qvsh_server_t *server) noexcept
{
    QV_ASSERT(sh_inited);
    if (server_event != nullptr) // one server per process
        return -1;
    server_fd = socket(server->addr->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (server_fd < 0)
        return -1;
    if (evutil_make_socket_nonblocking(server_fd) != 0) {
        evutil_closesocket(server_fd);
        return -1;
    }
    int on = 1;
    if (setsockopt(server_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        evutil_closesocket(server_fd);
        QV_ASSERT(0);
    }
    struct sockaddr_storage addr = {};
    qvsh_server_convert_to_network(server, reinterpret_cast<struct sockaddr *>(&addr));
    if (bind(server_fd, reinterpret_cast<struct sockaddr *>(&addr), socklen_t(server->socklen)) !=
        0) {
        trace_cb(trace_global, TRUE, LOG_ERR, "%s: bind server:%s errno:%d", __func__,
                 server->server_name, errno);
        evutil_closesocket(server_fd);
        QV_ASSERT(0);
    }
    if (listen(server_fd, 1) != 0) {
        evutil_closesocket(server_fd);
        return -1;
    }
    server_event =
        event_new(g_event_base, server_fd, EV_READ | EV_PERSIST, qvsh_server_read_cb, nullptr);
    QV_ASSERT(server_event);
    accept_retry_event = event_new(g_event_base, -1, 0, qvsh_accept_retry_cb, nullptr);
    QV_ASSERT(accept_retry_event);
    QV_ASSERT_TEXT(event_add(server_event, nullptr) == 0,
                   "event_add(server_event, ((void *)0)) == 0");
    return 0;
}
