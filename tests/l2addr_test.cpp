// Layer-2 addresses: text form both ways, the parser's accepted and refused
// texts, the group-bit tests and the ordering, NULL operands included.

#include <gtest/gtest.h>
#include <string.h>

#include <tuple>

#include "qvsockaddr_l2addr.h"

TEST(L2Addr, TextFormParserTestsAndOrdering)
{
    const l2_addr_t a{{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}};
    char *shared = l2_addr_to_str(&a);
    EXPECT_STREQ(shared, "00:1a:2b:3c:4d:5e");
    EXPECT_EQ(l2_addr_to_str(nullptr), shared);
    EXPECT_STREQ(shared, "NULL MAC");

    // Accepted are the first three: only the first 17 characters count, and
    // the first two of each field.
    const char *texts[] = {
        "00:1a:2b:3c:4d:5e", "00:1A:2b:3C:4d:5E", "00:1a:2b:3c:4d:5e7", "",
        "00-1a-2b-3c-4d-5e", "00:1a:2b:3c:4d",    "0:1a:2b:3c:4d:5e",   "0g:1a:2b:3c:4d:5e",
        "00:1a:2b:3c::4d",   "00:1a:2b:3c:4d:5",  "00:1a:2b:3c:4d:5g",  "000:1a:2b:3c:4d:5e"};
    for (size_t i = 0; i < std::size(texts); i++) {
        l2_addr_t out{};
        EXPECT_EQ(l2_addr_string_to_addr(texts[i], &out), i < 3) << texts[i];
        if (i < 3) {
            EXPECT_EQ(l2_addr_cmp(&out, &a), 0) << texts[i];
        }
    }
    l2_addr_t out{};
    EXPECT_FALSE(l2_addr_string_to_addr(nullptr, &out));
    EXPECT_FALSE(l2_addr_string_to_addr(texts[0], nullptr));

    // Ascending, each with whether it is null, multicast and learnable.
    const std::tuple<l2_addr_t, bool, bool, bool> rows[] = {
        {{{0, 0, 0, 0, 0, 0}}, true, false, false},
        {{{0, 0, 0, 0, 0, 1}}, false, false, true},
        {a, false, false, true},
        {{{0x01, 0, 0x5e, 0, 0, 1}}, false, true, false},
        {{{0x02, 0, 0, 0, 0, 1}}, false, false, true},
        {{{0x80, 0, 0, 0, 0, 0}}, false, false, true},
        {{{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}}, false, true, false},
    };
    for (size_t i = 0; i < std::size(rows); i++) {
        const auto &[x, null, mcast, learn] = rows[i];
        char frame[7]; // raw octets in a frame need not be aligned
        auto *copy = reinterpret_cast<l2_addr_t *>(frame + 1);
        l2_addr_copy(copy, &x);
        EXPECT_EQ(l2_addr_is_null(&x), null) << i;
        EXPECT_EQ(l2_addr_is_multicast(&x), mcast) << i;
        EXPECT_EQ(l2_addr_valid_learn(frame + 1), learn) << i;
        for (size_t j = 0; j < std::size(rows); j++) {
            int got = l2_addr_cmp(copy, &std::get<0>(rows[j]));
            EXPECT_EQ((got > 0) - (got < 0), (i > j) - (i < j)) << i << " " << j;
        }
        // A missing address equals only another and sorts first.
        EXPECT_LT(l2_addr_cmp(nullptr, &x), 0) << i;
        EXPECT_GT(l2_addr_cmp(&x, nullptr), 0) << i;
    }
    EXPECT_EQ(l2_addr_cmp(nullptr, nullptr), 0);
    EXPECT_TRUE(l2_addr_is_null(nullptr));
    EXPECT_FALSE(l2_addr_is_multicast(nullptr));
    EXPECT_FALSE(l2_addr_valid_learn(nullptr));
}
