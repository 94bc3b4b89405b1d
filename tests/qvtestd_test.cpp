// The sample daemon end to end: real qvtestd processes driven with qvsh, a
// plain TCP echo client and signals, checked through their show replies,
// pid and trace files and service-manager datagrams.
//
// The show port is fixed (3000), and the show server writes its output
// files under /var/tmp/. So that no test meets another test's daemon, or a
// real one, and nothing lands in the real /var/tmp, each test process moves
// into a network namespace of its own (loopback only) and a mount namespace
// with a private tmpfs on /var/tmp. CTest runs every test in a process of
// its own; where namespaces are refused, the daemon tests are skipped.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kShowPort = 3000;
constexpr int kEchoPort = 7007;
// Bounds, not waits: every wait below polls and returns as soon as its
// condition holds.
constexpr auto kDeadline = 20s;
constexpr auto kPoll = 10ms;

// ---------------------------------------------------------------------
// Isolation

std::string isolation_refused; // empty once the namespaces are in place

bool write_file(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
    close(fd);
    return ok;
}

std::string enter_namespaces()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        // Not root: an unprivileged user namespace may still allow both.
        uid_t uid = getuid();
        gid_t gid = getgid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0)
            return std::string("unshare: ") + strerror(errno);
        write_file("/proc/self/setgroups", "deny");
        if (!write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
            return "cannot map the user into the new user namespace";
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("mount --make-rprivate /: ") + strerror(errno);
    if (mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777") != 0)
        return std::string("tmpfs on /var/tmp: ") + strerror(errno);
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    bool up = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0 &&
              (ifr.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &ifr) == 0);
    if (s >= 0)
        close(s);
    return up ? "" : std::string("bringing lo up: ") + strerror(errno);
}

// ---------------------------------------------------------------------
// Files and processes

std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool wait_until(const std::function<bool()> &cond)
{
    for (auto end = Clock::now() + kDeadline; Clock::now() < end;) {
        if (cond())
            return true;
        std::this_thread::sleep_for(kPoll);
    }
    return cond();
}

struct TempDir {
    std::string path;
    TempDir()
    {
        char tmpl[] = "/tmp/qvtestd_test.XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

using Env = std::vector<std::pair<std::string, std::string>>;

// Forks and execs argv in dir with env added, output to the given files.
pid_t spawn(const std::vector<std::string> &argv, const std::string &dir, const Env &env,
            int out_fd, int err_fd)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    if (!dir.empty() && chdir(dir.c_str()) != 0)
        _exit(127);
    for (const auto &[name, value] : env)
        setenv(name.c_str(), value.c_str(), 1);
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// Exit status of pid, or -1 when it did not end within the deadline.
int wait_exit(pid_t pid)
{
    int status = 0;
    bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Outcome {
    int status;
    std::string out, err;
};

// Runs a program to its end and collects what it printed.
Outcome run(const std::vector<std::string> &argv, const std::string &dir = "", const Env &env = {})
{
    TempDir io;
    int out = open((io / "out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int err = open((io / "err").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    pid_t pid = spawn(argv, dir, env, out, err);
    int status = wait_exit(pid);
    if (status < 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(out);
    close(err);
    return {status, read_file(io / "out"), read_file(io / "err")};
}

bool port_accepts(int port)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(s, (struct sockaddr *)&a, sizeof(a)) == 0;
    close(s);
    return ok;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// ---------------------------------------------------------------------
// JSON replies: members are walked in order, since keys repeat.

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::vector<cJSON *> members(const cJSON *obj, const char *key)
{
    std::vector<cJSON *> found;
    for (cJSON *c = obj ? obj->child : nullptr; c != nullptr; c = c->next)
        if (c->string != nullptr && strcmp(c->string, key) == 0)
            found.push_back(c);
    return found;
}

std::string printed(const cJSON *obj)
{
    char *text = cJSON_PrintUnformatted(obj);
    std::string s = text ? text : "";
    cJSON_free(text);
    return s;
}

std::string text_of(const cJSON *obj, const char *key)
{
    auto m = members(obj, key);
    return m.empty() || !cJSON_IsString(m[0]) ? "" : m[0]->valuestring;
}

// The names listed by a show reply's list object (e.g. "Timer List").
std::vector<std::string> names_in(const cJSON *response, const char *list, const char *item)
{
    std::vector<std::string> names;
    for (cJSON *l : members(response, list))
        for (cJSON *i : members(l, item))
            names.push_back(text_of(i, "Name"));
    return names;
}

bool contains(const std::vector<std::string> &v, const std::string &s)
{
    return std::find(v.begin(), v.end(), s) != v.end();
}

// ---------------------------------------------------------------------
// The daemon

class Qvtestd : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        static bool done = false;
        if (!done) {
            done = true;
            isolation_refused = enter_namespaces();
            // Detached daemons become our children, so that their exit
            // status can be read and nothing outlives the test unseen.
            prctl(PR_SET_CHILD_SUBREAPER, 1);
        }
    }

    void SetUp() override
    {
        if (!isolation_refused.empty())
            GTEST_SKIP() << "daemon tests need a network and a mount namespace of their own ("
                         << isolation_refused << "); run them as root or allow user namespaces";
    }

    // Stops whatever daemon the test left running: the foreground child,
    // and the detached one through its pid file, even after a failure.
    void TearDown() override
    {
        std::vector<pid_t> pids = {child};
        std::string held = read_file(pid_file);
        if (!held.empty())
            pids.push_back(atoi(held.c_str()));
        for (pid_t p : pids) {
            if (p > 0 && kill(p, SIGTERM) == 0 && wait_exit(p) < 0) {
                kill(p, SIGKILL);
                waitpid(p, nullptr, 0);
            }
        }
        if (daemon_out >= 0)
            close(daemon_out);
    }

    // Starts qvtestd in dir with its trace and pid files there.
    pid_t start(std::vector<std::string> extra = {}, const Env &env = {})
    {
        std::vector<std::string> argv = {QVTESTD_PATH, "-l", trace_file, "-p", pid_file};
        argv.insert(argv.end(), extra.begin(), extra.end());
        daemon_out = open((dir / "daemon.out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        child = spawn(argv, dir.path, env, daemon_out, daemon_out);
        return child;
    }

    // Waits for the show port; false when the daemon died first.
    bool serving()
    {
        bool died = false;
        bool up = wait_until([&] {
            died = waitpid(child, nullptr, WNOHANG) == child;
            return died || port_accepts(kShowPort);
        });
        if (died)
            child = -1;
        return up && !died;
    }

    int stop(int sig = SIGTERM)
    {
        kill(child, sig);
        int status = wait_exit(child);
        child = -1;
        return status;
    }

    // qvsh's reply to a command, parsed; null when it did not parse.
    Json show(const std::string &command, const std::vector<std::string> &args = {},
              int *status = nullptr)
    {
        std::vector<std::string> argv = {QVSH_PATH, "--port", std::to_string(kShowPort), "--raw",
                                         command};
        argv.insert(argv.end(), args.begin(), args.end());
        Outcome r = run(argv);
        if (status != nullptr)
            *status = r.status;
        else
            EXPECT_EQ(r.status, 0) << r.out << r.err;
        return Json(cJSON_Parse(r.out.c_str()), cJSON_Delete);
    }

    cJSON *response(const Json &reply) { return cJSON_GetObjectItem(reply.get(), "Response"); }

    std::string trace() { return read_file(trace_file); }

    bool trace_has(const std::string &text)
    {
        return wait_until([&] { return trace().find(text) != std::string::npos; });
    }

    TempDir dir;
    std::string trace_file = dir / "qvtestd.log";
    std::string pid_file = dir / "qvtestd.pid";
    pid_t child = -1;
    int daemon_out = -1;
};

// ---------------------------------------------------------------------
// Command line

// Needs no namespace: nothing may be opened.
TEST(QvtestdCommandLine, BadArgumentsAreRefusedBeforeAnythingIsOpened)
{
    TempDir dir;
    const std::vector<std::vector<std::string>> bad = {
        {"-x"},          {"-l"},         {"-s", "0"},  {"-s", "12k"},  {"-s", "-1"},
        {"-c", "0"},     {"-c", "256"},  {"-t", "zz"}, {"-t", "0x1g"}, {"-e", "0"},
        {"-e", "65536"}, {"-e", "3000"}, {"-e", " 7"}, {"-l", ""},     {"stray"},
    };
    for (const auto &args : bad) {
        std::vector<std::string> argv = {QVTESTD_PATH, "-l", "t.log", "-p", "p.pid"};
        argv.insert(argv.end(), args.begin(), args.end());
        Outcome r = run(argv, dir.path);
        std::string shown = args[0] + (args.size() > 1 ? " '" + args[1] + "'" : "");
        EXPECT_EQ(r.status, 2) << shown;
        EXPECT_NE(r.err.find("usage: qvtestd"), std::string::npos) << shown << ": " << r.err;
        EXPECT_FALSE(exists(dir / "t.log")) << shown;
        EXPECT_FALSE(exists(dir / "p.pid")) << shown;
    }
    Outcome help = run({QVTESTD_PATH, "-h"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: qvtestd"), std::string::npos);
}

// ---------------------------------------------------------------------
// Foreground life cycle and show replies

TEST_F(Qvtestd, ForegroundDaemonServesItsCommandsAndStopsOnSigterm)
{
    // Relative paths: start-up changes directory, the files stay here.
    pid_t pid = start({"-l", "relative.log", "-p", "relative.pid"});
    trace_file = dir / "relative.log";
    pid_file = dir / "relative.pid";
    ASSERT_TRUE(serving()) << read_file(dir / "daemon.out");

    EXPECT_EQ(read_file(pid_file), std::to_string(pid) + "\n");
    auto lines = lines_of(trace());
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find("qv_daemon_init: Daemon(qvtestd) starting"), std::string::npos)
        << lines[0];

    Json all = show("show all");
    ASSERT_TRUE(all);
    EXPECT_EQ(text_of(all.get(), "Request"), "show all");
    std::vector<std::string> commands;
    for (cJSON *c : members(response(all), "Command"))
        commands.push_back(text_of(c, "Name"));
    for (const char *c :
         {"show all", "show clients", "show heartbeat", "show memory", "show module", "show timer",
          "show job", "show libevent", "trace on", "trace off"})
        EXPECT_TRUE(contains(commands, c)) << c;

    auto modules = names_in(response(show("show module")), "qvmodule List", "qvmodule");
    for (const char *m : {"echo", "heartbeat", "sweeper", "service", "Event History"})
        EXPECT_TRUE(contains(modules, m)) << m;

    auto timers = names_in(response(show("show timer")), "Timer List", "Timer");
    for (const char *t : {"heartbeat.beat", "sweeper.sweep due", "echo.accept backoff"})
        EXPECT_TRUE(contains(timers, t)) << t;

    Json memory = show("show memory");
    ASSERT_TRUE(memory);
    EXPECT_NE(cJSON_GetArraySize(response(memory)), 0);
    EXPECT_TRUE(members(response(memory), "Error").empty());

    Json jobs = show("show job");
    ASSERT_TRUE(jobs);
    EXPECT_TRUE(members(response(jobs), "Error").empty());

    Json libevent = show("show libevent");
    ASSERT_TRUE(libevent);
    EXPECT_EQ(cJSON_GetArraySize(response(libevent)), 0);

    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(exists(pid_file));
    EXPECT_NE(trace().find("qvtestd: SIGTERM, stopping"), std::string::npos);
}

// ---------------------------------------------------------------------
// Echo service and its event history

int echo_connect()
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(kEchoPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, (struct sockaddr *)&a, sizeof(a)) != 0) {
        close(s);
        return -1;
    }
    return s;
}

// Writes data and reads as much back, interleaved so that neither side's
// buffers fill up.
std::string echo_through(int s, const std::string &data)
{
    std::string back;
    size_t sent = 0;
    auto end = Clock::now() + kDeadline;
    while (back.size() < data.size() && Clock::now() < end) {
        struct pollfd p = {s, (short)(POLLIN | (sent < data.size() ? POLLOUT : 0)), 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        if (p.revents & POLLOUT) {
            ssize_t n = send(s, data.data() + sent, std::min<size_t>(8192, data.size() - sent),
                             MSG_NOSIGNAL);
            if (n > 0)
                sent += n;
        }
        if (p.revents & (POLLIN | POLLHUP)) {
            char buf[8192];
            ssize_t n = read(s, buf, sizeof(buf));
            if (n <= 0)
                break;
            back.append(buf, n);
        }
    }
    return back;
}

TEST_F(Qvtestd, EchoesWhatItReadsAndKeepsAHistoryPerClient)
{
    start();
    ASSERT_TRUE(serving()) << read_file(dir / "daemon.out");

    int s = echo_connect();
    ASSERT_GE(s, 0);
    EXPECT_EQ(echo_through(s, "hello qvtestd\n"), "hello qvtestd\n");
    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); i++)
        big[i] = (char)('a' + i % 26);
    EXPECT_EQ(echo_through(s, big), big);

    struct sockaddr_in me;
    socklen_t len = sizeof(me);
    getsockname(s, (struct sockaddr *)&me, &len);
    std::string conn_module = "echo 127.0.0.1:" + std::to_string(ntohs(me.sin_port));
    auto modules = names_in(response(show("show module")), "qvmodule List", "qvmodule");
    EXPECT_TRUE(contains(modules, conn_module)) << conn_module;
    close(s);

    // The close is seen by the daemon's loop, not by us: poll for it.
    cJSON *events = nullptr;
    Json brief(nullptr, cJSON_Delete);
    ASSERT_TRUE(wait_until([&] {
        brief = show("show clients");
        cJSON *client = cJSON_GetObjectItem(response(brief), "127.0.0.1");
        events = cJSON_GetObjectItem(client, "Event History");
        auto ev = members(events, "Event");
        return !ev.empty() && text_of(ev[0], "Event ID") == "closed";
    }));
    auto ev = members(events, "Event");
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(text_of(cJSON_GetObjectItem(ev[0], "Action List"), "Action"), "peer closed");
    EXPECT_EQ(text_of(ev[1], "Event ID"), "connected");
    EXPECT_EQ(text_of(cJSON_GetObjectItem(ev[1], "Action List"), "Action"), conn_module);
    EXPECT_EQ(printed(brief.get()).find("Heading"), std::string::npos);
    EXPECT_FALSE(contains(names_in(response(show("show module")), "qvmodule List", "qvmodule"),
                          conn_module));

    Json extensive = show("show clients", {"device=127.0.0.1", "level=extensive"});
    cJSON *closed = members(
        cJSON_GetObjectItem(cJSON_GetObjectItem(response(extensive), "127.0.0.1"), "Event History"),
        "Event")[0];
    cJSON *info = cJSON_GetObjectItem(cJSON_GetObjectItem(closed, "Action List"), "Event");
    EXPECT_EQ(text_of(info, "Heading"), "Traffic");
    EXPECT_EQ(text_of(info, "Elements"), "bytes echoed: " + std::to_string(14 + big.size()));

    // Bad requests are refused with an error reply; the daemon goes on.
    int status = 0;
    Json unknown = show("show clients", {"device=10.9.9.9"}, &status);
    EXPECT_EQ(status, 3) << "qvsh exits 3 on an error reply";
    EXPECT_FALSE(text_of(response(unknown), "Error").empty());
    Json level = show("show clients", {"level=loud"}, &status);
    EXPECT_EQ(status, 3) << "qvsh exits 3 on an error reply";
    EXPECT_FALSE(text_of(response(level), "Error").empty());
    s = echo_connect();
    EXPECT_EQ(echo_through(s, "still here"), "still here");
    close(s);
}

TEST_F(Qvtestd, AcceptBacksOffWhileDescriptorsRunOutAndServesAgainAfter)
{
    // A small descriptor limit for the daemon alone, set in a child that
    // then runs it: the limit passes through exec.
    struct rlimit lim = {40, 40};
    pid_t pid = fork();
    if (pid == 0) {
        setrlimit(RLIMIT_NOFILE, &lim);
        execl(QVTESTD_PATH, QVTESTD_PATH, "-l", trace_file.c_str(), "-p", pid_file.c_str(),
              (char *)nullptr);
        _exit(127);
    }
    child = pid;
    ASSERT_TRUE(serving());

    // Connects without waiting: those beyond the listener's backlog are
    // left to the kernel's retries, and closed unanswered below.
    std::vector<int> clients;
    for (int i = 0; i < 40; i++) {
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(kEchoPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(s, (struct sockaddr *)&a, sizeof(a));
        clients.push_back(s);
    }
    EXPECT_TRUE(trace_has("echo: accept failed")) << "the daemon never ran out of descriptors";
    for (int s : clients)
        close(s);
    // Once the peers are gone the daemon accepts and serves again.
    int s = -1;
    ASSERT_TRUE(wait_until([&] {
        s = echo_connect();
        if (s >= 0 && echo_through(s, "back") == "back")
            return true;
        if (s >= 0)
            close(s);
        return false;
    }));
    close(s);
    EXPECT_TRUE(show("show all"));
    EXPECT_EQ(stop(), 0);
}

// ---------------------------------------------------------------------
// Management commands, tracing and signals

TEST_F(Qvtestd, TraceCommandsAndSignalsSwitchTracing)
{
    start({"-t", "0"});
    ASSERT_TRUE(serving()) << read_file(dir / "daemon.out");
    const std::string dispatch = "qvmodule_timer_event_cb: dispatching timer name:beat";

    Json on = show("trace on", {"level=timer"});
    EXPECT_EQ(text_of(response(on), "Trace"), "timer");
    EXPECT_EQ(text_of(response(on), "State"), "on");
    kill(child, SIGUSR1);
    EXPECT_TRUE(trace_has("heartbeat 1 (SIGUSR1)"));
    EXPECT_NE(trace().find(dispatch), std::string::npos);
    Json off = show("trace off", {"level=timer"});
    EXPECT_EQ(text_of(response(off), "State"), "off");

    int status = 0;
    Json bad = show("trace on", {"level=everything"}, &status);
    EXPECT_EQ(status, 3) << "qvsh exits 3 on an error reply";
    EXPECT_FALSE(text_of(response(bad), "Error").empty());
    Json none = show("trace on", {}, &status);
    EXPECT_EQ(status, 3) << "qvsh exits 3 on an error reply";

    // SIGHUP turns on every bit, a second one turns them off again.
    kill(child, SIGHUP);
    EXPECT_TRUE(trace_has("SIGHUP, trace mask now 0x1041e"));
    kill(child, SIGUSR1);
    EXPECT_TRUE(trace_has("heartbeat 2 (SIGUSR1)"));
    kill(child, SIGHUP);
    EXPECT_TRUE(trace_has("SIGHUP, trace mask now 0x0"));
    kill(child, SIGUSR1);
    EXPECT_TRUE(trace_has("heartbeat 3 (SIGUSR1)"));
    std::string text = trace();
    size_t all_on = text.find("trace mask now 0x1041e");
    size_t second = text.find("heartbeat 2 (SIGUSR1)");
    size_t silent = text.find("trace mask now 0x0");
    EXPECT_LT(text.find(dispatch, all_on), second) << "no dispatch line while on";
    EXPECT_EQ(text.find(dispatch, silent), std::string::npos) << "a dispatch line while off";

    // Three beats on request in a row count as one repeated event.
    Json beats = show("show heartbeat");
    bool repeated = false;
    for (cJSON *e : members(cJSON_GetObjectItem(response(beats), "Event History"), "Event"))
        repeated |= text_of(e, "Event ID") == "beat on request.2";
    EXPECT_TRUE(repeated) << printed(beats.get());

    EXPECT_EQ(stop(SIGINT), 0);
    EXPECT_FALSE(exists(pid_file));
}

// ---------------------------------------------------------------------
// Service-manager notifications

struct NotifySocket {
    int fd;
    std::string name;
    explicit NotifySocket(const std::string &where)
    {
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        socklen_t len;
        name = where;
        if (where[0] == '@') {
            memcpy(a.sun_path + 1, where.c_str() + 1, where.size() - 1);
            len = offsetof(struct sockaddr_un, sun_path) + where.size();
        } else {
            strcpy(a.sun_path, where.c_str());
            len = sizeof(a);
        }
        EXPECT_EQ(bind(fd, (struct sockaddr *)&a, len), 0) << strerror(errno);
    }
    ~NotifySocket() { close(fd); }
    // The next datagram, or "" when none came within the deadline.
    std::string next()
    {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, std::chrono::milliseconds(kDeadline).count()) != 1)
            return "";
        char buf[256];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        return n > 0 ? std::string(buf, n) : "";
    }
};

TEST_F(Qvtestd, TellsTheServiceManagerReadyWatchdogAndStopping)
{
    for (std::string where :
         {dir / "notify", std::string("@qvtestd_test.") + std::to_string(getpid())}) {
        SCOPED_TRACE(where);
        NotifySocket sock(where);
        if (daemon_out >= 0)
            close(daemon_out);
        start({}, {{"NOTIFY_SOCKET", where}, {"WATCHDOG_USEC", "200000"}});
        ASSERT_EQ(sock.next(), "READY=1");
        // Ready means serving: both ports answer as soon as it is said.
        EXPECT_TRUE(port_accepts(kShowPort));
        EXPECT_TRUE(port_accepts(kEchoPort));
        EXPECT_EQ(sock.next(), "WATCHDOG=1");
        EXPECT_EQ(sock.next(), "WATCHDOG=1");
        kill(child, SIGTERM);
        std::string last;
        do
            last = sock.next();
        while (last == "WATCHDOG=1");
        EXPECT_EQ(last, "STOPPING=1");
        EXPECT_EQ(wait_exit(child), 0);
        child = -1;
    }
}

// ---------------------------------------------------------------------
// Detaching, the pid lock, a second copy

TEST_F(Qvtestd, DetachedDaemonRefusesASecondCopyAndStopsThroughItsPidFile)
{
    pid_t starter = start({"-d"});
    // The starting process leaves as soon as the daemon is detached.
    EXPECT_EQ(wait_exit(starter), 0);
    child = -1;
    ASSERT_TRUE(wait_until([&] { return !read_file(pid_file).empty(); }));
    pid_t pid = atoi(read_file(pid_file).c_str());
    ASSERT_GT(pid, 0);
    EXPECT_NE(pid, starter);
    ASSERT_TRUE(wait_until([&] { return port_accepts(kShowPort); }));
    char fd0[64] = "";
    readlink(("/proc/" + std::to_string(pid) + "/fd/0").c_str(), fd0, sizeof(fd0) - 1);
    EXPECT_STREQ(fd0, "/dev/null");

    // Same pid file: the lock refuses it, and the first copy's file stays.
    std::string held = read_file(pid_file);
    Outcome second = run({QVTESTD_PATH, "-l", dir / "second.log", "-p", pid_file});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(read_file(pid_file), held);
    // Another pid file: the echo port is taken, and it says so.
    Outcome third = run({QVTESTD_PATH, "-l", dir / "third.log", "-p", dir / "third.pid"});
    EXPECT_EQ(third.status, 1);
    EXPECT_NE(third.err.find("127.0.0.1:7007"), std::string::npos) << third.err;
    EXPECT_FALSE(exists(dir / "third.pid"));
    EXPECT_TRUE(show("show all"));

    kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(pid), 0);
    EXPECT_FALSE(exists(pid_file));
    EXPECT_FALSE(port_accepts(kShowPort));
}

// ---------------------------------------------------------------------
// The sweeper

void touch(const std::string &path, time_t age)
{
    close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= age;
    times[1] = times[0];
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

TEST_F(Qvtestd, SweeperRemovesOnlyItsOwnOldShowOutputs)
{
    const std::string vt = "/var/tmp/"; // the test's private tmpfs
    touch(vt + "qvtestd.showall.20200101000000", 7200);
    touch(vt + "qvtestd.showmodule.", 7200);
    touch(vt + "qvtestd.showall.20990101000000", 0);     // young
    touch(vt + "qvtestd.pid", 7200);                     // not a show output
    touch(vt + "qvtestdx.showall.20200101000000", 7200); // another program's
    touch(dir / "target", 7200);
    symlink((dir / "target").c_str(), (vt + "qvtestd.showlink.20200101000000").c_str());

    start();
    ASSERT_TRUE(serving()) << read_file(dir / "daemon.out");
    EXPECT_TRUE(trace_has("old show outputs removed"));
    EXPECT_NE(trace().find(", 2 old show outputs removed"), std::string::npos) << trace();
    EXPECT_FALSE(exists(vt + "qvtestd.showall.20200101000000"));
    EXPECT_FALSE(exists(vt + "qvtestd.showmodule."));
    EXPECT_TRUE(exists(vt + "qvtestd.showall.20990101000000"));
    EXPECT_TRUE(exists(vt + "qvtestd.pid"));
    EXPECT_TRUE(exists(vt + "qvtestdx.showall.20200101000000"));
    EXPECT_TRUE(exists(vt + "qvtestd.showlink.20200101000000"));
    EXPECT_TRUE(exists(dir / "target"));
}

// ---------------------------------------------------------------------
// Unit files

TEST(QvtestdUnits, PassSystemdAnalyzeVerify)
{
    const char *tool = "/usr/bin/systemd-analyze";
    if (access(tool, X_OK) != 0)
        GTEST_SKIP() << "systemd-analyze is not installed";
    TempDir dir;
    for (const char *unit : {"qvtestd.service", "qvtestd-forking.service"}) {
        // The units name the installed daemon; check them against this build's.
        std::string text = read_file(std::string(QV_SOURCE_DIR "/examples/systemd/") + unit);
        ASSERT_FALSE(text.empty()) << unit;
        for (size_t at; (at = text.find("/usr/local/sbin/qvtestd")) != std::string::npos;)
            text.replace(at, strlen("/usr/local/sbin/qvtestd"), QVTESTD_PATH);
        std::ofstream(dir / unit) << text;
        Outcome r = run({tool, "verify", dir / unit});
        EXPECT_EQ(r.status, 0) << unit << ": " << r.err;
        EXPECT_EQ(r.out + r.err, "") << unit;
    }
}

} // namespace
