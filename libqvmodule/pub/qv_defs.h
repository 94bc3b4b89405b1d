/* Scalar types shared by every public header, the export macro, and the
 * socket-facing types that a module record carries. */
#ifndef QV_DEFS_H
#define QV_DEFS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
#define QV_BEGIN_DECLS extern "C" {
#define QV_END_DECLS }
/* Nothing thrown inside the library may cross the C boundary. */
#define QV_NOEXCEPT noexcept
#else
#define QV_BEGIN_DECLS
#define QV_END_DECLS
#define QV_NOEXCEPT
#endif

/* Marks every function and datum of the API; everything else is hidden. */
#define QV_EXPORT __attribute__((visibility("default")))

QV_BEGIN_DECLS

typedef uint32_t flag_t;
typedef void *void_t;
typedef uint8_t boolean;
typedef uint8_t byte;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* A point in time or a duration with microsecond resolution. The fields
 * are the 32-bit time_t of the target on every build; every value the
 * library produces keeps ut_usec in 0 to 999999. */
typedef struct _utime_t {
    int32_t ut_sec;
    int32_t ut_usec;
} utime_t;

struct _qvmodule;

/* A port in network byte order. */
typedef uint16_t in_port;
/* An IPv4 address in network byte order. C++ has the system's struct
 * in_addr in the same name space as typedefs, so C++ code names this
 * 32-bit type qv_in_addr_t; C code may use either name. */
typedef uint32_t qv_in_addr_t;
#ifndef __cplusplus
typedef qv_in_addr_t in_addr;
#endif

/* The compact socket address; its layout is private to the library. */
typedef union sockaddr_un_ qvsockaddr_t;

/* Socket callbacks of a module: each takes the module it belongs to. */
typedef void (*qvmodule_recv_func)(struct _qvmodule *tp);
typedef void (*qvmodule_accept_func)(struct _qvmodule *tp);
typedef void (*qvmodule_write_func)(struct _qvmodule *tp);
typedef void (*qvmodule_connect_func)(struct _qvmodule *tp);
typedef void (*qvmodule_terminate_func)(struct _qvmodule *tp);

QV_END_DECLS

#endif
