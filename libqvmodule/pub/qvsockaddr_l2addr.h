/* Compact socket addresses (a UNIX path, or an IPv4 port and address) and
 * six-byte layer-2 (Ethernet MAC) addresses: copy, tests, ordering and the
 * colon-separated text form "00:1a:2b:3c:4d:5e". */
#ifndef QV_SOCKADDR_L2ADDR_H
#define QV_SOCKADDR_L2ADDR_H

#include <stdint.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

/* ------------------------------------------------------------------ */
/* Socket addresses                                                    */

struct sockaddr;

/* Records come from malloc and belong to whoever a create or conversion
 * returned them to; release them with sockfree. Running out of memory
 * while making one stops the daemon. */
QV_EXPORT qvsockaddr_t *sockcreate_un(const char *name) QV_NOEXCEPT;
/* port and addr are stored as given: pass them in network byte order. */
QV_EXPORT qvsockaddr_t *sockcreate_in(in_port port, qv_in_addr_t addr) QV_NOEXCEPT;
/* Null is ignored. */
QV_EXPORT void sockfree(qvsockaddr_t *addr) QV_NOEXCEPT;
/* Writes the kernel form into addr and returns the length to hand to bind
 * or connect: 110 for a UNIX path (addr must hold that many bytes; paths
 * of 108 characters or more are cut without a terminator), 16 for IPv4. */
QV_EXPORT uint32_t qvsockaddr2sockaddr(const qvsockaddr_t *ga, struct sockaddr *addr) QV_NOEXCEPT;
/* A new record from a kernel address and the length the kernel reported.
 * Bytes the length does not cover read as zero: an IPv4 length of 3 or
 * less gives port 0, a UNIX length of 2 or less an empty path. */
QV_EXPORT qvsockaddr_t *sockaddr2qvsockaddr(struct sockaddr *addr, size_t len) QV_NOEXCEPT;
/* "UNIX/path" or "INET4/a.b.c.d:port", cut to 127 characters, in a static
 * buffer per family that the next print of that family overwrites. */
QV_EXPORT const char *qvsockaddr_print(qvsockaddr_t *addr) QV_NOEXCEPT;

/* ------------------------------------------------------------------ */
/* Layer-2 addresses                                                   */

#define L2_ADDR_LEN 6

/* Octets in transmission order: bit 0x01 of the first is the group bit. */
typedef struct l2_addr_s {
    uint8_t addr[L2_ADDR_LEN];
} l2_addr_t;

QV_EXPORT void l2_addr_copy(l2_addr_t *dest, const l2_addr_t *src) QV_NOEXCEPT;
/* True for NULL and for six zero octets. */
QV_EXPORT boolean l2_addr_is_null(const l2_addr_t *mac) QV_NOEXCEPT;
/* True for a group address; false for NULL. */
QV_EXPORT boolean l2_addr_is_multicast(const l2_addr_t *mac) QV_NOEXCEPT;
/* Orders the octets bytewise as unsigned values: 0 when equal, negative
 * when dest sorts first. NULL equals NULL and sorts before any address. */
QV_EXPORT int l2_addr_cmp(const l2_addr_t *dest, const l2_addr_t *src) QV_NOEXCEPT;
/* The lowercase text form, or "NULL MAC" for NULL, in one static buffer
 * that the next call overwrites: not for use from two threads at once. */
QV_EXPORT char *l2_addr_to_str(const l2_addr_t *mac) QV_NOEXCEPT;
/* Parses six pairs of hexadecimal digits (either case) separated by ":"
 * into out. Only the first two characters of a field count and anything
 * after the sixth pair is ignored. On failure out may hold the octets
 * parsed before the bad field. False for a NULL s or out. */
QV_EXPORT boolean l2_addr_string_to_addr(const char *s, l2_addr_t *out) QV_NOEXCEPT;
/* True when the six raw octets at mac may be learnt as a station's source
 * address: not NULL, not the null address and not multicast. */
QV_EXPORT boolean l2_addr_valid_learn(char *mac) QV_NOEXCEPT;

QV_END_DECLS

#endif
