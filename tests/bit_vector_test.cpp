// Bit vector: growth by whole 32-bit words, the bound, the word scans, the
// module cookie's accounting, and a heap that really has nothing left.

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include <random>
#include <set>
#include <vector>

#include "bit_vector.h"
#include "qv_memory.h"
#include "qv_test_util.h"

namespace
{

class BitVector : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        qvmodule_memory_init();
        qvmodule_init();
    }
    void SetUp() override
    {
        tp = qvmodule_alloc("bit vector test", 0, nullptr);
        ASSERT_NE(tp, nullptr);
        vec = bit_vector_init(tp);
        ASSERT_NE(vec, nullptr);
    }
    void TearDown() override
    {
        if (vec) {
            bit_vector_free(tp, vec);
            EXPECT_EQ(cookie()->tmc_n_bytes, 0u);
            EXPECT_EQ(cookie()->tmc_n_alloc, 0u);
        }
        qvmodule_free(tp);
    }
    qvmodule_mem_cookie_t *cookie() { return tp->qvmodule_mem_cookie; }
    int set(unsigned long idx) { return bit_vector_set(tp, &vec, idx); }
    int reset(unsigned long idx) { return bit_vector_reset(tp, &vec, idx); }

    qvmodule *tp = nullptr;
    bit_vector_t *vec = nullptr;
};

TEST_F(BitVector, GrowsToTheWordOfTheHighestBitAndChargesTheModule)
{
    EXPECT_TRUE(bit_vector_isclear(vec));
    EXPECT_EQ(bit_vector_ffr(vec), 0u);
    EXPECT_FALSE(bit_vector_isset(vec, 0));
    EXPECT_EQ(vec->len, 0u);
    EXPECT_EQ(cookie()->tmc_n_bytes, sizeof(bit_vector_t));
    EXPECT_EQ(cookie()->tmc_n_alloc, 1u);

    const struct {
        unsigned long idx, len;
    } steps[] = {{0, 4}, {31, 4}, {32, 8}, {100, 16}, {7, 16}};
    for (auto s : steps) {
        ASSERT_EQ(set(s.idx), 0);
        EXPECT_EQ(vec->len, s.len) << "after setting " << s.idx;
        EXPECT_TRUE(bit_vector_isset(vec, s.idx));
        // A resize is one allocation and one free: still one block, of the
        // new size.
        EXPECT_EQ(cookie()->tmc_n_bytes, sizeof(bit_vector_t) + s.len);
        EXPECT_EQ(cookie()->tmc_n_alloc, 1u);
    }
    EXPECT_FALSE(bit_vector_isset(vec, 99));
    EXPECT_FALSE(bit_vector_isset(vec, 1000));

    // Clearing beyond the storage changes nothing and never grows.
    uint32_t calls = cookie()->tmc_n_func_calls;
    EXPECT_EQ(reset(1000), 0);
    EXPECT_EQ(vec->len, 16u);
    EXPECT_EQ(cookie()->tmc_n_func_calls, calls);

    for (unsigned long i : {0ul, 31ul, 32ul, 100ul, 7ul})
        ASSERT_EQ(reset(i), 0);
    EXPECT_TRUE(bit_vector_isclear(vec));
    EXPECT_EQ(vec->len, 16u);
    EXPECT_EQ(cookie()->tmc_max_bytes, sizeof(bit_vector_t) + 16 + sizeof(bit_vector_t) + 8)
        << "a resize holds the old and the new block at once";
}

TEST_F(BitVector, LowestClearBitScansLittleEndianWords)
{
    for (unsigned long i = 0; i < 32; ++i)
        ASSERT_EQ(set(i), 0);
    EXPECT_EQ(bit_vector_ffr(vec), 32u);
    EXPECT_EQ(bit_vector_ffr(vec), vec->len * 8);

    // Bit 8 is the lowest bit of the second byte, which is the second-lowest
    // byte of the first word.
    ASSERT_EQ(reset(8), 0);
    EXPECT_EQ(bit_vector_ffr(vec), 8u);

    // Only a bit in the last byte of a later word keeps the vector from
    // being clear.
    for (unsigned long i = 0; i < 32; ++i)
        ASSERT_EQ(reset(i), 0);
    ASSERT_EQ(set(95), 0);
    EXPECT_FALSE(bit_vector_isclear(vec));
    EXPECT_EQ(bit_vector_ffr(vec), 0u);
}

TEST_F(BitVector, BoundRefusesIndicesAtOrAboveIt)
{
    bit_vector_set_max_bits(vec, 10);
    EXPECT_EQ(set(10), 1);
    EXPECT_EQ(vec->len, 0u);
    EXPECT_EQ(set(9), 0);
    EXPECT_EQ(vec->len, 4u);
    EXPECT_EQ(reset(10), 1);
    EXPECT_EQ(reset(200), 1);

    // Lowering the bound below a set bit keeps the bit and the storage.
    bit_vector_set_max_bits(vec, 5);
    EXPECT_TRUE(bit_vector_isset(vec, 9));
    EXPECT_EQ(reset(9), 1);
    EXPECT_TRUE(bit_vector_isset(vec, 9));
    bit_vector_set_max_bits(vec, 0);
    EXPECT_EQ(set(4000), 0);
    EXPECT_EQ(vec->len, 504u);
}

TEST_F(BitVector, RandomOperationsMatchModel)
{
    std::mt19937 rng(5);
    std::set<unsigned long> model;
    unsigned long len = 0, bound = 0;
    for (int step = 0; step < 20000; ++step) {
        // Mostly small indices, so that the vector fills and ffr moves.
        unsigned long idx = rng() % 4 ? rng() % 96 : rng() % 2000;
        bool in_bound = bound == 0 || idx < bound;
        switch (rng() % 8) {
        case 0:
        case 1:
        case 2:
            ASSERT_EQ(set(idx), in_bound ? 0 : 1);
            if (in_bound) {
                model.insert(idx);
                len = std::max(len, ((idx >> 3) + 4) & ~3ul);
            }
            break;
        case 3:
        case 4:
            ASSERT_EQ(reset(idx), in_bound ? 0 : 1);
            if (in_bound)
                model.erase(idx);
            break;
        case 5:
            bound = rng() % 3 ? 0 : rng() % 3000;
            bit_vector_set_max_bits(vec, bound);
            break;
        default:
            ASSERT_EQ(bit_vector_isset(vec, idx), model.count(idx) != 0);
            break;
        }
        ASSERT_EQ(vec->len, len);
        ASSERT_EQ(vec->max_bits, bound);
        ASSERT_EQ(bit_vector_isclear(vec), model.empty());
        unsigned long ffr = 0;
        while (model.count(ffr))
            ++ffr;
        ASSERT_EQ(bit_vector_ffr(vec), std::min(ffr, len * 8)) << "step " << step;
        ASSERT_EQ(cookie()->tmc_n_bytes, sizeof(bit_vector_t) + len);
    }
}

TEST_F(BitVector, NoMemoryLeavesTheVectorAsItWas)
{
    ASSERT_EQ(set(5), 0);
    int status = qvtest::run_in_child([this] {
        qvmodule_mem_cookie_t before = *cookie();
        qvtest::exhaust_heap();
        if (bit_vector_init(tp) != nullptr)
            return 1;
        bit_vector_t *old = vec;
        if (set(1000) != -1)
            return 2;
        if (vec != old || vec->len != 4 || !bit_vector_isset(vec, 5) || bit_vector_isset(vec, 1000))
            return 3;
        // Setting within the storage needs no memory.
        if (set(6) != 0 || !bit_vector_isset(vec, 6))
            return 4;
        if (cookie()->tmc_n_bytes != before.tmc_n_bytes ||
            cookie()->tmc_n_alloc != before.tmc_n_alloc)
            return 5;
        return 0;
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
