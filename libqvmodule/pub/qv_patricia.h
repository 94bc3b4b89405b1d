/* Patricia tree of records keyed by byte strings of 1 to 256 bytes.
 *
 * The node is part of the caller's record and the tree never allocates
 * nodes. The key lies either in the record right after the node (at
 * key_offset bytes into the node's key area) or behind the pointer that the
 * node's key_ptr[0] holds (again plus key_offset). Keys sort as unsigned byte
 * strings; a tree never holds two keys of which one begins the other.
 *
 * Bit numbers: the high byte indexes a key byte, the low byte is the
 * complement of the bit's mask in it (0x80 gives 0x7f ... 0x01 gives 0xfe),
 * so numbers grow in reading order; low byte 0xff marks the end of a byte.
 * Key lengths are held as the end marker of the key's last byte. */
#ifndef QV_PATRICIA_H
#define QV_PATRICIA_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

/* clang++ warns that the key union has size 0 in C only; both languages
 * give it size 0 as the GNU extension, so the node's layout is the same. */
#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wextern-c-compat"
#endif
typedef struct patnode_ {
    uint16_t length; /* key length as a bit number; 0: take the tree's */
    uint16_t bit;    /* bit tested as an inner node; 0 for the one that tests none */
    struct patnode_ *left;
    struct patnode_ *right;
    /* Open-ended: the key area runs on past the node. */
    __extension__ union {
        uint8_t key[0];
        uint8_t *key_ptr[0];
    } patnode_keys;
} patnode;
#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic pop
#endif

typedef struct patroot_ {
    patnode *root;
    uint16_t key_bytes;
    uint8_t key_offset;
    uint8_t key_is_ptr;
} patroot;

typedef patroot *(*patricia_root_alloc_fn)(void);
typedef void (*patricia_root_free_fn)(patroot *root);

/* Entry x: the highest set bit of x as a mask (0 for 0). */
QV_EXPORT extern const uint8_t patricia_hi_bit_table[256];
/* Entry i: the complement of (0x80 >> i). */
QV_EXPORT extern const uint8_t patricia_bit_masks[8];

/* Root hooks shared by every tree of the process; both must be set. */
QV_EXPORT void patricia_set_allocator(patricia_root_alloc_fn my_alloc,
                                      patricia_root_free_fn my_free) QV_NOEXCEPT;
/* The default hooks: malloc and free of one root. */
QV_EXPORT patroot *patricia_root_alloc(void) QV_NOEXCEPT;
QV_EXPORT void patricia_root_free(patroot *root) QV_NOEXCEPT;

/* Sets up root (taken from the allocation hook when NULL; NULL is returned
 * if the hook gives none) for keys of klen bytes (1..256) at offset off. */
QV_EXPORT patroot *patricia_root_init(patroot *root, boolean is_ptr, uint16_t klen,
                                      uint8_t off) QV_NOEXCEPT;
/* Returns an empty root that patricia_root_init allocated; NULL is ignored. */
QV_EXPORT void patricia_root_delete(patroot *root) QV_NOEXCEPT;
/* Detaches node and sets its key length (0: the tree's length at insertion). */
QV_EXPORT void patricia_node_init_length(patnode *node, uint16_t key_bytes) QV_NOEXCEPT;
QV_EXPORT boolean patricia_node_in_tree(const patnode *node) QV_NOEXCEPT;

/* False when the tree holds a key equal to node's over the shorter length. */
QV_EXPORT boolean patricia_add(patroot *root, patnode *node) QV_NOEXCEPT;
/* False when the tree is empty or node is not where its key leads. */
QV_EXPORT boolean patricia_delete(patroot *root, patnode *node) QV_NOEXCEPT;
/* The node whose key is exactly these key_bytes bytes (not 0), or NULL. */
QV_EXPORT patnode *patricia_get(patroot *root, uint16_t key_bytes, const void *key) QV_NOEXCEPT;
/* The node with the smallest key greater than (or, with eq, equal to) the
 * klen-byte key, or NULL. */
QV_EXPORT patnode *patricia_getnext(patroot *root, uint16_t klen, const void *v_key,
                                    boolean eq) QV_NOEXCEPT;
/* In key order: the first node for NULL, else the one after node. */
QV_EXPORT patnode *patricia_find_next(patroot *root, patnode *node) QV_NOEXCEPT;
/* Backwards: the last node for NULL, else the one before node. */
QV_EXPORT patnode *patricia_find_prev(patroot *root, patnode *node) QV_NOEXCEPT;
/* The first node whose key has at least plen bits (1..2048) and begins with
 * the prefix's first plen bits; the buffer holds every byte they touch. */
QV_EXPORT patnode *patricia_subtree_match(patroot *root, uint16_t plen,
                                          const void *v_prefix) QV_NOEXCEPT;
/* The next node after node under the same prefix, or NULL. */
QV_EXPORT patnode *patricia_subtree_next(patroot *root, patnode *node, uint16_t plen) QV_NOEXCEPT;
/* 0 when the keys agree over the shorter length, else 1 or -1 as node1's
 * key is greater or smaller at the first differing bit. */
QV_EXPORT int patricia_compare_nodes(patroot *root, patnode *node1, patnode *node2) QV_NOEXCEPT;

QV_EXPORT const patnode *patricia_cons_get(const patroot *root, const uint16_t key_bytes,
                                           const void *key) QV_NOEXCEPT;
QV_EXPORT const patnode *patricia_cons_find_next(const patroot *root,
                                                 const patnode *node) QV_NOEXCEPT;
QV_EXPORT const patnode *patricia_cons_find_prev(const patroot *root,
                                                 const patnode *node) QV_NOEXCEPT;
QV_EXPORT const patnode *patricia_cons_subtree_match(const patroot *root, const uint16_t prefix_len,
                                                     const void *prefix) QV_NOEXCEPT;
QV_EXPORT const patnode *patricia_cons_subtree_next(const patroot *root, const patnode *node,
                                                    const uint16_t prefix_len) QV_NOEXCEPT;

/* Inline helpers, so that an exact lookup can be compiled into the caller. */

static inline uint8_t *patricia_key(const patroot *root, const patnode *node)
{
    if (root->key_is_ptr)
        return node->patnode_keys.key_ptr[0] + root->key_offset;
    return (uint8_t *)node->patnode_keys.key + root->key_offset;
}

static inline uint16_t patricia_length_to_bit(uint16_t n)
{
    return n ? (uint16_t)(((n - 1u) << 8) | 0xffu) : 0;
}

/* Non-zero when bit number bit of key is 1. */
static inline int pat_key_test(const uint8_t *key, uint16_t bit)
{
    return key[bit >> 8] & (uint8_t)~bit;
}

/* Follows key (bits at or past keylen read as 0) to the node whose leaf
 * role ends the walk. */
static inline patnode *patricia_search(patnode *node, uint16_t keylen, const uint8_t *key)
{
    uint16_t b = 0;
    while (node->bit > b) {
        b = node->bit;
        node = (b < keylen && pat_key_test(key, b)) ? node->right : node->left;
    }
    return node;
}

static inline patnode *patricia_get_inline(patroot *root, uint16_t key_bytes, const void *key)
{
    uint16_t keylen;
    patnode *node;
    if (!key_bytes)
        abort();
    if (!root->root)
        return NULL;
    keylen = patricia_length_to_bit(key_bytes);
    node = patricia_search(root->root, keylen, (const uint8_t *)key);
    if (node->length == keylen && memcmp(patricia_key(root, node), key, key_bytes) == 0)
        return node;
    return NULL;
}

QV_END_DECLS

#endif
