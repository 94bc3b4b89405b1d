// Signals, daemonizing and the pid lock file, with real signals and real
// copies of a daemon, each in a child process: signal registrations are
// never released, and start-up runs once per process.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <regex>
#include <set>

#include "qv_signal_private.h"
#include "qv_test_daemon.h"

using qvtest::Daemon;
using qvtest::in_child;
using qvtest::read_file;

namespace
{

std::string pid_text(pid_t pid)
{
    return std::to_string(pid) + "\n";
}

// A re-entrant lock that checks every unlock against its lock.
struct Lock {
    static inline int depth = 0, wrong = 0;
    static int fn(int lock, int res) { return lock ? ++depth : (wrong += res != depth--, 0); }
};

struct {
    int calls, fd, signo, depth;
} seen;

// Disables its own registration, which takes the lock once more.
void deliver(int fd, int signo)
{
    seen = {seen.calls + 1, fd, signo, Lock::depth};
    qvmodule_signal_disable_kevent(signo);
    event_base_loopbreak(g_event_base);
}

TEST(Signal, KernelEventsComeFromTheLoopUnderTheLockUntilDisabled)
{
    Daemon d;
    int res = in_child([&] {
        alarm(60); // a lost delivery fails the case instead of hanging it
        d.start();
        int sv[2]; // a write to a closed peer fails instead of ending the daemon
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 || close(sv[1]) != 0 ||
            write(sv[0], "x", 1) != -1 || errno != EPIPE || daemon_pid_fd != -1)
            return 1;
        qv_giant_lock_func_init(Lock::fn);
        qvmodule_signal_register_kevent(SIGUSR1, deliver);
        qvmodule_signal_disable_kevent(SIGUSR2); // not registered: no effect
        for (int round = 1; round <= 2; round++) {
            raise(SIGUSR1);
            qv_daemon_loop();
            if (seen.calls != round || seen.fd != SIGUSR1 || seen.signo != SIGUSR1 ||
                seen.depth != 1 || Lock::depth || Lock::wrong ||
                !qvmodule_signals[0].sig_kevent_disabled)
                return 10 + round;
            if (round == 1)
                qvmodule_signal_reenable_kevent(SIGUSR1);
        }
        raise(SIGUSR1); // disabled: the default action is back
        return 2;
    });
    EXPECT_EQ(res, 128 + SIGUSR1);
}

void never(int, int)
{
    _exit(5);
}

void disabled_delivery(std::initializer_list<int> pids)
{
    g_event_base = event_base_new();
    qvmodule_signal_register_kevent(SIGUSR1, never);
    qvmodule_signal_disable_kevent(SIGUSR1);
    for (int pid : pids) {
        daemon_pid = pid;
        qvmodule_signal_event_cb(SIGUSR1, EV_SIGNAL, &qvmodule_signals[0]);
    }
}

// A delivery that finds its registration disabled goes back to the daemon,
// and never to a pid below 1 (a process group, or every process).
TEST(Signal, ADisabledDeliveryGoesOnlyToTheDaemonsPid)
{
    EXPECT_EQ(in_child([] { return disabled_delivery({getpid()}), 2; }), 128 + SIGUSR1);

    // In a pid namespace of its own, so that nothing outside can be hit: a
    // witness in the same process group shows any signal sent there.
    int res = in_child([] {
        if (unshare(CLONE_NEWPID) != 0)
            return 77;
        return in_child([] {
            setpgid(0, 0);
            sigset_t usr1, pending;
            sigemptyset(&usr1), sigaddset(&usr1, SIGUSR1);
            sigprocmask(SIG_BLOCK, &usr1, nullptr);
            int go[2];
            if (pipe(go) != 0)
                return 3;
            if (fork() == 0) {
                char c;
                (void)!read(go[0], &c, 1);
                sigpending(&pending);
                _exit(sigismember(&pending, SIGUSR1) ? 4 : 0);
            }
            disabled_delivery({-1, 0});
            (void)!write(go[1], "x", 1);
            int st;
            wait(&st);
            return qvtest::exit_code(st);
        });
    });
    if (res == 77)
        GTEST_SKIP() << "no pid namespace here";
    EXPECT_EQ(res, 0);
}

int plain_calls;
void plain(int)
{
    plain_calls++;
}
siginfo_t info_seen;
void with_info(int, siginfo_t *info, void *)
{
    info_seen = *info;
}

TEST(Signal, ActionsRunAtOnceWithTheirFlags)
{
    int res = in_child([] {
        qvmodule_signal_register_action(SIGUSR1, plain, nullptr);
        qvmodule_signal_register_action(SIGUSR2, nullptr, with_info);
        struct sigaction a1, a2;
        sigaction(SIGUSR1, nullptr, &a1), sigaction(SIGUSR2, nullptr, &a2);
        const int both = SA_RESTART | SA_SIGINFO;
        const qvmodule_signal *e = qvmodule_signals;
        if ((a1.sa_flags & both) != SA_RESTART || (a2.sa_flags & both) != both || sig_count != 2 ||
            e[0].sig_handler != plain || e[0].sig_event || e[1].sig_sig != SIGUSR2 ||
            e[1].sig_sigaction != with_info)
            return 1;
        raise(SIGUSR1);
        sigqueue(getpid(), SIGUSR2, sigval{.sival_int = 42});
        bool ok =
            plain_calls == 1 && info_seen.si_code == SI_QUEUE && info_seen.si_value.sival_int == 42;
        return ok ? 0 : 2;
    });
    EXPECT_EQ(res, 0);
}

// SIGUSR1 through the loop, then real-time signals by action.
void fill_table(int n)
{
    g_event_base = event_base_new();
    qvmodule_signal_register_kevent(SIGUSR1, never);
    for (int i = 0; i < n - 1; i++)
        qvmodule_signal_register_action(SIGRTMIN + i, plain, nullptr);
    if (sig_count != n)
        _exit(3);
}

TEST(SignalDeathTest, MisuseIsFatal)
{
    const std::tuple<void (*)(), const char *, const char *> cases[] = {
        {[] { fill_table(2), qvmodule_signal_register_kevent(SIGRTMIN, never); }, "register_kevent",
         "0"},
        {[] { fill_table(2), qvmodule_signal_register_action(SIGUSR1, plain, nullptr); },
         "register_action", "0"},
        {[] { fill_table(32), qvmodule_signal_register_kevent(SIGUSR2, never); }, "register_kevent",
         "0"},
        {[] { fill_table(32), qvmodule_signal_register_action(SIGUSR2, plain, nullptr); },
         "register_action", "0"},
        {[] { qvmodule_signal_register_action(SIGKILL, plain, nullptr); }, "register_action", "0"},
        {[] { qvmodule_signal_register_action(SIGUSR1, plain, with_info); }, "register_action",
         "!sig_sigaction"},
        {[] { qvmodule_signal_register_action(SIGUSR1, nullptr, nullptr); }, "register_action",
         "sig_sigaction"},
        {[] { fill_table(2), qvmodule_signal_disable_kevent(SIGRTMIN); }, "disable_kevent",
         "sig->sig_event"},
        {[] { fill_table(2), qvmodule_signal_reenable_kevent(SIGRTMIN); }, "reenable_kevent",
         "sig->sig_event"},
        {[] { fill_table(1), qvmodule_signal_event_cb(SIGUSR1, EV_READ, qvmodule_signals); },
         "event_cb", "(event & 0x08) == 0x08"},
    };
    for (auto [call, func, text] : cases)
        EXPECT_DEATH(
            call(), qvtest::fatal_re("qv_signal\\.cpp:qvmodule_signal_" + std::string(func), text));
}

TEST(Signal, IgnoringAndNaming)
{
    EXPECT_STREQ(qvmodule_signame(SIGTERM), strsignal(SIGTERM));
    for (int sig : {32, 64})
        EXPECT_STREQ(qvmodule_signame(sig), "Real-time signal");
    for (int sig : {0, 65, INT_MIN})
        EXPECT_STREQ(qvmodule_signame(sig), "Unknown signal");

    // A signal that cannot be ignored stops the daemon, with word to syslog.
    for (int sig : {SIGKILL, 65}) {
        Daemon d;
        EXPECT_EQ(in_child([&] { return d.start(), qvmodule_signal_ignore(sig), 3; }), 0);
        EXPECT_EQ(d.last_syslog(),
                  std::string("3|sigaction(SIG") + qvmodule_signame(sig) + "): errno:22");
    }
    EXPECT_EQ(in_child([] { return qvmodule_signal_ignore(SIGUSR1), raise(SIGUSR1), sig_count; }),
              0);
}

/* ---------------------------------------------------------------- */
/* The pid lock file                                                */

TEST(PidFile, ASecondCopyLeavesTheRunningCopysFileAlone)
{
    Daemon d(true);
    int ready[2], quit[2];
    ASSERT_EQ(pipe(ready) | pipe(quit), 0);
    pid_t first = fork();
    if (first == 0) {
        d.start();
        // A forked child's quit leaves the daemon's file and lock alone.
        bool ok = (fcntl(daemon_pid_fd, F_GETFD) & FD_CLOEXEC) &&
                  in_child([]() -> int { qvmodule_quit(0); }) == 0;
        char c = ok ? 'y' : 'n';
        (void)!write(ready[1], &c, 1), (void)!read(quit[0], &c, 1);
        qvmodule_quit(0);
    }
    char c = 0;
    EXPECT_TRUE(read(ready[0], &c, 1) == 1 && c == 'y');
    struct stat before, after;
    stat(d.pid.c_str(), &before);

    EXPECT_EQ(in_child([&] { return d.start(), 3; }), 0);
    EXPECT_EQ(d.last_syslog(), "3|Unable to obtain a lock on " + d.pid + ", sigd[" +
                                   std::to_string(first) + "] is still running: errno:11");
    EXPECT_EQ(read_file(d.pid), pid_text(first));
    EXPECT_TRUE(stat(d.pid.c_str(), &after) == 0 && after.st_ino == before.st_ino);

    int st;
    (void)!write(quit[1], "q", 1), waitpid(first, &st, 0);
    EXPECT_EQ(st, 0);
    EXPECT_FALSE(qvtest::file_exists(d.pid));
}

// Each is refused with exit status 0, and the file left as it was.
TEST(PidFile, RefusalsLeaveTheFileAsItWas)
{
    const std::tuple<const char *, bool, std::string> cases[] = {
        {"", true, "3|Unable to obtain a lock on %s, is another copy of running?: errno:11"},
        {"junk", true, "3|Unable to obtain a lock on %s, is another copy of running?: errno:11"},
        {"4321\n", true, "3|Unable to obtain a lock on %s, sigd[4321] is still running: errno:11"},
        {"planted", false, "3|Unable to open %s: errno:" + std::to_string(ELOOP)},
    };
    for (auto [content, locked, message] : cases) {
        Daemon d(true);
        std::string file = locked ? d.pid : d.dir.file("target");
        std::ofstream(file) << content;
        int holder = open(file.c_str(), O_RDONLY);
        EXPECT_EQ(locked ? flock(holder, LOCK_EX) : symlink(file.c_str(), d.pid.c_str()), 0);
        EXPECT_EQ(in_child([&] { return d.start(), 3; }), 0);
        EXPECT_EQ(d.last_syslog(), std::regex_replace(message, std::regex("%s"), d.pid));
        EXPECT_EQ(read_file(file), content);
        close(holder);
    }
}

// "%%" names a "%" and any other "%" stays as written; a relative path
// names the same file at start-up and at quit. A stale file is taken over,
// with nothing left of a longer old pid, and removed at quit.
TEST(PidFile, NamingTakingOverAndRemoving)
{
    for (auto [given, named] : {std::pair{"daemon%%.pid", "daemon%.pid"}, {"%s%n%%%", "%s%n%%"}}) {
        for (bool relative : {false, true}) {
            Daemon d(true);
            std::string path = relative ? given : d.dir.file(given), file = d.dir.file(named);
            d.ctx.pid_filename = path.data();
            std::ofstream(file) << "1234567890123\n";
            int res = in_child([&] {
                if (chdir(d.dir.path().c_str()) != 0)
                    return 1;
                d.start();
                if (read_file(file) != pid_text(getpid()))
                    return 2;
                qvmodule_quit(0);
            });
            EXPECT_EQ(res, 0) << given << relative;
            std::set<std::string> left;
            for (const auto &e : std::filesystem::directory_iterator(d.dir.path()))
                left.insert(e.path().filename());
            EXPECT_EQ(left, (std::set<std::string>{"d.log", "syslog"}));
        }
    }
}

// Detached: the parents leave at once with status 0, without running exit
// handlers or flushing stdio; the daemon is their grandchild, out of their
// session, on /dev/null, and its pid is the one in the file.
TEST(PidFile, DetachedDaemonOwnsTheFile)
{
    Daemon d(true);
    static std::string out = d.dir.file("stdout"), exits = d.dir.file("exits");
    std::string result = d.dir.file("result");
    int processes = in_child([&] {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // the orphans come back here
        if (fork() == 0) {
            pid_t sid = getsid(0);
            if (!freopen(out.c_str(), "w", stdout) || fputs("once\n", stdout) < 0)
                _exit(9);
            atexit([] { std::ofstream(exits, std::ios::app) << getpid() << "\n"; });
            do_daemon = 1;
            d.start();
            bool ok = daemon_pid == getpid() && read_file(d.pid) == pid_text(getpid()) &&
                      getsid(0) != sid && getsid(0) != getpid();
            for (int fd : {0, 1, 2})
                ok = ok && std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)) ==
                               "/dev/null";
            std::ofstream(result) << ok;
            qvmodule_quit(0);
        }
        int n = 0, st;
        while (wait(&st) > 0)
            n += st == 0 ? 1 : 100;
        return n;
    });
    EXPECT_EQ(processes, 3);
    EXPECT_EQ(read_file(result), "1");
    EXPECT_EQ(qvtest::read_lines(exits).size(), 1u);
    EXPECT_EQ(read_file(out), "once\n");
    EXPECT_FALSE(qvtest::file_exists(d.pid));
}

} // namespace
