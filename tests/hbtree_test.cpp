// Height-balanced threaded tree: seeded operations checked against std::set
// after every change (order, balance, every thread, queries); fatal checks.

#include <gtest/gtest.h>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>
#include "qv_hbtree.h"
#include "qv_test_util.h"

using node_t = hbt_node_t;
struct Item {
    node_t node;
    int key;
};

class HbtTree : public ::testing::Test
{
  protected:
    static int key(node_t *n) { return reinterpret_cast<Item *>(n)->key; }
    static int cmp(node_t *a, node_t *b) { return key(a) - key(b); }
    static node_t *left(node_t *n) { return (node_t *)(n->hbt_data[0] & ~3ul); }
    static node_t *right(node_t *n) { return n->hbt_data[1] & 1 ? 0 : (node_t *)n->hbt_data[1]; }
    static int height(node_t *n) { return n ? 1 + std::max(height(left(n)), height(right(n))) : 0; }
    node_t *node(int k) { return items[k].key = k, &items[k].node; }
    bool insert(int k) { return hbt_insert(&root, node(k), cmp); }
    void erase(int k) { hbt_delete(&root, node(k), cmp); }
    node_t *in_model(std::set<int>::iterator it) { return it == model.end() ? 0 : node(*it); }

    // The walk gives the model's nodes, each without a right child threads to
    // the next (the last holds 0), signs match heights, searches around k.
    void check(int k)
    {
        std::vector<node_t *> walk, want;
        for (node_t *n = hbt_iterate_next(root, nullptr); n && walk.size() <= model.size();
             n = hbt_iterate_next(root, n))
            walk.push_back(n);
        for (int m : model)
            want.push_back(node(m));
        ASSERT_EQ(walk, want);
        for (size_t i = 0; i < walk.size(); ++i) {
            auto next = i + 1 < walk.size() ? reinterpret_cast<unsigned long>(walk[i + 1]) | 1 : 0;
            if (!right(walk[i])) {
                ASSERT_EQ(walk[i]->hbt_data[1], next) << key(walk[i]);
            }
        }
        ASSERT_EQ(root ? hbt_validate(root) : 0, height(root));
        ASSERT_EQ(hbt_max_element(root), want.empty() ? nullptr : want.back());
        for (probe.key = k - 1; probe.key <= k + 1; ++probe.key) {
            ASSERT_EQ(hbt_lookup(root, &probe.node, cmp), in_model(model.find(probe.key)));
            ASSERT_EQ(hbt_getnext(root, &probe.node, cmp), in_model(model.upper_bound(probe.key)));
            ASSERT_EQ(hbt_getnext_or_equal(root, &probe.node, cmp),
                      in_model(model.lower_bound(probe.key)));
        }
    }

    std::vector<Item> items = std::vector<Item>(4096);
    Item probe{};
    node_t *root = nullptr;
    std::set<int> model;
};

TEST_F(HbtTree, OperationsMatchModel)
{
    // Random runs (small key ranges: many duplicates, often empty; large: deep
    // trees), then ascending and descending insertion, deleting from the low end.
    const struct {
        int range, steps, order;
    } runs[] = {{64, 8000, 0}, {512, 8000, 0}, {3000, 8000, 0}, {1024, 2048, 1}, {1024, 2048, -1}};
    std::mt19937 rng(1);
    for (auto run : runs) {
        for (int step = 0; step < run.steps; ++step) {
            int k = run.order ? run.order > 0 ? step : run.range - 1 - step : rng() % run.range;
            unsigned op = run.order ? 2 : rng() % 8;
            bool grow = run.order ? step < run.range : op < (step < run.steps / 2 ? 4u : 2u);
            if (grow) {
                // An equal key in a fresh record is refused; the stored one stays.
                Item dup{{}, k};
                bool stored = model.count(k);
                ASSERT_EQ(hbt_insert(&root, stored ? &dup.node : node(k), cmp) != 0, !stored);
                model.insert(k);
            } else if (op < 6 && !model.empty()) {
                // 5 deletes the root; 4 puts the deleted node straight back.
                auto it = model.lower_bound(k);
                int victim = op == 5 ? key(root) : *(it == model.end() ? model.begin() : it);
                erase(victim);
                model.erase(victim);
                ASSERT_EQ(node(victim)->hbt_data[0] | node(victim)->hbt_data[1], 0u);
                if (op == 4) {
                    ASSERT_TRUE(insert(victim));
                    model.insert(victim);
                }
            }
            ASSERT_NO_FATAL_FAILURE(check(k)) << run.range * run.order << " step " << step;
        }
        // The last deletion takes the only node.
        while (!model.empty()) {
            erase(*model.begin());
            model.erase(model.begin());
            ASSERT_NO_FATAL_FAILURE(check(0));
        }
        ASSERT_EQ(root, nullptr);
    }
}

// Each case breaks a tree by hand (or misuses a sound one) in the child.
TEST_F(HbtTree, BrokenTreesAndMisuseAreFatal)
{
    // Node k's links (-1: none) and sign; the first node set is the root.
    auto link = [this](int k, int l, int r, unsigned long sign) {
        auto at = [this](int i) { return i < 0 ? 0ul : reinterpret_cast<unsigned long>(node(i)); };
        *node(k) = {{at(l) | sign, at(r)}};
        root = root ? root : node(k);
    };
    const struct {
        const char *func, *text;
        std::function<void()> misuse;
    } cases[] = {
        {"validate", "hbt_sign(node) == 0x00", [&] { link(2, -1, -1, 1), hbt_validate(root); }},
        {"validate", "hbt_sign(node) == 0x01", [&] { link(1, -1, 2, 3), hbt_validate(root); }},
        {"validate", "hbt_sign(node) == 0x03", [&] { link(2, 1, -1, 1), hbt_validate(root); }},
        {"validate", "0", [&] { link(0, -1, 1, 1), link(1, -1, 2, 1), hbt_validate(root); }},
        {"delete", "desc", [&] { link(1, -1, 2, 1), erase(3); }},
        {"delete", "res",
         [&] { link(1, -1, 2, 1), probe.key = 2, hbt_delete(&root, &probe.node, cmp); }},
        {"descendent", "0", [&] { link(1, -1, 2, 2), erase(1); }},
        {"desc_dir", "hbt_descendent(node, 0x01) == desc", [&] { link(2, 3, 3, 3), erase(3); }},
        {"signal_increase", "sign != dir", [&] { link(2, -1, -1, 1), insert(3); }},
        {"signal_decrease", "sign != hbt_sign_inv(dir)", [&] { link(1, 2, 2, 1), erase(2); }},
        {"signal_decrease", "sign != invdir",
         [&] { link(1, 3, 3, 1), link(3, -1, 4, 1), erase(4); }},
        {"delete_balance", "gchild", [&] { link(2, 1, 3, 1), link(3, -1, -1, 3), erase(1); }},
        // A chain far deeper than balancing allows must not overrun the path stack.
        {"push", "stack->top > 0",
         [&] {
             for (int k = 0; k < 40; ++k)
                 link(k, -1, k + 1, 0);
             insert(100);
         }},
    };
    for (auto &c : cases)
        EXPECT_DEATH(c.misuse(),
                     qvtest::fatal_re(std::string("qv_hbtree.cpp:hbt_") + c.func, c.text));
}
