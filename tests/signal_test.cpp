// Signals, with real signals, each case in a child process: registrations
// are never released and the table has 32 entries.

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>

#include <regex>
#include <string>

#include "qv_daemon_private.h"
#include "qv_signal_private.h"
#include "qv_test_syslog.h"
#include "qv_test_util.h"

using qvtest::read_file;
using qvtest::run_in_child;
using qvtest::TempDir;

namespace
{

int exit_code(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts a daemon in the calling child, its files in dir, without a pid file.
void start_daemon(const TempDir &dir)
{
    static std::string trace, syslog;
    static qv_daemon_app_ctx_t ctx{};
    trace = dir.file("sigd.log"), syslog = dir.file("syslog");
    ctx.log_file_name = trace.data();
    setenv("QV_TEST_SYSLOG", syslog.c_str(), 1);
    char a0[] = "sigd", *argv[] = {a0, nullptr};
    qv_daemon_init(1, argv, &ctx);
}

// A re-entrant lock that checks every unlock against its lock.
struct Lock {
    static inline int depth = 0, wrong = 0;
    static int fn(int lock, int res)
    {
        if (lock)
            return ++depth;
        wrong += res != depth--;
        return 0;
    }
};

struct Delivery {
    int calls, fd, signo, depth;
} seen;

// Disables its own registration, which takes the lock once more inside.
void deliver(int fd, int signo)
{
    seen = {seen.calls + 1, fd, signo, Lock::depth};
    qvmodule_signal_disable_kevent(signo);
    event_base_loopbreak(g_event_base);
}

TEST(Signal, KernelEventsArriveFromTheLoopUnderTheLockUntilDisabled)
{
    TempDir dir;
    int st = run_in_child([&] {
        alarm(60); // a lost delivery fails the case instead of hanging it
        start_daemon(dir);
        qv_giant_lock_func_init(Lock::fn);
        qvmodule_signal_register_kevent(SIGUSR1, deliver);
        const qvmodule_signal &e = qvmodule_signals[0];
        if (sig_count != 1 || e.sig_sig != SIGUSR1 || e.sig_func != deliver || !e.sig_event)
            return 1;
        qvmodule_signal_disable_kevent(SIGUSR2); // not registered: nothing happens
        for (int round = 1; round <= 2; round++) {
            raise(SIGUSR1);
            qv_daemon_loop();
            if (seen.calls != round || seen.fd != SIGUSR1 || seen.signo != SIGUSR1 ||
                seen.depth != 1 || Lock::depth != 0 || Lock::wrong != 0 || !e.sig_kevent_disabled)
                return 10 + round;
            if (round == 1)
                qvmodule_signal_reenable_kevent(SIGUSR1);
        }
        // Disabled: the default action is back, and it ends the process.
        raise(SIGUSR1);
        return 2;
    });
    EXPECT_EQ(exit_code(st), 128 + SIGUSR1);
}

void never(int, int)
{
    _exit(5);
}

// A delivery that reaches a disabled registration goes back to the daemon's
// own pid, and never to a pid below 1 (a process group, or every process).
TEST(Signal, ADisabledRegistrationResendsOnlyToTheDaemonsPid)
{
    int st = run_in_child([] {
        g_event_base = event_base_new();
        daemon_pid = getpid();
        qvmodule_signal_register_kevent(SIGUSR1, never);
        qvmodule_signal_disable_kevent(SIGUSR1);
        qvmodule_signal_event_cb(SIGUSR1, EV_SIGNAL, &qvmodule_signals[0]);
        return 2;
    });
    EXPECT_EQ(exit_code(st), 128 + SIGUSR1);

    // In a pid namespace of its own, where kill(-1) would reach a witness
    // process and nothing outside. Its first process is the namespace's init,
    // which its own namespace cannot signal, so the check runs in a child.
    auto check = [] {
        setpgid(0, 0);
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        sigprocmask(SIG_BLOCK, &usr1, nullptr);
        int go[2];
        if (pipe(go) != 0)
            return 3;
        pid_t witness = fork();
        if (witness == 0) {
            char c;
            sigset_t pending;
            (void)!read(go[0], &c, 1);
            sigpending(&pending);
            _exit(sigismember(&pending, SIGUSR1) ? 4 : 0);
        }
        sigprocmask(SIG_UNBLOCK, &usr1, nullptr);
        g_event_base = event_base_new();
        qvmodule_signal_register_kevent(SIGUSR1, never);
        qvmodule_signal_disable_kevent(SIGUSR1);
        for (int pid : {-1, 0}) {
            daemon_pid = pid;
            qvmodule_signal_event_cb(SIGUSR1, EV_SIGNAL, &qvmodule_signals[0]);
        }
        (void)!write(go[1], "x", 1);
        int ws = 0;
        waitpid(witness, &ws, 0);
        return exit_code(ws);
    };
    st = run_in_child([&] {
        if (unshare(CLONE_NEWPID) != 0)
            return 77;
        return exit_code(run_in_child([&] { return exit_code(run_in_child(check)); }));
    });
    if (exit_code(st) == 77)
        GTEST_SKIP() << "no pid namespace here";
    EXPECT_EQ(exit_code(st), 0);
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

TEST(Signal, ActionsRunInSignalContextWithTheirFlags)
{
    int st = run_in_child([] {
        qvmodule_signal_register_action(SIGUSR1, plain, nullptr);
        qvmodule_signal_register_action(SIGUSR2, nullptr, with_info);
        struct sigaction a1, a2;
        sigaction(SIGUSR1, nullptr, &a1);
        sigaction(SIGUSR2, nullptr, &a2);
        const int both = SA_RESTART | SA_SIGINFO;
        if ((a1.sa_flags & both) != SA_RESTART || a1.sa_handler != plain ||
            (a2.sa_flags & both) != both || a2.sa_sigaction != with_info)
            return 1;
        const qvmodule_signal *e = qvmodule_signals;
        if (sig_count != 2 || e[0].sig_handler != plain || e[0].sig_sigaction || e[0].sig_event ||
            e[1].sig_sig != SIGUSR2 || e[1].sig_sigaction != with_info || e[1].sig_handler)
            return 2;
        raise(SIGUSR1);
        sigqueue(getpid(), SIGUSR2, sigval{.sival_int = 42});
        bool ok = plain_calls == 1 && info_seen.si_signo == SIGUSR2 &&
                  info_seen.si_code == SI_QUEUE && info_seen.si_value.sival_int == 42 &&
                  info_seen.si_pid == getpid();
        return ok ? 0 : 3;
    });
    EXPECT_EQ(exit_code(st), 0);
}

void base()
{
    g_event_base = event_base_new();
}

void fill_table()
{
    qvmodule_signal_register_action(SIGUSR1, plain, nullptr);
    for (int i = 0; i < 31; i++)
        qvmodule_signal_register_action(SIGRTMIN + i, plain, nullptr);
    if (sig_count != 32)
        _exit(3);
}

std::string quoted(const std::string &s)
{
    return std::regex_replace(s, std::regex(R"([()*.&|\\])"), R"(\$&)");
}

TEST(SignalDeathTest, MisuseIsFatal)
{
    struct Case {
        void (*call)();
        const char *func, *text;
    };
    const Case cases[] = {
        {[] {
             base(), qvmodule_signal_register_kevent(SIGUSR1, never),
                 qvmodule_signal_register_kevent(SIGUSR1, never);
         },
         "qvmodule_signal_register_kevent", "0"},
        {[] {
             base(), qvmodule_signal_register_action(SIGUSR1, plain, nullptr),
                 qvmodule_signal_register_kevent(SIGUSR1, never);
         },
         "qvmodule_signal_register_kevent", "0"},
        {[] {
             base(), qvmodule_signal_register_kevent(SIGUSR1, never),
                 qvmodule_signal_register_action(SIGUSR1, nullptr, with_info);
         },
         "qvmodule_signal_register_action", "0"},
        {[] { fill_table(), qvmodule_signal_register_action(SIGUSR2, plain, nullptr); },
         "qvmodule_signal_register_action", "0"},
        {[] { base(), fill_table(), qvmodule_signal_register_kevent(SIGUSR2, never); },
         "qvmodule_signal_register_kevent", "0"},
        {[] { qvmodule_signal_register_action(SIGKILL, plain, nullptr); },
         "qvmodule_signal_register_action", "0"},
        {[] { qvmodule_signal_register_action(SIGUSR1, plain, with_info); },
         "qvmodule_signal_register_action", "!sig_sigaction"},
        {[] { qvmodule_signal_register_action(SIGUSR1, nullptr, nullptr); },
         "qvmodule_signal_register_action", "sig_sigaction"},
        {[] {
             qvmodule_signal_register_action(SIGUSR1, plain, nullptr),
                 qvmodule_signal_disable_kevent(SIGUSR1);
         },
         "qvmodule_signal_disable_kevent", "sig->sig_event"},
        {[] {
             qvmodule_signal_register_action(SIGUSR1, plain, nullptr),
                 qvmodule_signal_reenable_kevent(SIGUSR1);
         },
         "qvmodule_signal_reenable_kevent", "sig->sig_event"},
        {[] {
             base(), qvmodule_signal_register_kevent(SIGUSR1, never),
                 qvmodule_signal_event_cb(SIGUSR1, EV_READ, &qvmodule_signals[0]);
         },
         "qvmodule_signal_event_cb", "(event & 0x08) == 0x08"},
    };
    for (const Case &c : cases)
        EXPECT_DEATH(c.call(), "qv_signal\\.cpp:" + std::string(c.func) + ": assertion \"" +
                                   quoted(c.text) + "\" failed")
            << c.func << " " << c.text;
}

TEST(Signal, IgnoringAndNaming)
{
    for (int sig : {SIGTERM, SIGHUP})
        EXPECT_STREQ(qvmodule_signame(sig), strsignal(sig));
    for (int sig : {SIGRTMIN, 32, 64})
        EXPECT_STREQ(qvmodule_signame(sig), "Real-time signal") << sig;
    for (int sig : {0, 65, -1, INT_MIN, INT_MAX})
        EXPECT_STREQ(qvmodule_signame(sig), "Unknown signal") << sig;

    // A signal that cannot be ignored stops the daemon, with word to syslog.
    for (int sig : {SIGKILL, 65}) {
        TempDir dir;
        int st = run_in_child([&] {
            start_daemon(dir);
            qvmodule_signal_ignore(sig);
            return 3;
        });
        EXPECT_EQ(exit_code(st), 0);
        auto lines = qvtest::read_lines(dir.file("syslog"));
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[1], std::string("3|sigaction(SIG") + qvmodule_signame(sig) +
                                "): errno:" + std::to_string(EINVAL));
        EXPECT_EQ(read_file(dir.file("sigd.log")).find("sigaction"), std::string::npos);
    }
}

// After start-up, writing to a closed peer fails instead of ending the
// daemon; an ignored signal does nothing.
TEST(Signal, StartupIgnoresBrokenPipes)
{
    TempDir dir;
    int st = run_in_child([&] {
        start_daemon(dir);
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
            return 1;
        close(sv[1]);
        errno = 0;
        bool epipe = write(sv[0], "x", 1) == -1 && errno == EPIPE;
        qvmodule_signal_ignore(SIGUSR1);
        raise(SIGUSR1);
        return epipe && sig_count == 0 ? 0 : 2;
    });
    EXPECT_EQ(exit_code(st), 0);
}

} // namespace
