/* Event history internals: the store's module and pools, the ring steps
 * that the display shares, and the copy seam that tests fail on purpose. */
#ifndef EVENT_PRIVATE_H
#define EVENT_PRIVATE_H

#include <stddef.h>

#include "libcpe_event_public_api.h"
#include "qv_daemon.h"
#include "qv_memory.h"

/* The library module every text of the store is charged to. */
namespace qv
{

extern qvmodule *evh_qvmodule;
extern block_t evh_module_block;
extern block_t evh_object_block;
extern block_t evh_event_block;
extern block_t evh_einfo_block;

/* Copies a text charged to evh_qvmodule; qvmodule_mem_strdup unless a
 * test installs a copy that fails. */
using evh_copy_text_fn = char *(*)(qvmodule *tp, const char *str) noexcept;
extern evh_copy_text_fn evh_copy_text;

/* Stands in for a heading that could not be copied; never freed. */
extern char evh_missing_text[1];

/* The slot before i, wrapping from 0 to 15. */
constexpr int evh_last_event_index(int i) noexcept
{
    return i == 0 ? EVH_MAX_EVENTS - 1 : i - 1;
}

inline evh_object_t *evh_n2obj(hbt_node_t *node) noexcept
{
    return node ? reinterpret_cast<evh_object_t *>(reinterpret_cast<char *>(node) -
                                                   offsetof(evh_object_t, obj_hnode))
                : nullptr;
}

int evh_name_cmp(hbt_node_t *a, hbt_node_t *b) noexcept;
/* Releases one reference; true when that freed the event. */
boolean evh_event_dec_ref_count(evh_event_t *event) noexcept;

} // namespace qv

using namespace qv;

#endif
