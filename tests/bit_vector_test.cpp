// Bit vector: seeded operations against a std::set (growth by 32-bit words
// charged to the module, the bound, the word scans); then no memory at all.

#include <gtest/gtest.h>
#include <random>
#include <set>
#include "bit_vector.h"
#include "qv_memory.h"
#include "qv_test_util.h"

TEST(BitVector, OperationsMatchModelAndNoMemoryChangesNothing)
{
    qvmodule_memory_init();
    qvmodule_init();
    qvmodule *tp = qvmodule_alloc("bit vector test", 0, nullptr);
    bit_vector_t *vec = bit_vector_init(tp);
    ASSERT_NE(vec, nullptr);
    qvmodule_mem_cookie_t *cookie = tp->qvmodule_mem_cookie;
    std::set<unsigned long> model;
    unsigned long len = 0, bound = 0;
    auto check = [&] {
        ASSERT_EQ(vec->len, len);
        ASSERT_EQ(bit_vector_isclear(vec), model.empty());
        unsigned long ffr = 0;
        while (model.count(ffr))
            ++ffr;
        ASSERT_EQ(bit_vector_ffr(vec), std::min(ffr, len * 8));
        ASSERT_EQ(cookie->tmc_n_bytes, sizeof(bit_vector_t) + len);
        ASSERT_EQ(cookie->tmc_n_alloc, 1u);
    };
    // New, full first word, growing (ffr moves through dense words), shrinking
    // (only high bits left: isclear looks past word 0), all cleared.
    ASSERT_NO_FATAL_FAILURE(check());
    for (unsigned long i = 0; i < 32; ++i)
        model.insert(i), bit_vector_set(tp, &vec, i);
    len = 4;
    std::mt19937 rng(5);
    for (int step = 0; step < 20000; ++step) {
        ASSERT_NO_FATAL_FAILURE(check()) << "step " << step;
        unsigned long idx = rng() % 4 ? rng() % 96 : rng() % 2000;
        bool in_bound = bound == 0 || idx < bound;
        unsigned op = rng() % 8;
        if (op < 3 && step < 10000) {
            ASSERT_EQ(bit_vector_set(tp, &vec, idx), in_bound ? 0 : 1);
            if (in_bound) {
                model.insert(idx);
                len = std::max(len, ((idx >> 3) + 4) & ~3ul);
            }
        } else if (op < 5) {
            // Clearing beyond the storage never grows it.
            ASSERT_EQ(bit_vector_reset(tp, &vec, idx), in_bound ? 0 : 1);
            if (in_bound)
                model.erase(idx);
        } else if (op == 5) {
            bound = rng() % 3 ? 0 : rng() % 200;
            bit_vector_set_max_bits(vec, bound);
        } else {
            ASSERT_EQ(bit_vector_isset(vec, idx), model.count(idx) != 0);
        }
    }
    bit_vector_set_max_bits(vec, 0);
    for (unsigned long i : std::set<unsigned long>(model)) {
        ASSERT_EQ(bit_vector_reset(tp, &vec, i), 0);
        model.erase(i);
        ASSERT_NO_FATAL_FAILURE(check());
    }
    // Without memory, growth is refused and the vector and the module's
    // account stay as they were; a bit within the storage can still be set.
    // (Not under a sanitizer: see qvtest::sanitized.)
    if (!qvtest::sanitized) {
        model.insert(0);
        int status = qvtest::run_in_child([&] {
            bit_vector_t *old = vec;
            qvtest::exhaust_heap();
            bool same = bit_vector_init(tp) == nullptr && bit_vector_set(tp, &vec, len * 8) == -1 &&
                        vec == old && bit_vector_set(tp, &vec, 0) == 0;
            for (unsigned long i = 0; i <= len * 8; ++i)
                same = same && bit_vector_isset(vec, i) == (i == 0);
            check();
            return same && !::testing::Test::HasFailure() ? 0 : 1;
        });
        EXPECT_EQ(status, 0);
    }

    bit_vector_free(tp, vec);
    EXPECT_EQ(cookie->tmc_n_bytes, 0u);
    EXPECT_EQ(cookie->tmc_n_alloc, 0u);
    qvmodule_free(tp);
}
