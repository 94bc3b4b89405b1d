// Daemon start-up, the main loop and the libevent hooks, each run in a
// child process since start-up happens once per process.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <string>
#include <vector>

#include "qv_test_daemon.h"

using qvtest::Daemon;
using qvtest::read_file;
using qvtest::read_lines;

namespace
{

TEST(DaemonStartup, RecordsNamesDefaultsAndFirstLine)
{
    Daemon d;
    d.ctx.log_file_count = 1;
    auto startup = [&] {
        char cwd[256] = "";
        EXPECT_STREQ(progname, "mydaemon");
        EXPECT_EQ(qv_daemon_get_progname(), progname);
        EXPECT_EQ(qv_daemon_get_hostname(), hostname);
        EXPECT_NE(hostname[0], '\0');
        EXPECT_EQ(daemon_pid, getpid());
        EXPECT_EQ(daemon_app_ctx, &d.ctx);
        EXPECT_EQ(d.ctx.log_file_size, 5000000u);
        EXPECT_EQ(d.ctx.log_file_count, 1);
        EXPECT_NE(g_event_base, nullptr);
        EXPECT_EQ(qv_get_global_event_base(), g_event_base);
        EXPECT_NE(trace_global, nullptr);
        EXPECT_STREQ(getcwd(cwd, sizeof(cwd)), "/var/tmp");
        EXPECT_EQ(umask(0), 022u);
        return int(::testing::Test::HasFailure());
    };
    EXPECT_EQ(d.run("/usr/sbin/mydaemon", startup), 0);
    auto lines = read_lines(d.trace);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" [mydaemon]  qv_daemon_init: Daemon(mydaemon) starting"),
              std::string::npos)
        << lines[0];
    EXPECT_EQ(read_file(d.syslog), "6|qv_daemon_init: Daemon(mydaemon) starting\n");
}

TEST(DaemonStartup, ProgramNameIsTheLastPathComponent)
{
    for (auto [argv0, name] : {std::pair{"mydaemon", "mydaemon"}, {"/opt/x/", ""}}) {
        Daemon d;
        const char *want = name; // a lambda cannot capture a binding before clang 16
        EXPECT_EQ(d.run(argv0, [&] { return strcmp(progname, want) != 0; }), 0);
    }
}

// The default trace path lives under /var/log: the child gets a private
// tmpfs there so the real one is never touched.
TEST(DaemonStartup, DefaultTracePathAndCount)
{
    Daemon d;
    d.ctx.log_file_name = nullptr;
    int st = qvtest::in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
            mount("tmpfs", "/var/log", "tmpfs", 0, nullptr) != 0)
            return 77;
        char a0[] = "mydaemon";
        char *argv[] = {a0, nullptr};
        qv_daemon_init(1, argv, &d.ctx);
        EXPECT_STREQ(d.ctx.log_file_name, "/var/log/mydaemon.log");
        EXPECT_EQ(d.ctx.log_file_count, 5);
        EXPECT_NE(read_file("/var/log/mydaemon.log").find("Daemon(mydaemon) starting"),
                  std::string::npos);
        return int(::testing::Test::HasFailure());
    });
    if (st == 77)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(st, 0);
}

TEST(DaemonStartup, RefusesTraceFilesItCannotOpen)
{
    Daemon d;
    std::string bad = d.dir.file("no/such/dir.log");
    d.ctx.log_file_name = bad.data();
    EXPECT_EQ((d.run("mydaemon", [] { return 3; })), 0);
    EXPECT_EQ(read_file(d.syslog), "3|Unable to open trace_file:" + bad + "\n");

    // A program name that would overflow the default path's buffer.
    Daemon l;
    l.ctx.log_file_name = nullptr;
    std::string name(300, 'n');
    EXPECT_EQ((l.run(name.c_str(), [] { return 3; })), 0);
    EXPECT_EQ(read_file(l.syslog), "3|Unable to open trace_file:/var/log/" + name + ".log\n");
}

std::vector<std::string> calls;
int parsed_argc;
bool parsed_before_base;
void parse(int argc, char **argv)
{
    parsed_argc = argc;
    parsed_before_base =
        g_event_base == nullptr && trace_global != nullptr && strcmp(argv[1], "--flag") == 0;
}

TEST(DaemonStartup, RunsParserThenVariableInitialisersThenInitialisers)
{
    Daemon d;
    struct app_module mods[] = {
        {1, "A", [] { calls.push_back("A.init"); }, [] { calls.push_back("A.var_init"); }},
        {2, "B", [] { calls.push_back("B.init"); }, [] { calls.push_back("B.var_init"); }},
        {3, "C", [] { calls.push_back("C.init"); }, nullptr}};
    d.ctx.app_modules.count = 3;
    d.ctx.app_modules.primary = mods;
    d.ctx.args_parser_fn = parse;
    int st = d.run("mydaemon", [] {
        std::vector<std::string> want = {"A.var_init", "B.var_init", "A.init", "B.init", "C.init"};
        return calls == want && parsed_argc == 2 && parsed_before_base ? 0 : 1;
    });
    EXPECT_EQ(st, 0);

    // A null table runs nothing, whatever the count says.
    Daemon n;
    n.ctx.app_modules.count = 3;
    EXPECT_EQ((n.run("mydaemon", [] { return calls.empty() ? 0 : 1; })), 0);
}

void reenter(evutil_socket_t, short, void *)
{
    // A nested loop on the same base makes libevent log a warning.
    event_base_loop(g_event_base, EVLOOP_NONBLOCK);
}

TEST(DaemonStartup, LibeventHooksWriteOnlyWhileTheirBitIsSet)
{
    Daemon d;
    int st = d.run("mydaemon", [] {
        struct event *ev = event_new(g_event_base, -1, 0, reenter, nullptr);
        event_active(ev, EV_TIMEOUT, 0);
        qv_daemon_json_event_hndl(EVLOOP_NONBLOCK);
        qv_libevent_fatal_fn(7);

        qv_ui_init("mydaemon");
        jrpc_invoke_trace("mydaemon", "libevent", 1);
        event_active(ev, EV_TIMEOUT, 0);
        qv_daemon_loop();
        qv_libevent_fatal_fn(9);
        jrpc_invoke_trace("mydaemon", "libevent", 0);
        qv_libevent_fatal_fn(11);
        event_free(ev);
        return 0;
    });
    EXPECT_EQ(st, 0);
    auto lines = read_lines(d.trace);
    ASSERT_EQ(lines.size(), 3u);
    // libevent's own words are its to change; its warning severity is API.
    EXPECT_NE(lines[1].find("]  libevent severity:" + std::to_string(EVENT_LOG_WARN) + " "),
              std::string::npos)
        << lines[1];
    EXPECT_NE(lines[2].find("]  LIBEVENT FATAL ERROR: 9"), std::string::npos) << lines[2];
    // The hooks write to the trace file only.
    EXPECT_EQ(read_lines(d.syslog).size(), 1u);
}

// Giant lock: a recording, re-entrant lock function.
std::vector<std::pair<int, int>> lock_calls;
int depth;
bool refuse;

int recording_lock(int lock, int res)
{
    lock_calls.emplace_back(lock, res);
    if (!lock)
        return depth--, 0;
    depth++;
    return refuse ? -1 : depth * 10;
}

TEST(GiantLock, NestsPassesResultsBackAndRemembersRefusedCallers)
{
    EXPECT_EQ(qv_giant_lock("f", 1), -1); // nothing installed: nothing called
    qv_giant_unlock(-1);
    EXPECT_TRUE(lock_calls.empty());

    qv_giant_lock_func_init(recording_lock);
    {
        QV_GIANT_LOCK_SCOPE();
        QvGiantLockGuard inner("inner", __LINE__);
    }
    using P = std::pair<int, int>;
    EXPECT_EQ(lock_calls, (std::vector<P>{{1, 0}, {1, 0}, {0, 20}, {0, 10}}));
    EXPECT_EQ(depth, 0);

    refuse = true;
    int r = qv_giant_lock("refused_here", 42);
    EXPECT_EQ(r, -1);
    EXPECT_STREQ(qv_gian_lock_last_caller, "refused_here");
    EXPECT_EQ(qv_gian_lock_last_caller_line, 42);
    qv_giant_unlock(r);
    EXPECT_STREQ(qv_gian_lock_last_caller, "refused_here");
    qv_giant_unlock(0); // an unlock with 0 forgets the name, not the line
    EXPECT_EQ(qv_gian_lock_last_caller, nullptr);
    EXPECT_EQ(qv_gian_lock_last_caller_line, 42);
    qv_giant_lock_func_init(nullptr);
}

} // namespace
