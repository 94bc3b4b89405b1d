/* Socket internals: the layout of the compact address, the arming
 * operations and dispatchers of a module's socket events, and the seams
 * through which tests reach the socket open and its retry pause. */
#ifndef QV_SOCKADDR_PRIVATE_H
#define QV_SOCKADDR_PRIVATE_H

#include <stdarg.h>
#include <stdint.h>

#include "qv_daemon.h"
#include "qvsockaddr_l2addr.h"

/* Every view starts with the family. A record may be shorter than a view's
 * open-ended array suggests, never shorter than the union itself. */
union sockaddr_un_ {
    struct {
        uint16_t ga_family;
        uint8_t ga_data[];
    } a;
    struct {
        uint16_t gun_family;
        char gun_path[];
    } un;
    struct {
        uint16_t gin_family;
        in_port gin_port;
        qv_in_addr_t gin_addr;
    } in;
};

static_assert(sizeof(union sockaddr_un_) == 8, "an IPv4 record is 8 bytes on every target");

/* The kernel's UNIX address: family and a 108-byte path. */
#define QV_SOCKADDR_UN_LEN 110u
#define QV_SOCKADDR_IN_LEN 16u

/* A zeroed record of len bytes (at least the union's size) with its
 * family set. */
namespace qv
{

qvsockaddr_t *sockcreate(uint16_t family, size_t len) noexcept;

/* The module whose recv or accept method is running, else null. */
extern qvmodule *current_rx_qvmodule;

void qvmodule_socket_enable_read_internal(qvmodule *tp) noexcept;
void qvmodule_socket_disable_read_internal(qvmodule *tp) noexcept;
void qvmodule_socket_enable_write_internal(qvmodule *tp) noexcept;
void qvmodule_socket_disable_write_internal(qvmodule *tp) noexcept;
void qvmodule_socket_revent_cb(int fd, short event, void *arg) noexcept;
void qvmodule_socket_wevent_cb(int fd, short event, void *arg) noexcept;
int qvmodule_set_option_internal(qvmodule *tp, int option, va_list ap) noexcept;

/* The open that qvmodule_get_socket retries, and the pause between tries
 * while the kernel is short of buffers; tests replace them to meet a
 * shortage without waiting for one. */
extern int (*qv_socket_open_fn)(int domain, int type, int proto);
extern unsigned int (*qv_socket_sleep_fn)(unsigned int seconds);

} // namespace qv

using namespace qv;

#endif
