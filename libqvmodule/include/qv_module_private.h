/* Module registry internals, reachable by tests. */
#ifndef QV_MODULE_PRIVATE_H
#define QV_MODULE_PRIVATE_H

#include "qv_daemon.h"

/* qvmodule_name writes into this one buffer; each call overwrites it. */
#define QVMODULE_NAME_BUF_SIZE 128
/* Names are printed to at most this many characters. */
#define QVMODULE_NAME_MAX 40

namespace qv
{
extern char qvmodule_name_buf[QVMODULE_NAME_BUF_SIZE];
}

using namespace qv;

#endif
