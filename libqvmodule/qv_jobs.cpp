// Jobs: module functions the event loop calls without an outside event.
// A foreground job is an event made active at once and freed after its
// single run; a background job is a timeout re-added 1 ms after each run
// until it is deleted.
//
// A job deleted from its own function is only marked; the dispatcher
// frees it when the function returns.

#include <event2/event.h>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_jobs_private.h"
#include "qv_queue.h"

extern "C" {
QV_EXPORT qvmodule_job qvmodule_job_fg_queue = {&qvmodule_job_fg_queue,
                                                &qvmodule_job_fg_queue,
                                                nullptr,
                                                "Job Foreground Queue",
                                                nullptr,
                                                0,
                                                0,
                                                nullptr,
                                                nullptr};
QV_EXPORT qvmodule_job qvmodule_job_bg_queue = {&qvmodule_job_bg_queue,
                                                &qvmodule_job_bg_queue,
                                                nullptr,
                                                "Job Background Queue",
                                                nullptr,
                                                0,
                                                0,
                                                nullptr,
                                                nullptr};
}

block_t qv::qvmodule_job_block_index = nullptr;

namespace
{

constexpr struct timeval kBgPeriod = {0, QVMODULE_JOB_BG_PERIOD_USEC};

bool tracing()
{
    return trace_type_is_enabled(trace_global, QV_TRACE_JOB);
}

void trace_name(const char *func, const qvmodule_job *jp)
{
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s: name:%s", func, jp->job_name);
}

qvmodule_job *new_job(qvmodule *tp, int priority, const char *name, qvmodule_job_func job_func,
                      void_t data)
{
    auto *jp = static_cast<qvmodule_job *>(qvmodule_block_alloc(qvmodule_job_block_index));
    QV_ASSERT(jp);
    jp->job_name = name;
    jp->job_qvmodule = tp;
    jp->job_func = job_func;
    jp->job_data = data;
    jp->job_priority = static_cast<byte>(priority);
    return jp;
}

void add_bg_timeout(qvmodule_job *jp)
{
    struct timeval tv = kBgPeriod;
    QV_ASSERT(event_add(jp->job_event, &tv) == 0);
}

} // namespace

extern "C" QV_EXPORT qvmodule_job *qvmodule_job_create_foreground(qvmodule *tp, const char *name,
                                                                  qvmodule_job_func job_func,
                                                                  void_t data) noexcept
{
    qvmodule_job *jp = new_job(tp, QVMODULE_JOB_PRIORITY_FOREGROUND, name, job_func, data);
    {
        QV_GIANT_LOCK_SCOPE();
        qv::append(jp, &qvmodule_job_fg_queue);
        jp->job_event =
            event_new(g_event_base, -1, EV_READ | EV_FINALIZE, qvmodule_job_event_cb, jp);
        QV_ASSERT(jp->job_event);
        // Never added: the event goes straight to the loop's active queue.
        event_active(jp->job_event, EV_READ, 1);
    }
    trace_name("qvmodule_job_create_foreground", jp);
    return jp;
}

extern "C" QV_EXPORT qvmodule_job *qvmodule_job_create_background(qvmodule *tp, int priority,
                                                                  const char *name,
                                                                  qvmodule_job_func job_func,
                                                                  void_t data) noexcept
{
    QV_ASSERT((priority <= 7 && priority >= 0) || priority == 64);
    // All background levels stand equal.
    qvmodule_job *jp = new_job(tp, QVMODULE_JOB_PRIORITY_BACKGROUND, name, job_func, data);
    {
        QV_GIANT_LOCK_SCOPE();
        qv::append(jp, &qvmodule_job_bg_queue);
        jp->job_event =
            event_new(g_event_base, -1, EV_TIMEOUT | EV_FINALIZE, qvmodule_job_event_cb, jp);
        QV_ASSERT(jp->job_event);
        add_bg_timeout(jp);
    }
    trace_name("qvmodule_job_create_background", jp);
    return jp;
}

extern "C" QV_EXPORT qvmodule_job *qvmodule_job_create(qvmodule *tp, int priority, const char *name,
                                                       qvmodule_job_func job_func,
                                                       void_t data) noexcept
{
    if ((priority <= 7 && priority >= 0) || priority == QVMODULE_JOB_PRIORITY_BACKGROUND)
        return qvmodule_job_create_background(tp, priority, name, job_func, data);
    QV_ASSERT(priority == 128);
    return qvmodule_job_create_foreground(tp, name, job_func, data);
}

void qv::qvmodule_job_event_cb(int, short event, void *arg) noexcept
{
    auto *jp = static_cast<qvmodule_job *>(arg);
    bool foreground = jp->job_priority == QVMODULE_JOB_PRIORITY_FOREGROUND;
    if (foreground)
        QV_ASSERT((event & 0x02) == 0x02);
    else
        QV_ASSERT((event & 0x01) == 0x01);
    // The record is another thread's to change until the lock is held.
    QV_GIANT_LOCK_SCOPE();
    if (jp->job_flags & QVMODULE_JOB_FLAG_FINALIZING)
        return;
    if (jp->job_flags & QVMODULE_JOB_FLAG_DELETED) {
        qvmodule_job_delete_internal(jp);
        return;
    }
    jp->job_flags |= QVMODULE_JOB_FLAG_DISPATCHING;
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s: dispatching job, name:%s", "qvmodule_job_event_cb",
                 jp->job_name);
    jp->job_func(jp);
    jp->job_flags &= ~QVMODULE_JOB_FLAG_DISPATCHING;
    if (!foreground && !(jp->job_flags & QVMODULE_JOB_FLAG_DELETED))
        add_bg_timeout(jp);
    else
        qvmodule_job_delete_internal(jp);
}

void qv::qvmodule_job_delete_internal(qvmodule_job *jp) noexcept
{
    {
        QV_GIANT_LOCK_SCOPE();
        trace_name("qvmodule_job_delete_internal", jp);
        qv::remque(jp);
        if (!qv_on_loop_thread()) {
            // The callback may have begun and be waiting for the lock.
            jp->job_flags |= QVMODULE_JOB_FLAG_FINALIZING;
            QV_ASSERT(event_free_finalize(0, jp->job_event,
                                          free_finalized<&qvmodule_job_block_index>) == 0);
            return;
        }
        // Also takes a foreground job that has not run off the active queue.
        QV_ASSERT(event_del(jp->job_event) == 0);
        event_free(jp->job_event);
    }
    qvmodule_block_free(qvmodule_job_block_index, jp);
}

extern "C" QV_EXPORT void qvmodule_job_delete(qvmodule_job *jp) noexcept
{
    if (jp == nullptr)
        return;
    trace_name("qvmodule_job_delete", jp);
    if (jp->job_flags & QVMODULE_JOB_FLAG_DELETED)
        return;
    jp->job_flags |= QVMODULE_JOB_FLAG_DELETED;
    jp->job_qvmodule = nullptr;
    if (!(jp->job_flags & QVMODULE_JOB_FLAG_DISPATCHING))
        qvmodule_job_delete_internal(jp);
}

extern "C" QV_EXPORT void qvmodule_job_delete_all(qvmodule *tp) noexcept
{
    if (tracing())
        trace_cb(trace_global, TRUE, -1, "%s:", "qvmodule_job_delete_all");
    auto mine = [tp](qvmodule_job *jp) {
        if (jp->job_qvmodule == tp)
            qvmodule_job_delete(jp);
    };
    qv::for_each(&qvmodule_job_bg_queue, mine);
    qv::for_each(&qvmodule_job_fg_queue, mine);
}

extern "C" QV_EXPORT qvmodule *qvmodule_job_qvmodule(qvmodule_job *job) noexcept
{
    return job->job_qvmodule;
}

extern "C" QV_EXPORT void_t qvmodule_job_data(qvmodule_job *job) noexcept
{
    return job->job_data;
}

extern "C" QV_EXPORT void qvmodule_job_set_data(qvmodule_job *job, void_t data) noexcept
{
    job->job_data = data;
}

extern "C" QV_EXPORT unsigned int qvmodule_job_priority(qvmodule_job *jp) noexcept
{
    return jp->job_priority;
}

extern "C" QV_EXPORT const char *qvmodule_get_job_name(qvmodule_job *jp) noexcept
{
    return jp->job_name;
}

namespace
{

// A list object appears only when its queue has a job.
void show_queue(cJSON *root, const char *list_name, qvmodule_job *head)
{
    cJSON *list = nullptr;
    qv::for_each(head, [&](qvmodule_job *jp) {
        if (list == nullptr) {
            list = cJSON_CreateObject();
            cJSON_AddItemToObject(root, list_name, list);
        }
        qv_show_add_name(list, "Job", jp->job_name);
    });
}

} // namespace

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_job_show(jrpc_method_ctx_handle ctx) noexcept
{
    cJSON *root = jrpc_ctx_get_result_jroot(ctx);
    show_queue(root, "Fourground Job List", &qvmodule_job_fg_queue);
    show_queue(root, "Background Job List", &qvmodule_job_bg_queue);
    return JRPC_SUCCESS;
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_job_trace_on(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_JOB, true);
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_job_trace_off(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_JOB, false);
}

extern "C" QV_EXPORT void qvmodule_job_init(void) noexcept
{
    qvmodule_job_block_index = qvmodule_block_init(sizeof(qvmodule_job), "qvmodule_job");
}
