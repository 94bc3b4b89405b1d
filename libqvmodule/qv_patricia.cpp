// Patricia tree.
//
// Every node plays two roles: an inner node that tests its bit (left for 0,
// right for 1) and the leaf of its own key. A link whose target tests a
// greater bit than the one just tested leads down; any other link is an
// upward link to the target in its leaf role, so every walk stops at the
// first node whose bit does not grow. Exactly one node of a non-empty tree
// has no inner role: its bit is 0 and both its links point to itself. A
// detached node has bit 0 and both links NULL.
//
// Walks look only at single key bits on the way down; whole keys are
// compared once, at the end (patricia_mismatch).

#include "qv_patricia.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "qv_assert.h"

extern "C" {
QV_EXPORT extern const uint8_t patricia_hi_bit_table[256] = {
    0x00, 0x01, 0x02, 0x02, 0x04, 0x04, 0x04, 0x04, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08,
    0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
    0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,
    0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,
    0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40,
    0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40,
    0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40,
    0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
};

QV_EXPORT extern const uint8_t patricia_bit_masks[8] = {0x7f, 0xbf, 0xdf, 0xef,
                                                        0xf7, 0xfb, 0xfd, 0xfe};
}

namespace
{

constexpr uint16_t PAT_MAX_KEY_BYTES = 256;

struct patricia_root_alloc_s {
    patricia_root_alloc_fn pat_root_alloc;
    patricia_root_free_fn pat_root_free;
};

patricia_root_alloc_s root_hooks = {patricia_root_alloc, patricia_root_free};

// The const variants share the code of the plain ones.
typedef union {
    void *cg_vp;
    const void *cg_cvp;
} const_remove_glue_t;

template <typename T> T *const_drop(const T *p)
{
    const_remove_glue_t glue;
    glue.cg_cvp = p;
    return static_cast<T *>(glue.cg_vp);
}

// The number of the first bit in which two bytes at offset differ (x is
// their exclusive-or, not 0).
inline uint16_t pat_makebit(unsigned offset, uint8_t x)
{
    return static_cast<uint16_t>((offset << 8) | static_cast<uint8_t>(~patricia_hi_bit_table[x]));
}

// Turns a prefix length in bits (1..2048) into a threshold: every bit inside
// the prefix numbers below it, every later bit at or above it.
inline uint16_t pat_plen_to_bit(uint16_t plen)
{
    uint16_t byte = static_cast<uint16_t>((plen & 0x7f8) << 5);
    if (plen & 7)
        return byte | patricia_bit_masks[plen & 7];
    return static_cast<uint16_t>(byte - 1);
}

// The first bit below bitlen (within its last byte, possibly beyond it) in
// which the keys differ, or bitlen when they agree.
uint16_t patricia_mismatch(const uint8_t *k1, const uint8_t *k2, uint16_t bitlen)
{
    unsigned last = bitlen >> 8;
    for (unsigned i = 0; i <= last; ++i) {
        if (k1[i] != k2[i])
            return pat_makebit(i, static_cast<uint8_t>(k1[i] ^ k2[i]));
    }
    return bitlen;
}

// From a link that left a node testing bit: down the left links to the
// first upward one.
patnode *patricia_find_leftmost(uint16_t bit, patnode *node)
{
    while (node->bit > bit) {
        bit = node->bit;
        node = node->left;
    }
    return node;
}

patnode *patricia_find_rightmost(uint16_t bit, patnode *node)
{
    while (node->bit > bit) {
        bit = node->bit;
        node = node->right;
    }
    return node;
}

// Walks to node along its own key and returns the last node at which the
// walk turned left (towards_right false) or right (towards_right true).
// current is where the walk ended, for the caller to check.
patnode *patricia_last_turn(patroot *root, patnode *node, bool towards_right, patnode **current)
{
    const uint8_t *key = patricia_key(root, node);
    patnode *turn = nullptr;
    patnode *cur = root->root;
    uint16_t b = 0;
    while (cur->bit > b) {
        b = cur->bit;
        bool right = b < node->length && pat_key_test(key, b);
        if (right == towards_right)
            turn = cur;
        cur = right ? cur->right : cur->left;
    }
    *current = cur;
    return turn;
}

} // namespace

extern "C" QV_EXPORT patroot *patricia_root_alloc(void) noexcept
{
    return static_cast<patroot *>(malloc(sizeof(patroot)));
}

extern "C" QV_EXPORT void patricia_root_free(patroot *root) noexcept
{
    QV_ASSERT(root);
    free(root);
}

extern "C" QV_EXPORT void patricia_set_allocator(patricia_root_alloc_fn my_alloc,
                                                 patricia_root_free_fn my_free) noexcept
{
    QV_ASSERT(my_alloc);
    QV_ASSERT(my_free);
    root_hooks.pat_root_alloc = my_alloc;
    root_hooks.pat_root_free = my_free;
}

extern "C" QV_EXPORT patroot *patricia_root_init(patroot *root, boolean is_ptr, uint16_t klen,
                                                 uint8_t off) noexcept
{
    QV_ASSERT_TEXT(klen && klen <= PAT_MAX_KEY_BYTES, "klen && klen <= 256");
    if (!root) {
        root = root_hooks.pat_root_alloc();
        if (!root)
            return nullptr;
    }
    root->root = nullptr;
    root->key_bytes = klen;
    root->key_offset = off;
    root->key_is_ptr = is_ptr ? 1 : 0;
    return root;
}

extern "C" QV_EXPORT void patricia_root_delete(patroot *root) noexcept
{
    if (!root)
        return;
    QV_ASSERT_TEXT(root->root == nullptr, "root->root == ((void *)0)");
    root_hooks.pat_root_free(root);
}

extern "C" QV_EXPORT void patricia_node_init_length(patnode *node, uint16_t key_bytes) noexcept
{
    if (key_bytes) {
        QV_ASSERT_TEXT(key_bytes <= PAT_MAX_KEY_BYTES, "key_bytes <= 256");
        node->length = patricia_length_to_bit(key_bytes);
    } else {
        node->length = 0;
    }
    node->bit = 0;
    node->left = node->right = nullptr;
}

extern "C" QV_EXPORT boolean patricia_node_in_tree(const patnode *node) noexcept
{
    return node->bit != 0 || node->left != nullptr || node->right != nullptr;
}

extern "C" QV_EXPORT boolean patricia_add(patroot *root, patnode *node) noexcept
{
    QV_ASSERT_TEXT(
        node->bit == 0 && node->right == nullptr && node->left == nullptr,
        "(node->bit == (0)) && (node->right == ((void *)0)) && (node->left == ((void *)0))");
    if (!node->length)
        node->length = patricia_length_to_bit(root->key_bytes);
    if (!root->root) {
        node->left = node->right = node;
        root->root = node;
        return TRUE;
    }

    const uint8_t *key = patricia_key(root, node);
    patnode *current = patricia_search(root->root, node->length, key);
    uint16_t bitlen = std::min(node->length, current->length);
    uint16_t diff = patricia_mismatch(key, patricia_key(root, current), bitlen);
    if (diff >= bitlen)
        return FALSE;

    // Insert above the first node on the key's path that tests a bit at or
    // beyond the first difference (or above the upward link that ends it).
    patnode **slot = &root->root;
    patnode *x = root->root;
    uint16_t b = 0;
    while (x->bit > b && x->bit < diff) {
        b = x->bit;
        slot = pat_key_test(key, b) ? &x->right : &x->left;
        x = *slot;
    }
    node->bit = diff;
    if (pat_key_test(key, diff)) {
        node->left = x;
        node->right = node;
    } else {
        node->right = x;
        node->left = node;
    }
    *slot = node;
    return TRUE;
}

extern "C" QV_EXPORT boolean patricia_delete(patroot *root, patnode *node) noexcept
{
    QV_ASSERT(node->left && node->right);
    if (!root->root)
        return FALSE;

    // down: the link last followed; up: the link that led to the last inner
    // node visited; inner: the link that led to node in its inner role.
    const uint8_t *key = patricia_key(root, node);
    patnode **down = &root->root;
    patnode **up = nullptr;
    patnode **inner = nullptr;
    patnode *cur = root->root;
    uint16_t b = 0;
    while (cur->bit > b) {
        b = cur->bit;
        if (cur == node)
            inner = down;
        up = down;
        if (node->length > b && pat_key_test(key, b))
            down = &cur->right;
        else
            down = &cur->left;
        cur = *down;
    }
    if (cur != node)
        return FALSE;

    if (!up) {
        QV_ASSERT_TEXT(node->bit == 0, "node->bit == (0)");
        root->root = nullptr;
    } else {
        // p, whose upward link reached node, leaves its inner place to its
        // other branch and takes over node's inner role instead.
        patnode *p = *up;
        *up = (down == &p->left) ? p->right : p->left;
        if (!inner) {
            QV_ASSERT_TEXT(node->bit == 0, "node->bit == (0)");
            p->left = p->right = p;
            p->bit = 0;
        } else if (p != node) {
            p->left = node->left;
            p->right = node->right;
            p->bit = node->bit;
            *inner = p;
        }
    }
    node->left = node->right = nullptr;
    node->bit = 0;
    return TRUE;
}

extern "C" QV_EXPORT patnode *patricia_get(patroot *root, uint16_t key_bytes,
                                           const void *key) noexcept
{
    return patricia_get_inline(root, key_bytes, key);
}

extern "C" QV_EXPORT patnode *patricia_find_next(patroot *root, patnode *node) noexcept
{
    if (!root->root) {
        QV_ASSERT_TEXT(node == nullptr, "node == ((void *)0)");
        return nullptr;
    }
    if (!node)
        return patricia_find_leftmost(0, root->root);
    patnode *current;
    patnode *lastleft = patricia_last_turn(root, node, false, &current);
    QV_ASSERT(current == node);
    return lastleft ? patricia_find_leftmost(lastleft->bit, lastleft->right) : nullptr;
}

extern "C" QV_EXPORT patnode *patricia_find_prev(patroot *root, patnode *node) noexcept
{
    if (!root->root) {
        QV_ASSERT_TEXT(node == nullptr, "node == ((void *)0)");
        return nullptr;
    }
    if (!node)
        return patricia_find_rightmost(0, root->root);
    patnode *current;
    patnode *lastright = patricia_last_turn(root, node, true, &current);
    QV_ASSERT(current == node);
    return lastright ? patricia_find_rightmost(lastright->bit, lastright->left) : nullptr;
}

extern "C" QV_EXPORT patnode *patricia_getnext(patroot *root, uint16_t klen, const void *v_key,
                                               boolean eq) noexcept
{
    QV_ASSERT(klen);
    if (!root->root)
        return nullptr;
    const uint8_t *key = static_cast<const uint8_t *>(v_key);
    uint16_t keylen = patricia_length_to_bit(klen);
    patnode *top = root->root;
    patnode *lastright = nullptr;
    patnode *lastleft = nullptr;
    patnode *n = top;
    uint16_t b = 0;
    while (n->bit > b) {
        b = n->bit;
        if (b < keylen && pat_key_test(key, b)) {
            lastright = n;
            n = n->right;
        } else {
            lastleft = n;
            n = n->left;
        }
    }

    uint16_t bitlen = std::min(n->length, keylen);
    uint16_t diff = patricia_mismatch(key, patricia_key(root, n), bitlen);
    if (diff >= bitlen) {
        // One key begins the other.
        if (n->length > keylen || (eq && n->length == keylen))
            return n;
    } else if (!pat_key_test(key, diff)) {
        // The key sorts before every key of the subtree where it parts from
        // n: the answer is that subtree's first node.
        if (!lastright || lastright->bit < diff)
            return n;
        return patricia_search(top, diff, key);
    } else if (lastleft && lastleft->bit > diff) {
        // The key sorts after that whole subtree: the answer hangs right of
        // the last left turn above the parting bit.
        lastleft = nullptr;
        n = top;
        b = 0;
        while (n->bit > b && n->bit < diff) {
            b = n->bit;
            if (pat_key_test(key, b)) {
                n = n->right;
            } else {
                lastleft = n;
                n = n->left;
            }
        }
    }
    return lastleft ? patricia_find_leftmost(lastleft->bit, lastleft->right) : nullptr;
}

extern "C" QV_EXPORT patnode *patricia_subtree_match(patroot *root, uint16_t plen,
                                                     const void *v_prefix) noexcept
{
    QV_ASSERT_TEXT(plen && plen <= 256 * 8, "plen && plen <= (256 * 8)");
    if (!root->root)
        return nullptr;
    const uint8_t *prefix = static_cast<const uint8_t *>(v_prefix);
    uint16_t p_bit = pat_plen_to_bit(plen);
    patnode *n = patricia_search(root->root, p_bit, prefix);
    if (n->length < p_bit || patricia_mismatch(prefix, patricia_key(root, n), p_bit) < p_bit)
        return nullptr;
    return n;
}

extern "C" QV_EXPORT patnode *patricia_subtree_next(patroot *root, patnode *node,
                                                    uint16_t plen) noexcept
{
    patnode *current = root->root;
    QV_ASSERT(plen && current);
    uint16_t p_bit = pat_plen_to_bit(plen);
    QV_ASSERT(node->length >= p_bit);
    patnode *lastleft = patricia_last_turn(root, node, false, &current);
    QV_ASSERT(current == node);
    // A left turn above the prefix's end would lead out of the prefix.
    if (!lastleft || lastleft->bit < p_bit)
        return nullptr;
    return patricia_find_leftmost(lastleft->bit, lastleft->right);
}

extern "C" QV_EXPORT int patricia_compare_nodes(patroot *root, patnode *node1,
                                                patnode *node2) noexcept
{
    uint16_t bitlen = std::min(node1->length, node2->length);
    const uint8_t *k1 = patricia_key(root, node1);
    uint16_t diff = patricia_mismatch(k1, patricia_key(root, node2), bitlen);
    if (diff >= bitlen)
        return 0;
    return pat_key_test(k1, diff) ? 1 : -1;
}

extern "C" QV_EXPORT const patnode *patricia_cons_get(const patroot *root, const uint16_t key_bytes,
                                                      const void *key) noexcept
{
    return patricia_get(const_drop(root), key_bytes, key);
}

extern "C" QV_EXPORT const patnode *patricia_cons_find_next(const patroot *root,
                                                            const patnode *node) noexcept
{
    return patricia_find_next(const_drop(root), const_drop(node));
}

extern "C" QV_EXPORT const patnode *patricia_cons_find_prev(const patroot *root,
                                                            const patnode *node) noexcept
{
    return patricia_find_prev(const_drop(root), const_drop(node));
}

extern "C" QV_EXPORT const patnode *patricia_cons_subtree_match(const patroot *root,
                                                                const uint16_t prefix_len,
                                                                const void *prefix) noexcept
{
    return patricia_subtree_match(const_drop(root), prefix_len, prefix);
}

extern "C" QV_EXPORT const patnode *patricia_cons_subtree_next(const patroot *root,
                                                               const patnode *node,
                                                               const uint16_t prefix_len) noexcept
{
    return patricia_subtree_next(const_drop(root), const_drop(node), prefix_len);
}
