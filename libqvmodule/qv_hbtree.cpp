// Height-balanced threaded binary tree.
//
// Invariants after every insertion and deletion:
//  - the in-order sequence is sorted by the comparison function;
//  - each node's sign (bits 1..0 of hbt_data[0]) matches the heights of its
//    subtrees, which differ by at most one: 0x00 even, 0x01 right higher,
//    0x03 left higher;
//  - a node without a right child has, in hbt_data[1] with bit 0 set, a
//    thread to its in-order successor; the last node's hbt_data[1] is zero.
//
// Directions share the sign codes (0x03 left, 0x01 right) so that signs and
// directions add and subtract modulo 4: a heavy node's sign is the direction
// of its higher side, and a side that grows or shrinks moves the sign by its
// direction.
//
// Insertion and deletion run once down from the root. On the way they rotate
// in advance wherever the change below could unbalance a node, and record the
// path on a fixed stack; afterwards the signs are corrected upwards only until
// a subtree's height stops changing. A NULL entry on the stack (the sentinel,
// or a subtree already balanced by a rotation) stops that correction.

#include "qv_hbtree.h"

#include "qv_assert.h"

namespace
{

using word = unsigned long;

constexpr unsigned HBT_BAL = 0x00;
constexpr unsigned HBT_RIGHT = 0x01;
constexpr unsigned HBT_LEFT = 0x03;
constexpr word HBT_SIGN_MASK = 0x03;
constexpr word HBT_THREAD = 0x01;

// 32 path entries above the sentinel: a tree needs 9,227,464 nodes to grow
// to 33 levels.
constexpr int HBT_STACK_SIZE = 33;

static_assert(sizeof(hbt_node_t) == 2 * sizeof(void *), "a node is two machine words");
static_assert(sizeof(word) == sizeof(void *), "a node word holds an address");

// Path stack: grows from the last slot towards the first. Popping leaves
// the slots as they were, so the first entry pushed above the sentinel can
// be read back as the new root.
struct hbt_stack {
    hbt_node_t *slot[HBT_STACK_SIZE];
    int top = HBT_STACK_SIZE;
};

inline void hbt_push(hbt_stack *stack, hbt_node_t *node)
{
    // Only a tree far beyond the supported size (or a corrupted one) gets
    // here; writing below the array would be worse than stopping.
    QV_ASSERT(stack->top > 0);
    stack->slot[--stack->top] = node;
}

inline hbt_node_t *hbt_pop(hbt_stack *stack)
{
    return stack->slot[stack->top++];
}

inline hbt_node_t *hbt_stack_top(const hbt_stack *stack)
{
    return stack->slot[stack->top];
}

inline hbt_node_t *to_node(word w)
{
    return reinterpret_cast<hbt_node_t *>(w);
}

inline word to_word(const hbt_node_t *node)
{
    return reinterpret_cast<word>(node);
}

inline unsigned hbt_sign(const hbt_node_t *node)
{
    return static_cast<unsigned>(node->hbt_data[0] & HBT_SIGN_MASK);
}

inline void hbt_set_sign(hbt_node_t *node, unsigned sign)
{
    node->hbt_data[0] = (node->hbt_data[0] & ~HBT_SIGN_MASK) | sign;
}

inline unsigned hbt_sign_inv(unsigned sign)
{
    return (0u - sign) & 0x03;
}

inline unsigned hbt_sign_add(unsigned a, unsigned b)
{
    return (a + b) & 0x03;
}

inline unsigned hbt_sign_sub(unsigned a, unsigned b)
{
    return (a - b) & 0x03;
}

// Whether a comparison result points the way of dir: left for negative,
// right for zero or positive.
inline bool hbt_sign_cmp(unsigned sign, int cmp)
{
    return ((sign << 30) & 0x80000000u) == (static_cast<unsigned>(cmp) & 0x80000000u);
}

inline hbt_node_t *hbt_left(const hbt_node_t *node)
{
    return to_node(node->hbt_data[0] & ~HBT_SIGN_MASK);
}

inline hbt_node_t *hbt_right(const hbt_node_t *node)
{
    word w = node->hbt_data[1];
    return (w & HBT_THREAD) ? nullptr : to_node(w);
}

hbt_node_t *hbt_descendent(const hbt_node_t *node, unsigned dir)
{
    if (dir == HBT_LEFT)
        return hbt_left(node);
    QV_ASSERT_TEXT(dir == HBT_RIGHT, "0");
    return hbt_right(node);
}

void hbt_set_descendent(hbt_node_t *node, hbt_node_t *desc, unsigned dir)
{
    if (dir == HBT_LEFT) {
        node->hbt_data[0] = to_word(desc) | (node->hbt_data[0] & HBT_SIGN_MASK);
        return;
    }
    QV_ASSERT_TEXT(dir == HBT_RIGHT, "0");
    node->hbt_data[1] = to_word(desc);
}

inline hbt_node_t *hbt_successor(const hbt_node_t *node)
{
    return to_node(node->hbt_data[1] & ~HBT_THREAD);
}

inline void hbt_set_successor(hbt_node_t *node, hbt_node_t *next)
{
    node->hbt_data[1] = next ? (to_word(next) | HBT_THREAD) : 0;
}

// The right child or the successor; climb tells which of the two it is.
inline hbt_node_t *hbt_node_next(const hbt_node_t *node, bool *climb)
{
    word w = node->hbt_data[1];
    *climb = (w & HBT_THREAD) != 0;
    return to_node(w & ~HBT_THREAD);
}

inline void hbt_node_reset(hbt_node_t *node)
{
    node->hbt_data[0] = node->hbt_data[1] = 0;
}

inline void hbt_node_copy(hbt_node_t *dst, const hbt_node_t *src)
{
    dst->hbt_data[0] = src->hbt_data[0];
    dst->hbt_data[1] = src->hbt_data[1];
}

unsigned hbt_desc_dir(const hbt_node_t *node, const hbt_node_t *desc)
{
    if (hbt_left(node) == desc)
        return HBT_LEFT;
    QV_ASSERT_TEXT(hbt_right(node) == desc, "hbt_descendent(node, 0x01) == desc");
    return HBT_RIGHT;
}

inline void hbt_node_insert(hbt_node_t *node, hbt_node_t *newn, unsigned dir)
{
    hbt_set_descendent(node, newn, dir);
}

// Unlinks a childless node. A right child leaves its thread to the parent,
// whose successor it was.
void hbt_node_delete(hbt_node_t *parent, hbt_node_t *node, unsigned dir)
{
    if (dir == HBT_LEFT)
        hbt_set_descendent(parent, nullptr, HBT_LEFT);
    else
        hbt_set_successor(parent, hbt_successor(node));
}

inline bool hbt_node_leaf(const hbt_node_t *node)
{
    return !hbt_left(node) && !hbt_right(node);
}

inline hbt_node_t *hbt_find_leftmost(hbt_node_t *node)
{
    for (hbt_node_t *l; (l = hbt_left(node)) != nullptr;)
        node = l;
    return node;
}

inline void hbt_relink_parent(hbt_node_t *parent, hbt_node_t *old, hbt_node_t *node)
{
    if (parent)
        hbt_set_descendent(parent, node, hbt_desc_dir(parent, old));
}

// Turns node down towards dir and lifts its child on the other side.
void hbt_rotate_single(hbt_node_t *node, hbt_node_t *parent, unsigned dir)
{
    unsigned invdir = hbt_sign_inv(dir);
    hbt_node_t *desc = hbt_descendent(node, invdir);

    hbt_set_descendent(node, hbt_descendent(desc, dir), invdir);
    hbt_set_descendent(desc, node, dir);
    hbt_set_sign(node, hbt_sign_inv(hbt_sign(desc)));
    hbt_set_sign(desc, dir);
    if (dir == HBT_LEFT && !hbt_right(node))
        hbt_set_successor(node, desc);
    hbt_relink_parent(parent, node, desc);
}

// Lifts the inner grandchild above node and node's child on the other side.
// The signs are set for the situations the callers rotate in, where node's
// dir side and the grandchild's subtrees are at most one level apart.
void hbt_rotate_double(hbt_node_t *node, hbt_node_t *parent, unsigned dir)
{
    unsigned invdir = hbt_sign_inv(dir);
    hbt_node_t *desc = hbt_descendent(node, invdir);
    hbt_node_t *gchild = hbt_descendent(desc, dir);
    hbt_node_t *gdir = hbt_descendent(gchild, dir);
    hbt_node_t *ginv = hbt_descendent(gchild, invdir);

    hbt_set_descendent(node, gdir, invdir);
    hbt_set_descendent(desc, ginv, dir);
    hbt_set_descendent(gchild, node, dir);
    hbt_set_descendent(gchild, desc, invdir);
    if (dir == HBT_LEFT && !hbt_right(node))
        hbt_set_successor(node, gchild);
    if (dir == HBT_RIGHT && !hbt_right(desc))
        hbt_set_successor(desc, gchild);

    hbt_set_sign(node, hbt_descendent(node, dir) ? dir : HBT_BAL);
    unsigned g = hbt_sign(gchild);
    unsigned dsign = hbt_sign(desc);
    hbt_set_sign(gchild, dsign);
    hbt_set_sign(desc, (dsign == g && hbt_descendent(desc, invdir)) ? invdir : HBT_BAL);
    hbt_relink_parent(parent, node, gchild);
}

// node has just become a child of the stack top, and its subtree grew.
void hbt_signal_increase(hbt_stack *stack, hbt_node_t *node)
{
    for (;;) {
        hbt_node_t *parent = hbt_pop(stack);
        if (!parent)
            return;
        unsigned dir = hbt_desc_dir(parent, node);
        unsigned sign = hbt_sign(parent);
        QV_ASSERT(sign != dir);
        sign = hbt_sign_add(sign, dir);
        hbt_set_sign(parent, sign);
        if (sign == HBT_BAL)
            return;
        node = parent;
    }
}

// The dir side of the stack top has lost a level.
void hbt_signal_decrease(hbt_stack *stack, unsigned dir)
{
    hbt_node_t *node = hbt_pop(stack);
    unsigned sign = hbt_sign(node);
    QV_ASSERT(sign != hbt_sign_inv(dir));
    sign = hbt_sign_sub(sign, dir);
    hbt_set_sign(node, sign);
    while (sign == HBT_BAL) {
        hbt_node_t *parent = hbt_pop(stack);
        if (!parent)
            return;
        dir = hbt_desc_dir(parent, node);
        unsigned invdir = hbt_sign_inv(dir);
        sign = hbt_sign(parent);
        QV_ASSERT(sign != invdir);
        sign = hbt_sign_sub(sign, dir);
        hbt_set_sign(parent, sign);
        node = parent;
    }
}

// node leans towards dir and desc, its child there, is balanced: rotate now
// so that growth below cannot unbalance node. Returns where the descent goes
// on, newn when it was linked here, or NULL for an equal key.
hbt_node_t *hbt_insert_balance(hbt_node_t *node, hbt_node_t *desc, hbt_node_t *newn,
                               hbt_node_t **successorp, hbt_stack *stack, hbt_node_cmp_t *cmp,
                               unsigned dir)
{
    unsigned invdir = hbt_sign_inv(dir);
    int res = cmp(newn, desc);
    if (res == 0)
        return nullptr;
    hbt_node_t *parent = hbt_stack_top(stack);

    if (hbt_sign_cmp(dir, res)) {
        // Outer case: desc rises above node.
        hbt_rotate_single(node, parent, invdir);
        hbt_push(stack, desc);
        if (dir == HBT_LEFT)
            *successorp = desc;
        if (hbt_node_t *next = hbt_descendent(desc, dir))
            return next;
        hbt_node_insert(desc, newn, dir);
        return newn;
    }

    hbt_node_t *gchild = hbt_descendent(desc, invdir);
    if (!gchild) {
        // newn takes the grandchild's place in the rotation.
        hbt_node_insert(desc, newn, invdir);
    } else if (hbt_sign(gchild) != HBT_BAL) {
        hbt_push(stack, node);
        hbt_push(stack, desc);
        if (res < 0)
            *successorp = desc;
        return gchild;
    }
    // The rotated subtree is balanced already: this entry (NULL when newn
    // rose) ends the sign correction there.
    hbt_push(stack, gchild);
    hbt_rotate_double(node, parent, invdir);
    if (!gchild)
        return newn;

    res = cmp(newn, gchild);
    if (res == 0)
        return nullptr;
    hbt_node_t *p = node;
    unsigned side = dir;
    if (hbt_sign_cmp(dir, res)) {
        p = desc;
        side = invdir;
    }
    if (res < 0)
        *successorp = gchild;
    else
        *successorp = (dir == HBT_LEFT) ? node : desc;
    hbt_push(stack, p);
    if (hbt_node_t *next = hbt_descendent(p, side))
        return next;
    hbt_node_insert(p, newn, side);
    return newn;
}

// Reshapes the subtree of node (root's child) so that its dir side is no
// longer the inner heavy side, by rotating bottom-up along the zig-zag.
void hbt_rebalance_subtree(hbt_node_t *node, hbt_node_t *root, unsigned dir)
{
    hbt_stack stack;
    hbt_push(&stack, root);
    hbt_node_t *desc = hbt_descendent(node, dir);
    unsigned invdir = hbt_sign_inv(dir);
    hbt_node_t *g = hbt_descendent(desc, invdir);
    while (hbt_sign(g) == dir) {
        hbt_push(&stack, node);
        node = desc;
        desc = g;
        dir = invdir;
        invdir = hbt_sign_inv(dir);
        g = hbt_descendent(desc, invdir);
    }
    do {
        invdir = hbt_sign_inv(dir);
        desc = hbt_descendent(node, dir);
        hbt_node_t *parent = hbt_pop(&stack);
        if (hbt_sign(desc) == invdir)
            hbt_rotate_double(node, parent, invdir);
        else
            hbt_rotate_single(node, parent, invdir);
        node = parent;
        dir = invdir;
    } while (node != root);
}

// node leans away from dir, whose side may lose a level below: rotate now.
void hbt_delete_balance(hbt_node_t *node, hbt_stack *stack, unsigned dir)
{
    hbt_node_t *parent = hbt_stack_top(stack);
    unsigned invdir = hbt_sign_inv(dir);
    for (;;) {
        hbt_node_t *sibling = hbt_descendent(node, invdir);
        if (hbt_sign(sibling) != dir) {
            hbt_rotate_single(node, parent, dir);
            hbt_push(stack, sibling);
            hbt_push(stack, node);
            return;
        }
        hbt_node_t *gchild = hbt_descendent(sibling, dir);
        QV_ASSERT(gchild);
        if (hbt_sign(gchild) != invdir) {
            hbt_rotate_double(node, parent, dir);
            hbt_push(stack, gchild);
            hbt_push(stack, node);
            return;
        }
        hbt_rebalance_subtree(sibling, node, dir);
    }
}

// del's predecessor threads to del; the replacement node now follows it.
void hbt_predecessor_update(hbt_node_t *del, hbt_node_t *node)
{
    hbt_node_t *pred = hbt_left(del);
    if (!pred)
        return;
    for (hbt_node_t *r; (r = hbt_right(pred)) != nullptr;)
        pred = r;
    hbt_set_successor(pred, node);
}

// Takes node out of its place under ancestor (on side dir) and puts it where
// del was, under parent.
void hbt_node_replace(hbt_node_t *parent, hbt_node_t *del, hbt_node_t *ancestor, hbt_node_t *node,
                      unsigned dir)
{
    hbt_relink_parent(parent, del, node);
    if (ancestor == node)
        ancestor = del;
    unsigned sign = hbt_sign(node);
    if (sign != HBT_BAL) {
        // A heavy node at the end of the walk has a single leaf child.
        hbt_node_t *child = hbt_descendent(node, sign);
        hbt_set_descendent(ancestor, child, dir);
        if (dir == HBT_LEFT)
            hbt_set_successor(child, ancestor == del ? node : ancestor);
    } else {
        // node is about to take del's place, so a thread to del becomes a
        // thread to node, and node_delete hands that on to ancestor.
        if (hbt_successor(node) == del)
            hbt_set_successor(node, node);
        hbt_node_delete(ancestor, node, dir);
    }
    hbt_node_copy(node, del);
}

hbt_node_t *hbt_getnext_internal(hbt_node_t *root, hbt_node_t *key, hbt_node_cmp_t *cmp,
                                 bool equal_ok)
{
    hbt_node_t *node = root;
    hbt_node_t *ancestor = nullptr;
    while (node) {
        int res = cmp(key, node);
        if (res == 0) {
            if (equal_ok)
                return node;
            hbt_node_t *right = hbt_right(node);
            return right ? hbt_find_leftmost(right) : ancestor;
        }
        if (res < 0) {
            ancestor = node;
            node = hbt_left(node);
        } else {
            node = hbt_right(node);
        }
    }
    return ancestor;
}

} // namespace

extern "C" QV_EXPORT boolean hbt_insert(hbt_node_t **rootp, hbt_node_t *newn,
                                        hbt_node_cmp_t *cmp) noexcept
{
    hbt_stack stack;
    boolean success = TRUE;
    // The last node at which the descent turned left: newn's successor.
    hbt_node_t *successor = nullptr;

    if (!*rootp) {
        *rootp = newn;
        return TRUE;
    }
    hbt_push(&stack, nullptr);
    const int bottom = stack.top;
    // The first entry pushed above the sentinel ends up as the root; a NULL
    // left there means newn itself rose to the top.
    stack.slot[bottom - 1] = nullptr;
    hbt_node_t *node = *rootp;

    for (;;) {
        int res = cmp(newn, node);
        if (res == 0) {
        duplicate:
            success = FALSE;
            if (stack.top == bottom)
                return FALSE;
            break;
        }
        unsigned dir = res < 0 ? HBT_LEFT : HBT_RIGHT;
        if (dir == HBT_LEFT)
            successor = node;
        hbt_node_t *desc = hbt_descendent(node, dir);
        if (!desc) {
            hbt_node_insert(node, newn, dir);
            hbt_push(&stack, node);
            hbt_signal_increase(&stack, newn);
            break;
        }
        if (hbt_sign(node) == dir && hbt_sign(desc) == HBT_BAL) {
            node = hbt_insert_balance(node, desc, newn, &successor, &stack, cmp, dir);
            if (!node)
                goto duplicate;
            if (node == newn) {
                hbt_signal_increase(&stack, newn);
                break;
            }
            continue;
        }
        hbt_push(&stack, node);
        node = desc;
    }

    hbt_node_t *root = stack.slot[bottom - 1];
    *rootp = root ? root : newn;
    if (!hbt_right(newn))
        hbt_set_successor(newn, successor);
    return success;
}

extern "C" QV_EXPORT void hbt_delete(hbt_node_t **rootp, hbt_node_t *del,
                                     hbt_node_cmp_t *cmp) noexcept
{
    hbt_stack stack;
    hbt_push(&stack, nullptr);
    const int bottom = stack.top;
    hbt_node_t *node = *rootp;

    while (node != del) {
        int res = cmp(del, node);
        QV_ASSERT(res);
        unsigned dir = res < 0 ? HBT_LEFT : HBT_RIGHT;
        hbt_node_t *desc = hbt_descendent(node, dir);
        QV_ASSERT(desc);
        if (hbt_sign(node) != hbt_sign_inv(dir)) {
            hbt_push(&stack, node);
        } else if (hbt_sign(desc) != HBT_BAL || (desc == del && hbt_node_leaf(desc))) {
            hbt_delete_balance(node, &stack, dir);
        } else {
            hbt_push(&stack, node);
        }
        node = desc;
    }

    hbt_node_t *parent = hbt_stack_top(&stack);
    if (hbt_node_leaf(del)) {
        if (!parent) {
            *rootp = nullptr;
            hbt_node_reset(del);
            return;
        }
        unsigned dir = hbt_desc_dir(parent, del);
        hbt_node_delete(parent, del, dir);
        hbt_signal_decrease(&stack, dir);
    } else {
        // Replace del by its neighbour on its higher side.
        unsigned dir = hbt_sign(del) != HBT_BAL ? hbt_sign(del) : HBT_LEFT;
        unsigned invdir = hbt_sign_inv(dir);
        node = hbt_descendent(del, dir);
        hbt_push(&stack, del);
        const int del_slot = stack.top;
        for (hbt_node_t *desc; (desc = hbt_descendent(node, invdir)) != nullptr; node = desc) {
            if (hbt_sign(node) == dir)
                hbt_delete_balance(node, &stack, invdir);
            else
                hbt_push(&stack, node);
        }
        if (dir == HBT_RIGHT)
            hbt_predecessor_update(del, node);
        stack.slot[del_slot] = node;
        if (hbt_stack_top(&stack) == node)
            invdir = dir;
        hbt_node_replace(parent, del, hbt_stack_top(&stack), node, invdir);
        hbt_signal_decrease(&stack, invdir);
    }
    *rootp = stack.slot[bottom - 1];
    hbt_node_reset(del);
}

extern "C" QV_EXPORT hbt_node_t *hbt_lookup(hbt_node_t *root, hbt_node_t *key,
                                            hbt_node_cmp_t *cmp) noexcept
{
    hbt_node_t *node = root;
    while (node) {
        int res = cmp(key, node);
        if (res == 0)
            return node;
        node = res < 0 ? hbt_left(node) : hbt_right(node);
    }
    return nullptr;
}

extern "C" QV_EXPORT hbt_node_t *hbt_getnext(hbt_node_t *root, hbt_node_t *key,
                                             hbt_node_cmp_t *cmp) noexcept
{
    return hbt_getnext_internal(root, key, cmp, false);
}

extern "C" QV_EXPORT hbt_node_t *hbt_getnext_or_equal(hbt_node_t *root, hbt_node_t *key,
                                                      hbt_node_cmp_t *cmp) noexcept
{
    return hbt_getnext_internal(root, key, cmp, true);
}

extern "C" QV_EXPORT hbt_node_t *hbt_iterate_next(hbt_node_t *root, hbt_node_t *current) noexcept
{
    if (!current)
        return root ? hbt_find_leftmost(root) : nullptr;
    bool climb;
    hbt_node_t *next = hbt_node_next(current, &climb);
    if (climb || !next)
        return next;
    return hbt_find_leftmost(next);
}

extern "C" QV_EXPORT hbt_node_t *hbt_max_element(hbt_node_t *root) noexcept
{
    if (!root)
        return nullptr;
    for (hbt_node_t *r; (r = hbt_right(root)) != nullptr;)
        root = r;
    return root;
}

extern "C" QV_EXPORT int hbt_validate(hbt_node_t *node) noexcept
{
    hbt_node_t *left = hbt_left(node);
    hbt_node_t *right = hbt_right(node);
    if (!left && !right) {
        QV_ASSERT_TEXT(hbt_sign(node) == HBT_BAL, "hbt_sign(node) == 0x00");
        return 1;
    }
    int lord = left ? hbt_validate(left) : 0;
    int rord = right ? hbt_validate(right) : 0;
    switch (lord - rord) {
    case 0:
        QV_ASSERT_TEXT(hbt_sign(node) == HBT_BAL, "hbt_sign(node) == 0x00");
        return lord + 1;
    case 1:
        QV_ASSERT_TEXT(hbt_sign(node) == HBT_LEFT, "hbt_sign(node) == 0x03");
        return lord + 1;
    case -1:
        QV_ASSERT_TEXT(hbt_sign(node) == HBT_RIGHT, "hbt_sign(node) == 0x01");
        return rord + 1;
    default:
        QV_ASSERT_TEXT(0, "0");
        return 0;
    }
}
