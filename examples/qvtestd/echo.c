/* "echo": a TCP echo service on the loopback address, one module per
 * connection, and the "clients" event history of who came and went.
 *
 * Each connection reads, then writes back what it read before it reads
 * again: the read event is disarmed while output is pending and the write
 * event is armed only then, so a slow peer slows only itself and nothing
 * spins on an always-writable socket. */
#include "qvtestd.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libcpe_event_public_api.h>
#include <qv_memory.h>
#include <qv_show.h>
#include <qvsockaddr_l2addr.h>

int qvtestd_echo_port = QVTESTD_ECHO_PORT_DEFAULT;

/* How long the listener rests when descriptors run out: a listener that
 * stays readable while accept fails would otherwise spin the loop. */
#define ECHO_ACCEPT_BACKOFF_USEC 100000
#define ECHO_BACKLOG 16

enum { CLIENT_CONNECTED = 1, CLIENT_CLOSED = 2 };

struct echo_conn {
    char name[48];              /* the module's name: must outlive it */
    char peer[INET_ADDRSTRLEN]; /* the history object's key */
    unsigned char buf[4096];
    size_t pending, sent; /* bytes read, bytes of them written back */
    unsigned long long echoed;
};

static qvmodule *echo_listener;
static qvmodule_timer *echo_backoff;
static evh_module_t *clients;
static unsigned int connections_open;
static unsigned long long bytes_total;

unsigned int echo_connections_open(void)
{
    return connections_open;
}

unsigned long long echo_bytes_total(void)
{
    return bytes_total;
}

static const char *client_event_name(event_id_t id)
{
    switch (id) {
    case CLIENT_CONNECTED:
        return "connected";
    case CLIENT_CLOSED:
        return "closed";
    }
    return "unknown";
}

/* One history object per peer address: objects are never freed, so the
 * key is the address alone (bounded by the peers there are), not the
 * address and port of each connection. */
static void client_record(struct echo_conn *conn, event_id_t id, const char *action)
{
    evh_object_t *obj = evh_object_add(clients, conn->peer);
    evh_event_t *ev = evh_event_new(obj, id);

    event_record_action(ev, action);
    if (id == CLIENT_CLOSED) {
        evh_einfo_t *info = evh_einfo_new(ev, "Traffic");
        char text[64];

        snprintf(text, sizeof(text), "bytes echoed: %llu", conn->echoed);
        event_record_einfo(info, text);
    }
}

static void echo_close(qvmodule *tp, const char *why)
{
    struct echo_conn *conn = qvmodule_get_data(tp);

    connections_open--;
    client_record(conn, CLIENT_CLOSED, why);
    trace_cb(trace_global, trace_type_is_enabled(trace_global, QVTESTD_TRACE_ECHO), -1,
             "echo: %s %s after %llu bytes", conn->name, why, conn->echoed);
    /* Deleting closes the socket and frees the events, timers and the
     * peer address; the record holding the name goes after it. */
    qvmodule_delete(tp);
    qvmodule_mem_free(echo_listener, conn);
}

static void echo_recv(qvmodule *tp)
{
    struct echo_conn *conn = qvmodule_get_data(tp);
    ssize_t n = read(qvmodule_socket(tp), conn->buf, sizeof(conn->buf));

    if (n > 0) {
        conn->pending = (size_t)n;
        conn->sent = 0;
        qvmodule_socket_disable_receive(tp);
        qvmodule_socket_reenable_write(tp);
    } else if (n == 0) {
        echo_close(tp, "peer closed");
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        echo_close(tp, "read failed");
    }
}

static void echo_write(qvmodule *tp)
{
    struct echo_conn *conn = qvmodule_get_data(tp);
    ssize_t n = write(qvmodule_socket(tp), conn->buf + conn->sent, conn->pending - conn->sent);

    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            echo_close(tp, "write failed");
        return;
    }
    conn->sent += (size_t)n;
    conn->echoed += (unsigned long long)n;
    bytes_total += (unsigned long long)n;
    if (conn->sent == conn->pending) {
        qvmodule_socket_disable_write(tp);
        qvmodule_socket_reenable_receive(tp);
    }
}

static void echo_backoff_over(qvmodule_timer *timer, time_t interval)
{
    (void)timer;
    (void)interval;
    qvmodule_socket_reenable_receive(echo_listener);
}

/* Gives the accepted descriptor a module of its own. */
static void echo_adopt(int fd, qvsockaddr_t *peer_addr)
{
    struct echo_conn *conn = qvmodule_mem_malloc(echo_listener, sizeof(*conn));
    struct sockaddr_in peer = {0};
    socklen_t len = sizeof(peer);
    qvmodule *tp;

    if (conn == NULL) {
        trace_cb(trace_global, TRUE, LOG_ERR, "echo: no memory for a connection, refused");
        close(fd);
        sockfree(peer_addr);
        return;
    }
    if (getpeername(fd, (struct sockaddr *)&peer, &len) != 0 ||
        inet_ntop(AF_INET, &peer.sin_addr, conn->peer, sizeof(conn->peer)) == NULL)
        snprintf(conn->peer, sizeof(conn->peer), "unknown");
    snprintf(conn->name, sizeof(conn->name), "echo %s:%u", conn->peer, ntohs(peer.sin_port));

    tp = qvmodule_alloc_accept(echo_listener, conn->name, 0, NULL);
    qvmodule_set_data(tp, conn);
    qvmodule_set_addr(tp, peer_addr); /* freed with the module */
    qvmodule_set_recv(tp, echo_recv);
    qvmodule_fixup_socket(tp, fd);
    qvmodule_set_option(tp, QVMODULE_OPT_NONBLOCK, 1);
    /* Created with only a recv method, so only the read event is armed;
     * the write method is set after, to be armed while output waits. */
    qvmodule_create(tp);
    qvmodule_set_write(tp, echo_write);

    connections_open++;
    client_record(conn, CLIENT_CONNECTED, conn->name);
    trace_cb(trace_global, trace_type_is_enabled(trace_global, QVTESTD_TRACE_ECHO), -1,
             "echo: %s connected", conn->name);
}

static void echo_accept(qvmodule *listener)
{
    qvsockaddr_t *peer_addr = NULL;
    int fd = qvmodule_accept(listener, &peer_addr);

    if (fd >= 0) {
        echo_adopt(fd, peer_addr);
        return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED)
        return;
    /* Out of descriptors or memory: the pending connection stays queued
     * and the listener stays readable, so stop watching it for a while. */
    trace_cb(trace_global, TRUE, LOG_ERR, "echo: accept failed: %s; pausing for %d ms",
             strerror(errno), ECHO_ACCEPT_BACKOFF_USEC / 1000);
    qvmodule_socket_disable_receive(listener);
    qvmodule_timer_uset_oneshot(echo_backoff, ECHO_ACCEPT_BACKOFF_USEC, 0);
}

/* "show clients [device=ADDRESS] [level=brief|extensive]" */
static void show_clients(cmd_ctx_handle ctx)
{
    qvsh_cmd_arg_t *args = qvsh_cmd_get_args_list(ctx);
    cJSON *out = qvsh_cmd_get_json(ctx);
    const qvsh_cmd_arg_t *level = &args[QVSH_ARG_ID_DISP_LEVEL];
    const qvsh_cmd_arg_t *device = &args[QVSH_ARG_ID_DEVICE];
    boolean extensive = FALSE;

    if (level->arg_present) {
        if (strcmp(level->arg_value, "extensive") == 0) {
            extensive = TRUE;
        } else if (strcmp(level->arg_value, "brief") != 0) {
            cJSON_AddStringToObject(out, "Error", "level must be brief or extensive");
            return;
        }
    }
    if (device->arg_present && evh_object_lookup(clients, device->arg_value) == NULL) {
        cJSON_AddStringToObject(out, "Error", "no client with that address");
        return;
    }
    event_show_module(out, clients, device->arg_present ? device->arg_value : NULL, NULL,
                      extensive);
}

/* Opens the listener: 0, or the error of the step that failed. */
static int echo_listen(void)
{
    int fd, err;
    qvsockaddr_t *addr;

    echo_listener = qvmodule_alloc("echo", 0, NULL);
    fd = qvmodule_get_socket_tcp(echo_listener);
    if (fd < 0)
        return errno;
    qvmodule_fixup_socket(echo_listener, fd);
    qvmodule_set_option(echo_listener, QVMODULE_OPT_REUSEADDR, 1);
    /* A peer may leave between readiness and accept: never block on it. */
    qvmodule_set_option(echo_listener, QVMODULE_OPT_NONBLOCK, 1);
    addr = sockcreate_in(htons((uint16_t)qvtestd_echo_port), htonl(INADDR_LOOPBACK));
    qvmodule_set_addr(echo_listener, addr); /* freed with the module */
    err = qvmodule_addr_local(echo_listener, addr);
    if (err != 0)
        return err;
    qvmodule_set_accept(echo_listener, echo_accept);
    qvmodule_set_accept_flag(echo_listener);
    qvmodule_create(echo_listener); /* attaches the socket to the loop */
    return qvmodule_listen(echo_listener, ECHO_BACKLOG);
}

void echo_init(void)
{
    evh_event_cb_t cb = {client_event_name};
    int err;

    clients = evh_register_cb("clients", &cb);
    qvsh_register_cmd("show clients", show_clients);
    err = echo_listen();
    if (err != 0) {
        trace_cb(trace_global, TRUE, LOG_ERR, "qvtestd: cannot listen on 127.0.0.1:%d: %s",
                 qvtestd_echo_port, strerror(err));
        fprintf(stderr, "qvtestd: cannot listen on 127.0.0.1:%d: %s\n", qvtestd_echo_port,
                strerror(err));
        qv_daemon_pid_close(); /* a refusal, not a crash: leave no pid file */
        exit(1);
    }
    /* Idle until accept runs out of descriptors. */
    echo_backoff =
        qvmodule_timer_create(echo_listener, "accept backoff", 0, 0, 0, echo_backoff_over, NULL);
}
