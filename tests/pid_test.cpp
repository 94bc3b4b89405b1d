// Daemonizing and the pid lock file, with daemons started in child
// processes and the pid file in a temporary directory.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "qv_daemon_private.h"
#include "qv_test_syslog.h"
#include "qv_test_util.h"

using qvtest::file_exists;
using qvtest::read_file;
using qvtest::read_lines;
using qvtest::TempDir;

namespace
{

int exit_code(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string pid_text(pid_t pid)
{
    return std::to_string(pid) + "\n";
}

struct Daemon {
    TempDir dir;
    std::string trace = dir.file("pidd.log"), syslog = dir.file("syslog");
    std::string pid = dir.file("pidd.pid");
    qv_daemon_app_ctx_t ctx{};

    Daemon()
    {
        ctx.log_file_name = trace.data();
        ctx.pid_filename = pid.data();
    }
    // Start-up in the calling process; returns only if it succeeded.
    void start()
    {
        setenv("QV_TEST_SYSLOG", syslog.c_str(), 1);
        char a0[] = "/usr/sbin/pidd", *argv[] = {a0, nullptr};
        qv_daemon_init(1, argv, &ctx);
    }
    // Starts a copy in a child that runs `after` and exits with its result.
    int run(const std::function<int()> &after)
    {
        return exit_code(qvtest::run_in_child([&] { return start(), after(); }));
    }
    std::string last_syslog() const
    {
        auto lines = read_lines(syslog);
        return lines.empty() ? "" : lines.back();
    }
};

ino_t inode(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST(PidFile, ASecondCopyLeavesTheRunningCopysFileAlone)
{
    Daemon d;
    int ready[2], quit[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(quit), 0);
    pid_t first = fork();
    if (first == 0) {
        d.start();
        bool cloexec = fcntl(daemon_pid_fd, F_GETFD) & FD_CLOEXEC;
        // A forked child's quit leaves the daemon's file and lock alone.
        int child = exit_code(qvtest::run_in_child([]() -> int { qvmodule_quit(0); }));
        char c = cloexec && child == 0 ? 'y' : 'n';
        (void)!write(ready[1], &c, 1);
        (void)!read(quit[0], &c, 1);
        qvmodule_quit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    ino_t ino = inode(d.pid);
    EXPECT_EQ(read_file(d.pid), pid_text(first));

    EXPECT_EQ(d.run([] { return 3; }), 0);
    EXPECT_EQ(d.last_syslog(), "3|Unable to obtain a lock on " + d.pid + ", pidd[" +
                                   std::to_string(first) + "] is still running: errno:11");
    EXPECT_EQ(read_file(d.pid), pid_text(first));
    EXPECT_EQ(inode(d.pid), ino);

    (void)!write(quit[1], "q", 1);
    int st = 0;
    waitpid(first, &st, 0);
    EXPECT_EQ(exit_code(st), 0);
    EXPECT_FALSE(file_exists(d.pid));
}

// Each copy is refused with exit status 0 before its start-up goes on, and
// the file is left as it was.
TEST(PidFile, RefusalsLeaveTheFileAsItWas)
{
    struct Case {
        const char *content;
        bool locked, symlink;
        std::string message; // after the path
    };
    const Case cases[] = {
        {"", true, false, ", is another copy of running?: errno:11"},
        {"junk\n", true, false, ", is another copy of running?: errno:11"},
        {"4321\n", true, false, ", pidd[4321] is still running: errno:11"},
        {"kept\n", false, true, ": errno:" + std::to_string(ELOOP)},
    };
    for (const Case &c : cases) {
        Daemon d;
        std::string target = c.symlink ? d.dir.file("target") : d.pid;
        {
            std::ofstream(target) << c.content;
        }
        if (c.symlink) {
            ASSERT_EQ(symlink(target.c_str(), d.pid.c_str()), 0);
        }
        int holder = open(target.c_str(), O_RDONLY);
        ASSERT_GE(holder, 0);
        if (c.locked) {
            ASSERT_EQ(flock(holder, LOCK_EX), 0);
        }
        EXPECT_EQ(d.run([] { return 3; }), 0) << c.content;
        std::string lead = c.symlink ? "3|Unable to open " : "3|Unable to obtain a lock on ";
        EXPECT_EQ(d.last_syslog(), lead + d.pid + c.message);
        EXPECT_EQ(read_file(target), c.content);
        close(holder);
    }
}

// A file left behind by a dead copy is taken over; nothing of a longer old
// pid remains. Quit removes it.
TEST(PidFile, AStaleFileIsTakenOverAndRemovedAtQuit)
{
    Daemon d;
    {
        std::ofstream(d.pid) << "1234567890123\n";
    }
    EXPECT_EQ(d.run([&] {
        if (read_file(d.pid) != pid_text(getpid()))
            return 1;
        qvmodule_quit(0);
    }),
              0);
    EXPECT_FALSE(file_exists(d.pid));
}

std::set<std::string> listing(const std::string &dir)
{
    std::set<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir))
        names.insert(e.path().filename());
    return names;
}

// "%%" names a "%" and any other "%" stays as written; a relative path is
// the same file at start-up and at quit; no path, no file.
TEST(PidFile, PathsAreNamedLiterallyAndRelativeOnesStayPut)
{
    const std::pair<const char *, const char *> cases[] = {
        {"daemon%%.pid", "daemon%.pid"},
        {"d%s%n%%%.pid", "d%s%n%%.pid"},
        {nullptr, nullptr},
    };
    for (auto [given, named] : cases) {
        for (bool relative : {false, true}) {
            Daemon d;
            std::string path = given ? (relative ? given : d.dir.file(given)) : "";
            d.ctx.pid_filename = given ? path.data() : nullptr;
            int st = qvtest::run_in_child([&] {
                if (relative && chdir(d.dir.path().c_str()) != 0)
                    return 1;
                d.start();
                if (given ? read_file(d.dir.file(named)) != pid_text(getpid())
                          : daemon_pid_fd != -1 || listing(d.dir.path()).size() != 2)
                    return 2;
                qvmodule_quit(0);
            });
            EXPECT_EQ(exit_code(st), 0) << (given ? given : "null") << " relative:" << relative;
            EXPECT_EQ(listing(d.dir.path()), (std::set<std::string>{"pidd.log", "syslog"}));
        }
    }
}

// Detached: the parents leave at once with status 0 and without running
// exit handlers or flushing stdio; the daemon is their grandchild, out of
// their session, on /dev/null, and its pid is the one in the file.
TEST(PidFile, DetachedDaemonOwnsTheFile)
{
    Daemon d;
    std::string out = d.dir.file("stdout"), exits = d.dir.file("exits"),
                result = d.dir.file("result");
    static std::string exits_path;
    exits_path = exits;
    int st = qvtest::run_in_child([&] {
        // Orphans come back to this process, so every exit status is seen.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (fork() == 0) {
            pid_t sid = getsid(0);
            if (!freopen(out.c_str(), "w", stdout))
                _exit(9);
            fputs("before\n", stdout); // left in the stdio buffer
            atexit([] { std::ofstream(exits_path, std::ios::app) << getpid() << "\n"; });
            do_daemon = 1;
            d.start();
            bool ok = daemon_pid == getpid() && read_file(d.pid) == pid_text(getpid()) &&
                      getsid(0) != sid && getsid(0) != getpid();
            for (int fd = 0; fd < 3; fd++)
                ok = ok && std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)) ==
                               "/dev/null";
            struct sigaction sa;
            for (int sig : {SIGTTOU, SIGTTIN, SIGTSTP})
                ok = ok && sigaction(sig, nullptr, &sa) == 0 && sa.sa_handler == SIG_IGN;
            std::ofstream(result) << (ok ? "ok" : "bad");
            qvmodule_quit(0);
        }
        int processes = 0, ws, failed = 0;
        while (wait(&ws) > 0)
            processes++, failed += exit_code(ws) != 0;
        return failed ? 100 + failed : processes;
    });
    EXPECT_EQ(exit_code(st), 3);
    EXPECT_EQ(read_file(result), "ok");
    auto exited = read_lines(exits);
    EXPECT_EQ(exited.size(), 1u);
    EXPECT_EQ(read_file(out), "before\n");
    EXPECT_FALSE(file_exists(d.pid));
}

} // namespace
