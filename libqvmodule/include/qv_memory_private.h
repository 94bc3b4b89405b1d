/* Memory internals: the cookie operations that take a cookie directly,
 * and the record allocation that every subsystem of the library uses for
 * its own fixed-size records. */
#ifndef QV_MEMORY_PRIVATE_H
#define QV_MEMORY_PRIVATE_H

#include "qv_memory.h"

/* Every charged allocation carries its requested size in this header. */
#define QV_MEM_HEADER_SIZE sizeof(uint32_t)
static_assert(QV_MEM_HEADER_SIZE == 4, "the size header is 4 bytes on every target");

namespace qv
{

extern block_t qvmodule_cookie_block;
extern qvmodule_mem_cookie_t *qvmodule_cookie_anon;

qvmodule_mem_cookie_t *qvmodule_cookie_from_qvmodule(qvmodule *tp) noexcept;
qvmodule_mem_cookie_t *qvmodule_mem_cookie_alloc(const char *name, qvmodule *tp) noexcept;
void_t qvmodule_cookie_malloc(qvmodule_mem_cookie_t *tmc, size_t size) noexcept;
char *qvmodule_cookie_strdup(qvmodule_mem_cookie_t *tmc, const char *str) noexcept;
void_t qvmodule_cookie_realloc(qvmodule_mem_cookie_t *tmc, void *ptr, size_t size) noexcept;
void qvmodule_cookie_free(qvmodule_mem_cookie_t *tmc, void *ptr) noexcept;
void qvmodule_cookie_inc_stats(qvmodule_mem_cookie_t *tmc, uint32_t n_bytes,
                               uint32_t n_alloc) noexcept;
void qvmodule_cookie_dec_stats(qvmodule_mem_cookie_t *tmc, uint32_t n_bytes,
                               uint32_t n_frees) noexcept;

/* A block for one of the library's own records. These records are small
 * and their callers have no way to report a failure, so running out of
 * heap here stops the daemon, naming the pool and the calling function. */
void_t qvmodule_record_alloc(block_t tb, const char *file, const char *func) noexcept;

} // namespace qv

using namespace qv;

#define QV_RECORD_ALLOC(type, tb)                                                                  \
    static_cast<type *>(::qv::qvmodule_record_alloc((tb), __FILE__, __func__))

#endif
