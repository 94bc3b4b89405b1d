// Module sockets on real sockets through the event loop: option codes,
// opening with retries, a loopback TCP exchange, UNIX listeners and their
// unnamed peers, one seeded model of dispatch and arming, failures and
// their messages, and the fatal checks.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/un.h>

#include <algorithm>
#include <functional>
#include <random>

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
    va_start(ap, f), vsnprintf(buf, sizeof buf, f, ap), va_end(ap);
    return buf;
}

std::vector<std::string> syslogged; // "priority|message"
int lock_depth = 0;

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
        qv_trace_vsyslog_fn = [](int prio, const char *f, va_list ap) {
            char buf[2048];
            vsnprintf(buf, sizeof buf, f, ap);
            syslogged.push_back(std::to_string(prio) + "|" + buf);
        };
        qv_ui_init("sockd");
    }
    void SetUp() override
    {
        qv_giant_lock_func_init([](int lock, int) { return lock_depth += lock ? 1 : -1, 0; });
        syslogged.clear(), traced();
    }
    void TearDown() override
    {
        jrpc_invoke_trace("sockd", "socket", 0);
        qv_giant_lock_func_init(nullptr);
        EXPECT_EQ(lock_depth, 0);
    }
    // The messages of the trace lines written since the last call.
    static std::vector<std::string> traced()
    {
        static size_t seen = 0;
        std::vector<std::string> out, all = qvtest::read_lines(log);
        for (; seen < all.size(); seen++)
            out.push_back(all[seen].substr(all[seen].find("]  ") + 3));
        return out;
    }
    static qvmodule *mod(const char *name)
    {
        qvmodule *tp = qvmodule_alloc(name, 0, nullptr);
        return qvmodule_create(tp), tp;
    }
    static inline std::string log;
};
using SocketDeathTest = SocketTest;

int getopt_int(int fd, int level, int name)
{
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, level, name, &v, &len), v;
}

// Each code sets what it names, read back from the kernel; codes without a
// meaning fail with EINVAL; 27 and 38 do nothing. Every outcome is reported.
TEST_F(SocketTest, OptionCodesAndTheirDomainRules)
{
    qvmodule *tp = mod("opt"), *un = mod("un"), *raw = mod("raw"), *none = mod("none");
    int s = qvmodule_get_socket_tcp(tp);
    qvmodule_set_socket(tp, s);
    const int rows[][6] = {{0, 4096, 0, SOL_SOCKET, SO_RCVBUF, 8192},
                           {1, 8192, 0, SOL_SOCKET, SO_SNDBUF, 16384},
                           {3, 1, 0, SOL_SOCKET, SO_REUSEADDR, 1},
                           {5, 1, 0, SOL_SOCKET, SO_DONTROUTE, 1},
                           {6, 1, 0, SOL_SOCKET, SO_KEEPALIVE, 1},
                           {15, 9, 0, IPPROTO_IP, IP_TTL, 9},
                           {16, 0x10, 0, IPPROTO_IP, IP_TOS, 0x10},
                           {25, 536, 0, IPPROTO_TCP, TCP_MAXSEG, 536},
                           {2, 1, 7, SOL_SOCKET, SO_LINGER, 1},
                           {8, 0, 0, 0, 0, 0},
                           {27, 0, 0, 0, 0, 0},
                           {38, 0, 0, 0, 0, 0}};
    std::string name = fmt("qvmodule_set_option_internal:name:opt, socket:%d setsockopt ", s);
    for (const int *r : rows) {
        ASSERT_EQ(qvmodule_set_option(tp, r[0], r[1], r[2]), 0) << r[0];
        struct linger lg = {};
        socklen_t len = sizeof lg;
        getsockopt(s, SOL_SOCKET, SO_LINGER, &lg, &len);
        EXPECT_TRUE(r[3] == 0 || getopt_int(s, r[3], r[4]) == r[5]) << r[0];
        EXPECT_TRUE(r[0] != 2 || (lg.l_onoff == 1 && lg.l_linger == 7));
        EXPECT_EQ(syslogged, std::vector<std::string>(r[0] < 27, "6|" + name + "succedded"));
        syslogged.clear();
    }
    EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK) << "a value of 0 still turns it on";
    for (int code : {4, 9, 14, 17, 24, 26, 28, 37, 39, -1, 1000})
        EXPECT_TRUE(qvmodule_set_option(tp, code, 1) == -1 && errno == EINVAL) << code;
    EXPECT_EQ(syslogged, std::vector<std::string>(11, "3|" + name + "failed"));
    syslogged.clear();
    // IP options on a UNIX socket do nothing; an unknown domain becomes IPv4
    // unless the code is ignored; no socket, no call.
    qvmodule_set_socket(un, qvmodule_get_socket_unix(un));
    EXPECT_EQ(qvmodule_set_option(un, QVMODULE_OPT_IP_TTL, 3), 0);
    qvmodule_fixup_socket(raw, socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_TRUE(qvmodule_set_option(raw, 27) == 0 && qvmodule_socket_domain(raw) == 0);
    EXPECT_EQ(qvmodule_set_option(raw, QVMODULE_OPT_IP_TTL, 33), 0);
    EXPECT_TRUE(qvmodule_socket_domain(raw) == AF_INET &&
                getopt_int(raw->qvmodule_socket, IPPROTO_IP, IP_TTL) == 33);
    errno = 1234;
    EXPECT_TRUE(qvmodule_set_option(nullptr, 0, 1) == -1 && qvmodule_set_option(none, 0, 1) == -1);
    EXPECT_TRUE(errno == 1234 && syslogged.size() == 1) << "only raw's TTL";
    for (qvmodule *m : {tp, un, raw, none})
        qvmodule_delete(m);
}

std::vector<int> open_script; // errors the next opens fail with, in order
std::vector<std::vector<int>> opened;
std::vector<unsigned> slept;

// Interruptions retry at once; a buffer shortage gets three tries with a
// 5 s pause before each retry; any other error ends at once. The domain is
// recorded whatever the outcome.
TEST_F(SocketTest, OpeningRetriesAndShorthands)
{
    qv_socket_open_fn = [](int d, int t, int p) {
        opened.push_back({d, t, p});
        if (open_script.empty())
            return t == SOCK_RAW ? dup(0) : socket(d, t, p); // raw ones need privileges
        errno = open_script.front();
        return open_script.erase(open_script.begin()), -1;
    };
    qv_socket_sleep_fn = [](unsigned s) { return slept.push_back(s), 0u; };
    qvmodule *tp = mod("open");
    auto ip = [](qvmodule *m) { return qvmodule_get_socket_ip(m, 89); };
    auto dgram = [](qvmodule *m) { return qvmodule_get_socket(m, 1, 2, 0); };
    const struct {
        int (*open)(qvmodule *);
        std::vector<int> script, args;
        int err;
        size_t sleeps;
    } rows[] = {
        // clang-format off
        {qvmodule_get_socket_tcp, {}, {2, 1, 0}, 0, 0},
        {qvmodule_get_socket_udp, {EINTR, EINTR}, {2, 2, 0}, 0, 0},
        {qvmodule_get_socket_unix, {ENOBUFS}, {1, 1, 0}, 0, 1},
        {ip, {ENOBUFS, EINTR, ENOBUFS}, {2, 3, 89}, 0, 2},
        {ip, {EMFILE}, {2, 3, 89}, EMFILE, 0},
        {dgram, {ENOBUFS, EINTR, ENOBUFS, ENOBUFS}, {1, 2, 0}, ENOBUFS, 2},
        {dgram, {ENOBUFS, ENOBUFS, EACCES}, {1, 2, 0}, EACCES, 2},
        // clang-format on
    };
    for (const auto &r : rows) {
        open_script = r.script, opened.clear(), slept.clear();
        tp->qvmodule_socket_domain = 0;
        int s = r.open(tp);
        EXPECT_EQ(s < 0 ? errno : 0, r.err);
        EXPECT_EQ(opened, std::vector<std::vector<int>>(r.script.size() + !r.err, r.args));
        EXPECT_TRUE(slept == std::vector<unsigned>(r.sleeps, 5) &&
                    tp->qvmodule_socket_domain == r.args[0]);
        close(s);
    }
    qv_socket_open_fn = socket;
    jrpc_invoke_trace("sockd", "socket", 1);
    EXPECT_TRUE(qvmodule_get_socket(tp, 4242, SOCK_STREAM, 0) == -1 && errno == EAFNOSUPPORT);
    EXPECT_TRUE(qvmodule_get_socket_tcp(nullptr) == -1 && qvmodule_socket_domain(tp) == 4242);
    EXPECT_EQ(traced(),
              std::vector<std::string>{"qvmodule_get_socket:name:open, socket:-1 created"});
    EXPECT_TRUE(syslogged.empty());
    qvmodule_delete(tp);
}

// A loopback exchange: the listener accepts into a module made for the new
// descriptor, stored before creation; it echoes and deletes itself at end
// of stream. The client connects without blocking and sends once connected.
struct Tcp {
    static inline std::string ran;
    static inline int conn_fd = -1;
    static void expect_rx(qvmodule *tp, bool read_side)
    {
        EXPECT_TRUE(qvmodule_current_rx_module_get() == (read_side ? tp : nullptr) &&
                    lock_depth == 1);
    }
    static void accept_cb(qvmodule *tp)
    {
        expect_rx(tp, true);
        qvsockaddr_t *peer;
        qvmodule *conn = qvmodule_alloc_accept(tp, "conn", 0, nullptr);
        conn->qvmodule_socket = conn_fd = qvmodule_accept(tp, &peer);
        qvmodule_set_recv(conn, echo_cb), qvmodule_set_addr(conn, peer), qvmodule_create(conn);
        ran += "accept;";
    }
    static void echo_cb(qvmodule *tp)
    {
        expect_rx(tp, true);
        char buf[64];
        ssize_t n = read(tp->qvmodule_socket, buf, sizeof buf);
        if (n <= 0)
            return ran += "eof;", qvmodule_delete(tp);
        EXPECT_EQ(write(tp->qvmodule_socket, buf, size_t(n)), n);
        qvsockaddr_t *peer = qvmodule_get_addr_remote(tp);
        EXPECT_STREQ(qvsockaddr_print(peer), qvsockaddr_print(tp->qvmodule_addr));
        sockfree(peer), ran += "echo;";
    }
    static void connect_cb(qvmodule *tp)
    {
        expect_rx(tp, false);
        EXPECT_EQ(getopt_int(tp->qvmodule_socket, SOL_SOCKET, SO_ERROR), 0);
        qvmodule_clear_connect_flag(tp), ran += "connected;";
    }
    static void write_cb(qvmodule *tp)
    {
        expect_rx(tp, false);
        EXPECT_EQ(write(tp->qvmodule_socket, "ping", 4), 4);
        qvmodule_socket_disable_write(tp), ran += "sent;"; // nothing more to send
    }
    static void reply_cb(qvmodule *tp)
    {
        char buf[8] = {};
        EXPECT_EQ(read(tp->qvmodule_socket, buf, sizeof buf), 4);
        ran += std::string(buf) + ";", qvmodule_close(tp);
    }
};

TEST_F(SocketTest, LoopbackTcpExchangeThroughTheLoop)
{
    jrpc_invoke_trace("sockd", "socket", 1);
    qvmodule *server = mod("server"), *client = mod("client");
    uint32_t modules = qvmodule_block_index->tb_n_alloc;
    int s = qvmodule_get_socket_tcp(server), c = qvmodule_get_socket_tcp(client);
    qvmodule_set_accept(server, Tcp::accept_cb), qvmodule_set_accept_flag(server);
    qvmodule_set_socket(server, s);
    qvsockaddr_t *any = sockcreate_in(0, htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(qvmodule_addr_local(server, any) == 0 && qvmodule_listen(server, 4) == 0);
    qvmodule_set_addr(client, qvmodule_get_addr_local(server));
    std::string where = qvsockaddr_print(client->qvmodule_addr);
    qvmodule_set_connect(client, Tcp::connect_cb), qvmodule_set_write(client, Tcp::write_cb);
    qvmodule_set_recv(client, Tcp::reply_cb), qvmodule_set_connect_flag(client);
    qvmodule_set_socket(client, c);
    qvmodule_set_option(client, QVMODULE_OPT_NONBLOCK, 1);
    errno = 0;
    ASSERT_TRUE(qvmodule_connect(client) == EINPROGRESS && errno == EINPROGRESS);
    for (int i = 0; i < 1000 && Tcp::ran.find("eof;") == std::string::npos; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    // The listener and the connecting client become ready in the same turn.
    EXPECT_TRUE(Tcp::ran == "accept;connected;sent;echo;ping;eof;" ||
                Tcp::ran == "connected;accept;sent;echo;ping;eof;")
        << Tcp::ran;
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
        fmt("qvmodule_get_addr_remote:name:conn, socket:%d getpeername succedded", Tcp::conn_fd)};
    std::vector<std::string> got = traced(), in_syslog;
    for (const std::string &l : lines)
        in_syslog.push_back("6|" + l);
    EXPECT_EQ(syslogged, in_syslog);
    // The trace file has these too, the two opens and the six dispatches.
    auto dispatches = std::ranges::count_if(got, [](auto &l) { return l.ends_with(" cb"); });
    EXPECT_TRUE(got.size() == lines.size() + 8 && dispatches == 6 && got[0].ends_with("created"));
    sockfree(any), qvmodule_delete(server), qvmodule_delete(client);
}

std::string peer_text;
int accepted = -1;

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
        qvmodule_set_accept(l, [](qvmodule *tp) {
            qvsockaddr_t *peer;
            accepted = qvmodule_accept(tp, &peer);
            peer_text = qvsockaddr_print(peer), sockfree(peer);
        });
        qvmodule_set_accept_flag(l), qvmodule_set_socket(l, s);
        qvsockaddr_t *rec = sockcreate_un(path.c_str());
        sa_family_t unnamed = AF_UNIX;
        ASSERT_EQ(kind < 2 ? qvmodule_addr_local(l, rec) : bind(s, (struct sockaddr *)&unnamed, 2),
                  0);
        kind == 0 ? qvmodule_set_addr(l, rec) : sockfree(rec);
        ASSERT_EQ(qvmodule_listen(l, 1), 0);
        struct sockaddr_un a;
        socklen_t len = sizeof a;
        getsockname(s, reinterpret_cast<struct sockaddr *>(&a), &len);
        qvmodule_set_socket(c, qvmodule_get_socket_unix(c));
        qvmodule_set_addr(c, sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(&a), len));
        ASSERT_EQ(kind < 2 ? qvmodule_connect(c)
                           : connect(c->qvmodule_socket, (struct sockaddr *)&a, len),
                  0);
        event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        EXPECT_EQ(peer_text, kind < 2 ? "UNIX/" + path + "_local" : "UNIX/");
        EXPECT_TRUE(kind == 2 || syslogged[0].ends_with("bind success address: UNIX/" + path));
        qvmodule_delete(c);
        EXPECT_TRUE(write(accepted, "x", 1) == -1 && errno == EPIPE);
        close(accepted), qvmodule_delete(l), syslogged.clear();
        EXPECT_TRUE(fcntl(s, F_GETFD) == -1 && errno == EBADF) << "deletion closes the socket";
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
        EXPECT_TRUE(qvmodule_current_rx_module_get() == (rx ? tp : nullptr) && lock_depth == 1);
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
        if (!off[d])
            want += "rawc"[k], count[d]++, readable = readable && d == 1;
    }
    void step(unsigned op)
    {
        static void (*const set[4])(qvmodule *, qvmodule_recv_func) = {
            qvmodule_set_recv, qvmodule_set_accept, qvmodule_set_write, qvmodule_set_connect};
        static const qvmodule_recv_func fns[4] = {r, a, w, c};
        static void (*const flags[2][2])(qvmodule *) = {
            {qvmodule_clear_accept_flag, qvmodule_set_accept_flag},
            {qvmodule_clear_connect_flag, qvmodule_set_connect_flag}};
        int d = op % 2;
        if (op < 4) {
            m[op] = !m[op], set[op](tp, m[op] ? fns[op] : nullptr);
        } else if (op < 6) {
            flag[d] = !flag[d], flags[d][flag[d]](tp);
        } else if (op < 8) {
            (d ? qvmodule_socket_disable_write : qvmodule_socket_disable_receive)(tp), disarm(d);
        } else if (op < 10) {
            (d ? qvmodule_socket_reenable_write : qvmodule_socket_reenable_receive)(tp);
            has(d) ? arm(d) : void();
        } else if (op == 10) {
            readable = write(peer, "x", 1) == 1;
        } else if (op < 13) { // a readiness the loop had queued before a pause
            (d ? qvmodule_socket_wevent_cb : qvmodule_socket_revent_cb)(fd, d ? EV_WRITE : EV_READ,
                                                                        tp);
            ready(d);
        } else if (op == 13) {
            qvmodule_set_socket(tp, fd);
            for (int k : {0, 1})
                has(k) ? arm(k) : disarm(k);
        } else if (op == 14) {
            qvmodule_reset_socket(tp), qvmodule_set_socket(tp, fd);
            for (int k : {0, 1}) {
                has(k) ? disarm(k) : void();
                made[k] = armed[k] = flag[k] = m[2 * k] = m[2 * k + 1] = false;
            }
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
        ASSERT_EQ(tp->qvmodule_flags,
                  flag[0] * QVMODULE_FLAG_ACCEPT + flag[1] * QVMODULE_FLAG_CONNECT +
                      off[0] * QVMODULE_FLAG_READ_DISABLED + off[1] * QVMODULE_FLAG_WRITE_DISABLED);
        struct event *ev[2] = {tp->sock_revent, tp->sock_wevent};
        for (int k : {0, 1})
            ASSERT_TRUE(
                (ev[k] != nullptr) == made[k] &&
                (!made[k] || !!event_pending(ev[k], k ? EV_WRITE : EV_READ, nullptr) == armed[k]));
        ASSERT_TRUE(tp->qvmodule_reads == count[0] && tp->qvmodule_writes == count[1] &&
                    !lock_depth);
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
    for (int i = 0; i < 20000 && !HasFatalFailure(); i++)
        m.step(std::min(unsigned(rng() % 20), 15u)), m.check();
    EXPECT_GT(m.count[0] * m.count[1], 100u);
    qvmodule_delete(m.tp), close(sv[1]);
}

// Failed calls return their error, leave it in errno and reach syslog at
// LOG_ERR, the trace file only while socket tracing is on; the module and
// the loop carry on. A null module gets EINVAL, -1 or null.
TEST_F(SocketTest, FailuresAreReportedAndRefused)
{
    const char *names[7] = {"bind", "refused", "udp", "accept", "peer", "closed", "noaddr"};
    qvmodule *tp[7];
    for (int i = 0; i < 7; i++) {
        tp[i] = mod(names[i]);
        qvmodule_fixup_socket(tp[i], i == 5   ? 4000 // nothing is open there
                                     : i == 2 ? qvmodule_get_socket_udp(tp[i])
                                              : qvmodule_get_socket_tcp(tp[i]));
    }
    // A listener's address, and a port where nothing listens any more.
    struct sockaddr_in a = {};
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int gone = socket(AF_INET, SOCK_STREAM, 0);
    bind(gone, (struct sockaddr *)&a, len), getsockname(gone, (struct sockaddr *)&a, &len),
        close(gone);
    qvmodule_set_addr(tp[1], sockaddr2qvsockaddr((struct sockaddr *)&a, len));
    a.sin_port = 0;
    bind(qvmodule_socket(tp[4]), (struct sockaddr *)&a, len), listen(qvmodule_socket(tp[4]), 1);
    qvsockaddr_t *busy = qvmodule_get_addr_local(tp[4]), *peer = busy;
    syslogged.clear();
    for (bool on : {false, true}) {
        jrpc_invoke_trace("sockd", "socket", on);
        int got[7] = {qvmodule_addr_local(tp[0], busy),
                      qvmodule_connect(tp[1]),
                      qvmodule_listen(tp[2], 1),
                      qvmodule_accept(tp[3], &peer),
                      !!qvmodule_get_addr_remote(tp[4]),
                      !!qvmodule_get_addr_local(tp[5]),
                      qvmodule_connect(tp[6])};
        EXPECT_EQ(std::vector<int>(got, got + 7),
                  (std::vector<int>{EADDRINUSE, ECONNREFUSED, EOPNOTSUPP, -1, 0, 0, EDESTADDRREQ}));
        EXPECT_EQ(errno, EDESTADDRREQ);
        qvmodule_close(tp[5]), qvmodule_fixup_socket(tp[5], 4000);
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
                !qvmodule_get_addr_local(nullptr) && !qvmodule_get_addr(nullptr) &&
                qvmodule_socket(nullptr) == -1 && qvmodule_socket_domain(nullptr) == -1 &&
                !qvmodule_socket_domain_unix(nullptr) && qvmodule_proto_get(nullptr) == 0);
    qvmodule_set_addr(tp[2], busy), qvmodule_sockfree(tp[2]);
    // A second close finds no descriptor, and leaves alone whatever got its number since.
    int fd = qvmodule_socket(tp[0]), other = dup(fd);
    qvmodule_close(tp[0]);
    EXPECT_EQ(dup2(other, fd), fd);
    qvmodule_close(tp[0]);
    EXPECT_TRUE(fcntl(fd, F_GETFD) != -1 && syslogged.empty());
    qvmodule_fixup_socket(tp[5], -1);
    for (qvmodule *m : tp)
        qvmodule_delete(m);
    close(fd), close(other);
}

TEST_F(SocketDeathTest, FatalChecks)
{
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    qvmodule *tp = mod("fatal");
    qvmodule_fixup_socket(tp, sv[0]);
    auto reader = [=] { qvmodule_set_recv(tp, Model::r), qvmodule_set_socket(tp, sv[0]); };
    auto writer = [=] { qvmodule_set_write(tp, Model::w), qvmodule_set_socket(tp, sv[0]); };
    auto no_memory = [] {
        event_set_mem_functions([](size_t) -> void * { return nullptr; }, realloc, free);
    };
    auto no_base = [] { g_event_base = nullptr; };
    auto bare = [=](struct event *qvmodule::*ev, short what) {
        tp->*ev = event_new(nullptr, sv[0], what, nullptr, nullptr);
    };
    const std::tuple<const char *, const char *, std::function<void()>> cases[] = {
        {"set_socket", "tp->qvmodule_socket == s", [=] { qvmodule_set_socket(tp, sv[1]); }},
        {"accept", "addr", [=] { qvmodule_accept(tp, nullptr); }},
        {"revent_cb", "(event & 0x02) == 0x02",
         [=] { qvmodule_socket_revent_cb(sv[0], EV_WRITE, tp); }},
        {"wevent_cb", "(event & 0x04) == 0x04",
         [=] { qvmodule_socket_wevent_cb(sv[0], EV_READ, tp); }},
        {"revent_cb", "fd == tp->qvmodule_socket",
         [=] { qvmodule_socket_revent_cb(sv[1], EV_READ, tp); }},
        {"wevent_cb", "fd == tp->qvmodule_socket",
         [=] { qvmodule_socket_wevent_cb(sv[1], EV_WRITE, tp); }},
        {"enable_read_internal", "tp->sock_revent", [=] { no_memory(), reader(); }},
        {"enable_write_internal", "tp->sock_wevent", [=] { no_memory(), writer(); }},
        {"enable_read_internal", "event_add(tp->sock_revent, ((void *)0)) == 0",
         [=] { no_base(), reader(); }},
        {"enable_write_internal", "event_add(tp->sock_wevent, ((void *)0)) == 0",
         [=] { no_base(), writer(); }},
        {"disable_read_internal", "event_del(tp->sock_revent) == 0",
         [=] { bare(&qvmodule::sock_revent, EV_READ), qvmodule_socket_disable_receive(tp); }},
        {"disable_write_internal", "event_del(tp->sock_wevent) == 0",
         [=] { bare(&qvmodule::sock_wevent, EV_WRITE), qvmodule_socket_disable_write(tp); }},
        {"set_option_internal", "0",
         [=] {
             tp->qvmodule_socket_domain = AF_INET6, qvmodule_set_option(tp, QVMODULE_OPT_IP_TOS, 0);
         }},
    };
    for (const auto &[func, text, call] : cases)
        EXPECT_DEATH(call(), qvtest::fatal_re(
                                 std::string("qv_socket_io.cpp:qvmodule_(socket_)?") + func, text));
    qvmodule_fixup_socket(tp, -1), qvmodule_delete(tp), close(sv[0]), close(sv[1]);
}

} // namespace
