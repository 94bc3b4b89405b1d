/* What daemons and client programs share about the show servers: the
 * table of sibling daemons with their ports, and the argument names of a
 * request. */
#ifndef QV_SHARED_H
#define QV_SHARED_H

#include <netinet/in.h>
#include <sys/socket.h>
#include "qv_defs.h"
#include "qv_show.h"

QV_BEGIN_DECLS

typedef enum qvsh_server_id {
    QVSH_SERVER_ID_QVTESTD = 0,
    QVSH_SERVER_ID_QVTESTC = 1,
    QVSH_SERVER_ID_KELPD = 2,
    QVSH_SERVER_ID_RAMSD = 3,
    QVSH_SERVER_ID_TOVAID = 4,
    QVSH_SERVER_ID_LUMD = 5,
    QVSH_SERVER_ID_ORBE = 6,
    QVSH_SERVER_ID_MAX = 7
} qvsh_server_id_t;

/* Port of the first entry; each entry's port is this plus its id. */
#define QVSH_SERVER_BASE_PORT 3000

/* The request's argument names, indexed by qvsh_arg_id_t. */
QV_EXPORT extern const char *arg_names[QVSH_ARG_ID_MAX];

QV_EXPORT extern qvsh_server_t qvsh_server_list[QVSH_SERVER_ID_MAX];

/* Each entry's address: AF_INET, INADDR_ANY, the port in host byte order. */
QV_EXPORT extern struct sockaddr_in qvtestd_addr;
QV_EXPORT extern struct sockaddr_in qvtestc_addr;
QV_EXPORT extern struct sockaddr_in kelpd_addr;
QV_EXPORT extern struct sockaddr_in ramsd_addr;
QV_EXPORT extern struct sockaddr_in tovaid_addr;
QV_EXPORT extern struct sockaddr_in lumd_addr;
QV_EXPORT extern struct sockaddr_in orbe_addr;

/* Copies the entry's 16-byte address into addr in network byte order. */
QV_EXPORT void qvsh_server_convert_to_network(qvsh_server_t *server,
                                              struct sockaddr *addr) QV_NOEXCEPT;

QV_END_DECLS

#endif
