// String attributes: random copies and frees against a model of what each
// attribute holds and what the module's cookie counts.

#include <gtest/gtest.h>
#include <string.h>

#include <array>
#include <random>

#include "libcpe_utils.h"
#include "qv_memory.h"

TEST(StringAttr, RandomCopiesAndFreesMatchTheModel)
{
    qvmodule_memory_init();
    qvmodule mod{};
    const qvmodule_mem_cookie_t none{};
    const char *texts[] = {nullptr, "", "a", "lan", "wan0", "a much longer description"};
    char *attrs[4] = {};
    const char *model[4] = {}; // the text each attribute should hold
    uint32_t calls = 0;        // into the cookie; a strdup of NULL counts too
    std::mt19937 rng(42);
    for (int step = 0; step < 3000; step++) {
        SCOPED_TRACE(step);
        const size_t i = rng() % 4;
        char *const held = attrs[i];
        const char *t = texts[rng() % std::size(texts)];
        if (rng() % 4 == 0) {
            libcpe_free_string_attribute(&mod, &attrs[i]);
            calls += held != nullptr;
            t = nullptr;
        } else {
            libcpe_copy_string_attribute(&mod, &attrs[i], t);
            // An equal text (never the same pointer) keeps its allocation.
            const bool same = t && model[i] && strcmp(t, model[i]) == 0;
            if (same) {
                EXPECT_EQ(attrs[i], held);
            }
            calls += same ? 0 : (held != nullptr) + 1;
        }
        model[i] = t;
        uint32_t bytes = 0, allocs = 0;
        for (size_t k = 0; k < 4; k++) {
            ASSERT_STREQ(attrs[k], model[k]);
            bytes += model[k] ? static_cast<uint32_t>(strlen(model[k]) + 1) : 0;
            allocs += model[k] != nullptr;
        }
        const qvmodule_mem_cookie_t *c = mod.qvmodule_mem_cookie ? mod.qvmodule_mem_cookie : &none;
        ASSERT_EQ((std::array{c->tmc_n_bytes, c->tmc_n_alloc, c->tmc_n_func_calls}),
                  (std::array{bytes, allocs, calls}));
    }
}
