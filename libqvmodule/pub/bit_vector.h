/* Growable set of small non-negative integers held as bits, with an
 * optional upper bound and a search for the lowest clear bit (the smallest
 * free identifier). The storage is charged to a module's memory cookie.
 *
 * Bit i lives in byte i / 8 under the mask 1 << (i % 8). Operations that
 * may grow the vector may move it: they take the address of the caller's
 * pointer and store the new address there. */
#ifndef QV_BIT_VECTOR_H
#define QV_BIT_VECTOR_H

#include "qv_defs.h"
#include "qv_daemon.h"

QV_BEGIN_DECLS

typedef struct bit_vector_t_ {
    unsigned long len;      /* bytes in bits, a multiple of 4 */
    unsigned long max_bits; /* 0: no bound; else indices below it only */
    byte bits[];
} bit_vector_t;

/* A new empty vector charged to tp, or NULL when no memory can be had. */
QV_EXPORT bit_vector_t *bit_vector_init(qvmodule *tp) QV_NOEXCEPT;
/* Sets the bound (0 removes it); set bits stay and the storage stays. */
QV_EXPORT void bit_vector_set_max_bits(bit_vector_t *vec, unsigned long max_bits) QV_NOEXCEPT;
/* 0 when the bit is set (growing the vector as needed); 1 when idx is not
 * below a non-zero bound; -1 when growing found no memory, the vector then
 * being as it was. tp must be the module the vector is charged to. */
QV_EXPORT int bit_vector_set(qvmodule *tp, bit_vector_t **vec, unsigned long idx) QV_NOEXCEPT;
/* 0 when the bit is clear (never grows); 1 when idx is not below a
 * non-zero bound. */
QV_EXPORT int bit_vector_reset(qvmodule *tp, bit_vector_t **vec, unsigned long idx) QV_NOEXCEPT;
/* Whether bit idx is stored and set; the bound is not consulted. */
QV_EXPORT boolean bit_vector_isset(bit_vector_t *vec, unsigned long idx) QV_NOEXCEPT;
/* Whether no bit is set. */
QV_EXPORT boolean bit_vector_isclear(bit_vector_t *vec) QV_NOEXCEPT;
/* The lowest clear bit; len * 8 when every stored bit is set. The bound is
 * not consulted: the caller checks the result against it. */
QV_EXPORT unsigned long bit_vector_ffr(bit_vector_t *vec) QV_NOEXCEPT;
QV_EXPORT void bit_vector_free(qvmodule *tp, bit_vector_t *vec) QV_NOEXCEPT;

QV_END_DECLS

#endif
