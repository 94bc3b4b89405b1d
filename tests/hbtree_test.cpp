// Height-balanced threaded tree: seeded random operations checked against
// std::set after every step (order, balance, every thread), plus the shapes
// that break top-down rebalancing and the fatal checks.

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <set>
#include <vector>

#include "qv_hbtree.h"

namespace
{

// The node is deliberately not the first field: the comparison converts back
// to the record as applications do.
struct Item {
    uint32_t tag;
    hbt_node_t node;
    int key;
};

Item *item_of(hbt_node_t *n)
{
    return reinterpret_cast<Item *>(reinterpret_cast<char *>(n) - offsetof(Item, node));
}

int cmp_items(hbt_node_t *a, hbt_node_t *b)
{
    int ka = item_of(a)->key, kb = item_of(b)->key;
    return ka < kb ? -1 : ka > kb ? 1 : 0;
}

hbt_node_t *left_of(const hbt_node_t *n)
{
    return reinterpret_cast<hbt_node_t *>(n->hbt_data[0] & ~3ul);
}

hbt_node_t *right_of(const hbt_node_t *n)
{
    return (n->hbt_data[1] & 1) ? nullptr : reinterpret_cast<hbt_node_t *>(n->hbt_data[1]);
}

void collect(hbt_node_t *n, std::vector<hbt_node_t *> &out)
{
    if (!n)
        return;
    collect(left_of(n), out);
    out.push_back(n);
    collect(right_of(n), out);
}

int height(hbt_node_t *n)
{
    return n ? 1 + std::max(height(left_of(n)), height(right_of(n))) : 0;
}

// Checks everything the tree promises: the child links hold exactly the
// model's keys in order, signs match heights, every node without a right
// child threads to its successor (the last one holds zero), and the
// stackless walk in both senses agrees.
void check_tree(hbt_node_t *root, const std::set<int> &model)
{
    std::vector<hbt_node_t *> nodes;
    collect(root, nodes);
    ASSERT_EQ(nodes.size(), model.size());
    auto it = model.begin();
    for (size_t i = 0; i < nodes.size(); ++i, ++it) {
        ASSERT_EQ(item_of(nodes[i])->key, *it) << "position " << i;
        hbt_node_t *n = nodes[i];
        if (!right_of(n)) {
            unsigned long want =
                i + 1 < nodes.size() ? reinterpret_cast<unsigned long>(nodes[i + 1]) | 1 : 0;
            ASSERT_EQ(n->hbt_data[1], want) << "thread of key " << *it;
        }
        ASSERT_NE(n->hbt_data[0] & 3, 2u);
    }
    if (root) {
        ASSERT_EQ(hbt_validate(root), height(root));
    }
    size_t i = 0;
    for (hbt_node_t *n = hbt_iterate_next(root, nullptr); n; n = hbt_iterate_next(root, n), ++i)
        ASSERT_EQ(n, nodes[i]);
    ASSERT_EQ(i, nodes.size());
    ASSERT_EQ(hbt_max_element(root), nodes.empty() ? nullptr : nodes.back());
}

class HbtTree : public ::testing::Test
{
  protected:
    HbtTree() : items(4096)
    {
        for (size_t i = 0; i < items.size(); ++i)
            items[i].key = static_cast<int>(i);
    }
    bool insert(int k) { return hbt_insert(&root, &items[k].node, cmp_items); }
    void erase(int k) { hbt_delete(&root, &items[k].node, cmp_items); }
    Item *probe(int k)
    {
        key.key = k;
        return &key;
    }
    Item *found(hbt_node_t *n) { return n ? item_of(n) : nullptr; }
    Item *model_item(std::set<int>::const_iterator it, const std::set<int> &m)
    {
        return it == m.end() ? nullptr : &items[*it];
    }

    std::vector<Item> items;
    Item key{};
    hbt_node_t *root = nullptr;
};

TEST_F(HbtTree, RandomOperationsMatchModel)
{
    for (unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        std::set<int> model;
        // Small key ranges give many duplicates and an often-emptied tree;
        // the larger one grows deep trees.
        const int range = seed == 1 ? 64 : seed == 2 ? 512 : 3000;
        for (int step = 0; step < 8000; ++step) {
            int k = static_cast<int>(rng() % range);
            unsigned op = rng() % 8;
            // Bias towards growth first, then towards shrinking.
            bool grow = step < 4000 ? op < 4 : op < 2;
            if (grow) {
                if (model.count(k)) {
                    // An equal key, offered in a fresh record, is refused; the
                    // stored record keeps its place.
                    Item dup = items[k];
                    dup.node = hbt_node_t{};
                    ASSERT_FALSE(hbt_insert(&root, &dup.node, cmp_items)) << "insert " << k;
                } else {
                    ASSERT_TRUE(insert(k)) << "insert " << k;
                }
                model.insert(k);
            } else if (op < 6 && !model.empty()) {
                auto mit = model.lower_bound(k);
                if (mit == model.end())
                    mit = model.begin();
                int victim = *mit;
                erase(victim);
                model.erase(mit);
                ASSERT_EQ(items[victim].node.hbt_data[0], 0u);
                ASSERT_EQ(items[victim].node.hbt_data[1], 0u);
            } else {
                ASSERT_EQ(found(hbt_lookup(root, &probe(k)->node, cmp_items)),
                          model.count(k) ? &items[k] : nullptr);
                ASSERT_EQ(found(hbt_getnext(root, &probe(k)->node, cmp_items)),
                          model_item(model.upper_bound(k), model));
                ASSERT_EQ(found(hbt_getnext_or_equal(root, &probe(k)->node, cmp_items)),
                          model_item(model.lower_bound(k), model));
                continue;
            }
            check_tree(root, model);
            if (HasFatalFailure())
                return;
        }
        while (!model.empty()) {
            erase(*model.begin());
            model.erase(model.begin());
        }
        ASSERT_EQ(root, nullptr);
    }
}

TEST_F(HbtTree, SortedInsertionsStayBalanced)
{
    std::set<int> model;
    for (int k = 0; k < 1024; ++k) {
        ASSERT_TRUE(insert(k));
        model.insert(k);
        ASSERT_LE(hbt_validate(root), 11);
    }
    check_tree(root, model);
    // Deleting from one end keeps taking the same side away.
    for (int k = 0; k < 1000; ++k) {
        erase(k);
        model.erase(k);
        ASSERT_GT(hbt_validate(root), 0);
    }
    check_tree(root, model);
    for (int k = 1023; k >= 1000; --k)
        erase(k);
    ASSERT_EQ(root, nullptr);

    for (int k = 1023; k >= 0; --k) {
        ASSERT_TRUE(insert(k));
        ASSERT_LE(hbt_validate(root), 11);
    }
    model.clear();
    for (int k = 0; k < 1024; ++k)
        model.insert(k);
    check_tree(root, model);
}

TEST_F(HbtTree, DeletingTheRootUntilEmpty)
{
    std::set<int> model;
    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        int k = static_cast<int>(rng() % 4096);
        if (model.insert(k).second) {
            ASSERT_TRUE(insert(k));
        }
    }
    while (root) {
        int k = item_of(root)->key;
        erase(k);
        model.erase(k);
        check_tree(root, model);
        ASSERT_FALSE(HasFatalFailure());
    }
    EXPECT_TRUE(model.empty());
}

TEST_F(HbtTree, SingleNodeAndReinsertion)
{
    EXPECT_EQ(hbt_iterate_next(nullptr, nullptr), nullptr);
    EXPECT_EQ(hbt_max_element(nullptr), nullptr);
    EXPECT_EQ(hbt_getnext(nullptr, &probe(1)->node, cmp_items), nullptr);

    ASSERT_TRUE(insert(5));
    EXPECT_EQ(root, &items[5].node);
    EXPECT_EQ(items[5].node.hbt_data[0], 0u);
    EXPECT_EQ(items[5].node.hbt_data[1], 0u);
    EXPECT_FALSE(hbt_insert(&root, &probe(5)->node, cmp_items));
    EXPECT_EQ(hbt_iterate_next(root, root), nullptr);
    erase(5);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(items[5].node.hbt_data[0], 0u);
    EXPECT_EQ(items[5].node.hbt_data[1], 0u);

    // A removed node goes straight back in, also from inside a bigger tree.
    std::set<int> model{5};
    ASSERT_TRUE(insert(5));
    for (int k = 10; k < 40; ++k) {
        ASSERT_TRUE(insert(k));
        model.insert(k);
    }
    for (int k : {20, 10, 39, 5}) {
        erase(k);
        ASSERT_TRUE(insert(k));
        check_tree(root, model);
    }
}

TEST_F(HbtTree, NextGreaterAtTheEnds)
{
    for (int k = 10; k <= 100; k += 10)
        ASSERT_TRUE(insert(k));
    EXPECT_EQ(found(hbt_getnext(root, &probe(100)->node, cmp_items)), nullptr);
    EXPECT_EQ(found(hbt_getnext_or_equal(root, &probe(100)->node, cmp_items)), &items[100]);
    EXPECT_EQ(found(hbt_getnext(root, &probe(101)->node, cmp_items)), nullptr);
    EXPECT_EQ(found(hbt_getnext_or_equal(root, &probe(101)->node, cmp_items)), nullptr);
    EXPECT_EQ(found(hbt_getnext(root, &probe(-1)->node, cmp_items)), &items[10]);
    EXPECT_EQ(found(hbt_getnext_or_equal(root, &probe(-1)->node, cmp_items)), &items[10]);
    EXPECT_EQ(found(hbt_getnext(root, &probe(50)->node, cmp_items)), &items[60]);
    EXPECT_EQ(found(hbt_getnext(root, &probe(55)->node, cmp_items)), &items[60]);
}

using HbtDeath = HbtTree;

TEST_F(HbtDeath, BrokenTreesAndMisuseAreFatal)
{
    ASSERT_TRUE(insert(1));
    ASSERT_TRUE(insert(2));
    // A wrong sign on a leaf.
    items[2].node.hbt_data[0] |= 1;
    EXPECT_DEATH(hbt_validate(root),
                 "qv_hbtree.cpp:hbt_validate: assertion \"hbt_sign\\(node\\) == 0x00\" failed");
    items[2].node.hbt_data[0] &= ~3ul;
    // Root 1 leans right: claiming left-heavy is caught.
    items[1].node.hbt_data[0] = (items[1].node.hbt_data[0] & ~3ul) | 3;
    EXPECT_DEATH(hbt_validate(root), "assertion \"hbt_sign\\(node\\) == 0x01\" failed");
    items[1].node.hbt_data[0] = (items[1].node.hbt_data[0] & ~3ul) | 1;
    ASSERT_EQ(hbt_validate(root), 2);

    // Deleting a node that is not in the tree, or a twin of a stored key.
    EXPECT_DEATH(erase(3), "qv_hbtree.cpp:hbt_delete: assertion \"desc\" failed");
    Item twin = items[2];
    twin.node = hbt_node_t{};
    EXPECT_DEATH(hbt_delete(&root, &twin.node, cmp_items), "hbt_delete: assertion \"res\" failed");
}

TEST_F(HbtDeath, PathStackOverflowStopsInsteadOfWritingPastIt)
{
    // A hand-made chain 40 levels deep, far beyond what balancing allows.
    for (int k = 0; k < 40; ++k)
        items[k].node.hbt_data[1] =
            k + 1 < 40 ? reinterpret_cast<unsigned long>(&items[k + 1].node) : 0;
    root = &items[0].node;
    EXPECT_DEATH(insert(100), "qv_hbtree.cpp:hbt_push: assertion \"stack->top > 0\" failed");
}

} // namespace
