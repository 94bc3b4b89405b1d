// Time values: subtraction with one borrow, the unsigned interval
// comparison, and the text form of a number of seconds.

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <random>
#include <string>

#include "qv_daemon.h"

namespace
{

utime_t ut(int32_t s, int32_t us)
{
    return {s, us};
}

bool same(const utime_t &a, const utime_t &b)
{
    return a.ut_sec == b.ut_sec && a.ut_usec == b.ut_usec;
}

TEST(UtimeSubtract, BorrowsOnceAndNeverClamps)
{
    utime_t r;
    utime_t a = ut(5, 200000), b = ut(3, 700000);
    qvmodule_utime_subtract(&r, &a, &b);
    EXPECT_TRUE(same(r, ut(1, 500000)));

    a = ut(3, 0), b = ut(5, 0);
    qvmodule_utime_subtract(&r, &a, &b);
    EXPECT_TRUE(same(r, ut(-2, 0)));

    a = ut(3, 0), b = ut(5, 1);
    qvmodule_utime_subtract(&r, &a, &b);
    EXPECT_TRUE(same(r, ut(-3, 999999)));
}

// Against 64-bit arithmetic on normalised values, written into a separate
// record and in place over either operand.
TEST(UtimeSubtract, MatchesWideArithmeticInPlaceOrNot)
{
    std::mt19937 rng(4242);
    std::uniform_int_distribution<int32_t> secs(-1000000, 1000000);
    std::uniform_int_distribution<int32_t> usecs(0, 999999);
    for (int i = 0; i < 20000; i++) {
        utime_t big = ut(secs(rng), usecs(rng)), little = ut(secs(rng), usecs(rng));
        int64_t want =
            (int64_t(big.ut_sec) - little.ut_sec) * 1000000 + big.ut_usec - little.ut_usec;
        utime_t r;
        qvmodule_utime_subtract(&r, &big, &little);
        ASSERT_GE(r.ut_usec, 0);
        ASSERT_LT(r.ut_usec, 1000000);
        ASSERT_EQ(int64_t(r.ut_sec) * 1000000 + r.ut_usec, want);

        utime_t into_big = big, into_little = little;
        qvmodule_utime_subtract(&into_big, &into_big, &little);
        qvmodule_utime_subtract(&into_little, &big, &into_little);
        ASSERT_TRUE(same(into_big, r));
        ASSERT_TRUE(same(into_little, r));
    }
}

TEST(UtimeSubtract, WrapsLikeA32BitTimeT)
{
    utime_t r, a = ut(INT32_MIN, 0), b = ut(1, 0);
    qvmodule_utime_subtract(&r, &a, &b);
    EXPECT_EQ(r.ut_sec, INT32_MAX);
}

TEST(UtimeLonger, ComparesUnsigned)
{
    struct {
        utime_t elapsed;
        unsigned int interval;
        bool longer;
    } cases[] = {
        {ut(0, 100000), 100000, true},
        {ut(0, 99999), 100000, false},
        {ut(1, 0), 1500000, false},
        {ut(2, 0), 1500000, true},
        {ut(1, 500000), 1500000, true},
        {ut(1, 499999), 1500000, false},
        {ut(0, 0), 0, true},
        {ut(-1, 0), 0xffffffffu, true},
        {ut(-1, 0), 1, true},
        {ut(0, -1), 999999, true},
        {ut(4294, 967295), 0xffffffffu, true},
        {ut(4294, 967294), 0xffffffffu, false},
    };
    for (auto &c : cases)
        EXPECT_EQ(qvmodule_utime_longer(&c.elapsed, c.interval), c.longer)
            << c.elapsed.ut_sec << "s " << c.elapsed.ut_usec << "us vs " << c.interval;
}

TEST(UtimeLonger, SuspendsAtExactly100ms)
{
    utime_t e = ut(0, 99999);
    EXPECT_FALSE(qvmodule_utime_should_suspend(&e));
    e = ut(0, 100000);
    EXPECT_TRUE(qvmodule_utime_should_suspend(&e));
    e = ut(-5, 0);
    EXPECT_TRUE(qvmodule_utime_should_suspend(&e));
}

TEST(TimePrint, PiecesInOrderWithTheirPunctuation)
{
    struct {
        time_t secs;
        const char *text;
    } cases[] = {
        {0, ""},
        {45, " 45s "},
        {60, " 1m:"},
        {3661, " 1h: 1m: 1s "},
        {86400, " 1d:"},
        {90061, " 1d: 1h: 1m: 1s "},
        {86400 + 59, " 1d: 59s "},
        {-61, " -1m: -1s "},
        {-90061, " -1d: -1h: -1m: -1s "},
    };
    for (auto &c : cases)
        EXPECT_STREQ(time_print(c.secs), c.text) << c.secs;
}

TEST(TimePrint, OneBufferOverwrittenByEveryCall)
{
    const char *first = time_print(45);
    std::string copy = first;
    const char *second = time_print(3661);
    EXPECT_EQ(first, second);
    EXPECT_EQ(copy, " 45s ");
    EXPECT_STREQ(first, " 1h: 1m: 1s ");
    // A long text leaves no tail of the longer one before it.
    time_print(90061);
    EXPECT_STREQ(time_print(1), " 1s ");
}

TEST(CurrentTime, FollowsTheWallClock)
{
    utime_t now;
    time_t before = time(nullptr);
    qvmodule_get_current_utime(&now);
    time_t after = time(nullptr);
    EXPECT_GE(now.ut_sec, int32_t(before));
    EXPECT_LE(now.ut_sec, int32_t(after));
    EXPECT_GE(now.ut_usec, 0);
    EXPECT_LT(now.ut_usec, 1000000);
    EXPECT_GE(qvmodule_get_current_time(), before);

    // A stamp an hour in the past is an hour old, give or take the time
    // this test takes.
    utime_t stamp = ut(now.ut_sec - 3600, now.ut_usec), elapsed;
    qvmodule_get_elapsed_utime(&elapsed, &stamp);
    EXPECT_GE(elapsed.ut_sec, 3600);
    EXPECT_LT(elapsed.ut_sec, 3600 + 600);
    time_t secs = qvmodule_get_elapsed_time(now.ut_sec - 3600);
    EXPECT_GE(secs, 3600);
    EXPECT_LT(secs, 3600 + 600);

    // A stamp in the future gives a negative elapsed time, which counts as
    // longer than any interval.
    stamp = ut(now.ut_sec + 3600, 0);
    qvmodule_get_elapsed_utime(&elapsed, &stamp);
    EXPECT_LT(elapsed.ut_sec, 0);
    EXPECT_TRUE(qvmodule_utime_should_suspend(&elapsed));
}

} // namespace
