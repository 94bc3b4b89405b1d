/* The smallest daemon: starts with its trace file at argv[1], registers
 * the management commands, runs one pass of its loop and leaves. */
#include <event2/event.h>
#include <qv_daemon.h>
#include <qv_version.h>
#include <stdio.h>

int main(int argc, char **argv)
{
    static qv_daemon_app_ctx_t ctx;
    if (argc < 2) {
        fprintf(stderr, "usage: %s trace-file\n", argv[0]);
        return 2;
    }
    ctx.daemon_name = "consumer";
    ctx.log_file_name = argv[1];
    qv_daemon_init(argc, argv, &ctx);
    qv_ui_init("consumer");
    qv_daemon_json_event_hndl(EVLOOP_NONBLOCK);
    trace_cb(trace_global, 1, -1, "consumer: built against %s, running %s", QV_VERSION_STRING,
             qv_version());
    trace_cb(trace_global, 1, -1, "consumer: done");
    return 0;
}
