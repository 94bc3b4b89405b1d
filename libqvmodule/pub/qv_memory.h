/* Named block pools with usage counters, and per-module memory cookies
 * that charge every variable-size allocation to its owner. */
#ifndef QV_MEMORY_H
#define QV_MEMORY_H

#include <stddef.h>
#include <stdint.h>
#include <jrpc.h>
#include "qv_defs.h"
#include "qv_daemon.h"

QV_BEGIN_DECLS

typedef struct qvmodule_block {
    struct qvmodule_block *tb_next;
    const char *tb_name;
    unsigned int tb_max_alloc;
    unsigned int tb_n_alloc;
    unsigned int tb_n_alloc_requests;
    unsigned int tb_n_free_requests;
    uint16_t tb_size;
} qvmodule_block_t;

typedef struct qvmodule_block *block_t;

QV_EXPORT extern qvmodule_block_t qvmodule_block_names;
QV_EXPORT extern qvmodule_block_t *qvmodule_block_list;

/* Creates a pool of blocks of size bytes; pools are never destroyed. */
QV_EXPORT block_t qvmodule_block_init(size_t size, const char *name) QV_NOEXCEPT;
/* A zero-filled block, or null when the heap is exhausted. */
QV_EXPORT void_t qvmodule_block_alloc(block_t tb) QV_NOEXCEPT;
QV_EXPORT void qvmodule_block_free(block_t tb, void_t mem) QV_NOEXCEPT;

typedef struct _qvmodule_mem_cookie {
    struct _qvmodule_mem_cookie *tmc_next;
    const char *tmc_name;
    qvmodule *tmc_qvmodule;
    uint32_t tmc_n_bytes;
    uint32_t tmc_max_bytes;
    uint32_t tmc_n_alloc;
    uint32_t tmc_max_alloc;
    uint32_t tmc_n_func_calls;
} qvmodule_mem_cookie_t;

QV_EXPORT extern qvmodule_mem_cookie_t *qvmodule_cookies;

/* Zero-filled memory charged to tp's cookie (the anonymous one for a null
 * tp); null for size 0 or when the heap is exhausted. */
QV_EXPORT void_t qvmodule_mem_malloc(qvmodule *tp, size_t size) QV_NOEXCEPT;
QV_EXPORT char *qvmodule_mem_strdup(qvmodule *tp, const char *str) QV_NOEXCEPT;
/* Always moves to a new block; size 0 frees p and returns null. */
QV_EXPORT void_t qvmodule_mem_realloc(qvmodule *tp, void *p, size_t size) QV_NOEXCEPT;
QV_EXPORT void qvmodule_mem_free(qvmodule *tp, void *p) QV_NOEXCEPT;
QV_EXPORT void qvmodule_mem_cookie_free(qvmodule *tp) QV_NOEXCEPT;
/* The size that was requested for the allocation ptr. */
QV_EXPORT uint32_t qvmodule_get_actual_alloc_size(void *ptr) QV_NOEXCEPT;
QV_EXPORT jrpc_method_retval_t qvmodule_memory_show(jrpc_method_ctx_handle ctx) QV_NOEXCEPT;
QV_EXPORT void qvmodule_memory_init(void) QV_NOEXCEPT;

QV_END_DECLS

#endif
