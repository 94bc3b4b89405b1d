/* qvtestd: the sample daemon. What its modules share. */
#ifndef QVTESTD_H
#define QVTESTD_H

#include <stdint.h>
#include <syslog.h>
#include <qv_daemon.h>

/* Trace-type bits of the daemon's own, above those the library uses:
 * one line per echo connection and per read. */
#define QVTESTD_TRACE_ECHO 0x10000u

/* Every trace bit that SIGHUP toggles: the library's and the daemon's. */
#define QVTESTD_TRACE_ALL                                                                          \
    (QV_TRACE_TIMER | QV_TRACE_JOB | QV_TRACE_SOCKET | QV_TRACE_MODULE | QV_TRACE_LIBEVENT |       \
     QVTESTD_TRACE_ECHO)

#define QVTESTD_ECHO_PORT_DEFAULT 7007

/* Loopback port of the echo service, from -e. */
extern int qvtestd_echo_port;

/* A line in the trace file whatever the trace bits say: the daemon's own
 * account of what it does. */
#define QVTESTD_TRACE(...) trace_cb(trace_global, TRUE, -1, __VA_ARGS__)

/* Module set-up, run by start-up from the application module table. */
void echo_init(void);
void heartbeat_init(void);
void sweeper_init(void);

/* What the heartbeat reports of the echo service. */
unsigned int echo_connections_open(void);
unsigned long long echo_bytes_total(void);

/* The heartbeat, for SIGUSR1: beat now rather than at the next period. */
void heartbeat_now(void);

/* Starts a sweep of old show-output files unless one is running. */
void sweeper_start(void);

#endif
