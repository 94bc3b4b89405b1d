// Layer-2 addresses: text form both ways, the parser's accepted and refused
// texts, the group-bit tests and the ordering, including NULL operands.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <string>

#include "qvsockaddr_l2addr.h"

namespace
{

l2_addr_t mac(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e, uint8_t f)
{
    return l2_addr_t{{a, b, c, d, e, f}};
}

bool same(const l2_addr_t &x, const l2_addr_t &y)
{
    return memcmp(x.addr, y.addr, sizeof x.addr) == 0;
}

TEST(L2Addr, TextFormUsesOneStaticBuffer)
{
    l2_addr_t a = mac(0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e);
    char *first = l2_addr_to_str(&a);
    EXPECT_STREQ(first, "00:1a:2b:3c:4d:5e");
    l2_addr_t b = mac(0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa);
    char *second = l2_addr_to_str(&b);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "ff:ee:dd:cc:bb:aa");
    EXPECT_STREQ(l2_addr_to_str(nullptr), "NULL MAC");
}

TEST(L2Addr, ParserAcceptsAndRefuses)
{
    const l2_addr_t expect = mac(0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e);
    for (const char *ok : {"00:1a:2b:3c:4d:5e", "00:1A:2b:3C:4d:5E", "00:1a:2b:3c:4d:5e7",
                           "00:1a:2b:3c:4d:5e:ff", "00:1a:2b:3c:4d:5e "}) {
        SCOPED_TRACE(ok);
        l2_addr_t out{};
        EXPECT_TRUE(l2_addr_string_to_addr(ok, &out));
        EXPECT_TRUE(same(out, expect)) << l2_addr_to_str(&out);
    }
    for (const char *bad :
         {"", "00-1a-2b-3c-4d-5e", "00:1a:2b:3c:4d", "0:1a:2b:3c:4d:5e", "0g:1a:2b:3c:4d:5e",
          "00:1a:2b:3c:4d:5", "00:1a:2b:3c:4d:", "00:1a:2b:3c::4d", " 00:1a:2b:3c:4d:5e",
          // Only 17 characters are looked at: a long field pushes the last
          // pair out of sight.
          "000:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:5g"}) {
        SCOPED_TRACE(bad);
        l2_addr_t out{};
        EXPECT_FALSE(l2_addr_string_to_addr(bad, &out));
    }
    l2_addr_t out{};
    EXPECT_FALSE(l2_addr_string_to_addr(nullptr, &out));
    EXPECT_FALSE(l2_addr_string_to_addr("00:1a:2b:3c:4d:5e", nullptr));

    // A refused text keeps the octets parsed before the bad field.
    out = mac(9, 9, 9, 9, 9, 9);
    EXPECT_FALSE(l2_addr_string_to_addr("12:34:zz:56:78:9a", &out));
    EXPECT_TRUE(same(out, mac(0x12, 0x34, 9, 9, 9, 9)));
}

TEST(L2Addr, RandomAddressesRoundTripInEitherCase)
{
    std::mt19937 rng(7);
    for (int i = 0; i < 2000; i++) {
        l2_addr_t a;
        for (auto &o : a.addr)
            o = static_cast<uint8_t>(rng());
        std::string text = l2_addr_to_str(&a);
        ASSERT_EQ(text.size(), 17u);
        EXPECT_TRUE(std::none_of(text.begin(), text.end(), ::isupper));
        if (i % 2)
            std::transform(text.begin(), text.end(), text.begin(), ::toupper);
        l2_addr_t back{};
        ASSERT_TRUE(l2_addr_string_to_addr(text.c_str(), &back)) << text;
        EXPECT_TRUE(same(a, back));
        l2_addr_t copy{};
        l2_addr_copy(&copy, &a);
        EXPECT_TRUE(same(copy, a));
    }
}

TEST(L2Addr, GroupBitNullAndLearning)
{
    l2_addr_t zero{};
    l2_addr_t unicast = mac(0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e);
    l2_addr_t mcast = mac(0x01, 0x00, 0x5e, 0x00, 0x00, 0x01);
    l2_addr_t bcast = mac(0xff, 0xff, 0xff, 0xff, 0xff, 0xff);
    // Only bit 0x01 of the first octet is the group bit.
    l2_addr_t local = mac(0x02, 0, 0, 0, 0, 0x01);

    EXPECT_TRUE(l2_addr_is_null(nullptr));
    EXPECT_TRUE(l2_addr_is_null(&zero));
    EXPECT_FALSE(l2_addr_is_null(&local));
    l2_addr_t last_only = mac(0, 0, 0, 0, 0, 1);
    EXPECT_FALSE(l2_addr_is_null(&last_only));

    EXPECT_FALSE(l2_addr_is_multicast(nullptr));
    EXPECT_TRUE(l2_addr_is_multicast(&mcast));
    EXPECT_TRUE(l2_addr_is_multicast(&bcast));
    EXPECT_FALSE(l2_addr_is_multicast(&unicast));
    EXPECT_FALSE(l2_addr_is_multicast(&local));

    EXPECT_FALSE(l2_addr_valid_learn(nullptr));
    EXPECT_FALSE(l2_addr_valid_learn(reinterpret_cast<char *>(zero.addr)));
    EXPECT_FALSE(l2_addr_valid_learn(reinterpret_cast<char *>(mcast.addr)));
    EXPECT_FALSE(l2_addr_valid_learn(reinterpret_cast<char *>(bcast.addr)));
    EXPECT_TRUE(l2_addr_valid_learn(reinterpret_cast<char *>(unicast.addr)));
    // Raw octets inside a frame need not be aligned.
    char frame[8] = {0x55, 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00};
    EXPECT_TRUE(l2_addr_valid_learn(frame + 1));
}

int sign(int v)
{
    return (v > 0) - (v < 0);
}

TEST(L2Addr, ComparisonIsATotalOrder)
{
    // Random addresses from a small alphabet, so that ties and shared
    // prefixes are common, against the octets as an unsigned string.
    std::mt19937 rng(11);
    const uint8_t alphabet[] = {0x00, 0x01, 0x7f, 0x80, 0xff};
    for (int i = 0; i < 5000; i++) {
        l2_addr_t a, b;
        for (int k = 0; k < 6; k++) {
            a.addr[k] = alphabet[rng() % 5];
            b.addr[k] = alphabet[rng() % 5];
        }
        bool a_first = std::lexicographical_compare(a.addr, a.addr + 6, b.addr, b.addr + 6);
        bool b_first = std::lexicographical_compare(b.addr, b.addr + 6, a.addr, a.addr + 6);
        int want = a_first ? -1 : b_first ? 1 : 0;
        EXPECT_EQ(sign(l2_addr_cmp(&a, &b)), want);
        EXPECT_EQ(sign(l2_addr_cmp(&b, &a)), -want);
        EXPECT_EQ(l2_addr_cmp(&a, &a), 0);
    }
    // A missing address equals only another missing one and sorts first.
    l2_addr_t zero{};
    EXPECT_EQ(l2_addr_cmp(nullptr, nullptr), 0);
    EXPECT_LT(l2_addr_cmp(nullptr, &zero), 0);
    EXPECT_GT(l2_addr_cmp(&zero, nullptr), 0);
}

} // namespace
