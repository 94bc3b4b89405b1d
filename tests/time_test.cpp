// Time values: subtraction with one borrow, the unsigned interval
// comparison, and the text form of a number of seconds.

#include <gtest/gtest.h>

#include <random>

#include "qv_daemon.h"

namespace
{

const auto usec = [](const utime_t &u) { return int64_t(u.ut_sec) * 1000000 + u.ut_usec; };

// Against 64-bit arithmetic, into a separate record and in place.
TEST(Utime, SubtractBorrowsOnceAndNeverClamps)
{
    std::mt19937 rng(4242);
    std::uniform_int_distribution<int32_t> secs(-1000000, 1000000), usecs(0, 999999);
    // Half the microseconds at the edges, where one borrow more or less shows.
    const int32_t edges[] = {0, 1, 999998, 999999};
    auto us = [&] { return rng() % 2 ? usecs(rng) : edges[rng() % 4]; };
    for (int i = 0; i < 20000; i++) {
        utime_t big = {secs(rng), us()}, little = {secs(rng), us()}, r, b2 = big, l2 = little;
        qvmodule_utime_subtract(&r, &big, &little);
        qvmodule_utime_subtract(&b2, &b2, &little);
        qvmodule_utime_subtract(&l2, &big, &l2);
        ASSERT_GE(r.ut_usec, 0);
        ASSERT_LT(r.ut_usec, 1000000);
        ASSERT_EQ(usec(r), usec(big) - usec(little));
        ASSERT_EQ(usec(b2), usec(r));
        ASSERT_EQ(usec(l2), usec(r));
    }
}

// Elapsed seconds and microseconds, an interval, and whether it is longer.
// Work suspends at 100 ms exactly; a negative time is longer than any.
TEST(Utime, LongerComparesUnsigned)
{
    // clang-format off
    const int64_t cases[][4] = {
        {0, 100000, 100000, 1}, {0, 99999, 100000, 0}, {-5, 0, 100000, 1}, {1, 0, 1500000, 0},
        {2, 0, 1500000, 1}, {1, 500000, 1500000, 1}, {1, 499999, 1500000, 0}, {0, 0, 0, 1},
        {-1, 0, ~0u, 1}, {0, -1, 999999, 1}, {4294, 967295, ~0u, 1}, {4294, 967294, ~0u, 0}};
    // clang-format on
    for (auto &c : cases) {
        utime_t e = {int32_t(c[0]), int32_t(c[1])};
        EXPECT_EQ(qvmodule_utime_longer(&e, unsigned(c[2])), c[3]) << &c - cases;
        if (c[2] == 100000) {
            EXPECT_EQ(qvmodule_utime_should_suspend(&e), c[3]) << &c - cases;
        }
    }
}

// The last text is shorter than the one before it: no tail may remain.
TEST(TimePrint, PiecesInOneBufferOverwrittenByEveryCall)
{
    const time_t secs[] = {0, 45, 60, 3661, 86400, 86459, 90061, -61, -90061, 1};
    // clang-format off
    const char *texts[] = {"", " 45s ", " 1m:", " 1h: 1m: 1s ", " 1d:", " 1d: 59s ", " 1d: 1h: 1m: 1s ",
                           " -1m: -1s ", " -1d: -1h: -1m: -1s ", " 1s "};
    // clang-format on
    const char *buf = time_print(45);
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(time_print(secs[i]), buf);
        EXPECT_STREQ(buf, texts[i]) << secs[i];
    }
}

} // namespace
