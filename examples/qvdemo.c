/* An example daemon: it starts, traces a heartbeat a few times from the
 * event loop and leaves. Usage: qvdemo [-l trace-file] [-n beats] */
#include <event2/event.h>
#include <qv_daemon.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct event *beat_event;
static int beats_left = 3;
static int beat_no;

static void beat(evutil_socket_t fd, short what, void *arg)
{
    (void)fd;
    (void)what;
    (void)arg;
    trace_cb(trace_global, 1, -1, "qvdemo: heartbeat %d", ++beat_no);
    printf("qvdemo: heartbeat %d\n", beat_no);
    fflush(stdout);
    if (--beats_left > 0) {
        struct timeval tv = {0, 100000};
        event_add(beat_event, &tv);
    }
}

static void demo_init(void)
{
    struct timeval tv = {0, 100000};
    beat_event = event_new(qv_get_global_event_base(), -1, 0, beat, NULL);
    event_add(beat_event, &tv);
}

static struct app_module modules[] = {{1, "demo", demo_init, NULL}};

int main(int argc, char **argv)
{
    static qv_daemon_app_ctx_t ctx;
    static char trace_path[4096];
    int opt;
    snprintf(trace_path, sizeof(trace_path), "%s/qvdemo.log", getenv("PWD") ? getenv("PWD") : ".");
    while ((opt = getopt(argc, argv, "l:n:")) != -1) {
        if (opt == 'l')
            snprintf(trace_path, sizeof(trace_path), "%s", optarg);
        else if (opt == 'n')
            beats_left = atoi(optarg);
        else
            return 2;
    }
    ctx.daemon_name = "qvdemo";
    ctx.log_file_name = trace_path;
    ctx.app_modules.count = 1;
    ctx.app_modules.primary = modules;
    qv_daemon_init(argc, argv, &ctx);
    qv_ui_init("qvdemo");
    printf("qvdemo: running, trace file %s\n", ctx.log_file_name);
    qv_daemon_loop();
    trace_cb(trace_global, 1, -1, "qvdemo: loop ended");
    printf("qvdemo: done\n");
    event_free(beat_event);
    return 0;
}
