/* Job internals: the state bits, the dispatcher and the deferred free,
 * reachable by tests. */
#ifndef QV_JOBS_PRIVATE_H
#define QV_JOBS_PRIVATE_H

#include "qv_daemon.h"
#include "qv_memory.h"

/* Deletion requested; set once and never cleared. */
#define QVMODULE_JOB_FLAG_DELETED 0x01u
/* The job's function is running. */
#define QVMODULE_JOB_FLAG_DISPATCHING 0x02u
/* Deleted from another thread: libevent's finalizer frees it, and a
 * callback already under way leaves it alone. */
#define QVMODULE_JOB_FLAG_FINALIZING 0x04u

/* Pause of a background job between the end of a run and the next. */
#define QVMODULE_JOB_BG_PERIOD_USEC 1000

namespace qv
{
extern block_t qvmodule_job_block_index;

void qvmodule_job_event_cb(int fd, short event, void *arg) noexcept;
void qvmodule_job_delete_internal(qvmodule_job *jp) noexcept;
} // namespace qv

using namespace qv;

#endif
