// String attributes: copies charged to the module's cookie, an equal text
// keeping its allocation, and random copy/free sequences checked against a
// model of what each attribute should hold and what the cookie should
// count.

#include <gtest/gtest.h>
#include <string.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "libcpe_utils.h"
#include "qv_memory.h"

static_assert(sizeof(__str) == 12, "the exported scratch array is twelve bytes");

namespace
{

class StringAttr : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { qvmodule_memory_init(); }
    void SetUp() override { mod_.qvmodule_name = "attr owner"; }
    void TearDown() override { qvmodule_mem_cookie_free(&mod_); }

    const qvmodule_mem_cookie_t &cookie() const { return *mod_.qvmodule_mem_cookie; }

    qvmodule mod_{};
};

TEST_F(StringAttr, EqualTextKeepsTheAllocation)
{
    char *attr = nullptr;
    libcpe_copy_string_attribute(&mod_, &attr, "eth0");
    ASSERT_NE(attr, nullptr);
    EXPECT_STREQ(attr, "eth0");
    EXPECT_EQ(cookie().tmc_n_bytes, 5u);
    EXPECT_EQ(cookie().tmc_n_alloc, 1u);
    EXPECT_EQ(cookie().tmc_n_func_calls, 1u);

    char again[] = "eth0";
    char *held = attr;
    libcpe_copy_string_attribute(&mod_, &attr, again);
    EXPECT_EQ(attr, held);
    EXPECT_EQ(cookie().tmc_n_func_calls, 1u);

    libcpe_copy_string_attribute(&mod_, &attr, "wan-uplink");
    EXPECT_STREQ(attr, "wan-uplink");
    EXPECT_EQ(cookie().tmc_n_bytes, 11u);
    EXPECT_EQ(cookie().tmc_n_alloc, 1u);
    EXPECT_EQ(cookie().tmc_max_bytes, 11u);
    EXPECT_EQ(cookie().tmc_n_func_calls, 3u);

    // NULL frees the copy and leaves NULL; the null copy is one more call.
    libcpe_copy_string_attribute(&mod_, &attr, nullptr);
    EXPECT_EQ(attr, nullptr);
    EXPECT_EQ(cookie().tmc_n_bytes, 0u);
    EXPECT_EQ(cookie().tmc_n_alloc, 0u);
    EXPECT_EQ(cookie().tmc_n_func_calls, 5u);

    // Freeing an empty attribute touches nothing.
    libcpe_free_string_attribute(&mod_, &attr);
    EXPECT_EQ(attr, nullptr);
    EXPECT_EQ(cookie().tmc_n_func_calls, 5u);
    libcpe_free_string_attribute(&mod_, nullptr);
    libcpe_copy_string_attribute(&mod_, nullptr, "x");
    EXPECT_EQ(cookie().tmc_n_func_calls, 5u);

    libcpe_copy_string_attribute(&mod_, &attr, "");
    ASSERT_NE(attr, nullptr);
    EXPECT_STREQ(attr, "");
    libcpe_free_string_attribute(&mod_, &attr);
    EXPECT_EQ(attr, nullptr);
    EXPECT_EQ(cookie().tmc_n_bytes, 0u);
    EXPECT_EQ(cookie().tmc_max_alloc, 1u);
}

TEST_F(StringAttr, NoModuleChargesTheAnonymousCookie)
{
    const qvmodule_mem_cookie_t *anon = qvmodule_cookies;
    while (anon->tmc_next != nullptr)
        anon = anon->tmc_next;
    ASSERT_STREQ(anon->tmc_name, "--Anonymous--");
    uint32_t bytes = anon->tmc_n_bytes, allocs = anon->tmc_n_alloc;

    char *attr = nullptr;
    libcpe_copy_string_attribute(nullptr, &attr, "abc");
    EXPECT_EQ(anon->tmc_n_bytes, bytes + 4);
    EXPECT_EQ(anon->tmc_n_alloc, allocs + 1);
    libcpe_free_string_attribute(nullptr, &attr);
    EXPECT_EQ(anon->tmc_n_bytes, bytes);
    EXPECT_EQ(anon->tmc_n_alloc, allocs);
}

TEST_F(StringAttr, RandomCopiesAndFreesMatchTheModel)
{
    const char *texts[] = {nullptr, "", "a", "lan", "lan", "wan0", "a much longer description"};
    constexpr int kAttrs = 6;
    std::vector<char *> attrs(kAttrs, nullptr);
    std::vector<std::optional<std::string>> model(kAttrs);
    std::mt19937 rng(42);
    uint32_t calls = 0;

    for (int step = 0; step < 3000; step++) {
        int i = static_cast<int>(rng() % kAttrs);
        char *before = attrs[i];
        if (rng() % 4 == 0) {
            libcpe_free_string_attribute(&mod_, &attrs[i]);
            calls += before != nullptr;
            model[i].reset();
        } else {
            // Copy from a private buffer so that equality is by text only.
            const char *t = texts[rng() % std::size(texts)];
            std::string buf = t ? t : "";
            const char *src = t ? buf.c_str() : nullptr;
            bool same = before != nullptr && src != nullptr && model[i] == buf;
            libcpe_copy_string_attribute(&mod_, &attrs[i], src);
            if (same) {
                EXPECT_EQ(attrs[i], before);
            } else {
                calls += (before != nullptr) + 1;
            }
            model[i] = src ? std::optional<std::string>(buf) : std::nullopt;
        }

        uint32_t bytes = 0, allocs = 0;
        for (int k = 0; k < kAttrs; k++) {
            ASSERT_EQ(attrs[k] != nullptr, model[k].has_value()) << "step " << step;
            if (attrs[k]) {
                ASSERT_EQ(std::string(attrs[k]), *model[k]);
                bytes += static_cast<uint32_t>(model[k]->size() + 1);
                allocs++;
            }
        }
        if (mod_.qvmodule_mem_cookie == nullptr)
            continue;
        ASSERT_EQ(cookie().tmc_n_bytes, bytes) << "step " << step;
        ASSERT_EQ(cookie().tmc_n_alloc, allocs) << "step " << step;
        ASSERT_EQ(cookie().tmc_n_func_calls, calls) << "step " << step;
    }
    for (char *&a : attrs)
        libcpe_free_string_attribute(&mod_, &a);
    EXPECT_EQ(cookie().tmc_n_bytes, 0u);
    EXPECT_EQ(cookie().tmc_n_alloc, 0u);
}

} // namespace
