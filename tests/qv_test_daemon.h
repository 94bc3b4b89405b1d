// A daemon's files in a fresh directory, and its syslog messages in one of
// them. Include from one source file per test program: this vsyslog takes
// libc's place for the statically linked library.
#pragma once

#include <stdarg.h>
#include <stdio.h>

#include "qv_daemon_private.h"
#include "qv_test_util.h"

// Lines "priority|message" in the file named by QV_TEST_SYSLOG.
extern "C" void vsyslog(int priority, const char *fmt, va_list ap)
{
    char msg[4096];
    vsnprintf(msg, sizeof(msg), fmt, ap);
    const char *out = getenv("QV_TEST_SYSLOG");
    if (FILE *f = out ? fopen(out, "a") : nullptr)
        fprintf(f, "%d|%s\n", priority, msg), fclose(f);
}

namespace qvtest
{

struct Daemon {
    TempDir dir;
    std::string trace = dir.file("d.log"), syslog = dir.file("syslog"), pid = dir.file("d.pid");
    std::string argv0; // the daemon keeps pointing into it
    qv_daemon_app_ctx_t ctx{};

    explicit Daemon(bool pid_file = false)
    {
        ctx.log_file_name = trace.data();
        ctx.pid_filename = pid_file ? pid.data() : nullptr;
    }
    // Start-up in the calling process, with the arguments argv0 --flag.
    void start(const char *name = "/usr/sbin/sigd")
    {
        setenv("QV_TEST_SYSLOG", syslog.c_str(), 1);
        argv0 = name;
        char *argv[] = {argv0.data(), const_cast<char *>("--flag"), nullptr};
        qv_daemon_init(2, argv, &ctx);
    }
    // Start-up and then `after` in a child; the child's exit code.
    int run(
        const char *name, const std::function<int()> &after = [] { return 0; })
    {
        return in_child([&] { return start(name), after(); });
    }
    std::string last_syslog() const
    {
        auto lines = read_lines(syslog);
        return lines.empty() ? "" : lines.back();
    }
};

} // namespace qvtest
