/* Service-manager notification, written directly: one datagram per state
 * change to the UNIX socket named by NOTIFY_SOCKET. No client library is
 * needed, and a daemon started by hand (no NOTIFY_SOCKET) pays nothing. */
#ifndef QVTESTD_NOTIFY_H
#define QVTESTD_NOTIFY_H

#include <stdint.h>

/* Sends state ("READY=1", "STOPPING=1", "WATCHDOG=1", ...) to the socket
 * named by NOTIFY_SOCKET: a path, or an abstract name written with a
 * leading '@'. Returns 1 when sent, 0 when NOTIFY_SOCKET is unset, and a
 * negative errno value when the name is unusable or the send failed. */
int notify_send(const char *state);

/* The watchdog period asked of this process in microseconds: WATCHDOG_USEC,
 * unless WATCHDOG_PID names another process. 0 when there is none or the
 * value is not a positive number. */
uint64_t notify_watchdog_usec(void);

#endif
