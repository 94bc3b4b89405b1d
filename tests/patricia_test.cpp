// Patricia tree: seeded operations on keys of 1 to 256 bytes, inline and behind
// a pointer, checked against std::map; root hooks, const variants, fatal checks.

#include <gtest/gtest.h>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>
#include "qv_patricia.h"
#include "qv_test_util.h"

constexpr uint8_t kOff = 3;

// Keys start kOff bytes into the area after the node, or after its first word.
struct Rec {
    patnode node;
    union {
        uint8_t *ptr;
        uint8_t bytes[sizeof(void *) + kOff + 256];
    } area;
    // A key of the tree's default length (4) leaves the node's length unset.
    patnode *set_key(const std::string &k, bool ptr)
    {
        uint8_t *base = area.bytes + (ptr ? sizeof(void *) : 0);
        memcpy(base + kOff, k.data(), k.size());
        if (ptr)
            area.ptr = base;
        patricia_node_init_length(&node, static_cast<uint16_t>(k.size() == 4 ? 0 : k.size()));
        return &node;
    }
};

class PatriciaModel : public ::testing::TestWithParam<bool>
{
  protected:
    static bool bit(const std::string &k, unsigned i) { return k[i / 8] >> (7 - i % 8) & 1; }
    patnode *in_model(auto it) { return it == model.end() ? nullptr : it->second; }

    // Mostly short keys, often prefixes of each other; long keys are a run of
    // one byte and a varied tail, so that they differ deep into 256 bytes.
    std::string random_key()
    {
        static const char sym[] = {0x00, 0x01, 0x7f, '\x80', '\xfe', '\xff', 'a', 'b'};
        size_t len = rng() % 4 ? 1 + rng() % 6 : rng() % 2 ? 256 : 1 + rng() % 256;
        std::string k(len, sym[rng() % 8]);
        for (size_t i = len - std::min<size_t>(len, 1 + rng() % 3); i < len; ++i)
            k[i] = rng() % 4 ? sym[rng() % 8] : static_cast<char>(rng());
        return k;
    }

    // Walks and comparisons give the model's order, one node tests no bit, and
    // searches for k give the model's answers.
    void check(const std::string &k)
    {
        std::vector<patnode *> fwd, back, want, got;
        for (patnode *n = patricia_find_next(&root, nullptr); n; n = patricia_find_next(&root, n))
            fwd.push_back(n);
        for (patnode *n = patricia_find_prev(&root, nullptr); n; n = patricia_find_prev(&root, n))
            back.insert(back.begin(), n);
        size_t bitless = 0;
        for (auto &[k, n] : model) {
            want.push_back(n);
            bitless += n->bit == 0 && n->left == n && n->right == n;
        }
        ASSERT_EQ(fwd, want);
        ASSERT_EQ(back, want);
        ASSERT_EQ(bitless, std::min<size_t>(1, model.size()));
        for (size_t i = 1; i < want.size(); ++i) {
            ASSERT_EQ(patricia_compare_nodes(&root, want[i - 1], want[i]), -1);
            ASSERT_EQ(patricia_compare_nodes(&root, want[i], want[i - 1]), 1);
            ASSERT_EQ(patricia_compare_nodes(&root, want[i], want[i]), 0);
        }
        auto len = static_cast<uint16_t>(k.size());
        ASSERT_EQ(patricia_get(&root, len, k.data()), in_model(model.find(k)));
        ASSERT_EQ(patricia_getnext(&root, len, k.data(), FALSE), in_model(model.upper_bound(k)));
        ASSERT_EQ(patricia_getnext(&root, len, k.data(), TRUE), in_model(model.lower_bound(k)));
        // A prefix of k's bits enumerates the stored keys that have it.
        auto plen = static_cast<uint16_t>(rng() % 4 ? 1 + rng() % (len * 8) : len * 8);
        want.clear();
        for (auto &[mk, n] : model) {
            unsigned i = 0;
            while (i < plen && i < mk.size() * 8 && bit(mk, i) == bit(k, i))
                ++i;
            if (i == plen)
                want.push_back(n);
        }
        for (patnode *n = patricia_subtree_match(&root, plen, k.data()); n;
             n = patricia_subtree_next(&root, n, plen))
            got.push_back(n);
        ASSERT_EQ(got, want) << "prefix of " << plen << " bits";
    }

    patroot root{};
    std::map<std::string, patnode *> model;
    std::mt19937 rng{GetParam() ? 11u : 12u};
};

TEST_P(PatriciaModel, RandomOperationsMatchModel)
{
    ASSERT_EQ(patricia_root_init(&root, GetParam(), 4, kOff), &root);
    std::deque<Rec> recs;
    for (int step = 0; step < 6000; ++step) {
        unsigned op = rng() % 10;
        std::string k = random_key();
        auto it = model.lower_bound(k);
        std::string query = rng() % 2 && it != model.end() ? it->first : k;
        if (step % 3000 < 2000 ? op < 5 : op < 2) {
            patnode *n = recs.emplace_back().set_key(k, GetParam());
            // Refused: a stored key equal to k over the shorter length.
            bool refused = (it != model.end() && it->first.compare(0, k.size(), k) == 0) ||
                           (it != model.begin() && k.starts_with(std::prev(it)->first));
            ASSERT_EQ(patricia_add(&root, n), !refused) << k.size() << " bytes";
            ASSERT_EQ(n->length, patricia_length_to_bit(static_cast<uint16_t>(k.size())));
            ASSERT_EQ(patricia_node_in_tree(n), !refused);
            if (refused) {
                // As if alone in another tree: linked, but its key leads elsewhere.
                n->left = n->right = n;
                ASSERT_FALSE(patricia_delete(&root, n));
            } else {
                model[k] = n;
            }
        } else if (op < 7 && !model.empty()) {
            it = it == model.end() ? model.begin() : it;
            ASSERT_TRUE(patricia_delete(&root, it->second));
            ASSERT_FALSE(patricia_node_in_tree(it->second));
            model.erase(it);
        }
        ASSERT_NO_FATAL_FAILURE(check(query));
    }
    // The last deletion takes the bitless node alone.
    for (; !model.empty(); model.erase(model.begin()))
        ASSERT_TRUE(patricia_delete(&root, model.begin()->second));
    EXPECT_EQ(root.root, nullptr);
    ASSERT_NO_FATAL_FAILURE(check("ab"));
}

INSTANTIATE_TEST_SUITE_P(InlineThenPointerKeys, PatriciaModel, ::testing::Bool());

// T (from a hook that gives one root, then none) holds A, the bitless node,
// and C; E is empty; B is detached, and its key leads to A or C in T.
TEST(Patricia, RootHooksConstVariantsAndFatalChecks)
{
    static patroot slab;
    static int calls;
    patricia_set_allocator([] { return calls++ ? nullptr : &slab; },
                           [](patroot *r) { calls += 10 * (r == &slab); });
    patroot e{}, *E = patricia_root_init(&e, FALSE, 4, kOff), *T;
    ASSERT_EQ(T = patricia_root_init(nullptr, FALSE, 4, kOff), &slab);
    EXPECT_EQ(patricia_root_init(nullptr, FALSE, 4, kOff), nullptr);
    Rec r[3];
    patnode *A = r[0].set_key("\1\1\1\1", false);
    patnode *B = r[1].set_key("\1\1\1\2\1", false);
    patnode *C = r[2].set_key("\1\1\1\3", false);
    ASSERT_TRUE(patricia_add(T, A));
    ASSERT_TRUE(patricia_add(T, C));
    const patroot *cT = T;
    EXPECT_EQ(patricia_cons_get(cT, 4, "\1\1\1\3"), C);
    EXPECT_EQ(patricia_cons_find_next(cT, A), C);
    EXPECT_EQ(patricia_cons_find_prev(cT, A), nullptr);
    EXPECT_EQ(patricia_cons_subtree_match(cT, 30, "\1\1\1\0"), A);
    EXPECT_EQ(patricia_cons_subtree_next(cT, A, 30), C);
    EXPECT_FALSE(patricia_delete(E, A)) << "an empty tree";

    const struct {
        const char *func, *text;
        std::function<void()> misuse;
    } cases[] = {
        {"delete", "node->left && node->right", [&] { patricia_delete(T, B); }},
        {"delete", "node->bit == (0)",
         [&] { patricia_add(T, B), A->bit = 1, patricia_delete(T, A); }},
        {"find_next", "node == ((void *)0)", [&] { patricia_find_next(E, A); }},
        {"find_prev", "node == ((void *)0)", [&] { patricia_find_prev(E, A); }},
        {"find_next", "current == node", [&] { patricia_find_next(T, B); }},
        {"find_prev", "current == node", [&] { patricia_find_prev(T, B); }},
        {"subtree_next", "current == node", [&] { patricia_subtree_next(T, B, 8); }},
        {"subtree_next", "plen && current", [&] { patricia_subtree_next(E, A, 8); }},
        {"subtree_next", "node->length >= p_bit", [&] { patricia_subtree_next(T, A, 33); }},
        {"subtree_match", "plen && plen <= (256 * 8)", [&] { patricia_subtree_match(T, 0, "x"); }},
        {"subtree_match", "plen && plen <= (256 * 8)",
         [&] { patricia_subtree_match(T, 2049, "x"); }},
        {"getnext", "klen", [&] { patricia_getnext(T, 0, "x", FALSE); }},
        {"root_init", "klen && klen <= 256", [&] { patricia_root_init(E, FALSE, 257, 0); }},
        {"root_init", "klen && klen <= 256", [&] { patricia_root_init(E, FALSE, 0, 0); }},
        {"node_init_length", "key_bytes <= 256", [&] { patricia_node_init_length(B, 257); }},
        {"add", "(node->bit == (0)) && (node->right == ((void *)0)) && (node->left == ((void *)0))",
         [&] { patricia_add(T, A); }},
        {"root_delete", "root->root == ((void *)0)", [&] { patricia_root_delete(T); }},
        {"set_allocator", "my_alloc", [&] { patricia_set_allocator(nullptr, patricia_root_free); }},
        {"set_allocator", "my_free", [&] { patricia_set_allocator(patricia_root_alloc, nullptr); }},
        {"root_free", "root", [&] { patricia_root_free(nullptr); }},
    };
    for (auto &c : cases)
        EXPECT_DEATH(c.misuse(),
                     qvtest::fatal_re(std::string("qv_patricia.cpp:patricia_") + c.func, c.text));
    EXPECT_DEATH(patricia_get(T, 0, "x"), "");

    ASSERT_TRUE(patricia_delete(T, A));
    ASSERT_TRUE(patricia_delete(T, C));
    patricia_root_delete(T);
    patricia_root_delete(nullptr);
    EXPECT_EQ(calls, 12);
    patricia_set_allocator(patricia_root_alloc, patricia_root_free);
    ASSERT_NE(T = patricia_root_init(nullptr, TRUE, 256, 0), nullptr);
    patricia_root_delete(T);
}
