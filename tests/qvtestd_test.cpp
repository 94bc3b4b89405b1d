// The sample daemon end to end: real qvtestd processes driven with qvsh, a
// plain TCP echo client and signals, checked through their show replies,
// pid and trace files and service-manager datagrams.
//
// The show port is fixed (3000) and the show server writes its output files
// under /var/tmp/. So that no test meets another test's daemon or a real
// one, and nothing lands in the real /var/tmp, each test process (CTest
// runs every test in its own) moves into a network namespace with only lo
// and a mount namespace with a tmpfs on /var/tmp. Where that is refused,
// the daemon tests are skipped.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "qv_netns.h"
#include "qv_test_util.h"

namespace
{

using namespace std::chrono_literals;
using qvtest::file_exists;
using qvtest::read_file;
using Strings = std::vector<std::string>;

constexpr int kShowPort = 3000;
constexpr int kEchoPort = 7007;
// A bound, not a wait: every wait below polls and returns once its
// condition holds.
constexpr auto kDeadline = 20s;

bool wait_until(const std::function<bool()> &cond)
{
    for (auto end = std::chrono::steady_clock::now() + kDeadline;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms))
        if (cond())
            return true;
    return cond();
}

// Empty when this process now has its own network and mount namespaces.
std::string isolate()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        return std::string("unshare: ") + strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777") != 0)
        return std::string("a private tmpfs on /var/tmp: ") + strerror(errno);
    return qvtest::loopback_up() ? "" : std::string("bringing lo up: ") + strerror(errno);
}

// Runs argv in dir with env added and its output in the file out.
pid_t spawn(const Strings &argv, const std::string &dir, const Strings &env, const std::string &out)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (chdir(dir.c_str()) != 0 || fd < 0)
        _exit(127);
    for (const auto &e : env)
        putenv(strdup(e.c_str()));
    dup2(fd, 1);
    dup2(fd, 2);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// The exit status (128 + signal when killed), or -1 past the deadline.
int wait_exit(pid_t pid)
{
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }))
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Outcome {
    int status;
    std::string output;
};

Outcome run(const Strings &argv, const std::string &dir = "/")
{
    qvtest::TempDir io;
    pid_t pid = spawn(argv, dir, {}, io.file("out"));
    int status = wait_exit(pid);
    if (status < 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return {status, read_file(io.file("out"))};
}

int tcp_connect(int port, int flags = 0)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, (struct sockaddr *)&a, sizeof(a)) != 0 && errno != EINPROGRESS) {
        close(s);
        return -1;
    }
    return s;
}

bool port_accepts(int port)
{
    int s = tcp_connect(port);
    close(s);
    return s >= 0;
}

// Writes data and reads as much back, interleaved so that neither side's
// buffers fill up.
std::string echo_through(int s, const std::string &data)
{
    std::string back;
    size_t sent = 0;
    for (auto end = std::chrono::steady_clock::now() + kDeadline;
         back.size() < data.size() && std::chrono::steady_clock::now() < end;) {
        struct pollfd p = {s, (short)(POLLIN | (sent < data.size() ? POLLOUT : 0)), 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        if (p.revents & POLLOUT)
            sent += std::max<ssize_t>(0, send(s, data.data() + sent,
                                              std::min<size_t>(8192, data.size() - sent),
                                              MSG_NOSIGNAL));
        char buf[8192];
        ssize_t n = (p.revents & (POLLIN | POLLHUP)) ? read(s, buf, sizeof(buf)) : 0;
        if (n < 0 || (n == 0 && (p.revents & POLLHUP)))
            break;
        back.append(buf, n);
    }
    return back;
}

// JSON replies: members are walked in order, since their keys repeat.
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::vector<cJSON *> members(const cJSON *obj, const char *key)
{
    std::vector<cJSON *> found;
    for (cJSON *c = obj ? obj->child : nullptr; c != nullptr; c = c->next)
        if (c->string != nullptr && strcmp(c->string, key) == 0)
            found.push_back(c);
    return found;
}

std::string text_of(const cJSON *obj, const char *key)
{
    cJSON *item = cJSON_GetObjectItem(obj, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

cJSON *at(const cJSON *obj, std::initializer_list<const char *> path)
{
    cJSON *item = const_cast<cJSON *>(obj);
    for (const char *key : path)
        item = cJSON_GetObjectItem(item, key);
    return item;
}

// The "Name" of every item of a show reply's list, e.g. "Timer List".
Strings names_in(const cJSON *list, const char *item)
{
    Strings names;
    for (cJSON *i : members(list, item))
        names.push_back(text_of(i, "Name"));
    return names;
}

bool has(const Strings &v, const std::string &s)
{
    return std::find(v.begin(), v.end(), s) != v.end();
}

class Qvtestd : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        static const std::string refused = isolate();
        refusal = refused;
        // Detached daemons become our children: their exit can be read.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    void SetUp() override
    {
        if (!refusal.empty())
            GTEST_SKIP() << "daemon tests need network and mount namespaces of their own ("
                         << refusal << "); run them as root";
    }

    // Stops whatever daemon is left, the detached one through its pid
    // file, also after a failed assertion.
    void TearDown() override
    {
        for (pid_t p : {child, (pid_t)atoi(read_file(pid_file).c_str())})
            if (p > 0 && kill(p, SIGTERM) == 0 && wait_exit(p) < 0) {
                kill(p, SIGKILL);
                waitpid(p, nullptr, 0);
            }
    }

    pid_t start(const Strings &extra = {}, const Strings &env = {})
    {
        Strings argv = {QVTESTD_PATH, "-l", trace_file, "-p", pid_file};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return child = spawn(argv, dir.path(), env, dir.file("daemon.out"));
    }

    // Waits for the show port; false when the daemon ended first.
    bool serving()
    {
        bool ended = false;
        wait_until([&] {
            return (ended = waitpid(child, nullptr, WNOHANG) == child) || port_accepts(kShowPort);
        });
        return !ended && port_accepts(kShowPort);
    }

    int stop(int sig = SIGTERM)
    {
        kill(child, sig);
        int status = wait_exit(child);
        child = -1;
        return status;
    }

    // The "Response" of qvsh's reply; *status gets qvsh's exit status, which
    // must otherwise be 0.
    Json show(const std::string &command, const Strings &args = {}, int *status = nullptr)
    {
        Strings argv = {QVSH_PATH, "--port", std::to_string(kShowPort), "--raw", command};
        argv.insert(argv.end(), args.begin(), args.end());
        Outcome r = run(argv);
        if (status != nullptr)
            *status = r.status;
        else
            EXPECT_EQ(r.status, 0) << command << ": " << r.output;
        Json reply(cJSON_Parse(r.output.c_str()), cJSON_Delete);
        EXPECT_EQ(text_of(reply.get(), "Request"), command);
        cJSON *response = cJSON_DetachItemFromObject(reply.get(), "Response");
        return Json(response ? response : cJSON_CreateObject(), cJSON_Delete);
    }

    bool trace_has(const std::string &text)
    {
        return wait_until([&] { return read_file(trace_file).find(text) != std::string::npos; });
    }

    static inline std::string refusal;
    qvtest::TempDir dir;
    std::string trace_file = dir.file("qvtestd.log");
    std::string pid_file = dir.file("qvtestd.pid");
    pid_t child = -1;
};

// Needs no namespace: nothing may be opened.
TEST(QvtestdCommandLine, BadArgumentsAreRefusedBeforeAnythingIsOpened)
{
    qvtest::TempDir dir;
    const std::vector<Strings> bad = {
        {"-x"},         {"-l"},        {"-s", "0"},    {"-s", "12k"}, {"-s", "-1"},
        {"-c", "0"},    {"-c", "256"}, {"-t", "0x1g"}, {"-e", "0"},   {"-e", "65536"},
        {"-e", "3000"}, {"-e", " 7"},  {"-l", ""},     {"stray"},
    };
    for (const Strings &args : bad) {
        Strings argv = {QVTESTD_PATH, "-l", "t.log", "-p", "p.pid"};
        argv.insert(argv.end(), args.begin(), args.end());
        Outcome r = run(argv, dir.path());
        std::string shown = args[0] + (args.size() > 1 ? " '" + args[1] + "'" : "");
        EXPECT_EQ(r.status, 2) << shown;
        EXPECT_NE(r.output.find("usage: qvtestd"), std::string::npos) << shown << ": " << r.output;
        EXPECT_FALSE(file_exists(dir.file("t.log"))) << shown;
        EXPECT_FALSE(file_exists(dir.file("p.pid"))) << shown;
    }
    EXPECT_EQ(run({QVTESTD_PATH, "-h"}).status, 0);
}

TEST_F(Qvtestd, ForegroundDaemonServesItsCommandsAndStopsOnSigterm)
{
    // Relative paths: start-up changes directory, the files stay here.
    pid_t pid = start({"-l", "relative.log", "-p", "relative.pid"});
    trace_file = dir.file("relative.log");
    pid_file = dir.file("relative.pid");
    ASSERT_TRUE(serving()) << read_file(dir.file("daemon.out"));

    EXPECT_EQ(read_file(pid_file), std::to_string(pid) + "\n");
    auto lines = qvtest::read_lines(trace_file);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find("qv_daemon_init: Daemon(qvtestd) starting"), std::string::npos);

    Strings commands = names_in(show("show all").get(), "Command");
    for (const char *c : {"show clients", "show heartbeat", "show memory", "show module",
                          "show timer", "show job", "show libevent", "trace on", "trace off"})
        EXPECT_TRUE(has(commands, c)) << c;
    Strings modules = names_in(at(show("show module").get(), {"qvmodule List"}), "qvmodule");
    for (const char *m : {"echo", "heartbeat", "sweeper", "service"})
        EXPECT_TRUE(has(modules, m)) << m;
    Strings timers = names_in(at(show("show timer").get(), {"Timer List"}), "Timer");
    for (const char *t : {"heartbeat.beat", "sweeper.sweep due", "echo.accept backoff"})
        EXPECT_TRUE(has(timers, t)) << t;
    EXPECT_TRUE(has(names_in(at(show("show memory").get(), {"Block List"}), "Block"), "qvmodule"));
    EXPECT_EQ(cJSON_GetArraySize(show("show job").get()), 0) << "the start-up jobs are done";
    EXPECT_EQ(cJSON_GetArraySize(show("show libevent").get()), 0);

    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(file_exists(pid_file));
    EXPECT_NE(read_file(trace_file).find("qvtestd: SIGTERM, stopping"), std::string::npos);
}

TEST_F(Qvtestd, EchoesWhatItReadsAndKeepsAHistoryPerClient)
{
    start();
    ASSERT_TRUE(serving()) << read_file(dir.file("daemon.out"));
    int s = tcp_connect(kEchoPort);
    ASSERT_GE(s, 0);
    EXPECT_EQ(echo_through(s, "hello qvtestd\n"), "hello qvtestd\n");
    std::string big(300000, 'x'); // far more than a socket buffer
    for (size_t i = 0; i < big.size(); i += 7)
        big[i] = (char)('a' + i % 26);
    EXPECT_EQ(echo_through(s, big), big);

    struct sockaddr_in me;
    socklen_t len = sizeof(me);
    getsockname(s, (struct sockaddr *)&me, &len);
    std::string conn = "echo 127.0.0.1:" + std::to_string(ntohs(me.sin_port));
    EXPECT_TRUE(has(names_in(at(show("show module").get(), {"qvmodule List"}), "qvmodule"), conn));
    close(s);

    // The daemon's loop sees the close in its own time: poll for it.
    std::vector<cJSON *> events;
    Json brief(nullptr, cJSON_Delete);
    ASSERT_TRUE(wait_until([&] {
        brief = show("show clients");
        events = members(at(brief.get(), {"127.0.0.1", "Event History"}), "Event");
        return !events.empty() && text_of(events[0], "Event ID") == "closed";
    }));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(text_of(at(events[0], {"Action List"}), "Action"), "peer closed");
    EXPECT_EQ(text_of(events[1], "Event ID"), "connected");
    EXPECT_EQ(text_of(at(events[1], {"Action List"}), "Action"), conn);
    EXPECT_EQ(at(events[0], {"Action List", "Event"}), nullptr) << "brief form without traffic";
    EXPECT_FALSE(has(names_in(at(show("show module").get(), {"qvmodule List"}), "qvmodule"), conn))
        << "the connection's module outlived it";

    Json extensive = show("show clients", {"device=127.0.0.1", "level=extensive"});
    cJSON *closed = members(at(extensive.get(), {"127.0.0.1", "Event History"}), "Event")[0];
    EXPECT_EQ(text_of(at(closed, {"Action List", "Event"}), "Heading"), "Traffic");
    EXPECT_EQ(text_of(at(closed, {"Action List", "Event"}), "Elements"),
              "bytes echoed: " + std::to_string(14 + big.size()));

    // Bad requests get an error reply (qvsh exits 3); the daemon goes on.
    for (const char *arg : {"device=10.9.9.9", "level=loud"}) {
        int status = 0;
        EXPECT_FALSE(text_of(show("show clients", {arg}, &status).get(), "Error").empty()) << arg;
        EXPECT_EQ(status, 3) << arg;
    }
    s = tcp_connect(kEchoPort);
    EXPECT_EQ(echo_through(s, "still here"), "still here");
    close(s);
}

TEST_F(Qvtestd, AcceptBacksOffWhileDescriptorsRunOutAndServesAgainAfter)
{
    // A low descriptor limit, set in the child and kept through exec.
    child = fork();
    if (child == 0) {
        struct rlimit lim = {40, 40};
        setrlimit(RLIMIT_NOFILE, &lim);
        execl(QVTESTD_PATH, QVTESTD_PATH, "-l", trace_file.c_str(), "-p", pid_file.c_str(),
              (char *)nullptr);
        _exit(127);
    }
    ASSERT_TRUE(serving());
    // Connects without waiting: those beyond the backlog are left to the
    // kernel's retries, and closed unanswered below.
    std::vector<int> clients;
    for (int i = 0; i < 40; i++)
        clients.push_back(tcp_connect(kEchoPort, SOCK_NONBLOCK));
    EXPECT_TRUE(trace_has("echo: accept failed")) << "the daemon never ran out of descriptors";
    for (int s : clients)
        close(s);
    ASSERT_TRUE(wait_until([&] {
        int s = tcp_connect(kEchoPort);
        bool echoed = s >= 0 && echo_through(s, "back") == "back";
        close(s);
        return echoed;
    }));
    show("show all");
    EXPECT_EQ(stop(), 0);
}

TEST_F(Qvtestd, TraceCommandsAndSignalsSwitchTracing)
{
    start({"-t", "0"});
    ASSERT_TRUE(serving()) << read_file(dir.file("daemon.out"));
    const std::string dispatch = "qvmodule_timer_event_cb: dispatching timer name:beat";
    // Beats the heartbeat with SIGUSR1 for the n-th time; where its line is.
    auto beat = [&](int n) {
        kill(child, SIGUSR1);
        size_t at = std::string::npos;
        wait_until([&] {
            std::string text = read_file(trace_file);
            at = 0;
            for (int i = 0; i < n && at != std::string::npos; i++)
                at = text.find("(SIGUSR1)", i == 0 ? 0 : at + 1);
            return at != std::string::npos;
        });
        return at;
    };

    Json on = show("trace on", {"level=timer"});
    EXPECT_EQ(text_of(on.get(), "Trace"), "timer");
    EXPECT_EQ(text_of(on.get(), "State"), "on");
    EXPECT_NE(beat(1), std::string::npos);
    EXPECT_TRUE(trace_has(dispatch));
    EXPECT_EQ(text_of(show("trace off", {"level=timer"}).get(), "State"), "off");
    for (const Strings &args : {Strings{"level=everything"}, Strings{}}) {
        int status = 0;
        EXPECT_FALSE(text_of(show("trace on", args, &status).get(), "Error").empty());
        EXPECT_EQ(status, 3);
    }

    // SIGHUP turns on every bit, a second one turns them off again.
    kill(child, SIGHUP);
    EXPECT_TRUE(trace_has("SIGHUP, trace mask now 0x1041e"));
    size_t second = beat(2);
    kill(child, SIGHUP);
    EXPECT_TRUE(trace_has("SIGHUP, trace mask now 0x0"));
    EXPECT_NE(beat(3), std::string::npos);
    std::string text = read_file(trace_file);
    EXPECT_LT(text.find(dispatch, text.find("mask now 0x1041e")), second);
    EXPECT_EQ(text.find(dispatch, text.find("mask now 0x0")), std::string::npos);

    // Beats on request count as one event, repeated.
    Strings ids;
    Json beats = show("show heartbeat");
    for (cJSON *e : members(at(beats.get(), {"Event History"}), "Event"))
        ids.push_back(text_of(e, "Event ID"));
    EXPECT_TRUE(has(ids, "beat on request.2"));

    EXPECT_EQ(stop(SIGINT), 0);
    EXPECT_FALSE(file_exists(pid_file));
}

TEST_F(Qvtestd, TellsTheServiceManagerReadyWatchdogAndStopping)
{
    for (std::string name : {dir.file("notify"), "@qvtestd_test." + std::to_string(getpid())}) {
        SCOPED_TRACE(name);
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        memcpy(a.sun_path, name.c_str(), name.size());
        if (name[0] == '@')
            a.sun_path[0] = '\0'; // abstract: the length says where it ends
        ASSERT_EQ(
            bind(fd, (struct sockaddr *)&a, offsetof(struct sockaddr_un, sun_path) + name.size()),
            0);
        auto next = [fd] {
            char buf[64];
            struct pollfd p = {fd, POLLIN, 0};
            ssize_t n = poll(&p, 1, 20000) == 1 ? recv(fd, buf, sizeof(buf), 0) : 0;
            return std::string(buf, std::max<ssize_t>(n, 0));
        };
        start({}, {"NOTIFY_SOCKET=" + name, "WATCHDOG_USEC=200000"});
        ASSERT_EQ(next(), "READY=1");
        // Ready means serving: both ports answer as soon as it is said.
        EXPECT_TRUE(port_accepts(kShowPort));
        EXPECT_TRUE(port_accepts(kEchoPort));
        EXPECT_EQ(next(), "WATCHDOG=1");
        EXPECT_EQ(next(), "WATCHDOG=1");
        kill(child, SIGTERM);
        std::string last;
        do
            last = next();
        while (last == "WATCHDOG=1");
        EXPECT_EQ(last, "STOPPING=1");
        EXPECT_EQ(stop(), 0);
        close(fd);
    }
}

TEST_F(Qvtestd, DetachedDaemonRefusesASecondCopyAndStopsThroughItsPidFile)
{
    pid_t starter = start({"-d"});
    EXPECT_EQ(wait_exit(starter), 0) << "the starting process leaves once detached";
    child = -1;
    ASSERT_TRUE(wait_until([&] { return atoi(read_file(pid_file).c_str()) > 0; }));
    pid_t pid = atoi(read_file(pid_file).c_str());
    EXPECT_NE(pid, starter);
    ASSERT_TRUE(wait_until([&] { return port_accepts(kShowPort); }));
    char fd0[64] = "";
    readlink(("/proc/" + std::to_string(pid) + "/fd/0").c_str(), fd0, sizeof(fd0) - 1);
    EXPECT_STREQ(fd0, "/dev/null");

    // The same pid file: the lock refuses the copy and the file stays.
    std::string held = read_file(pid_file);
    EXPECT_EQ(run({QVTESTD_PATH, "-l", dir.file("2.log"), "-p", pid_file}).status, 0);
    EXPECT_EQ(read_file(pid_file), held);
    // Another pid file: the echo port is taken, and it says so.
    Outcome third = run({QVTESTD_PATH, "-l", dir.file("3.log"), "-p", dir.file("3.pid")});
    EXPECT_EQ(third.status, 1);
    EXPECT_NE(third.output.find("127.0.0.1:7007"), std::string::npos) << third.output;
    EXPECT_FALSE(file_exists(dir.file("3.pid")));
    // Another echo port too: the show port is taken, and it says so.
    Outcome fourth =
        run({QVTESTD_PATH, "-l", dir.file("4.log"), "-p", dir.file("4.pid"), "-e", "7008"});
    EXPECT_EQ(fourth.status, 1);
    EXPECT_NE(fourth.output.find("show port 3000 is in use"), std::string::npos) << fourth.output;
    EXPECT_FALSE(file_exists(dir.file("4.pid")));
    show("show all");

    kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(pid), 0);
    EXPECT_FALSE(file_exists(pid_file));
}

TEST_F(Qvtestd, SweeperRemovesOnlyItsOwnOldShowOutputs)
{
    auto touch = [](const std::string &path, time_t age) {
        close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        struct timespec t[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
        utimensat(AT_FDCWD, path.c_str(), t, AT_SYMLINK_NOFOLLOW);
    };
    const std::string vt = "/var/tmp/"; // this test's own tmpfs
    const Strings removed = {"qvtestd.showall.20200101000000", "qvtestd.showmodule."};
    const Strings kept = {"qvtestd.showall.20990101000000", "qvtestd.pid",
                          "qvtestdx.showall.20200101000000", "qvtestd.showlink.20200101000000"};
    for (const auto &name : removed)
        touch(vt + name, 7200);
    touch(vt + kept[0], 0);
    touch(vt + kept[1], 7200);
    touch(vt + kept[2], 7200);
    touch(dir.file("target"), 7200);
    symlink(dir.file("target").c_str(), (vt + kept[3]).c_str());

    start();
    ASSERT_TRUE(serving()) << read_file(dir.file("daemon.out"));
    EXPECT_TRUE(trace_has(", 2 old show outputs removed")) << read_file(trace_file);
    for (const auto &name : removed)
        EXPECT_FALSE(file_exists(vt + name)) << name;
    for (const auto &name : kept)
        EXPECT_TRUE(file_exists(vt + name)) << name;
    EXPECT_TRUE(file_exists(dir.file("target")));
}

TEST(QvtestdUnits, PassSystemdAnalyzeVerify)
{
    const char *tool = "/usr/bin/systemd-analyze";
    if (access(tool, X_OK) != 0)
        GTEST_SKIP() << "systemd-analyze is not installed";
    qvtest::TempDir dir;
    for (const char *unit : {"qvtestd.service", "qvtestd-forking.service"}) {
        // The units name the installed daemon: check them with this build's.
        std::string text = read_file(std::string(QV_SOURCE_DIR "/examples/systemd/") + unit);
        const std::string installed = "/usr/local/sbin/qvtestd";
        for (size_t at; (at = text.find(installed)) != std::string::npos;)
            text.replace(at, installed.size(), QVTESTD_PATH);
        std::ofstream(dir.file(unit)) << text;
        Outcome r = run({tool, "verify", dir.file(unit)});
        EXPECT_EQ(r.status, 0) << unit;
        EXPECT_EQ(r.output, "") << unit;
    }
}

} // namespace
