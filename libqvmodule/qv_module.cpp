// The module registry: a circular list through qvmodule_head, in creation
// order. A module is allocated (unregistered, invisible), created
// (registered) and finally deleted; one never created is just freed.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_memory_private.h"
#include "qv_module_private.h"
#include "qv_queue.h"

extern "C" {
QV_EXPORT qvmodule qvmodule_head;
QV_EXPORT struct qvmodule_block *qvmodule_block_index = nullptr;
}

char qv::qvmodule_name_buf[QVMODULE_NAME_BUF_SIZE];

namespace
{

bool recursed = false;

// Debug lines go to the trace file only, while module tracing is on.
void trace_module(const char *func, const qvmodule *tp)
{
    if (trace_type_is_enabled(trace_global, QV_TRACE_MODULE))
        trace_cb(trace_global, TRUE, -1, "%s: name:%s", func, tp->qvmodule_name);
}

} // namespace

extern "C" QV_EXPORT qvmodule *qvmodule_alloc(const char *name, int, void *) noexcept
{
    QV_ASSERT(name);
    auto *tp = QV_RECORD_ALLOC(qvmodule, qvmodule_block_index);
    tp->qvmodule_name = name;
    tp->qvmodule_socket = -1;
    tp->qvmodule_socket_domain = 0;
    trace_module(__func__, tp);
    return tp;
}

extern "C" QV_EXPORT int qvmodule_create(qvmodule *tp) noexcept
{
    // A descriptor stored before creation goes live with the module.
    if (tp->qvmodule_socket != -1)
        qvmodule_set_socket(tp, tp->qvmodule_socket);
    qv::append(tp, &qvmodule_head);
    trace_module(__func__, tp);
    return 1;
}

extern "C" QV_EXPORT qvmodule *qvmodule_alloc_accept(const qvmodule *listen_tp, const char *name,
                                                     int priority, void *trp) noexcept
{
    qvmodule *tp = qvmodule_alloc(name, priority, trp);
    tp->qvmodule_socket_domain = listen_tp->qvmodule_socket_domain;
    if (trace_type_is_enabled(trace_global, QV_TRACE_MODULE))
        trace_cb(trace_global, TRUE, -1, "%s: name:%s, new_name:%s", __func__,
                 listen_tp->qvmodule_name, name);
    return tp;
}

extern "C" QV_EXPORT void qvmodule_free(qvmodule *tp) noexcept
{
    if (tp == nullptr)
        return;
    trace_module(__func__, tp);
    qvmodule_mem_cookie_free(tp);
    qvmodule_block_free(qvmodule_block_index, tp);
}

extern "C" QV_EXPORT void qvmodule_delete(qvmodule *tp) noexcept
{
    trace_module(__func__, tp);
    if (tp->qvmodule_flags & QVMODULE_FLAG_NO_DELETE)
        return;
    if (tp->qvmodule_socket != -1)
        qvmodule_close(tp);
    qvmodule_timer_delete_all(tp);
    qvmodule_job_delete_all(tp);
    qvmodule_sockfree(tp);
    // A module that was never created has no links to undo.
    if (tp->qvmodule_forw)
        qv::remque(tp);
    qvmodule_free(tp);
}

extern "C" QV_EXPORT void qvmodule_quit(int code) noexcept
{
    QV_ASSERT(!recursed);
    recursed = true;
    if (trace_type_is_enabled(trace_global, QV_TRACE_MODULE))
        trace_cb(trace_global, TRUE, -1, "%s:", __func__);

    qv_daemon_pid_close();
    trace_file_close(trace_global);
    trace_global = nullptr;
    if (code == 0)
        exit(0);
    // Leaves the code in errno of the core file.
    errno = code;
    abort();
}

extern "C" QV_EXPORT char *qvmodule_name(qvmodule *tp) noexcept
{
    if (tp == nullptr)
        snprintf(qvmodule_name_buf, sizeof(qvmodule_name_buf), "(null qvmodule)");
    else
        snprintf(qvmodule_name_buf, sizeof(qvmodule_name_buf), "%.40s", tp->qvmodule_name);
    return qvmodule_name_buf;
}

extern "C" QV_EXPORT boolean qvmodule_flags_isset(qvmodule *tp, flag_t flag) noexcept
{
    return (tp->qvmodule_flags & flag) != 0;
}

extern "C" QV_EXPORT flag_t qvmodule_flags_get(qvmodule *tp) noexcept
{
    return tp->qvmodule_flags;
}

extern "C" QV_EXPORT void qvmodule_flags_set(qvmodule *tp, flag_t flag) noexcept
{
    tp->qvmodule_flags |= flag;
}

extern "C" QV_EXPORT void qvmodule_flags_reset(qvmodule *tp, flag_t flag) noexcept
{
    tp->qvmodule_flags &= ~flag;
}

extern "C" QV_EXPORT void_t qvmodule_get_data(qvmodule *tp) noexcept
{
    return tp->qvmodule_data;
}

extern "C" QV_EXPORT void qvmodule_set_data(qvmodule *tp, void_t data) noexcept
{
    tp->qvmodule_data = data;
}

extern "C" QV_EXPORT void qvmodule_set_terminate(qvmodule *, qvmodule_terminate_func) noexcept {}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_module_show(jrpc_method_ctx_handle ctx) noexcept
{
    cJSON *list = cJSON_CreateObject();
    cJSON_AddItemToObject(jrpc_ctx_get_result_jroot(ctx), "qvmodule List", list);
    qv::for_each(&qvmodule_head,
                 [list](qvmodule *tp) { qv_show_add_name(list, "qvmodule", qvmodule_name(tp)); });
    return JRPC_SUCCESS;
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_module_trace_on(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_MODULE, true);
}

extern "C" QV_EXPORT jrpc_method_retval_t qvmodule_module_trace_off(jrpc_method_ctx_handle) noexcept
{
    return qv_ui_trace_switch(QV_TRACE_MODULE, false);
}

extern "C" QV_EXPORT void qvmodule_init(void) noexcept
{
    qv::queue_init(&qvmodule_head);
    qvmodule_head.qvmodule_name = "qvmodule head";
    qvmodule_block_index = qvmodule_block_init(sizeof(qvmodule), "qvmodule");
}
