// Time values: subtraction with one borrow, the unsigned interval
// comparison, and the text form of a number of seconds.

#include <gtest/gtest.h>

#include <time.h>

#include <random>
#include <string>

#include "qv_daemon.h"

namespace
{

int64_t usec(const utime_t &u)
{
    return int64_t(u.ut_sec) * 1000000 + u.ut_usec;
}

// Against 64-bit arithmetic on normalised values, written into a separate
// record and in place over either operand.
TEST(Utime, SubtractBorrowsOnceAndNeverClamps)
{
    std::mt19937 rng(4242);
    std::uniform_int_distribution<int32_t> secs(-1000000, 1000000), usecs(0, 999999);
    for (int i = 0; i < 20000; i++) {
        utime_t big = {secs(rng), usecs(rng)}, little = {secs(rng), usecs(rng)}, r;
        qvmodule_utime_subtract(&r, &big, &little);
        ASSERT_TRUE(r.ut_usec >= 0 && r.ut_usec < 1000000);
        ASSERT_EQ(usec(r), usec(big) - usec(little));
        utime_t into_big = big, into_little = little;
        qvmodule_utime_subtract(&into_big, &into_big, &little);
        qvmodule_utime_subtract(&into_little, &big, &into_little);
        ASSERT_TRUE(usec(into_big) == usec(r) && usec(into_little) == usec(r));
    }
    // An hour-old stamp is an hour old; one from the future gives a negative
    // elapsed time, which counts as longer than any interval.
    utime_t now, elapsed;
    time_t before = time(nullptr);
    qvmodule_get_current_utime(&now);
    EXPECT_TRUE(now.ut_sec >= before && now.ut_sec <= time(nullptr));
    utime_t stamp = {now.ut_sec - 3600, now.ut_usec};
    qvmodule_get_elapsed_utime(&elapsed, &stamp);
    EXPECT_TRUE(elapsed.ut_sec >= 3600 && elapsed.ut_sec < 3600 + 600) << elapsed.ut_sec;
    EXPECT_TRUE(qvmodule_get_elapsed_time(now.ut_sec - 3600) >= 3600);
    stamp = {now.ut_sec + 3600, 0};
    qvmodule_get_elapsed_utime(&elapsed, &stamp);
    EXPECT_TRUE(elapsed.ut_sec < 0 && qvmodule_utime_should_suspend(&elapsed));
}

// The suspension point is 100 ms exactly.
TEST(Utime, LongerComparesUnsigned)
{
    struct {
        utime_t elapsed;
        unsigned int interval;
        bool longer;
    } cases[] = {
        {{0, 100000}, 100000, true},
        {{0, 99999}, 100000, false},
        {{-5, 0}, 100000, true},
        {{1, 0}, 1500000, false},
        {{2, 0}, 1500000, true},
        {{1, 500000}, 1500000, true},
        {{1, 499999}, 1500000, false},
        {{0, 0}, 0, true},
        {{-1, 0}, 0xffffffffu, true},
        {{0, -1}, 999999, true},
        {{4294, 967295}, 0xffffffffu, true},
        {{4294, 967294}, 0xffffffffu, false},
    };
    for (auto &c : cases) {
        EXPECT_EQ(qvmodule_utime_longer(&c.elapsed, c.interval), c.longer)
            << c.elapsed.ut_sec << "s " << c.elapsed.ut_usec << "us vs " << c.interval;
        EXPECT_TRUE(c.interval != 100000 || qvmodule_utime_should_suspend(&c.elapsed) == c.longer);
    }
}

TEST(TimePrint, PiecesInOneBufferOverwrittenByEveryCall)
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
        {86459, " 1d: 59s "},
        {-61, " -1m: -1s "},
        {-90061, " -1d: -1h: -1m: -1s "},
        {1, " 1s "}, // no tail of the longer text before it
    };
    const char *buf = time_print(45);
    for (auto &c : cases) {
        EXPECT_EQ(time_print(c.secs), buf);
        EXPECT_STREQ(buf, c.text) << c.secs;
    }
}

} // namespace
