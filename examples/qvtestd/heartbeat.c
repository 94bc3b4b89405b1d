/* "heartbeat": a periodic timer with jitter. Each beat writes a trace line
 * and counts itself in the event history, where repeated beats add to one
 * event's repetition count instead of pushing older events out. */
#include "qvtestd.h"

#include <stdio.h>

#include <libcpe_event_public_api.h>
#include <qv_show.h>

/* Jitter makes beats come up to a tenth early, so that daemons started
 * together do not beat together for ever. */
#define HEARTBEAT_SECONDS 5
#define HEARTBEAT_JITTER_PERCENT 20

enum { BEAT_TIMER = 1, BEAT_SIGNAL = 2 };

static qvmodule *heartbeat_module;
static qvmodule_timer *heartbeat_timer;
static evh_module_t *heartbeat_history;
static evh_object_t *heartbeat_object;
static unsigned long beats;
static boolean beat_requested;

static const char *beat_name(event_id_t id)
{
    return id == BEAT_SIGNAL ? "beat on request" : "beat";
}

static void heartbeat(qvmodule_timer *timer, time_t interval)
{
    event_id_t id = beat_requested ? BEAT_SIGNAL : BEAT_TIMER;
    evh_event_t *ev = evh_is_last_event_same(heartbeat_object, id);

    (void)timer;
    (void)interval;
    beat_requested = FALSE;
    beats++;
    QVTESTD_TRACE("heartbeat %lu%s: %u echo connections open, %llu bytes echoed", beats,
                  id == BEAT_SIGNAL ? " (SIGUSR1)" : "", echo_connections_open(),
                  echo_bytes_total());
    if (ev != NULL) {
        evh_inc_repeation_count(ev);
    } else {
        ev = evh_event_new(heartbeat_object, id);
        snprintf(evh_action_temp_str, sizeof(evh_action_temp_str), "heartbeat %lu", beats);
        event_record_action(ev, evh_action_temp_str);
    }
}

void heartbeat_now(void)
{
    beat_requested = TRUE;
    /* Fires on the loop's next pass; the period then starts afresh. */
    qvmodule_timer_expire_immediately(heartbeat_timer);
}

/* "show heartbeat": the beats in the event history. */
static void show_heartbeat(cmd_ctx_handle ctx)
{
    event_show(qvsh_cmd_get_json(ctx), heartbeat_history, heartbeat_object, FALSE);
}

void heartbeat_init(void)
{
    evh_event_cb_t cb = {beat_name};

    heartbeat_history = evh_register_cb("daemon", &cb);
    heartbeat_object = evh_object_add(heartbeat_history, "heartbeat");
    heartbeat_module = qvmodule_alloc("heartbeat", 0, NULL);
    qvmodule_create(heartbeat_module);
    heartbeat_timer = qvmodule_timer_create_jittered(heartbeat_module, "beat", 0, HEARTBEAT_SECONDS,
                                                     HEARTBEAT_JITTER_PERCENT, heartbeat, NULL);
    qvsh_register_cmd("show heartbeat", show_heartbeat);
}
