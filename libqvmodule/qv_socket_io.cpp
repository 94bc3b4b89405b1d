// A module's socket: opening, attaching and detaching, bind, connect,
// listen, accept, addresses, options and close; and the two persistent
// libevent events that run the module's methods when the socket is ready.
//
// An event is made the first time its direction is armed and stays
// allocated while the socket is attached: disarming only takes it out of
// the loop. Detaching frees both.

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <event2/event.h>

#include <array>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_sockaddr_private.h"

qvmodule *qv::current_rx_qvmodule = nullptr;
int (*qv::qv_socket_open_fn)(int domain, int type, int proto) = socket;
unsigned int (*qv::qv_socket_sleep_fn)(unsigned int seconds) = sleep;

namespace
{

constexpr int kOpenRetries = 2;
constexpr unsigned int kNoBufsPause = 5;
constexpr socklen_t kAcceptBuf = 8192;
constexpr socklen_t kNameBuf = 4098;
constexpr size_t kPeerPathMax = 127;

bool tracing()
{
    return trace_type_is_enabled(trace_global, QV_TRACE_SOCKET);
}

} // namespace

// Priority -1 lines reach the trace file only, and only while socket
// tracing is on; LOG_ERR and LOG_INFO lines always reach syslog.
#define SOCK_MSG(prio, fmt, ...)                                                                   \
    do {                                                                                           \
        bool on_ = tracing();                                                                      \
        if (on_ || (prio) != -1)                                                                   \
            trace_cb(trace_global, on_, (prio), "%s:name:%s, socket:%d " fmt, __func__,            \
                     tp->qvmodule_name, tp->qvmodule_socket __VA_OPT__(, ) __VA_ARGS__);           \
    } while (0)

/* ---------------------------------------------------------------- */
/* Arming and dispatch                                              */

namespace
{

// One direction's event, flag, dispatcher and the assertion texts that
// name it.
struct Direction {
    struct event *qvmodule::*event;
    short what;
    flag_t disabled;
    event_callback_fn cb;
    const char *made, *added, *deleted;
};

const Direction kRead = {&qvmodule::sock_revent,
                         EV_READ | EV_PERSIST,
                         QVMODULE_FLAG_READ_DISABLED,
                         qvmodule_socket_revent_cb,
                         "tp->sock_revent",
                         "event_add(tp->sock_revent, ((void *)0)) == 0",
                         "event_del(tp->sock_revent) == 0"};
const Direction kWrite = {&qvmodule::sock_wevent,
                          EV_WRITE | EV_PERSIST,
                          QVMODULE_FLAG_WRITE_DISABLED,
                          qvmodule_socket_wevent_cb,
                          "tp->sock_wevent",
                          "event_add(tp->sock_wevent, ((void *)0)) == 0",
                          "event_del(tp->sock_wevent) == 0"};

// Defined inline so that the assertions name the internal operation that
// called them.
#define ENABLE(tp, d)                                                                              \
    do {                                                                                           \
        if ((tp)->qvmodule_socket == -1)                                                           \
            return;                                                                                \
        QV_GIANT_LOCK_SCOPE();                                                                     \
        struct event *&ev = (tp)->*(d).event;                                                      \
        if (ev == nullptr)                                                                         \
            ev = event_new(g_event_base, (tp)->qvmodule_socket, (d).what, (d).cb, (tp));           \
        QV_ASSERT_TEXT(ev, (d).made);                                                              \
        QV_ASSERT_TEXT(event_add(ev, nullptr) == 0, (d).added);                                    \
        (tp)->qvmodule_flags &= ~(d).disabled;                                                     \
    } while (0)

#define DISABLE(tp, d)                                                                             \
    do {                                                                                           \
        struct event *ev = (tp)->*(d).event;                                                       \
        if ((tp)->qvmodule_socket == -1 || ev == nullptr)                                          \
            return;                                                                                \
        QV_GIANT_LOCK_SCOPE();                                                                     \
        QV_ASSERT_TEXT(event_del(ev) == 0, (d).deleted);                                           \
        (tp)->qvmodule_flags |= (d).disabled;                                                      \
    } while (0)

bool has_read_method(const qvmodule *tp)
{
    return tp->qvmodule_recv_method || tp->qvmodule_accept_method;
}

bool has_write_method(const qvmodule *tp)
{
    return tp->qvmodule_write_method || tp->qvmodule_connect_method;
}

} // namespace

void qv::qvmodule_socket_enable_read_internal(qvmodule *tp) noexcept
{
    ENABLE(tp, kRead);
}

void qv::qvmodule_socket_disable_read_internal(qvmodule *tp) noexcept
{
    DISABLE(tp, kRead);
}

void qv::qvmodule_socket_enable_write_internal(qvmodule *tp) noexcept
{
    ENABLE(tp, kWrite);
}

void qv::qvmodule_socket_disable_write_internal(qvmodule *tp) noexcept
{
    DISABLE(tp, kWrite);
}

// The method may delete its own module: the dispatch is counted before the
// call, and nothing of the module is touched after it.
void qv::qvmodule_socket_revent_cb(int fd, short event, void *arg) noexcept
{
    auto *tp = static_cast<qvmodule *>(arg);
    QV_ASSERT_TEXT((event & EV_READ) == EV_READ, "(event & 0x02) == 0x02");
    QV_ASSERT(fd == tp->qvmodule_socket);
    qvmodule_recv_func method = (tp->qvmodule_flags & QVMODULE_FLAG_ACCEPT)
                                    ? tp->qvmodule_accept_method
                                    : tp->qvmodule_recv_method;
    if (method == nullptr) {
        qvmodule_socket_disable_read_internal(tp);
        return;
    }
    // Readiness that was already pending when the direction was disarmed.
    if (tp->qvmodule_flags & QVMODULE_FLAG_READ_DISABLED)
        return;
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s: name:%s, dispatching read cb",
                 "qvmodule_socket_revent_cb", tp->qvmodule_name);
    tp->qvmodule_reads++;
    current_rx_qvmodule = tp;
    {
        QV_GIANT_LOCK_SCOPE();
        method(tp);
    }
    current_rx_qvmodule = nullptr;
}

void qv::qvmodule_socket_wevent_cb(int fd, short event, void *arg) noexcept
{
    auto *tp = static_cast<qvmodule *>(arg);
    QV_ASSERT_TEXT((event & EV_WRITE) == EV_WRITE, "(event & 0x04) == 0x04");
    QV_ASSERT(fd == tp->qvmodule_socket);
    qvmodule_write_func method = (tp->qvmodule_flags & QVMODULE_FLAG_CONNECT)
                                     ? tp->qvmodule_connect_method
                                     : tp->qvmodule_write_method;
    if (method == nullptr) {
        qvmodule_socket_disable_write_internal(tp);
        return;
    }
    if (tp->qvmodule_flags & QVMODULE_FLAG_WRITE_DISABLED)
        return;
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s:name:%s, dispatching write cb",
                 "qvmodule_socket_wevent_cb", tp->qvmodule_name);
    tp->qvmodule_writes++;
    QV_GIANT_LOCK_SCOPE();
    method(tp);
}

extern "C" QV_EXPORT void qvmodule_socket_disable_receive(qvmodule *tp) noexcept
{
    if (tp)
        qvmodule_socket_disable_read_internal(tp);
}

extern "C" QV_EXPORT void qvmodule_socket_reenable_receive(qvmodule *tp) noexcept
{
    if (tp && has_read_method(tp))
        qvmodule_socket_enable_read_internal(tp);
}

extern "C" QV_EXPORT void qvmodule_socket_disable_write(qvmodule *tp) noexcept
{
    if (tp)
        qvmodule_socket_disable_write_internal(tp);
}

extern "C" QV_EXPORT void qvmodule_socket_reenable_write(qvmodule *tp) noexcept
{
    if (tp && has_write_method(tp))
        qvmodule_socket_enable_write_internal(tp);
}

extern "C" QV_EXPORT qvmodule *qvmodule_current_rx_module_get(void) noexcept
{
    return current_rx_qvmodule;
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_socket_trace_on(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_SOCKET, true);
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_socket_trace_off(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_SOCKET, false);
}

/* ---------------------------------------------------------------- */
/* Opening, attaching and detaching                                 */

// Interruptions are retried at once and never use up a try; a shortage of
// buffers gets three tries with a pause before each retry.
extern "C" QV_EXPORT int qvmodule_get_socket(qvmodule *tp, int domain, int type, int proto) noexcept
{
    if (tp == nullptr)
        return -1;
    int retries = kOpenRetries;
    int err = 0;
    int s;
    while ((s = qv_socket_open_fn(domain, type, proto)) < 0) {
        err = errno;
        if (err == EINTR)
            continue;
        if (err != ENOBUFS || retries == 0)
            break;
        retries--;
        qv_socket_sleep_fn(kNoBufsPause);
    }
    tp->qvmodule_socket_domain = domain;
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s:name:%s, socket:%d created", __func__,
                 tp->qvmodule_name, s);
    errno = err;
    return s;
}

extern "C" QV_EXPORT int qvmodule_get_socket_ip(qvmodule *tp, int proto) noexcept
{
    return qvmodule_get_socket(tp, AF_INET, SOCK_RAW, proto);
}

extern "C" QV_EXPORT int qvmodule_get_socket_udp(qvmodule *tp) noexcept
{
    return qvmodule_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
}

extern "C" QV_EXPORT int qvmodule_get_socket_tcp(qvmodule *tp) noexcept
{
    return qvmodule_get_socket(tp, AF_INET, SOCK_STREAM, 0);
}

extern "C" QV_EXPORT int qvmodule_get_socket_unix(qvmodule *tp) noexcept
{
    return qvmodule_get_socket(tp, AF_UNIX, SOCK_STREAM, 0);
}

extern "C" QV_EXPORT void qvmodule_set_socket(qvmodule *tp, int s) noexcept
{
    if (tp == nullptr)
        return;
    QV_ASSERT_TEXT(tp->qvmodule_socket == -1 || tp->qvmodule_socket == s,
                   "tp->qvmodule_socket == s");
    tp->qvmodule_socket = s;
    if (has_read_method(tp))
        qvmodule_socket_enable_read_internal(tp);
    else
        qvmodule_socket_disable_read_internal(tp);
    if (has_write_method(tp))
        qvmodule_socket_enable_write_internal(tp);
    else
        qvmodule_socket_disable_write_internal(tp);
}

extern "C" QV_EXPORT void qvmodule_fixup_socket(qvmodule *tp, int fd) noexcept
{
    if (tp)
        tp->qvmodule_socket = fd;
}

extern "C" QV_EXPORT void qvmodule_reset_socket(qvmodule *tp) noexcept
{
    if (tp == nullptr || tp->qvmodule_socket < 0)
        return;
    if (has_read_method(tp))
        qvmodule_socket_disable_read_internal(tp);
    if (has_write_method(tp))
        qvmodule_socket_disable_write_internal(tp);
    QV_GIANT_LOCK_SCOPE();
    tp->qvmodule_socket = -1;
    for (struct event *qvmodule::*ev : {&qvmodule::sock_revent, &qvmodule::sock_wevent}) {
        if (tp->*ev)
            event_free(tp->*ev);
        tp->*ev = nullptr;
    }
    tp->qvmodule_flags &= ~(QVMODULE_FLAG_ACCEPT | QVMODULE_FLAG_CONNECT);
    tp->qvmodule_recv_method = nullptr;
    tp->qvmodule_accept_method = nullptr;
    tp->qvmodule_write_method = nullptr;
    tp->qvmodule_connect_method = nullptr;
}

// On Linux the descriptor is released even when close reports EINTR, and
// another thread may already have been given the same number: the close
// is never repeated.
extern "C" QV_EXPORT void qvmodule_close(qvmodule *tp) noexcept
{
    if (tp == nullptr || tp->qvmodule_socket == -1)
        return;
    int s = tp->qvmodule_socket;
    qvmodule_reset_socket(tp);
    if (close(s) != 0 && errno != EINTR)
        trace_cb(trace_global, tracing(), LOG_ERR, "%s:name:%s, socket:%d close failed", __func__,
                 tp->qvmodule_name, s);
}

/* ---------------------------------------------------------------- */
/* Addresses and connections                                        */

extern "C" QV_EXPORT int qvmodule_addr_local(qvmodule *tp, qvsockaddr_t *ap) noexcept
{
    if (tp == nullptr)
        return EINVAL;
    struct sockaddr_storage ss;
    int rc = EINVAL;
    if (ap != nullptr) {
        socklen_t len = qvsockaddr2sockaddr(ap, reinterpret_cast<struct sockaddr *>(&ss));
        rc = bind(tp->qvmodule_socket, reinterpret_cast<struct sockaddr *>(&ss), len) == 0 ? 0
                                                                                           : errno;
    }
    if (rc != 0)
        SOCK_MSG(LOG_ERR, "bind failed error %s errno %d", strerror(rc), rc);
    else if (ap->a.ga_family == AF_UNIX) // a UNIX record has no number to show
        SOCK_MSG(LOG_INFO, "bind success address: %s", qvsockaddr_print(ap));
    else
        SOCK_MSG(LOG_INFO, "bind success address: %d", static_cast<int>(ap->in.gin_addr));
    errno = rc;
    return rc;
}

extern "C" QV_EXPORT int qvmodule_connect(qvmodule *tp) noexcept
{
    if (tp == nullptr)
        return EINVAL;
    int rc = EDESTADDRREQ; // no address to connect to
    if (tp->qvmodule_addr != nullptr) {
        struct sockaddr_storage ss;
        socklen_t len =
            qvsockaddr2sockaddr(tp->qvmodule_addr, reinterpret_cast<struct sockaddr *>(&ss));
        rc = connect(tp->qvmodule_socket, reinterpret_cast<struct sockaddr *>(&ss), len) == 0
                 ? 0
                 : errno;
    }
    if (rc != 0 && rc != EINPROGRESS)
        SOCK_MSG(LOG_ERR, "connect failed");
    if (rc == 0)
        SOCK_MSG(LOG_INFO, "connect success");
    if (rc == 0 || rc == EINPROGRESS)
        SOCK_MSG(LOG_INFO, "socket addr :%s connect success", qvsockaddr_print(tp->qvmodule_addr));
    errno = rc;
    return rc;
}

extern "C" QV_EXPORT int qvmodule_listen(qvmodule *tp, int backlog) noexcept
{
    if (tp == nullptr)
        return EINVAL;
    if (listen(tp->qvmodule_socket, backlog) != 0) {
        int rc = errno;
        SOCK_MSG(LOG_ERR, "listen failed errno :%d err : %s", rc, strerror(rc));
        errno = rc;
        return rc;
    }
    qvmodule_socket_disable_read_internal(tp);
    qvmodule_socket_enable_read_internal(tp);
    SOCK_MSG(LOG_INFO, "listen success");
    errno = 0;
    return 0;
}

namespace
{

// The path an unnamed UNIX peer is known by: the listener's own, from its
// address record or else from the socket itself, with "_local" appended.
// A listener with no path of its own gives the peer an empty one.
qvsockaddr_t *unnamed_peer(qvmodule *tp)
{
    const qvsockaddr_t *own = tp->qvmodule_addr;
    qvsockaddr_t *bound = nullptr;
    if (own == nullptr || own->a.ga_family != AF_UNIX) {
        struct sockaddr_un sun = {};
        socklen_t len = sizeof(sun);
        if (getsockname(tp->qvmodule_socket, reinterpret_cast<struct sockaddr *>(&sun), &len) !=
                0 ||
            sun.sun_family != AF_UNIX || len <= sizeof(sun.sun_family) || sun.sun_path[0] == '\0')
            return sockcreate_un("");
        own = bound = sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(&sun), len);
    }
    char path[kPeerPathMax + 1];
    snprintf(path, sizeof(path), "%s_local", own->un.gun_path);
    sockfree(bound);
    return sockcreate_un(path);
}

} // namespace

extern "C" QV_EXPORT int qvmodule_accept(qvmodule *tp, qvsockaddr_t **addr) noexcept
{
    QV_ASSERT(addr);
    if (tp == nullptr)
        return -1;
    alignas(struct sockaddr_storage) char buf[kAcceptBuf] = {};
    auto *sa = reinterpret_cast<struct sockaddr *>(buf);
    socklen_t len = sizeof(buf);
    int s = accept(tp->qvmodule_socket, sa, &len);
    if (s < 0) {
        int err = errno;
        SOCK_MSG(LOG_ERR, "accept failed");
        errno = err;
        return -1;
    }
    SOCK_MSG(LOG_INFO, "accept success");
    auto *sun = reinterpret_cast<struct sockaddr_un *>(buf);
    if (sa->sa_family == AF_UNIX && sun->sun_path[0] == '\0')
        *addr = unnamed_peer(tp);
    else
        *addr = sockaddr2qvsockaddr(sa, len);
    return s;
}

extern "C" QV_EXPORT qvsockaddr_t *qvmodule_get_addr_remote(qvmodule *tp) noexcept
{
    if (tp == nullptr)
        return nullptr;
    alignas(struct sockaddr_storage) char buf[kNameBuf] = {};
    socklen_t len = sizeof(buf);
    if (getpeername(tp->qvmodule_socket, reinterpret_cast<struct sockaddr *>(buf), &len) != 0) {
        SOCK_MSG(LOG_ERR, "getpeername failed");
        return nullptr;
    }
    SOCK_MSG(LOG_INFO, "getpeername succedded");
    if (len != 0)
        return sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(buf), len);
    return (tp->qvmodule_flags & QVMODULE_FLAG_ACCEPT) ? nullptr : tp->qvmodule_addr;
}

// A socket reported with no address has no record to build.
extern "C" QV_EXPORT qvsockaddr_t *qvmodule_get_addr_local(qvmodule *tp) noexcept
{
    if (tp == nullptr)
        return nullptr;
    alignas(struct sockaddr_storage) char buf[kNameBuf] = {};
    socklen_t len = sizeof(buf);
    if (getsockname(tp->qvmodule_socket, reinterpret_cast<struct sockaddr *>(buf), &len) != 0) {
        SOCK_MSG(LOG_ERR, "getsockname failed");
        return nullptr;
    }
    SOCK_MSG(LOG_INFO, "getsockname succedded");
    return len != 0 ? sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(buf), len) : nullptr;
}

/* ---------------------------------------------------------------- */
/* Options                                                          */

namespace
{

enum class OptKind : uint8_t { Invalid, Int, Linger, Nonblock, Ignored, IpInt };

struct Opt {
    OptKind kind;
    int level, name;
};

constexpr int kOptCodes = 39;

constexpr auto kOpts = [] {
    std::array<Opt, kOptCodes> t{};
    t[QVMODULE_OPT_RCVBUF] = {OptKind::Int, SOL_SOCKET, SO_RCVBUF};
    t[QVMODULE_OPT_SNDBUF] = {OptKind::Int, SOL_SOCKET, SO_SNDBUF};
    t[QVMODULE_OPT_LINGER] = {OptKind::Linger, SOL_SOCKET, SO_LINGER};
    t[QVMODULE_OPT_REUSEADDR] = {OptKind::Int, SOL_SOCKET, SO_REUSEADDR};
    t[QVMODULE_OPT_DONTROUTE] = {OptKind::Int, SOL_SOCKET, SO_DONTROUTE};
    t[QVMODULE_OPT_KEEPALIVE] = {OptKind::Int, SOL_SOCKET, SO_KEEPALIVE};
    t[QVMODULE_OPT_DEBUG] = {OptKind::Int, SOL_SOCKET, SO_DEBUG};
    t[QVMODULE_OPT_NONBLOCK] = {OptKind::Nonblock, 0, 0};
    t[QVMODULE_OPT_IP_TTL] = {OptKind::IpInt, IPPROTO_IP, IP_TTL};
    t[QVMODULE_OPT_IP_TOS] = {OptKind::IpInt, IPPROTO_IP, IP_TOS};
    t[QVMODULE_OPT_TCP_MAXSEG] = {OptKind::Int, IPPROTO_TCP, TCP_MAXSEG};
    t[27] = t[38] = {OptKind::Ignored, 0, 0};
    return t;
}();

int fcntl_retrying(int fd, int cmd, long arg)
{
    int rc;
    while ((rc = fcntl(fd, cmd, arg)) == -1 && errno == EINTR) {
    }
    return rc;
}

int set_nonblocking(int fd)
{
    int flags = fcntl_retrying(fd, F_GETFL, 0);
    return flags == -1 ? -1 : fcntl_retrying(fd, F_SETFL, flags | O_NONBLOCK);
}

} // namespace

int qv::qvmodule_set_option_internal(qvmodule *tp, int option, va_list ap) noexcept
{
    if (tp == nullptr || tp->qvmodule_socket == -1)
        return -1;
    Opt opt = option >= 0 && option < kOptCodes ? kOpts[option] : Opt{};
    if (opt.kind == OptKind::Ignored)
        return 0;
    if (tp->qvmodule_socket_domain == 0)
        tp->qvmodule_socket_domain = AF_INET;
    if (opt.kind == OptKind::IpInt) {
        if (tp->qvmodule_socket_domain == AF_UNIX)
            return 0;
        QV_ASSERT_TEXT(tp->qvmodule_socket_domain == AF_INET, "0");
    }
    int rc = -1;
    switch (opt.kind) {
    case OptKind::Int:
    case OptKind::IpInt: {
        int value = va_arg(ap, int);
        rc = setsockopt(tp->qvmodule_socket, opt.level, opt.name, &value, sizeof(value));
        break;
    }
    case OptKind::Linger: {
        struct linger lg;
        lg.l_onoff = va_arg(ap, int);
        lg.l_linger = va_arg(ap, int);
        rc = setsockopt(tp->qvmodule_socket, opt.level, opt.name, &lg, sizeof(lg));
        break;
    }
    case OptKind::Nonblock:
        rc = set_nonblocking(tp->qvmodule_socket);
        break;
    default:
        errno = EINVAL;
        break;
    }
    if (rc < 0) {
        int err = errno;
        SOCK_MSG(LOG_ERR, "setsockopt failed");
        errno = err;
    } else {
        SOCK_MSG(LOG_INFO, "setsockopt succedded");
    }
    return rc;
}

extern "C" QV_EXPORT int qvmodule_set_option(qvmodule *tp, int option, ...) noexcept
{
    va_list ap;
    va_start(ap, option);
    int rc = qvmodule_set_option_internal(tp, option, ap);
    va_end(ap);
    return rc;
}

/* ---------------------------------------------------------------- */
/* Setters and getters                                              */

extern "C" QV_EXPORT void qvmodule_set_recv(qvmodule *tp, qvmodule_recv_func func) noexcept
{
    if (tp)
        tp->qvmodule_recv_method = func;
}

extern "C" QV_EXPORT void qvmodule_set_accept(qvmodule *tp, qvmodule_accept_func func) noexcept
{
    if (tp)
        tp->qvmodule_accept_method = func;
}

extern "C" QV_EXPORT void qvmodule_set_write(qvmodule *tp, qvmodule_write_func func) noexcept
{
    if (tp)
        tp->qvmodule_write_method = func;
}

extern "C" QV_EXPORT void qvmodule_set_connect(qvmodule *tp, qvmodule_connect_func func) noexcept
{
    if (tp)
        tp->qvmodule_connect_method = func;
}

extern "C" QV_EXPORT void qvmodule_set_accept_flag(qvmodule *tp) noexcept
{
    if (tp)
        tp->qvmodule_flags |= QVMODULE_FLAG_ACCEPT;
}

extern "C" QV_EXPORT void qvmodule_clear_accept_flag(qvmodule *tp) noexcept
{
    if (tp)
        tp->qvmodule_flags &= ~QVMODULE_FLAG_ACCEPT;
}

extern "C" QV_EXPORT void qvmodule_set_connect_flag(qvmodule *tp) noexcept
{
    if (tp)
        tp->qvmodule_flags |= QVMODULE_FLAG_CONNECT;
}

extern "C" QV_EXPORT void qvmodule_clear_connect_flag(qvmodule *tp) noexcept
{
    if (tp)
        tp->qvmodule_flags &= ~QVMODULE_FLAG_CONNECT;
}

extern "C" QV_EXPORT void qvmodule_set_addr(qvmodule *tp, qvsockaddr_t *addr) noexcept
{
    if (tp)
        tp->qvmodule_addr = addr;
}

extern "C" QV_EXPORT void qvmodule_set_qvmodule_addr(qvmodule *tp, qvsockaddr_t *addr) noexcept
{
    tp->qvmodule_addr = addr;
}

extern "C" QV_EXPORT void qvmodule_reset_qvmodule_addr(qvmodule *tp) noexcept
{
    tp->qvmodule_addr = nullptr;
}

extern "C" QV_EXPORT qvsockaddr_t *qvmodule_get_addr(qvmodule *tp) noexcept
{
    return tp ? tp->qvmodule_addr : nullptr;
}

extern "C" QV_EXPORT void qvmodule_sockfree(qvmodule *tp) noexcept
{
    if (tp == nullptr || tp->qvmodule_addr == nullptr)
        return;
    sockfree(tp->qvmodule_addr);
    tp->qvmodule_addr = nullptr;
}

extern "C" QV_EXPORT int qvmodule_socket(qvmodule *tp) noexcept
{
    return tp ? tp->qvmodule_socket : -1;
}

extern "C" QV_EXPORT int qvmodule_socket_domain(qvmodule *tp) noexcept
{
    return tp ? tp->qvmodule_socket_domain : -1;
}

extern "C" QV_EXPORT boolean qvmodule_socket_domain_unix(qvmodule *tp) noexcept
{
    return tp != nullptr && tp->qvmodule_socket_domain == AF_UNIX;
}

extern "C" QV_EXPORT void qvmodule_proto_set(qvmodule *tp, int proto) noexcept
{
    if (tp)
        tp->qvmodule_proto = proto;
}

extern "C" QV_EXPORT int qvmodule_proto_get(qvmodule *tp) noexcept
{
    return tp ? tp->qvmodule_proto : 0;
}
