// Patricia tree: seeded random operations on variable-length keys (1 to 256
// bytes, inline and behind a pointer) checked against std::map after every
// change, with a structural checker; the bit-number corner cases and the
// fatal checks.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qv_patricia.h"

namespace
{

constexpr uint8_t kOffset = 3;

// One record type serves both layouts: the node, then the key area. Inline
// keys start kOffset bytes into the area; pointer keys keep their address in
// the area's first word (the node's key_ptr[0]) and point kOffset bytes
// before the key.
struct Rec {
    patnode node;
    union {
        uint8_t *ptr;
        uint8_t bytes[kOffset + 256];
    } area;
    uint8_t outside[kOffset + 256]; // pointer keys, and the key for the model
    uint16_t len;
};

static_assert(offsetof(Rec, area) == sizeof(patnode), "the key area follows the node");

std::string node_key(const patnode *n)
{
    auto r = reinterpret_cast<const Rec *>(n);
    return std::string(reinterpret_cast<const char *>(r->outside) + kOffset, r->len);
}

bool bit_of(const std::string &k, uint16_t bit)
{
    size_t byte = bit >> 8;
    return byte < k.size() && (static_cast<uint8_t>(k[byte]) & static_cast<uint8_t>(~bit));
}

// Whether the first plen bits of a and b agree (both long enough).
bool same_prefix(const std::string &a, const std::string &b, unsigned plen)
{
    if (a.size() * 8 < plen || b.size() * 8 < plen)
        return false;
    size_t whole = plen / 8;
    if (a.compare(0, whole, b, 0, whole) != 0)
        return false;
    unsigned rest = plen % 8;
    if (!rest)
        return true;
    uint8_t mask = static_cast<uint8_t>(0xff << (8 - rest));
    return ((a[whole] ^ b[whole]) & mask) == 0;
}

class PatriciaModel : public ::testing::TestWithParam<bool>
{
  protected:
    void SetUp() override
    {
        recs.resize(1500);
        ASSERT_EQ(patricia_root_init(&root, GetParam(), 4, kOffset), &root);
    }

    void set_key(Rec &r, const std::string &k)
    {
        r.len = static_cast<uint16_t>(k.size());
        memcpy(r.outside + kOffset, k.data(), k.size());
        patricia_node_init_length(&r.node, static_cast<uint16_t>(k.size()));
        if (GetParam()) {
            r.area.ptr = r.outside;
        } else {
            memcpy(r.area.bytes + kOffset, k.data(), k.size());
        }
    }

    // Keys over a small alphabet and skewed lengths, so that shared
    // prefixes, prefix conflicts and long keys all come up often.
    std::string random_key()
    {
        static const uint8_t alphabet[] = {0x00, 0x01, 0x7f, 0x80, 0xfe, 0xff, 'a', 'b'};
        if (!model.empty() && rng() % 3 == 0) {
            // Derived from a stored key: cut, extended or with one byte changed.
            auto it = model.lower_bound(std::string(1, static_cast<char>(rng())));
            if (it == model.end())
                it = model.begin();
            std::string k = it->first;
            switch (rng() % 3) {
            case 0:
                k.resize(1 + rng() % k.size());
                break;
            case 1:
                k.resize(std::min<size_t>(256, k.size() + 1 + rng() % 4), static_cast<char>(rng()));
                break;
            default:
                k[rng() % k.size()] ^= static_cast<char>(1u << (rng() % 8));
            }
            return k;
        }
        size_t len = rng() % 8 == 0 ? 1 + rng() % 256 : 1 + rng() % 6;
        std::string k(len, '\0');
        for (auto &c : k)
            c = static_cast<char>(rng() % 4 == 0 ? rng() : alphabet[rng() % sizeof(alphabet)]);
        return k;
    }

    // The model's verdict: the stored key that equals k over the shorter
    // length. Only the neighbours around k can, since keys are prefix-free.
    bool conflicts(const std::string &k)
    {
        auto it = model.lower_bound(k);
        if (it != model.end() && it->first.compare(0, k.size(), k) == 0)
            return true;
        if (it == model.begin())
            return false;
        --it;
        return k.compare(0, it->first.size(), it->first) == 0;
    }

    // Every upward link must reach a node whose key agrees with every bit
    // tested on the way down to it; every node is reached exactly once that
    // way, and exactly one node tests no bit.
    void check_structure()
    {
        if (model.empty()) {
            ASSERT_EQ(root.root, nullptr);
            return;
        }
        std::map<patnode *, int> reached;
        std::vector<std::pair<uint16_t, bool>> path;
        patnode *top = root.root;
        if (top->bit == 0) {
            ASSERT_EQ(model.size(), 1u);
            ASSERT_EQ(top->left, top);
            ASSERT_EQ(top->right, top);
            return;
        }
        walk(top, path, reached);
        ASSERT_EQ(reached.size(), model.size());
        int bitless = 0;
        for (auto &[n, count] : reached) {
            ASSERT_EQ(count, 1);
            ASSERT_EQ(model.count(node_key(n)), 1u);
            ASSERT_EQ(model.at(node_key(n)), reinterpret_cast<Rec *>(n));
            if (n->bit == 0) {
                ++bitless;
                ASSERT_EQ(n->left, n);
                ASSERT_EQ(n->right, n);
            }
        }
        ASSERT_EQ(bitless, 1);
    }

    void walk(patnode *x, std::vector<std::pair<uint16_t, bool>> &path,
              std::map<patnode *, int> &reached)
    {
        for (bool side : {false, true}) {
            patnode *c = side ? x->right : x->left;
            path.emplace_back(x->bit, side);
            if (c->bit > x->bit) {
                walk(c, path, reached);
            } else {
                ++reached[c];
                for (auto [bit, s] : path)
                    ASSERT_EQ(bit_of(node_key(c), bit), s) << "bit " << bit;
            }
            path.pop_back();
        }
    }

    void check_walks()
    {
        auto it = model.begin();
        for (patnode *n = patricia_find_next(&root, nullptr); n;
             n = patricia_find_next(&root, n), ++it) {
            ASSERT_NE(it, model.end());
            ASSERT_EQ(node_key(n), it->first);
        }
        ASSERT_EQ(it, model.end());
        auto rit = model.rbegin();
        for (patnode *n = patricia_find_prev(&root, nullptr); n;
             n = patricia_find_prev(&root, n), ++rit) {
            ASSERT_NE(rit, model.rend());
            ASSERT_EQ(node_key(n), rit->first);
        }
        ASSERT_EQ(rit, model.rend());
    }

    patnode *expect(std::map<std::string, Rec *>::iterator it)
    {
        return it == model.end() ? nullptr : &it->second->node;
    }

    void check_queries(const std::string &k)
    {
        auto len = static_cast<uint16_t>(k.size());
        auto exact = model.find(k);
        ASSERT_EQ(patricia_get(&root, len, k.data()), expect(exact));
        ASSERT_EQ(patricia_getnext(&root, len, k.data(), FALSE), expect(model.upper_bound(k)))
            << k.size();
        ASSERT_EQ(patricia_getnext(&root, len, k.data(), TRUE), expect(model.lower_bound(k)));

        // Every prefix enumeration of k's bits yields the model's keys that
        // share them, in order.
        unsigned plen = 1 + rng() % (k.size() * 8);
        if (rng() % 4 == 0)
            plen = static_cast<unsigned>(k.size() * 8);
        std::vector<patnode *> want;
        for (auto &[mk, r] : model)
            if (same_prefix(mk, k, plen))
                want.push_back(&r->node);
        std::vector<patnode *> got;
        auto p = static_cast<uint16_t>(plen);
        for (patnode *n = patricia_subtree_match(&root, p, k.data()); n;
             n = patricia_subtree_next(&root, n, p))
            got.push_back(n);
        ASSERT_EQ(got, want) << "prefix of " << plen << " bits";
    }

    patroot root{};
    std::vector<Rec> recs;
    std::map<std::string, Rec *> model;
    std::mt19937 rng{GetParam() ? 11u : 12u};
};

TEST_P(PatriciaModel, RandomOperationsMatchModel)
{
    std::vector<Rec *> free_recs;
    for (auto &r : recs)
        free_recs.push_back(&r);

    for (int step = 0; step < 6000; ++step) {
        unsigned op = rng() % 10;
        bool grow = step % 3000 < 2000 ? op < 5 : op < 2;
        if (grow && !free_recs.empty()) {
            std::string k = random_key();
            Rec *r = free_recs.back();
            set_key(*r, k);
            bool refused = conflicts(k);
            ASSERT_EQ(patricia_add(&root, &r->node), !refused) << "add of " << k.size() << " bytes";
            if (refused) {
                ASSERT_FALSE(patricia_node_in_tree(&r->node));
                continue;
            }
            free_recs.pop_back();
            model[k] = r;
        } else if (op < 7 && !model.empty()) {
            auto it = model.lower_bound(random_key());
            if (it == model.end())
                it = model.begin();
            Rec *r = it->second;
            ASSERT_TRUE(patricia_delete(&root, &r->node));
            ASSERT_FALSE(patricia_node_in_tree(&r->node));
            model.erase(it);
            free_recs.push_back(r);
        } else {
            check_queries(random_key());
            if (model.size() >= 2) {
                auto a = model.lower_bound(random_key());
                auto b = model.lower_bound(random_key());
                if (a != model.end() && b != model.end()) {
                    int want = a->first == b->first ? 0 : a->first < b->first ? -1 : 1;
                    ASSERT_EQ(patricia_compare_nodes(&root, &a->second->node, &b->second->node),
                              want);
                }
            }
            continue;
        }
        check_structure();
        if (step % 16 == 0)
            check_walks();
        if (HasFatalFailure())
            return;
    }
    // Queries with every stored key and its neighbours.
    for (auto &[k, r] : std::map<std::string, Rec *>(model)) {
        check_queries(k);
        check_queries(k.substr(0, k.size() - (k.size() > 1)));
        if (HasFatalFailure())
            return;
    }
    while (!model.empty()) {
        ASSERT_TRUE(patricia_delete(&root, &model.begin()->second->node));
        model.erase(model.begin());
    }
    EXPECT_EQ(root.root, nullptr);
}

INSTANTIATE_TEST_SUITE_P(KeyLayouts, PatriciaModel, ::testing::Values(false, true),
                         [](const auto &info) {
                             return info.param ? "PointerKeys" : "InlineKeys";
                         });

// Fixed 4-byte inline keys right after the node.
struct Rec4 {
    patnode node;
    uint8_t key[4];
};

class Patricia : public ::testing::Test
{
  protected:
    void SetUp() override { patricia_root_init(&root, FALSE, 4, 0); }
    Rec4 *make(uint32_t v)
    {
        recs.emplace_back();
        Rec4 &r = recs.back();
        patricia_node_init_length(&r.node, 0);
        for (int i = 0; i < 4; ++i)
            r.key[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
        return &r;
    }
    patroot root{};
    std::deque<Rec4> recs;
};

TEST_F(Patricia, FirstNodeAndEmptyingTheTree)
{
    Rec4 *a = make(0x01020304);
    EXPECT_FALSE(patricia_node_in_tree(&a->node));
    ASSERT_TRUE(patricia_add(&root, &a->node));
    // The tree's key length applies to a node that set none.
    EXPECT_EQ(a->node.length, patricia_length_to_bit(4));
    EXPECT_EQ(a->node.bit, 0);
    EXPECT_EQ(a->node.left, &a->node);
    EXPECT_EQ(a->node.right, &a->node);
    EXPECT_TRUE(patricia_node_in_tree(&a->node));
    EXPECT_EQ(patricia_find_next(&root, &a->node), nullptr);
    EXPECT_EQ(patricia_find_prev(&root, &a->node), nullptr);
    EXPECT_FALSE(patricia_add(&root, &make(0x01020304)->node));

    ASSERT_TRUE(patricia_delete(&root, &a->node));
    EXPECT_EQ(root.root, nullptr);
    EXPECT_FALSE(patricia_node_in_tree(&a->node));
    EXPECT_EQ(patricia_find_next(&root, nullptr), nullptr);
    EXPECT_EQ(patricia_find_prev(&root, nullptr), nullptr);
    EXPECT_EQ(patricia_get(&root, 4, a->key), nullptr);
    EXPECT_EQ(patricia_getnext(&root, 4, a->key, TRUE), nullptr);
    EXPECT_EQ(patricia_subtree_match(&root, 8, a->key), nullptr);

    // A node of another tree is not where its key leads here.
    patroot other{};
    patricia_root_init(&other, FALSE, 4, 0);
    ASSERT_TRUE(patricia_add(&root, &make(0x01020300)->node));
    ASSERT_TRUE(patricia_add(&other, &a->node));
    ASSERT_TRUE(patricia_add(&other, &make(0xff000000)->node));
    EXPECT_FALSE(patricia_delete(&root, &a->node));
    EXPECT_TRUE(patricia_node_in_tree(&a->node));
}

TEST_F(Patricia, BitNumbersAtByteAndKeyEdges)
{
    // The tables.
    for (unsigned x = 0; x < 256; ++x) {
        unsigned want = 0;
        for (unsigned m = 0x80; m; m >>= 1)
            if (x & m) {
                want = m;
                break;
            }
        ASSERT_EQ(patricia_hi_bit_table[x], want) << x;
    }
    for (unsigned i = 0; i < 8; ++i)
        EXPECT_EQ(patricia_bit_masks[i], static_cast<uint8_t>(~(0x80u >> i)));

    // Keys that differ only in the lowest bit of the last of 256 bytes, and
    // a prefix enumeration over all 2048 bits.
    struct Big {
        patnode node;
        uint8_t key[256];
    } x{}, y{};
    patroot big{};
    patricia_root_init(&big, FALSE, 256, 0);
    memset(x.key, 0xaa, 256);
    memset(y.key, 0xaa, 256);
    y.key[255] = 0xab;
    patricia_node_init_length(&x.node, 256);
    patricia_node_init_length(&y.node, 256);
    ASSERT_TRUE(patricia_add(&big, &x.node));
    ASSERT_TRUE(patricia_add(&big, &y.node));
    EXPECT_EQ(y.node.bit, 0xfffe);
    EXPECT_EQ(patricia_subtree_match(&big, 2048, y.key), &y.node);
    EXPECT_EQ(patricia_subtree_next(&big, &y.node, 2048), nullptr);
    EXPECT_EQ(patricia_subtree_match(&big, 2047, y.key), &x.node);
    EXPECT_EQ(patricia_subtree_next(&big, &x.node, 2047), &y.node);
    EXPECT_EQ(patricia_compare_nodes(&big, &x.node, &y.node), -1);
    EXPECT_EQ(patricia_compare_nodes(&big, &y.node, &x.node), 1);
    EXPECT_EQ(patricia_getnext(&big, 256, x.key, FALSE), &y.node);
    EXPECT_EQ(patricia_getnext(&big, 256, y.key, FALSE), nullptr);
    EXPECT_EQ(patricia_getnext(&big, 1, x.key, FALSE), &x.node);
    ASSERT_TRUE(patricia_delete(&big, &x.node));
    ASSERT_TRUE(patricia_delete(&big, &y.node));

    // Prefixes: a key shorter than the prefix is never returned.
    Rec4 *a = make(0x80000000), *b = make(0x80010000), *c = make(0x81000000);
    for (Rec4 *r : {a, b, c})
        ASSERT_TRUE(patricia_add(&root, &r->node));
    const uint8_t pfx[] = {0x80, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(patricia_subtree_match(&root, 15, pfx), &a->node);
    EXPECT_EQ(patricia_subtree_next(&root, &a->node, 15), &b->node);
    EXPECT_EQ(patricia_subtree_next(&root, &b->node, 15), nullptr);
    EXPECT_EQ(patricia_subtree_match(&root, 33, pfx), nullptr);
    const uint8_t none[] = {0x40};
    EXPECT_EQ(patricia_subtree_match(&root, 2, none), nullptr);
    EXPECT_EQ(patricia_subtree_match(&root, 1, pfx), &a->node);
}

TEST_F(Patricia, RootHooksAndConstVariants)
{
    static int allocs, frees;
    static patroot slab;
    patricia_set_allocator(
        []() -> patroot * {
            ++allocs;
            return allocs == 1 ? &slab : nullptr;
        },
        [](patroot *r) {
            ++frees;
            EXPECT_EQ(r, &slab);
        });
    patroot *r = patricia_root_init(nullptr, TRUE, 16, 2);
    ASSERT_EQ(r, &slab);
    EXPECT_EQ(r->key_bytes, 16);
    EXPECT_EQ(r->key_offset, 2);
    EXPECT_EQ(r->key_is_ptr, 1);
    EXPECT_EQ(patricia_root_init(nullptr, FALSE, 4, 0), nullptr);
    patricia_root_delete(r);
    patricia_root_delete(nullptr);
    EXPECT_EQ(frees, 1);
    patricia_set_allocator(patricia_root_alloc, patricia_root_free);
    r = patricia_root_init(nullptr, FALSE, 4, 0);
    ASSERT_NE(r, nullptr);
    patricia_root_delete(r);

    Rec4 *a = make(1), *b = make(2);
    ASSERT_TRUE(patricia_add(&root, &a->node));
    ASSERT_TRUE(patricia_add(&root, &b->node));
    const patroot *cr = &root;
    EXPECT_EQ(patricia_cons_get(cr, 4, b->key), &b->node);
    EXPECT_EQ(patricia_cons_find_next(cr, &a->node), &b->node);
    EXPECT_EQ(patricia_cons_find_prev(cr, &a->node), nullptr);
    EXPECT_EQ(patricia_cons_subtree_match(cr, 30, a->key), &a->node);
    EXPECT_EQ(patricia_cons_subtree_next(cr, &a->node, 30), &b->node);
}

using PatriciaDeath = Patricia;

TEST_F(PatriciaDeath, MisuseIsFatal)
{
    Rec4 *a = make(1), *b = make(2);
    EXPECT_DEATH(patricia_delete(&root, &a->node),
                 "qv_patricia.cpp:patricia_delete: assertion \"node->left && node->right\" failed");
    EXPECT_DEATH(patricia_find_next(&root, &a->node),
                 "patricia_find_next: assertion \"node == \\(\\(void \\*\\)0\\)\"");
    EXPECT_DEATH(patricia_getnext(&root, 0, a->key, FALSE),
                 "patricia_getnext: assertion \"klen\" failed");
    EXPECT_DEATH(patricia_subtree_next(&root, &a->node, 8), "assertion \"plen && current\" failed");
    EXPECT_DEATH(patricia_root_init(&root, FALSE, 257, 0),
                 "assertion \"klen && klen <= 256\" failed");
    EXPECT_DEATH(patricia_root_init(&root, FALSE, 0, 0),
                 "assertion \"klen && klen <= 256\" failed");
    EXPECT_DEATH(patricia_node_init_length(&a->node, 257), "assertion \"key_bytes <= 256\" failed");
    EXPECT_DEATH(patricia_set_allocator(nullptr, patricia_root_free),
                 "assertion \"my_alloc\" failed");
    EXPECT_DEATH(patricia_set_allocator(patricia_root_alloc, nullptr),
                 "assertion \"my_free\" failed");
    EXPECT_DEATH(patricia_root_free(nullptr), "patricia_root_free: assertion \"root\" failed");
    EXPECT_DEATH(patricia_get(&root, 0, a->key), "");

    ASSERT_TRUE(patricia_add(&root, &a->node));
    EXPECT_DEATH(patricia_add(&root, &a->node),
                 "patricia_add: assertion \"\\(node->bit == \\(0\\)\\) && "
                 "\\(node->right == \\(\\(void \\*\\)0\\)\\) && "
                 "\\(node->left == \\(\\(void \\*\\)0\\)\\)\" failed");
    EXPECT_DEATH(patricia_root_delete(&root),
                 "assertion \"root->root == \\(\\(void \\*\\)0\\)\" failed");
    // b is not in the tree: its key leads to a.
    patricia_node_init_length(&b->node, 4);
    EXPECT_DEATH(patricia_find_next(&root, &b->node),
                 "patricia_find_next: assertion \"current == node\"");
    EXPECT_DEATH(patricia_find_prev(&root, &b->node),
                 "patricia_find_prev: assertion \"current == node\"");
    EXPECT_DEATH(patricia_subtree_next(&root, &b->node, 8),
                 "patricia_subtree_next: assertion \"current == node\"");
    EXPECT_DEATH(patricia_subtree_match(&root, 0, a->key),
                 "assertion \"plen && plen <= \\(256 \\* 8\\)\" failed");
    EXPECT_DEATH(patricia_subtree_match(&root, 2049, a->key),
                 "assertion \"plen && plen <= \\(256 \\* 8\\)\" failed");
    EXPECT_DEATH(patricia_subtree_next(&root, &a->node, 33),
                 "assertion \"node->length >= p_bit\" failed");
}

} // namespace
