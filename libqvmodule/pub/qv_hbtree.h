/* Height-balanced (AVL) threaded binary tree of unique keys.
 *
 * The node is embedded in the caller's record and costs two machine words:
 * the left link with the balance sign in its two low bits, and either the
 * right link or, with bit 0 set, a thread to the in-order successor. The
 * embedding record must therefore be aligned to at least 4 bytes. The tree
 * never allocates; keys are known only through the comparison function,
 * which is always called with the probe first and a node of the tree second.
 *
 * A tree is a single hbt_node_t pointer owned by the caller, NULL when
 * empty. */
#ifndef QV_HBTREE_H
#define QV_HBTREE_H

#include "qv_defs.h"

QV_BEGIN_DECLS

typedef struct hbt_node {
    unsigned long hbt_data[2];
} hbt_node_t;

/* Negative when a sorts before b, zero when equal, positive after. */
typedef int hbt_node_cmp_t(hbt_node_t *a, hbt_node_t *b);

/* Links node (both words zero) into the tree. False when a node with an
 * equal key is already there: node is not linked, but its second word may
 * hold a thread, so clear it before offering it again. */
QV_EXPORT boolean hbt_insert(hbt_node_t **rootp, hbt_node_t *node, hbt_node_cmp_t *cmp) QV_NOEXCEPT;
/* Unlinks del, which must be in the tree; del is all zero afterwards. */
QV_EXPORT void hbt_delete(hbt_node_t **rootp, hbt_node_t *del, hbt_node_cmp_t *cmp) QV_NOEXCEPT;
/* The node equal to key (which need not be in the tree), or NULL. */
QV_EXPORT hbt_node_t *hbt_lookup(hbt_node_t *root, hbt_node_t *key,
                                 hbt_node_cmp_t *cmp) QV_NOEXCEPT;
/* The smallest node strictly greater than key, or NULL. */
QV_EXPORT hbt_node_t *hbt_getnext(hbt_node_t *root, hbt_node_t *key,
                                  hbt_node_cmp_t *cmp) QV_NOEXCEPT;
/* The smallest node greater than or equal to key, or NULL. */
QV_EXPORT hbt_node_t *hbt_getnext_or_equal(hbt_node_t *root, hbt_node_t *key,
                                           hbt_node_cmp_t *cmp) QV_NOEXCEPT;
/* The first node when current is NULL, else current's successor; NULL at
 * the end. Follows the threads: no stack, no comparisons. */
QV_EXPORT hbt_node_t *hbt_iterate_next(hbt_node_t *root, hbt_node_t *current) QV_NOEXCEPT;
/* The greatest node, or NULL for an empty tree. */
QV_EXPORT hbt_node_t *hbt_max_element(hbt_node_t *root) QV_NOEXCEPT;
/* Height of the subtree under node (a lone node is 1); a balance sign that
 * does not match the heights is fatal. */
QV_EXPORT int hbt_validate(hbt_node_t *node) QV_NOEXCEPT;

QV_END_DECLS

#endif
