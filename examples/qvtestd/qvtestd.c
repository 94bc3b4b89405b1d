/* qvtestd: the sample daemon of libqvmodule, and the one to copy from.
 *
 *   echo       a TCP echo service on 127.0.0.1 (echo.c)
 *   heartbeat  a periodic timer with jitter (heartbeat.c)
 *   sweeper    a background job that removes old show outputs (sweeper.c)
 *   service    readiness, stopping and watchdog notifications for the
 *              service manager (notify.c), and the start-up job
 *
 * Operators reach it through its show server on port 3000 (qvsh), with
 * signals (TERM and INT stop it, HUP toggles tracing, USR1 beats the
 * heartbeat at once), and through the trace file. */
#include "qvtestd.h"
#include "notify.h"

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qv_shared.h>
#include <qv_show.h>

#define QVTESTD_PID_FILE "/var/run/qvtestd.pid"

static const char usage_text[] =
    "usage: qvtestd [-d] [-l TRACE_FILE] [-p PID_FILE] [-s BYTES] [-c COUNT] [-t MASK] [-e PORT]\n"
    "  -d       detach: run in the background (the parent exits before the pid\n"
    "           file is written)\n"
    "  -l PATH  trace file (default /var/log/qvtestd.log)\n"
    "  -p PATH  pid file, locked while the daemon runs (default " QVTESTD_PID_FILE ")\n"
    "  -s N     rotate the trace file at N bytes (default 5000000)\n"
    "  -c N     keep N trace files, 1 to 255 (default 5)\n"
    "  -t MASK  trace bits to start with: 0x2 timers, 0x4 jobs, 0x8 sockets,\n"
    "           0x10 modules, 0x400 libevent, 0x10000 echo connections\n"
    "  -e PORT  echo port on 127.0.0.1 (default 7007)\n"
    "  -h       print this help\n"
    "The show server listens on port 3000 (query it with qvsh). Signals: TERM and\n"
    "INT stop the daemon, HUP toggles every trace bit, USR1 beats the heartbeat.\n";

/* What the command line asks for; read before start-up, which changes the
 * working directory and may detach. */
static struct {
    char *trace_file;
    char *pid_file;
    uint32_t trace_size;
    uint8_t trace_count;
    uint32_t trace_mask;
} options;

static qvmodule *service_module;

/* The show port of this daemon, from the library's table of servers. */
static int show_port(void)
{
    const qvsh_server_t *entry = &qvsh_server_list[QVSH_SERVER_ID_QVTESTD];

    return ((const struct sockaddr_in *)entry->addr)->sin_port; /* host byte order */
}

static void usage_exit(const char *problem, const char *arg)
{
    if (problem != NULL)
        fprintf(stderr, "qvtestd: %s%s%s\n", problem, arg ? ": " : "", arg ? arg : "");
    fputs(usage_text, stderr);
    exit(2);
}

/* A whole number from min to max, in decimal or, with base 0, also in
 * hexadecimal (0x...) or octal; anything else is refused. */
static unsigned long parse_number(const char *text, int base, unsigned long min, unsigned long max,
                                  const char *what)
{
    char *end;
    unsigned long value;

    errno = 0;
    value = strtoul(text, &end, base);
    if (!isdigit((unsigned char)text[0]) || *end != '\0' || errno != 0 || value < min ||
        value > max)
        usage_exit(what, text);
    return value;
}

/* Start-up changes the working directory to /var/tmp/, so a relative path
 * would name another file at quit than at open. */
static char *absolute_path(char *path)
{
    char cwd[PATH_MAX];
    char *abs;

    if (path[0] == '\0')
        usage_exit("empty path", NULL);
    if (path[0] == '/')
        return path; /* argv lives as long as the process */
    if (getcwd(cwd, sizeof(cwd)) == NULL) {
        fprintf(stderr, "qvtestd: cannot read the working directory: %s\n", strerror(errno));
        exit(2);
    }
    if (asprintf(&abs, "%s/%s", cwd, path) < 0) {
        fputs("qvtestd: out of memory\n", stderr);
        exit(2);
    }
    return abs;
}

/* The library takes the pid path as a format without arguments: "%%"
 * stands for '%'. */
static char *pid_format(const char *path)
{
    char *fmt = malloc(2 * strlen(path) + 1);
    char *out = fmt;

    if (fmt == NULL) {
        fputs("qvtestd: out of memory\n", stderr);
        exit(2);
    }
    for (; *path != '\0'; path++) {
        if (*path == '%')
            *out++ = '%';
        *out++ = *path;
    }
    *out = '\0';
    return fmt;
}

static void parse_options(int argc, char **argv)
{
    char flag[3];
    int opt;

    opterr = 0; /* the refusals below say what was wrong */
    while ((opt = getopt(argc, argv, ":dl:p:s:c:t:e:h")) != -1) {
        switch (opt) {
        case 'd':
            do_daemon = 1;
            break;
        case 'l':
            options.trace_file = absolute_path(optarg);
            break;
        case 'p':
            options.pid_file = absolute_path(optarg);
            break;
        case 's':
            options.trace_size = parse_number(optarg, 10, 1, UINT32_MAX, "bad trace file size");
            break;
        case 'c':
            options.trace_count = parse_number(optarg, 10, 1, 255, "bad trace file count");
            break;
        case 't':
            options.trace_mask = parse_number(optarg, 0, 0, UINT32_MAX, "bad trace mask");
            break;
        case 'e':
            qvtestd_echo_port = parse_number(optarg, 10, 1, 65535, "bad echo port");
            if (qvtestd_echo_port == show_port())
                usage_exit("the echo port cannot be the show port", optarg);
            break;
        case 'h':
            fputs(usage_text, stdout);
            exit(0);
        case ':':
            snprintf(flag, sizeof(flag), "-%c", optopt);
            usage_exit("option needs a value", flag);
            break;
        default:
            snprintf(flag, sizeof(flag), "-%c", optopt);
            usage_exit("unknown option", flag);
        }
    }
    if (optind < argc)
        usage_exit("unexpected argument", argv[optind]);
}

/* ------------------------------------------------------------------ */
/* Signals: delivered through the loop, so the handlers may do anything a
 * callback may. */

static void on_stop(int fd, int signo)
{
    (void)fd;
    notify_send("STOPPING=1");
    QVTESTD_TRACE("qvtestd: %s, stopping", signo == SIGTERM ? "SIGTERM" : "SIGINT");
    qvmodule_quit(0); /* removes the pid file */
}

static void on_hangup(int fd, int signo)
{
    uint32_t on = QVTESTD_TRACE_ALL & ~trace_global->trace_mask;
    uint32_t off = QVTESTD_TRACE_ALL & trace_global->trace_mask;

    (void)fd;
    (void)signo;
    trace_type_disable(trace_global, off);
    trace_type_enable(trace_global, on);
    QVTESTD_TRACE("qvtestd: SIGHUP, trace mask now 0x%x", (unsigned)trace_global->trace_mask);
}

static void on_usr1(int fd, int signo)
{
    (void)fd;
    (void)signo;
    heartbeat_now();
}

static void signals_init(void)
{
    qvmodule_signal_register_kevent(SIGTERM, on_stop);
    qvmodule_signal_register_kevent(SIGINT, on_stop);
    qvmodule_signal_register_kevent(SIGHUP, on_hangup);
    qvmodule_signal_register_kevent(SIGUSR1, on_usr1);
}

/* ------------------------------------------------------------------ */
/* "service": what the service manager is told, and the start-up job. */

static void watchdog_ping(qvmodule_timer *timer, time_t interval)
{
    (void)timer;
    (void)interval;
    notify_send("WATCHDOG=1");
}

/* Runs on the loop's first pass: by then the show server and the echo
 * port listen and the loop serves them, which is what "ready" means. */
static void started(qvmodule_job *job)
{
    (void)job;
    QVTESTD_TRACE("qvtestd: serving; show port %d, echo port %d, pid %d", show_port(),
                  qvtestd_echo_port, daemon_pid);
    notify_send("READY=1");
    sweeper_start();
}

static void service_init(void)
{
    uint64_t watchdog_usec = notify_watchdog_usec();

    service_module = qvmodule_alloc("service", 0, NULL);
    qvmodule_create(service_module);
    signals_init();
    /* Pinged at half the period, so that one late ping is not fatal. */
    if (watchdog_usec > 0) {
        utime_t half = {(int32_t)(watchdog_usec / 2 / 1000000),
                        (int32_t)(watchdog_usec / 2 % 1000000)};

        qvmodule_timer_ucreate(service_module, "watchdog", 0, &half, NULL, 0, watchdog_ping, NULL);
    }
    qvmodule_job_create_foreground(service_module, "start-up", started, NULL);
}

/* A var_init hook runs once the trace file is open and before any module
 * is set up, so module set-up is traced as -t asked. */
static void trace_mask_init(void)
{
    trace_type_enable(trace_global, options.trace_mask);
}

static struct app_module modules[] = {
    {1, "trace", NULL, trace_mask_init},    {2, "echo", echo_init, NULL},
    {3, "heartbeat", heartbeat_init, NULL}, {4, "sweeper", sweeper_init, NULL},
    {5, "service", service_init, NULL},
};

/* The library stops the daemon with an assertion when the show port is
 * taken; try it first so that the refusal says what is wrong. */
static boolean show_port_free(void)
{
    struct sockaddr_in addr = {.sin_family = AF_INET, .sin_port = htons((uint16_t)show_port())};
    int one = 1, ok, fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);

    if (fd < 0)
        return TRUE; /* let the server's own open report it */
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    ok = bind(fd, (struct sockaddr *)&addr, sizeof(addr)) == 0;
    close(fd);
    return ok;
}

int main(int argc, char **argv)
{
    static qv_daemon_app_ctx_t ctx;

    /* Everything that can be refused is refused here, before start-up
     * opens a file, detaches or takes the pid lock. (The library would run
     * ctx.args_parser_fn only after those steps, which the options shape.) */
    parse_options(argc, argv);

    ctx.daemon_name = "qvtestd";
    ctx.args_daemon_description = "sample daemon of libqvmodule";
    ctx.log_file_name = options.trace_file; /* null: /var/log/qvtestd.log */
    ctx.pid_filename = pid_format(options.pid_file ? options.pid_file : QVTESTD_PID_FILE);
    ctx.log_file_size = options.trace_size; /* 0: the library's default */
    ctx.log_file_count = options.trace_count;
    ctx.app_modules.count = sizeof(modules) / sizeof(modules[0]);
    ctx.app_modules.primary = modules;
    qv_daemon_init(argc, argv, &ctx);

    /* The management commands, and the same through the show server. */
    qv_ui_init("qvtestd");
    qvsh_register_ui_cmds();
    if (!show_port_free() || qvsh_app_init(&qvsh_server_list[QVSH_SERVER_ID_QVTESTD]) != 0) {
        trace_cb(trace_global, TRUE, LOG_ERR, "qvtestd: cannot open the show server on port %d",
                 show_port());
        fprintf(stderr, "qvtestd: show port %d is in use or cannot be opened\n", show_port());
        qv_daemon_pid_close();
        exit(1);
    }
    qv_daemon_loop();
    return 0;
}
