/* Six-byte layer-2 (Ethernet MAC) addresses: copy, tests, ordering and the
 * colon-separated text form "00:1a:2b:3c:4d:5e". */
#ifndef QV_SOCKADDR_L2ADDR_H
#define QV_SOCKADDR_L2ADDR_H

#include <stdint.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

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
