// Bit vector: one block, charged to a module's cookie, of the header and
// len bytes of bits, len a multiple of 4. Bits beyond len are clear; the
// storage grows to the end of the 32-bit word that holds the highest bit
// set, never further, and never shrinks. Scans read the bytes as 32-bit
// little-endian words, so word k holds bits 32k to 32k + 31 in order.

#include "bit_vector.h"

#include <string.h>

#include "qv_memory.h"

namespace
{

constexpr unsigned long WORD_BYTES = 4;

inline unsigned long bit_index2offset(unsigned long idx)
{
    return idx >> 3;
}

inline byte bit_index2mask(unsigned long idx)
{
    return static_cast<byte>(1u << (idx & 7));
}

inline bool bit_valid_offset(const bit_vector_t *vec, unsigned long offset)
{
    return offset < vec->len;
}

inline bool bit_valid_index(const bit_vector_t *vec, unsigned long idx)
{
    return vec->max_bits == 0 || idx < vec->max_bits;
}

inline uint32_t bit_vector_extract_aligned(const bit_vector_t *vec, unsigned long offset)
{
    const byte *p = vec->bits + offset;
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Grows the vector to hold byte offset, to the end of its word. On failure
// the cookie has kept the old block, which stays as it was.
bool bit_vector_grow(qvmodule *tp, bit_vector_t **vec, unsigned long offset)
{
    bit_vector_t *old = *vec;
    unsigned long len = (offset + WORD_BYTES) & ~(WORD_BYTES - 1);
    auto *grown =
        static_cast<bit_vector_t *>(qvmodule_mem_realloc(tp, old, sizeof(bit_vector_t) + len));
    if (!grown)
        return false;
    memset(grown->bits + grown->len, 0, len - grown->len);
    grown->len = len;
    *vec = grown;
    return true;
}

} // namespace

extern "C" QV_EXPORT bit_vector_t *bit_vector_init(qvmodule *tp) noexcept
{
    // The cookie's memory comes zero-filled: no bits, no bound.
    return static_cast<bit_vector_t *>(qvmodule_mem_malloc(tp, sizeof(bit_vector_t)));
}

extern "C" QV_EXPORT void bit_vector_set_max_bits(bit_vector_t *vec,
                                                  unsigned long max_bits) noexcept
{
    vec->max_bits = max_bits;
}

extern "C" QV_EXPORT int bit_vector_set(qvmodule *tp, bit_vector_t **vec,
                                        unsigned long idx) noexcept
{
    if (!bit_valid_index(*vec, idx))
        return 1;
    unsigned long offset = bit_index2offset(idx);
    if (!bit_valid_offset(*vec, offset) && !bit_vector_grow(tp, vec, offset))
        return -1;
    (*vec)->bits[offset] |= bit_index2mask(idx);
    return 0;
}

extern "C" QV_EXPORT int bit_vector_reset(qvmodule *, bit_vector_t **vec,
                                          unsigned long idx) noexcept
{
    if (!bit_valid_index(*vec, idx))
        return 1;
    unsigned long offset = bit_index2offset(idx);
    if (bit_valid_offset(*vec, offset))
        (*vec)->bits[offset] &= static_cast<byte>(~bit_index2mask(idx));
    return 0;
}

extern "C" QV_EXPORT boolean bit_vector_isset(bit_vector_t *vec, unsigned long idx) noexcept
{
    unsigned long offset = bit_index2offset(idx);
    return bit_valid_offset(vec, offset) && (vec->bits[offset] & bit_index2mask(idx));
}

extern "C" QV_EXPORT boolean bit_vector_isclear(bit_vector_t *vec) noexcept
{
    for (unsigned long off = 0; off + WORD_BYTES <= vec->len; off += WORD_BYTES) {
        if (bit_vector_extract_aligned(vec, off) != 0)
            return FALSE;
    }
    return TRUE;
}

extern "C" QV_EXPORT unsigned long bit_vector_ffr(bit_vector_t *vec) noexcept
{
    unsigned long off = 0;
    for (; off + WORD_BYTES <= vec->len; off += WORD_BYTES) {
        uint32_t word = bit_vector_extract_aligned(vec, off);
        if (word != 0xffffffffu)
            return off * 8 + static_cast<unsigned long>(__builtin_ctz(~word));
    }
    return off * 8;
}

extern "C" QV_EXPORT void bit_vector_free(qvmodule *tp, bit_vector_t *vec) noexcept
{
    qvmodule_mem_free(tp, vec);
}
