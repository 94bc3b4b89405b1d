/* Signal internals, reachable by tests. */
#ifndef QV_SIGNAL_PRIVATE_H
#define QV_SIGNAL_PRIVATE_H

#include "qv_daemon.h"

/* The event callback of every kernel-event registration; arg is its
 * table entry. */
namespace qv
{

void qvmodule_signal_event_cb(int fd, short event, void *arg) noexcept;

} // namespace qv

using namespace qv;

#endif
