// Module sockets on real sockets, driven through the event loop: option
// codes, opening with retries, a loopback TCP exchange, UNIX listeners and
// their unnamed peers, one seeded model of dispatch and arming, failures
// and their messages, and the fatal checks.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qv_memory.h"
#include "qv_sockaddr_private.h"
#include "qv_test_util.h"
#include "qv_trace_private.h"

namespace
{

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

std::vector<std::string> syslogged; // "priority|message"

void capture_syslog(int prio, const char *f, va_list ap)
{
    char buf[2048];
    vsnprintf(buf, sizeof buf, f, ap);
    syslogged.push_back(std::to_string(prio) + "|" + buf);
}

int lock_depth = 0;
int counting_lock(int lock, int)
{
    lock_depth += lock ? 1 : -1;
    return 0;
}

class SocketTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN); // until start-up ignores it for every daemon
        static qvtest::TempDir dir;
        log = dir.file("sock.log");
        g_event_base = event_base_new();
        qvmodule_memory_init(), qvmodule_init(), qvmodule_timer_init(), qvmodule_job_init();
        trace_global = trace_file_open(log.c_str(), 1u << 30, 1);
        qv_trace_vsyslog_fn = capture_syslog;
        qv_ui_init("sockd");
    }
    void SetUp() override
    {
        qv_giant_lock_func_init(counting_lock);
        syslogged.clear(), traced();
    }
    void TearDown() override
    {
        jrpc_invoke_trace("sockd", "socket", 0);
        qv_giant_lock_func_init(nullptr);
        EXPECT_EQ(lock_depth, 0);
    }
    // Trace messages written since the last call.
    static std::vector<std::string> traced()
    {
        static size_t seen = 0;
        std::vector<std::string> out, all = qvtest::read_lines(log);
        for (size_t i = seen; i < all.size(); i++)
            out.push_back(all[i].substr(all[i].find("]  ") + 3));
        seen = all.size();
        return out;
    }
    static qvmodule *mod(const char *name)
    {
        qvmodule *tp = qvmodule_alloc(name, 0, nullptr);
        qvmodule_create(tp);
        return tp;
    }
    static void pass() { event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }
    static inline std::string log;
};
using SocketDeathTest = SocketTest;

int getopt_int(int fd, int level, int name)
{
    int v = -1;
    socklen_t len = sizeof v;
    getsockopt(fd, level, name, &v, &len);
    return v;
}

// Each code sets what it names, read back from the kernel; codes without a
// meaning fail with EINVAL; 27 and 38 do nothing. Every result is reported.
TEST_F(SocketTest, OptionCodesAndTheirDomainRules)
{
    qvmodule *tp = mod("opt");
    int s = qvmodule_get_socket_tcp(tp);
    qvmodule_set_socket(tp, s);
    const struct {
        int code, a, b, level, name, want;
    } rows[] = {
        {0, 4096, 0, SOL_SOCKET, SO_RCVBUF, 8192},
        {1, 8192, 0, SOL_SOCKET, SO_SNDBUF, 16384},
        {3, 1, 0, SOL_SOCKET, SO_REUSEADDR, 1},
        {5, 1, 0, SOL_SOCKET, SO_DONTROUTE, 1},
        {6, 1, 0, SOL_SOCKET, SO_KEEPALIVE, 1},
        {15, 9, 0, IPPROTO_IP, IP_TTL, 9},
        {16, 0x10, 0, IPPROTO_IP, IP_TOS, 0x10},
        {25, 536, 0, IPPROTO_TCP, TCP_MAXSEG, 536},
        {2, 1, 7, SOL_SOCKET, SO_LINGER, 1},
        {8, 0, 0, 0, 0, O_NONBLOCK},
        {27, 0, 0, 0, 0, 0},
        {38, 0, 0, 0, 0, 0},
    };
    const std::string ok =
        fmt("6|qvmodule_set_option_internal:name:opt, socket:%d setsockopt succedded", s);
    for (const auto &r : rows) {
        SCOPED_TRACE(r.code);
        ASSERT_EQ(qvmodule_set_option(tp, r.code, r.a, r.b), 0);
        if (r.code == 2) {
            struct linger lg;
            socklen_t len = sizeof lg;
            getsockopt(s, SOL_SOCKET, SO_LINGER, &lg, &len);
            EXPECT_TRUE(lg.l_onoff == 1 && lg.l_linger == 7);
        } else if (r.code == 8) {
            EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK) << "a value of 0 still turns it on";
        } else if (r.level) {
            EXPECT_EQ(getopt_int(s, r.level, r.name), r.want);
        }
        EXPECT_EQ(syslogged, std::vector<std::string>(r.code < 27, ok));
        syslogged.clear();
    }
    jrpc_invoke_trace("sockd", "socket", 1);
    for (int code : {4, 9, 14, 17, 24, 26, 28, 37, 39, -1, 1000}) {
        errno = 0;
        EXPECT_TRUE(qvmodule_set_option(tp, code, 1) == -1 && errno == EINVAL) << code;
    }
    std::string failed =
        fmt("qvmodule_set_option_internal:name:opt, socket:%d setsockopt failed", s);
    EXPECT_EQ(syslogged, std::vector<std::string>(11, "3|" + failed));
    EXPECT_EQ(traced(), std::vector<std::string>(11, failed));
    syslogged.clear();

    // IP options on a UNIX socket do nothing; an unknown domain becomes IPv4
    // unless the code is ignored; no socket, no call.
    qvmodule *un = mod("un"), *raw = mod("raw");
    qvmodule_set_socket(un, qvmodule_get_socket_unix(un));
    EXPECT_EQ(qvmodule_set_option(un, QVMODULE_OPT_IP_TTL, 3), 0);
    qvmodule_fixup_socket(raw, socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(qvmodule_set_option(raw, 27), 0);
    EXPECT_EQ(qvmodule_socket_domain(raw), 0);
    EXPECT_EQ(qvmodule_set_option(raw, QVMODULE_OPT_IP_TTL, 33), 0);
    EXPECT_TRUE(qvmodule_socket_domain(raw) == AF_INET &&
                getopt_int(raw->qvmodule_socket, IPPROTO_IP, IP_TTL) == 33);
    errno = 1234;
    qvmodule *none = mod("none");
    EXPECT_TRUE(qvmodule_set_option(nullptr, 0, 1) == -1 && qvmodule_set_option(none, 0, 1) == -1);
    EXPECT_EQ(errno, 1234);
    EXPECT_EQ(syslogged.size(), 1u) << "only raw's success at TTL";
    for (qvmodule *m : {tp, un, raw, none})
        qvmodule_delete(m);
}

std::vector<int> open_script; // errors the next opens fail with, in order
std::vector<std::vector<int>> opened;
std::vector<unsigned> slept;

int scripted_open(int d, int t, int p)
{
    opened.push_back({d, t, p});
    if (open_script.empty())
        return t == SOCK_RAW ? dup(0) : socket(d, t, p); // raw sockets need privileges
    errno = open_script.front();
    open_script.erase(open_script.begin());
    return -1;
}

// Interruptions retry at once; a buffer shortage gets three tries with a
// 5 s pause before each retry; any other error ends at once.
TEST_F(SocketTest, OpeningRetriesAndShorthands)
{
    qv_socket_open_fn = scripted_open;
    qv_socket_sleep_fn = [](unsigned s) { return slept.push_back(s), 0u; };
    qvmodule *tp = mod("open");
    using Open = std::function<int()>;
    const struct {
        Open open;
        std::vector<int> script, args;
        int err;
        size_t sleeps;
    } rows[] = {
        {[&] { return qvmodule_get_socket_tcp(tp); }, {}, {2, 1, 0}, 0, 0},
        {[&] { return qvmodule_get_socket_udp(tp); }, {EINTR, EINTR}, {2, 2, 0}, 0, 0},
        {[&] { return qvmodule_get_socket_unix(tp); }, {ENOBUFS}, {1, 1, 0}, 0, 1},
        {[&] { return qvmodule_get_socket_ip(tp, 89); },
         {ENOBUFS, EINTR, ENOBUFS},
         {2, 3, 89},
         0,
         2},
        {[&] { return qvmodule_get_socket_ip(tp, 89); }, {EMFILE}, {2, 3, 89}, EMFILE, 0},
        {[&] { return qvmodule_get_socket(tp, 1, 2, 0); },
         {ENOBUFS, EINTR, ENOBUFS, ENOBUFS},
         {1, 2, 0},
         ENOBUFS,
         2},
        {[&] { return qvmodule_get_socket(tp, 2, 1, 0); },
         {ENOBUFS, ENOBUFS, EACCES},
         {2, 1, 0},
         EACCES,
         2},
    };
    for (const auto &r : rows) {
        open_script = r.script, opened.clear(), slept.clear();
        tp->qvmodule_socket_domain = 0;
        errno = 1234;
        int s = r.open();
        EXPECT_EQ(s < 0 ? errno : 0, r.err);
        EXPECT_EQ(opened, std::vector<std::vector<int>>(r.script.size() + !r.err, r.args));
        EXPECT_EQ(slept, std::vector<unsigned>(r.sleeps, 5));
        EXPECT_EQ(qvmodule_socket_domain(tp), r.args[0]) << "recorded whatever the outcome";
        close(s);
    }
    qv_socket_open_fn = socket;
    jrpc_invoke_trace("sockd", "socket", 1);
    EXPECT_TRUE(qvmodule_get_socket(tp, 4242, SOCK_STREAM, 0) == -1 && errno == EAFNOSUPPORT);
    EXPECT_EQ(qvmodule_get_socket_tcp(nullptr), -1);
    EXPECT_EQ(qvmodule_socket_domain(tp), 4242);
    EXPECT_EQ(traced(),
              std::vector<std::string>{"qvmodule_get_socket:name:open, socket:-1 created"});
    EXPECT_TRUE(syslogged.empty());
    qvmodule_delete(tp);
}

// A loopback exchange: a listener accepts into a module made for the new
// descriptor, which echoes and deletes itself at end of stream; the client
// connects without blocking and sends once it is connected.
struct Tcp {
    static inline std::string ran;
    static inline int conns = 0, conn_fd = -1;
    static void expect_rx(qvmodule *tp, bool read_side)
    {
        EXPECT_EQ(qvmodule_current_rx_module_get(), read_side ? tp : nullptr);
        EXPECT_EQ(lock_depth, 1);
    }
    static void accept_cb(qvmodule *tp)
    {
        expect_rx(tp, true);
        qvsockaddr_t *peer;
        int fd = conn_fd = qvmodule_accept(tp, &peer);
        qvmodule *conn = qvmodule_alloc_accept(tp, "conn", 0, nullptr);
        conn->qvmodule_socket = fd; // attached by the creation
        qvmodule_set_recv(conn, echo_cb);
        qvmodule_set_addr(conn, peer);
        qvmodule_create(conn);
        ran += "accept;", conns++;
    }
    static void echo_cb(qvmodule *tp)
    {
        expect_rx(tp, true);
        char buf[64];
        ssize_t n = read(tp->qvmodule_socket, buf, sizeof buf);
        if (n > 0) {
            EXPECT_EQ(write(tp->qvmodule_socket, buf, size_t(n)), n);
            qvsockaddr_t *peer = qvmodule_get_addr_remote(tp);
            EXPECT_STREQ(qvsockaddr_print(peer), qvsockaddr_print(tp->qvmodule_addr));
            sockfree(peer);
            ran += "echo;";
        } else {
            ran += "eof;", conns--;
            qvmodule_delete(tp);
        }
    }
    static void connect_cb(qvmodule *tp)
    {
        expect_rx(tp, false);
        EXPECT_EQ(getopt_int(tp->qvmodule_socket, SOL_SOCKET, SO_ERROR), 0);
        qvmodule_clear_connect_flag(tp);
        ran += "connected;";
    }
    static void write_cb(qvmodule *tp)
    {
        expect_rx(tp, false);
        EXPECT_EQ(write(tp->qvmodule_socket, "ping", 4), 4);
        qvmodule_socket_disable_write(tp); // nothing more to send
        ran += "sent;";
    }
    static void reply_cb(qvmodule *tp)
    {
        char buf[8] = {};
        EXPECT_EQ(read(tp->qvmodule_socket, buf, sizeof buf), 4);
        ran += std::string(buf) + ";";
        qvmodule_close(tp);
    }
};

TEST_F(SocketTest, LoopbackTcpExchangeThroughTheLoop)
{
    jrpc_invoke_trace("sockd", "socket", 1);
    qvmodule *server = mod("server"), *client = mod("client");
    uint32_t modules = qvmodule_block_index->tb_n_alloc;
    int s = qvmodule_get_socket_tcp(server);
    qvmodule_set_accept(server, Tcp::accept_cb);
    qvmodule_set_accept_flag(server);
    qvmodule_set_socket(server, s);
    qvsockaddr_t *any = sockcreate_in(0, htonl(INADDR_LOOPBACK));
    ASSERT_EQ(qvmodule_addr_local(server, any), 0);
    ASSERT_EQ(qvmodule_listen(server, 4), 0);
    qvsockaddr_t *bound = qvmodule_get_addr_local(server);
    std::string where = qvsockaddr_print(bound);

    int c = qvmodule_get_socket_tcp(client);
    qvmodule_set_addr(client, bound);
    qvmodule_set_connect(client, Tcp::connect_cb);
    qvmodule_set_write(client, Tcp::write_cb);
    qvmodule_set_recv(client, Tcp::reply_cb);
    qvmodule_set_connect_flag(client);
    qvmodule_set_socket(client, c);
    qvmodule_set_option(client, QVMODULE_OPT_NONBLOCK, 1);
    errno = 0;
    ASSERT_EQ(qvmodule_connect(client), EINPROGRESS);
    ASSERT_EQ(errno, EINPROGRESS);
    for (int i = 0; i < 1000 && Tcp::ran.find("ping;eof;") == std::string::npos; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    // The listener and the connecting client become ready in the same turn.
    EXPECT_TRUE(Tcp::ran == "accept;connected;sent;echo;ping;eof;" ||
                Tcp::ran == "connected;accept;sent;echo;ping;eof;")
        << Tcp::ran;
    EXPECT_EQ(Tcp::conns, 0);
    EXPECT_TRUE(server->qvmodule_reads == 1 && client->qvmodule_writes == 2 &&
                client->qvmodule_reads == 1 && qvmodule_socket(client) == -1);
    EXPECT_EQ(qvmodule_block_index->tb_n_alloc, modules) << "the connection's module is gone";

    std::string sv = fmt("name:server, socket:%d ", s), cl = fmt("name:client, socket:%d ", c);
    std::vector<std::string> lines = {
        "qvmodule_addr_local:" + sv +
            "bind success address: " + std::to_string(int(htonl(INADDR_LOOPBACK))),
        "qvmodule_listen:" + sv + "listen success",
        "qvmodule_get_addr_local:" + sv + "getsockname succedded",
        "qvmodule_set_option_internal:" + cl + "setsockopt succedded",
        "qvmodule_connect:" + cl + "socket addr :" + where + " connect success",
        "qvmodule_accept:" + sv + "accept success",
        fmt("qvmodule_get_addr_remote:name:conn, socket:%d getpeername succedded", Tcp::conn_fd),
    };
    std::vector<std::string> got = traced(), want_syslog;
    for (const std::string &l : lines)
        want_syslog.push_back("6|" + l);
    EXPECT_EQ(syslogged, want_syslog);
    lines.insert(lines.begin(), "qvmodule_get_socket:" + sv + "created");
    lines.insert(lines.begin() + 4, "qvmodule_get_socket:" + cl + "created");
    for (const char *d :
         {"revent_cb: name:server, dispatching read", "wevent_cb:name:client, dispatching write",
          "wevent_cb:name:client, "
          "dispatching write",
          "revent_cb: name:conn, dispatching read", "revent_cb: name:client, dispatching read",
          "revent_cb: name:conn, dispatching read"})
        lines.push_back(std::string("qvmodule_socket_") + d + " cb");
    std::ranges::sort(got), std::ranges::sort(lines);
    EXPECT_EQ(got, lines);
    sockfree(any);
    qvmodule_delete(server), qvmodule_delete(client);
}

std::string peer_text;
int accepted = -1;

void unix_accept_cb(qvmodule *tp)
{
    qvsockaddr_t *peer;
    accepted = qvmodule_accept(tp, &peer);
    peer_text = qvsockaddr_print(peer);
    sockfree(peer);
}

// An unnamed client is named after the listener's path plus "_local": from
// its address record, else from the socket itself; a listener bound nowhere
// (the kernel gives it an abstract name) leaves the peer's path empty.
// Writing to a client that has gone fails with EPIPE and nothing else.
TEST_F(SocketTest, UnixListenersNameTheirUnnamedPeers)
{
    qvtest::TempDir dir;
    for (int kind = 0; kind < 3; kind++) {
        std::string path = dir.file("l" + std::to_string(kind));
        qvmodule *l = mod("ulisten"), *c = mod("uclient");
        int s = qvmodule_get_socket_unix(l);
        qvmodule_set_accept(l, unix_accept_cb);
        qvmodule_set_accept_flag(l);
        qvmodule_set_socket(l, s);
        qvsockaddr_t *rec = sockcreate_un(path.c_str());
        sa_family_t unnamed = AF_UNIX; // the kernel picks an abstract name
        if (kind < 2) {
            ASSERT_EQ(qvmodule_addr_local(l, rec), 0);
        } else {
            ASSERT_EQ(bind(s, reinterpret_cast<struct sockaddr *>(&unnamed), sizeof unnamed), 0);
        }
        kind == 0 ? qvmodule_set_addr(l, rec) : sockfree(rec);
        ASSERT_EQ(qvmodule_listen(l, 1), 0);
        int c_fd = qvmodule_get_socket_unix(c);
        qvmodule_set_socket(c, c_fd);
        if (kind < 2) {
            qvmodule_set_addr(c, sockcreate_un(path.c_str()));
            ASSERT_EQ(qvmodule_connect(c), 0);
        } else {
            struct sockaddr_un a;
            socklen_t len = sizeof a;
            getsockname(s, reinterpret_cast<struct sockaddr *>(&a), &len);
            ASSERT_EQ(connect(c->qvmodule_socket, reinterpret_cast<struct sockaddr *>(&a), len), 0);
        }
        pass();
        EXPECT_EQ(peer_text, kind < 2 ? "UNIX/" + path + "_local" : "UNIX/");
        qvsockaddr_t *there = qvmodule_get_addr_remote(c);
        EXPECT_EQ(qvsockaddr_print(there), kind < 2 ? "UNIX/" + path : qvsockaddr_print(there));
        sockfree(there);
        qvmodule_delete(c);
        errno = 0;
        EXPECT_TRUE(write(accepted, "x", 1) == -1 && errno == EPIPE);
        close(accepted);
        qvmodule_delete(l);
        EXPECT_TRUE(fcntl(s, F_GETFD) == -1 && errno == EBADF) << "deletion closes the socket";
        if (kind > 0)
            continue;
        std::string ln = fmt("name:ulisten, socket:%d ", s),
                    cn = fmt("name:uclient, socket:%d ", c_fd);
        EXPECT_EQ(syslogged,
                  (std::vector<std::string>{
                      "6|qvmodule_addr_local:" + ln + "bind success address: UNIX/" + path,
                      "6|qvmodule_listen:" + ln + "listen success",
                      "6|qvmodule_connect:" + cn + "connect success",
                      "6|qvmodule_connect:" + cn + "socket addr :UNIX/" + path + " connect success",
                      "6|qvmodule_accept:" + ln + "accept success",
                      "6|qvmodule_get_addr_remote:" + cn + "getpeername succedded"}));
    }
}

// One module on one end of a socketpair, against a model of its methods,
// flags, events and counts: methods and flags changed, directions paused
// and resumed, the socket attached again or reset, data arriving, loop
// turns, and dispatchers called while a direction is paused.
struct Model {
    static inline std::string ran;
    static void method(qvmodule *tp, char c)
    {
        bool rx = c == 'r' || c == 'a';
        EXPECT_EQ(qvmodule_current_rx_module_get(), rx ? tp : nullptr);
        EXPECT_EQ(lock_depth, 1);
        char buf[64];
        while (rx && read(tp->qvmodule_socket, buf, sizeof buf) > 0) {
        }
        ran += c;
    }
    static void r(qvmodule *tp) { method(tp, 'r'); }
    static void a(qvmodule *tp) { method(tp, 'a'); }
    static void w(qvmodule *tp) { method(tp, 'w'); }
    static void c(qvmodule *tp) { method(tp, 'c'); }

    qvmodule *tp;
    int fd, peer;
    bool m[4] = {}, flag[2] = {}, off[2] = {}, armed[2] = {}, made[2] = {}, readable = false;
    unsigned count[2] = {};
    std::string want;

    void arm(int d) { made[d] = armed[d] = true, off[d] = false; }
    void disarm(int d) { made[d] ? (armed[d] = false, off[d] = true) : false; }
    bool has(int d) const { return m[2 * d] || m[2 * d + 1]; }
    // A readiness of direction d: the flag's method, or the other one.
    void ready(int d)
    {
        int k = 2 * d + flag[d];
        if (!m[k])
            return disarm(d);
        if (off[d])
            return;
        want += "rawc"[k], count[d]++;
        readable = readable && d == 1;
    }
    void step(unsigned op)
    {
        static const qvmodule_recv_func fns[4] = {r, a, w, c};
        qvmodule_recv_func *slots[4] = {&tp->qvmodule_recv_method, &tp->qvmodule_accept_method,
                                        &tp->qvmodule_write_method, &tp->qvmodule_connect_method};
        static void (*const flagset[2][2])(qvmodule *) = {
            {qvmodule_clear_accept_flag, qvmodule_set_accept_flag},
            {qvmodule_clear_connect_flag, qvmodule_set_connect_flag}};
        int d = op % 2;
        if (op < 4) {
            (op == 0   ? qvmodule_set_recv
             : op == 1 ? qvmodule_set_accept
             : op == 2 ? qvmodule_set_write
                       : qvmodule_set_connect)(tp, m[op] ? nullptr : fns[op]);
            m[op] = !m[op];
            EXPECT_EQ(*slots[op], m[op] ? fns[op] : nullptr);
        } else if (op < 6) {
            flag[d] = !flag[d];
            flagset[d][flag[d]](tp);
        } else if (op < 8) {
            (d ? qvmodule_socket_disable_write : qvmodule_socket_disable_receive)(tp);
            disarm(d);
        } else if (op < 10) {
            (d ? qvmodule_socket_reenable_write : qvmodule_socket_reenable_receive)(tp);
            has(d) ? arm(d) : void();
        } else if (op == 10) {
            EXPECT_EQ(write(peer, "x", 1), 1);
            readable = true;
        } else if (op < 13) { // a readiness the loop had queued before the pause
            (d ? qvmodule_socket_wevent_cb : qvmodule_socket_revent_cb)(fd, d ? EV_WRITE : EV_READ,
                                                                        tp);
            ready(d);
        } else if (op == 13) {
            qvmodule_set_socket(tp, fd);
            for (int k : {0, 1})
                has(k) ? arm(k) : disarm(k);
        } else if (op == 14) {
            qvmodule_reset_socket(tp);
            for (int k : {0, 1}) {
                has(k) ? disarm(k) : void();
                made[k] = armed[k] = flag[k] = m[2 * k] = m[2 * k + 1] = false;
            }
            qvmodule_set_socket(tp, fd);
        } else {
            event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
            for (int k : {0, 1})
                if (armed[k] && (k == 1 || readable))
                    ready(k);
        }
    }
    void check()
    {
        std::ranges::sort(ran), std::ranges::sort(want);
        ASSERT_EQ(ran, want);
        ran.clear(), want.clear();
        flag_t f = (flag[0] ? QVMODULE_FLAG_ACCEPT : 0) | (flag[1] ? QVMODULE_FLAG_CONNECT : 0) |
                   (off[0] ? QVMODULE_FLAG_READ_DISABLED : 0) |
                   (off[1] ? QVMODULE_FLAG_WRITE_DISABLED : 0);
        ASSERT_EQ(tp->qvmodule_flags, f);
        struct event *ev[2] = {tp->sock_revent, tp->sock_wevent};
        for (int k : {0, 1}) {
            ASSERT_EQ(ev[k] != nullptr, made[k]);
            ASSERT_TRUE(!made[k] ||
                        !!event_pending(ev[k], k ? EV_WRITE : EV_READ, nullptr) == armed[k]);
        }
        ASSERT_TRUE(tp->qvmodule_reads == count[0] && tp->qvmodule_writes == count[1]);
        ASSERT_EQ(lock_depth, 0);
    }
};

TEST_F(SocketTest, RandomisedDispatchAndArming)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    Model m;
    m.tp = mod("model"), m.fd = sv[0], m.peer = sv[1];
    qvmodule_set_socket(m.tp, m.fd); // no methods: nothing made
    std::mt19937 rng(2026);
    for (int i = 0; i < 20000 && !HasFatalFailure(); i++) {
        unsigned op = rng() % 20;
        m.step(op > 15 ? 15 : op);
        m.check();
    }
    EXPECT_GT(m.count[0] * m.count[1], 100u);
    qvmodule_delete(m.tp);
    close(sv[1]);
}

// An IPv4 loopback address record with the port of a fresh socket: one
// still listening, or one closed again, where nothing answers.
qvsockaddr_t *loopback(bool listening, int *keep)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<struct sockaddr *>(&a), len);
    getsockname(fd, reinterpret_cast<struct sockaddr *>(&a), &len);
    listening ? (void)listen(fd, 1), *keep = fd : close(fd);
    return sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(&a), len);
}

// Failed calls return their error, leave it in errno and reach syslog at
// LOG_ERR, the trace file only while socket tracing is on; the module and
// the loop carry on. A null module gets EINVAL, -1 or null.
TEST_F(SocketTest, FailuresAreReportedAndRefused)
{
    int held = -1, none = 4000; // nothing is open at 4000
    qvsockaddr_t *busy = loopback(true, &held), *deaf = loopback(false, nullptr), *peer = busy;
    qvmodule *tp[7];
    const char *names[7] = {"bind", "refused", "udp", "accept", "peer", "closed", "noaddr"};
    for (int i = 0; i < 7; i++) {
        tp[i] = mod(names[i]);
        int fd = i == 5   ? none
                 : i == 2 ? qvmodule_get_socket_udp(tp[i])
                          : qvmodule_get_socket_tcp(tp[i]);
        qvmodule_fixup_socket(tp[i], fd);
    }
    qvmodule_set_addr(tp[1], deaf);
    const int want[] = {EADDRINUSE, ECONNREFUSED, EOPNOTSUPP, -1, 0, 0, EDESTADDRREQ};
    for (bool on : {false, true}) {
        jrpc_invoke_trace("sockd", "socket", on);
        int got[7] = {qvmodule_addr_local(tp[0], busy),
                      qvmodule_connect(tp[1]),
                      qvmodule_listen(tp[2], 1),
                      qvmodule_accept(tp[3], &peer),
                      qvmodule_get_addr_remote(tp[4]) ? 1 : 0,
                      qvmodule_get_addr_local(tp[5]) ? 1 : 0,
                      qvmodule_connect(tp[6])};
        EXPECT_EQ(std::vector<int>(got, got + 7), std::vector<int>(want, want + 7));
        EXPECT_EQ(errno, EDESTADDRREQ);
        qvmodule_close(tp[5]);
        qvmodule_fixup_socket(tp[5], none);
        auto at = [&](int i) {
            return fmt("name:%s, socket:%d ", names[i], tp[i]->qvmodule_socket);
        };
        std::vector<std::string> lines = {
            "qvmodule_addr_local:" + at(0) +
                fmt("bind failed error %s errno %d", strerror(EADDRINUSE), EADDRINUSE),
            "qvmodule_connect:" + at(1) + "connect failed",
            "qvmodule_listen:" + at(2) +
                fmt("listen failed errno :%d err : %s", EOPNOTSUPP, strerror(EOPNOTSUPP)),
            "qvmodule_accept:" + at(3) + "accept failed",
            "qvmodule_get_addr_remote:" + at(4) + "getpeername failed",
            "qvmodule_get_addr_local:" + at(5) + "getsockname failed",
            "qvmodule_connect:" + at(6) + "connect failed",
            "qvmodule_close:" + at(5) + "close failed"};
        EXPECT_EQ(traced(), on ? lines : std::vector<std::string>());
        for (std::string &l : lines)
            l = "3|" + l;
        EXPECT_EQ(syslogged, lines);
        syslogged.clear();
    }
    EXPECT_EQ(peer, busy) << "a failed accept leaves the result alone";
    errno = 1234;
    EXPECT_TRUE(qvmodule_addr_local(nullptr, busy) == EINVAL &&
                qvmodule_connect(nullptr) == EINVAL && qvmodule_listen(nullptr, 1) == EINVAL &&
                errno == 1234);
    EXPECT_TRUE(qvmodule_accept(nullptr, &peer) == -1 && !qvmodule_get_addr_remote(nullptr) &&
                !qvmodule_get_addr_local(nullptr));
    // Getters of a null module, and the plain setters.
    qvmodule_set_recv(nullptr, nullptr), qvmodule_set_addr(nullptr, nullptr),
        qvmodule_close(nullptr);
    qvmodule_set_socket(nullptr, 1), qvmodule_reset_socket(nullptr), qvmodule_sockfree(nullptr);
    EXPECT_TRUE(!qvmodule_get_addr(nullptr) && qvmodule_socket(nullptr) == -1 &&
                qvmodule_socket_domain(nullptr) == -1 && !qvmodule_socket_domain_unix(nullptr) &&
                qvmodule_proto_get(nullptr) == 0);
    qvmodule_proto_set(tp[0], 17);
    qvmodule_set_qvmodule_addr(tp[0], busy);
    EXPECT_TRUE(qvmodule_proto_get(tp[0]) == 17 && qvmodule_get_addr(tp[0]) == busy);
    qvmodule_reset_qvmodule_addr(tp[0]);
    qvmodule_set_addr(tp[2], busy);
    qvmodule_sockfree(tp[2]);
    EXPECT_TRUE(!qvmodule_get_addr(tp[0]) && !qvmodule_get_addr(tp[2]));
    // A second close finds no descriptor, and leaves alone whatever got its number since.
    int fd = qvmodule_socket(tp[0]);
    qvmodule_close(tp[0]);
    int reused = dup2(held, fd);
    qvmodule_close(tp[0]);
    EXPECT_TRUE(reused == fd && fcntl(fd, F_GETFD) != -1 && syslogged.empty());
    qvmodule_fixup_socket(tp[5], -1);
    for (qvmodule *m : tp)
        qvmodule_delete(m);
    close(held), close(reused);
}

struct Fatal {
    void (*before)();
    const char *text;
    std::function<void()> call;
    static void as_is() {}
    static void no_base() { g_event_base = nullptr; }
    static void no_memory()
    {
        event_set_mem_functions([](size_t) -> void * { return nullptr; }, realloc, free);
    }
};

TEST_F(SocketDeathTest, FatalChecks)
{
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    qvmodule *tp = mod("fatal");
    qvmodule_fixup_socket(tp, sv[0]);
    auto reader = [=] { qvmodule_set_recv(tp, Model::r), qvmodule_set_socket(tp, sv[0]); };
    auto writer = [=] { qvmodule_set_write(tp, Model::w), qvmodule_set_socket(tp, sv[0]); };
    const Fatal cases[] = {
        {Fatal::as_is, "qvmodule_set_socket: assertion \"tp->qvmodule_socket == s\"",
         [=] { qvmodule_set_socket(tp, sv[1]); }},
        {Fatal::as_is, "qvmodule_accept: assertion \"addr\"",
         [=] { qvmodule_accept(tp, nullptr); }},
        {Fatal::as_is, "qvmodule_socket_revent_cb: assertion \"\\(event & 0x02\\) == 0x02\"",
         [=] { qvmodule_socket_revent_cb(sv[0], EV_WRITE, tp); }},
        {Fatal::as_is, "qvmodule_socket_wevent_cb: assertion \"\\(event & 0x04\\) == 0x04\"",
         [=] { qvmodule_socket_wevent_cb(sv[0], EV_READ, tp); }},
        {Fatal::as_is, "qvmodule_socket_revent_cb: assertion \"fd == tp->qvmodule_socket\"",
         [=] { qvmodule_socket_revent_cb(sv[1], EV_READ, tp); }},
        {Fatal::as_is, "qvmodule_socket_wevent_cb: assertion \"fd == tp->qvmodule_socket\"",
         [=] { qvmodule_socket_wevent_cb(sv[1], EV_WRITE, tp); }},
        {Fatal::no_memory, "qvmodule_socket_enable_read_internal: assertion \"tp->sock_revent\"",
         reader},
        {Fatal::no_memory, "qvmodule_socket_enable_write_internal: assertion \"tp->sock_wevent\"",
         writer},
        {Fatal::no_base,
         "enable_read_internal: assertion \"event_add\\(tp->sock_revent, \\(\\(void \\*\\)0\\)\\) "
         "== 0\"",
         reader},
        {Fatal::no_base,
         "enable_write_internal: assertion \"event_add\\(tp->sock_wevent, \\(\\(void \\*\\)0\\)\\) "
         "== 0\"",
         writer},
        {Fatal::as_is, "disable_read_internal: assertion \"event_del\\(tp->sock_revent\\) == 0\"",
         [=] {
             tp->sock_revent = event_new(nullptr, sv[0], EV_READ, nullptr, nullptr);
             qvmodule_socket_disable_receive(tp);
         }},
        {Fatal::as_is, "disable_write_internal: assertion \"event_del\\(tp->sock_wevent\\) == 0\"",
         [=] {
             tp->sock_wevent = event_new(nullptr, sv[0], EV_WRITE, nullptr, nullptr);
             qvmodule_socket_disable_write(tp);
         }},
        {Fatal::as_is, "qvmodule_set_option_internal: assertion \"0\"",
         [=] {
             tp->qvmodule_socket_domain = AF_INET6;
             qvmodule_set_option(tp, QVMODULE_OPT_IP_TOS, 0);
         }},
    };
    for (const Fatal &c : cases)
        EXPECT_DEATH((c.before(), c.call()), std::string("qv_socket_io.cpp:.*") + c.text);
    qvmodule_fixup_socket(tp, -1);
    qvmodule_delete(tp);
    close(sv[0]), close(sv[1]);
}

} // namespace
