// Timers: creation and arming with absent values, the dispatcher's order
// of precedence after the user function, deferred deletion, jitter, the
// show output, tracing, the giant lock, and a daemon's trace file.

#include <gtest/gtest.h>

#include <event2/event.h>
#include <stdlib.h>
#include <sys/time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qv_daemon_private.h"
#include "qv_timer_private.h"
#include "timer_job_test_util.h"

using qvtest::LockRecorder;
using qvtest::members;
using qvtest::TraceCapture;

namespace
{

::testing::Environment *const env = ::testing::AddGlobalTestEnvironment(new qvtest::TimerJobEnv);

// Data of a test timer: how often it fired, what it was told, and what it
// does when it fires.
struct Probe {
    int fires = 0;
    time_t last_interval = -1;
    struct timeval fired_at = {0, 0};
    std::function<void(qvmodule_timer *)> action;
};

void probe_cb(qvmodule_timer *t, time_t interval)
{
    auto *p = static_cast<Probe *>(qvmodule_timer_data(t));
    p->fires++;
    p->last_interval = interval;
    gettimeofday(&p->fired_at, nullptr);
    if (p->action)
        p->action(t);
}

std::vector<qvmodule_timer *> listed()
{
    std::vector<qvmodule_timer *> out;
    for (qvmodule_timer *t = timer_head.timer_forw; t != &timer_head; t = t->timer_forw)
        out.push_back(t);
    return out;
}

unsigned int pool_in_use()
{
    return qvmodule_timer_block_index->tb_n_alloc;
}

void pass()
{
    event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

// Runs the loop until pred holds; false if it never does.
bool run_until(const std::function<bool()> &pred, int max_passes = 5000)
{
    for (int i = 0; i < max_passes && !pred(); i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    return pred();
}

int64_t usec(const struct timeval &tv)
{
    return int64_t(tv.tv_sec) * 1000000 + tv.tv_usec;
}

int64_t now_usec()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return usec(tv);
}

int64_t left_usec(qvmodule_timer *t)
{
    utime_t left;
    qvmodule_timer_utime_left(t, &left);
    return int64_t(left.ut_sec) * 1000000 + left.ut_usec;
}

// libevent keeps a coarse monotonic clock and maps it onto the wall clock;
// remaining times are right to within a few of its ticks.
constexpr int64_t kClockSlop = 50000;

class TimerTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        tp = qvmodule_alloc("mod", 0, nullptr);
        qvmodule_create(tp);
    }
    void TearDown() override
    {
        qv_giant_lock_func_init(nullptr);
        qvmodule_delete(tp);
        EXPECT_TRUE(listed().empty());
        EXPECT_EQ(pool_in_use(), 0u);
    }
    qvmodule_timer *make(Probe &p, const char *name = "t")
    {
        return qvmodule_timer_create(tp, name, 0, 0, 0, probe_cb, &p);
    }
    qvmodule *tp = nullptr;
};

TEST_F(TimerTest, IdleTimerIsListedButNeverFires)
{
    Probe p;
    qvmodule_timer *t = make(p, "idle");
    EXPECT_FALSE(qvmodule_timer_running(t));
    EXPECT_EQ(qvmodule_timer_time_left(t), 0);
    EXPECT_EQ(left_usec(t), 0);
    EXPECT_EQ(listed(), std::vector<qvmodule_timer *>{t});
    EXPECT_EQ(qvmodule_timer_qvmodule(t), tp);
    for (int i = 0; i < 5; i++)
        pass();
    EXPECT_EQ(p.fires, 0);

    // Null handles are accepted where a daemon may hold one.
    utime_t untouched = {7, 7};
    qvmodule_timer_utime_left(nullptr, &untouched);
    EXPECT_EQ(untouched.ut_sec, 7);
    EXPECT_EQ(untouched.ut_usec, 7);
    EXPECT_EQ(qvmodule_timer_time_left(nullptr), 0);
    EXPECT_FALSE(qvmodule_timer_running(nullptr));
    qvmodule_timer_delete(nullptr);
    qvmodule_timer_delete(t);
}

// Each way of creating or arming maps its arguments onto an interval and a
// first delay; absent ones differ by call.
struct Expect {
    const char *what;
    std::function<qvmodule_timer *(qvmodule *, Probe &)> make;
    bool running;
    struct timeval interval;
    int64_t delay_us; // -1: not pending
    unsigned int jitter = 0;
};

void check(const Expect &e, qvmodule *tp)
{
    SCOPED_TRACE(e.what);
    Probe p;
    int64_t before = now_usec();
    qvmodule_timer *t = e.make(tp, p);
    int64_t left = left_usec(t);
    int64_t took = now_usec() - before;
    EXPECT_EQ(bool(qvmodule_timer_running(t)), e.running);
    struct timeval iv;
    qvmodule_timer_periodic_getval(t, &iv);
    EXPECT_EQ(iv.tv_sec, e.interval.tv_sec);
    EXPECT_EQ(iv.tv_usec, e.interval.tv_usec);
    EXPECT_EQ(t->timer_jitter, e.jitter);
    if (!e.running) {
        EXPECT_EQ(left, 0);
    } else if (e.delay_us < 0) {
        EXPECT_LE(left, kClockSlop); // due already
    } else {
        // Jitter takes off less than half of its percentage.
        int64_t shortest = e.delay_us - e.delay_us * std::min(e.jitter, 50u) / 200;
        EXPECT_LE(left, e.delay_us + kClockSlop);
        EXPECT_GE(left + took, shortest - kClockSlop);
    }
    qvmodule_timer_delete(t);
}

// A creation call on module m with data p, and a set call on an idle t.
#define MAKE(call) [](qvmodule *m, Probe &p) { return call; }
#define SET(call)                                                                                  \
    [](qvmodule *m, Probe &p) {                                                                    \
        qvmodule_timer *t = qvmodule_timer_create(m, "t", 0, 0, 0, probe_cb, &p);                  \
        call;                                                                                      \
        return t;                                                                                  \
    }

TEST_F(TimerTest, CreationAndArmingMapAbsentValues)
{
    static utime_t iv15 = {1, 500000}, big_usec = {0, 3000000}, off2 = {2, 0};
    const Expect cases[] = {
        {"create 10, 2",
         MAKE(qvmodule_timer_create(m, "t", 0, 10, 2, probe_cb, &p)),
         true,
         {10, 0},
         2000000},
        {"create -5, -3: idle",
         MAKE(qvmodule_timer_create(m, "t", 0, -5, -3, probe_cb, &p)),
         false,
         {0, 0},
         -1},
        {"create -5, 2",
         MAKE(qvmodule_timer_create(m, "t", 0, -5, 2, probe_cb, &p)),
         true,
         {0, 0},
         2000000},
        {"jittered 0: idle, no jitter kept",
         MAKE(qvmodule_timer_create_jittered(m, "t", 0, 0, 30, probe_cb, &p)),
         false,
         {0, 0},
         -1},
        {"jittered 20, 30",
         MAKE(qvmodule_timer_create_jittered(m, "t", 0, 20, 30, probe_cb, &p)),
         true,
         {20, 0},
         20000000,
         30},
        {"oneshot 3",
         MAKE(qvmodule_timer_create_oneshot(m, "t", 0, 3, 0, probe_cb, &p)),
         true,
         {0, 0},
         3000000},
        {"u-oneshot 2500000 us",
         MAKE(qvmodule_timer_ucreate_oneshot(m, "t", 0, 2500000, 0, probe_cb, &p)),
         true,
         {0, 0},
         2500000},
        {"ucreate 1.5 s",
         MAKE(qvmodule_timer_ucreate(m, "t", 0, &iv15, nullptr, 0, probe_cb, &p)),
         true,
         {1, 500000},
         1500000},
        {"ucreate 3000000 us",
         MAKE(qvmodule_timer_ucreate(m, "t", 0, &big_usec, nullptr, 0, probe_cb, &p)),
         true,
         {3, 0},
         3000000},
        {"set 0, 0 resets",
         SET(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_set(t, 0, 0)),
         false,
         {0, 0},
         -1},
        {"set 10, 3", SET(qvmodule_timer_set(t, 10, 3)), true, {10, 0}, 3000000},
        {"set -1, 0 passes -1 on", SET(qvmodule_timer_set(t, -1, 0)), true, {-1, 0}, -1},
        {"set_periodic 0 is due", SET(qvmodule_timer_set_periodic(t, 0, 0)), true, {0, 0}, -1},
        {"uset_periodic 1500000 us",
         SET(qvmodule_timer_uset_periodic(t, 1500000, 0)),
         true,
         {1, 500000},
         1500000},
        {"uset_oneshot 3000001 us",
         SET(qvmodule_timer_uset_oneshot(t, 3000001, 0)),
         true,
         {0, 0},
         3000001},
        {"set_uoffset 2 s", SET(qvmodule_timer_set_uoffset(t, &off2, 0)), true, {0, 0}, 2000000},
        {"uset with neither resets, keeps the jitter",
         SET(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_uset(t, nullptr, nullptr, 7)),
         false,
         {0, 0},
         -1,
         7},
        {"a set restarts with its own jitter",
         SET(qvmodule_timer_set_periodic(t, 30, 40); qvmodule_timer_set(t, 0, 8)),
         true,
         {0, 0},
         8000000},
    };
    for (const Expect &e : cases)
        check(e, tp);
}

TEST_F(TimerTest, OneShotFiresOnceOnTheNextPassAndStaysArmed)
{
    Probe p;
    qvmodule_timer *t = qvmodule_timer_create_oneshot(tp, "once", 0, 0, 0, probe_cb, &p);
    pass();
    EXPECT_EQ(p.fires, 1);
    EXPECT_EQ(p.last_interval, 0);
    for (int i = 0; i < 5; i++)
        pass();
    EXPECT_EQ(p.fires, 1);
    EXPECT_EQ(qvmodule_timer_time_left(t), 0);
    EXPECT_TRUE(qvmodule_timer_running(t));
    qvmodule_timer_reset(t);
    EXPECT_FALSE(qvmodule_timer_running(t));
    qvmodule_timer_delete(t);
}

TEST_F(TimerTest, PeriodicRearmsWithItsPeriodAndTellsItsSeconds)
{
    Probe p;
    qvmodule_timer *t = make(p);
    qvmodule_timer_uset_periodic(t, 1000, 0);
    ASSERT_TRUE(run_until([&] { return p.fires >= 5; }));
    EXPECT_EQ(p.last_interval, 0);
    EXPECT_TRUE(qvmodule_timer_running(t));

    // A 3 s period fired at once: the function is told 3, and the timer
    // comes back with its period, measured from the re-arm.
    Probe q;
    qvmodule_timer *u = make(q, "u");
    qvmodule_timer_set_periodic(u, 3, 0);
    qvmodule_timer_expire_immediately(u);
    ASSERT_TRUE(run_until([&] { return q.fires == 1; }));
    EXPECT_EQ(q.last_interval, 3);
    int64_t left = left_usec(u);
    EXPECT_LE(left, 3000000 + kClockSlop);
    EXPECT_GE(left + (now_usec() - usec(q.fired_at)), 3000000 - kClockSlop);
    qvmodule_timer_delete(t);
    qvmodule_timer_delete(u);
}

TEST_F(TimerTest, FunctionDeletingItsTimerFreesItAfterReturning)
{
    Probe p;
    qvmodule_timer *t = make(p);
    unsigned int in_use_during = 0;
    bool listed_during = false;
    p.action = [&](qvmodule_timer *self) {
        if (p.fires < 2)
            return;
        qvmodule_timer_delete(self);
        qvmodule_timer_delete(self); // still pending: no second free
        in_use_during = pool_in_use();
        auto l = listed();
        listed_during = std::find(l.begin(), l.end(), self) != l.end();
        EXPECT_EQ(qvmodule_timer_qvmodule(self), nullptr);
        EXPECT_FALSE(qvmodule_timer_running(self));
    };
    qvmodule_timer_uset_periodic(t, 1000, 0);
    unsigned int before = pool_in_use();
    unsigned int frees = qvmodule_timer_block_index->tb_n_free_requests;
    ASSERT_TRUE(run_until([&] { return p.fires == 2; }));
    EXPECT_EQ(in_use_during, before);
    EXPECT_TRUE(listed_during);
    EXPECT_EQ(pool_in_use(), before - 1);
    EXPECT_EQ(qvmodule_timer_block_index->tb_n_free_requests, frees + 1);
    for (int i = 0; i < 20; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    EXPECT_EQ(p.fires, 2);
}

TEST_F(TimerTest, FunctionResettingItsTimerStopsIt)
{
    Probe p;
    qvmodule_timer *t = make(p);
    p.action = [](qvmodule_timer *self) { qvmodule_timer_reset(self); };
    qvmodule_timer_uset_periodic(t, 1000, 0);
    ASSERT_TRUE(run_until([&] { return p.fires == 1; }));
    for (int i = 0; i < 20; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    EXPECT_EQ(p.fires, 1);
    EXPECT_FALSE(qvmodule_timer_running(t));
    struct timeval iv;
    qvmodule_timer_periodic_getval(t, &iv);
    EXPECT_FALSE(timerisset(&iv));
    qvmodule_timer_delete(t);
}

TEST_F(TimerTest, FunctionSettingItsTimerGetsExactlyThatSchedule)
{
    Probe p;
    qvmodule_timer *t = make(p);
    p.action = [](qvmodule_timer *self) { qvmodule_timer_set_oneshot(self, 3, 0); };
    qvmodule_timer_set_periodic(t, 1, 0);
    qvmodule_timer_expire_immediately(t);
    ASSERT_TRUE(run_until([&] { return p.fires == 1; }));
    // A re-arm with the old 1 s period would have replaced the 3 s offset.
    int64_t left = left_usec(t);
    EXPECT_LE(left, 3000000 + kClockSlop);
    EXPECT_GE(left + (now_usec() - usec(p.fired_at)), 3000000 - kClockSlop);
    struct timeval iv;
    qvmodule_timer_periodic_getval(t, &iv);
    EXPECT_FALSE(timerisset(&iv));
    qvmodule_timer_delete(t);
}

TEST_F(TimerTest, ExpireImmediatelyFromItsFunctionRunsItOnceMore)
{
    Probe p;
    qvmodule_timer *t = make(p);
    p.action = [&](qvmodule_timer *self) {
        if (p.fires == 1)
            qvmodule_timer_expire_immediately(self);
    };
    qvmodule_timer_set_periodic(t, 10, 0);
    qvmodule_timer_expire_immediately(t);
    ASSERT_TRUE(run_until([&] { return p.fires == 2; }));
    for (int i = 0; i < 5; i++)
        pass();
    EXPECT_EQ(p.fires, 2);
    // After the second run the period resumes.
    int64_t left = left_usec(t);
    EXPECT_LE(left, 10000000 + kClockSlop);
    EXPECT_GE(left + (now_usec() - usec(p.fired_at)), 10000000 - kClockSlop);
    qvmodule_timer_delete(t);
}

TEST_F(TimerTest, DeleteAllWhileOneOfThemDispatches)
{
    qvmodule *other = qvmodule_alloc("other", 0, nullptr);
    qvmodule_create(other);
    Probe pa, pb, pc, pd, pe;
    qvmodule_timer *a = qvmodule_timer_create_oneshot(tp, "a", 0, 0, 0, probe_cb, &pa);
    qvmodule_timer *b = make(pb, "b");
    qvmodule_timer *c = qvmodule_timer_create(tp, "c", 0, 10, 0, probe_cb, &pc);
    qvmodule_timer *d = qvmodule_timer_create(other, "d", 0, 10, 0, probe_cb, &pd);
    qvmodule_timer *e = qvmodule_timer_create(nullptr, "e", 0, 0, 0, probe_cb, &pe);
    std::vector<qvmodule_timer *> during;
    pa.action = [&](qvmodule_timer *) {
        qvmodule_timer_delete_all(tp);
        during = listed();
        qvmodule_timer_delete_all(tp); // the pending one is passed over
    };
    unsigned int before = pool_in_use();
    pass();
    EXPECT_EQ(pa.fires, 1);
    EXPECT_EQ(during, (std::vector<qvmodule_timer *>{a, d, e}));
    EXPECT_EQ(listed(), (std::vector<qvmodule_timer *>{d, e}));
    EXPECT_EQ(pool_in_use(), before - 3);
    (void)b;
    (void)c;
    qvmodule_delete(other);
    EXPECT_EQ(listed(), std::vector<qvmodule_timer *>{e});
    qvmodule_timer_delete(e);
}

TEST_F(TimerTest, ModuleDeletionDeletesItsTimers)
{
    qvmodule *m = qvmodule_alloc("doomed", 0, nullptr);
    qvmodule_create(m);
    Probe p1, p2, p3;
    qvmodule_timer_create(m, "x", 0, 5, 0, probe_cb, &p1);
    qvmodule_timer *keep = make(p2, "keep");
    // One of them deletes its own module while it runs.
    qvmodule_timer_create_oneshot(m, "y", 0, 0, 0, probe_cb, &p3);
    p3.action = [m](qvmodule_timer *) { qvmodule_delete(m); };
    pass();
    EXPECT_EQ(p3.fires, 1);
    EXPECT_EQ(listed(), std::vector<qvmodule_timer *>{keep});
    qvmodule_timer_delete(keep);
}

/* ---------------------------------------------------------------- */
/* Jitter                                                           */

TEST(TimerJitter, GrandStaysBelowHalf)
{
    srand48(77);
    EXPECT_EQ(grand(0), 0u);
    std::mt19937 rng(77);
    for (int i = 0; i < 100000; i++) {
        uint32_t n = rng();
        ASSERT_LT(uint64_t(grand(n)) * 2, uint64_t(n) + (n == 0)) << n;
    }
}

// Over each unit's range: the delay only shrinks, by less than half of the
// capped percentage, in whole units of that range.
TEST(TimerJitter, DecrementUnitsAndBounds)
{
    srand48(12345);
    std::mt19937 rng(12345);
    struct Range {
        uint32_t lo, hi;
        int64_t unit_us;
    } ranges[] = {{0, 41, 1}, {42, 42948, 1000}, {42949, 2000000000, 1000000}};
    for (const Range &r : ranges) {
        for (int i = 0; i < 20000; i++) {
            uint32_t sec = std::uniform_int_distribution<uint32_t>(r.lo, r.hi)(rng);
            uint32_t us = std::uniform_int_distribution<uint32_t>(0, 999999)(rng);
            unsigned int jitter = std::uniform_int_distribution<unsigned int>(0, 120)(rng);
            struct timeval iv = {time_t(sec), suseconds_t(us)}, exp = iv;
            timer_apply_jitter(&exp, &iv, jitter);
            ASSERT_GE(exp.tv_usec, 0);
            ASSERT_LT(exp.tv_usec, 1000000);
            int64_t dec = usec(iv) - usec(exp);
            int64_t cap = usec(iv) * std::min(jitter, 50u) / 200;
            ASSERT_GE(dec, 0);
            ASSERT_LE(dec, cap + r.unit_us) << sec << "s " << us << "us j" << jitter;
            ASSERT_EQ(dec % r.unit_us, 0) << sec << "s " << us << "us j" << jitter;
        }
    }
}

TEST(TimerJitter, CapAtFiftyAndNoneAtZero)
{
    struct timeval iv = {10, 0};
    for (int seed = 0; seed < 50; seed++) {
        struct timeval a = iv, b = iv, c = iv;
        srand48(seed);
        timer_apply_jitter(&a, &iv, 80);
        srand48(seed);
        timer_apply_jitter(&b, &iv, 50);
        EXPECT_EQ(usec(a), usec(b));
        timer_apply_jitter(&c, &iv, 0);
        EXPECT_EQ(usec(c), usec(iv));
    }
    // Beyond 42948 s the decrement is in whole seconds.
    struct timeval big = {100000, 0}, e = big;
    srand48(3);
    timer_apply_jitter(&e, &big, 10);
    EXPECT_EQ(e.tv_usec, 0);
    EXPECT_LT(e.tv_sec, big.tv_sec);
}

TEST_F(TimerTest, JitteredPeriodicDrawsAFreshJitterEveryPeriod)
{
    Probe p;
    qvmodule_timer *t = make(p);
    std::vector<int64_t> lefts;
    qvmodule_timer_set_periodic(t, 100, 50);
    // Each run re-arms with a new draw; the schedule stays within 25 %.
    p.action = [&](qvmodule_timer *) {};
    for (int i = 0; i < 8; i++) {
        qvmodule_timer_expire_immediately(t);
        ASSERT_TRUE(run_until([&, i] { return p.fires == i + 1; }));
        int64_t left = left_usec(t);
        EXPECT_LE(left, 100000000 + kClockSlop);
        EXPECT_GT(left, 75000000 - 5000000);
        lefts.push_back(left / 1000000);
    }
    std::sort(lefts.begin(), lefts.end());
    EXPECT_NE(lefts.front(), lefts.back());
    qvmodule_timer_delete(t);
}

/* ---------------------------------------------------------------- */
/* Names and the show command                                      */

std::vector<std::string> shown_names()
{
    cJSON *root = cJSON_CreateObject();
    jrpc_method_ctx ctx = {nullptr, root};
    EXPECT_EQ(qvmodule_timer_show(&ctx), JRPC_SUCCESS);
    std::vector<std::string> names;
    auto lists = members(root, "Timer List");
    EXPECT_EQ(lists.size(), 1u);
    for (cJSON *list : lists) {
        EXPECT_EQ(cJSON_GetArraySize(list), int(members(list, "Timer").size()));
        for (cJSON *timer : members(list, "Timer"))
            names.push_back(cJSON_GetObjectItem(timer, "Name")->valuestring);
    }
    cJSON_Delete(root);
    return names;
}

TEST_F(TimerTest, ShowListsDisplayNamesInCreationOrder)
{
    EXPECT_TRUE(shown_names().empty());
    std::string long_module(60, 'M'), long_name(200, 'n');
    qvmodule *lm = qvmodule_alloc(long_module.c_str(), 0, nullptr);
    qvmodule_create(lm);
    Probe p;
    qvmodule_timer *a = make(p, "alpha");
    qvmodule_timer *b = qvmodule_timer_create(nullptr, "bare", 0, 0, 0, probe_cb, &p);
    qvmodule_timer *c = qvmodule_timer_create(lm, "gamma", 0, 0, 0, probe_cb, &p);
    qvmodule_timer *d = qvmodule_timer_create(nullptr, long_name.c_str(), 0, 0, 0, probe_cb, &p);
    qvmodule_timer *e = qvmodule_timer_create(lm, long_name.c_str(), 0, 0, 0, probe_cb, &p);
    qvmodule_timer *f = qvmodule_timer_create(nullptr, nullptr, 0, 0, 0, probe_cb, &p);
    auto names = shown_names();
    ASSERT_EQ(names.size(), 6u);
    EXPECT_EQ(names[0], "mod.alpha");
    EXPECT_EQ(names[1], "bare");
    EXPECT_EQ(names[2], std::string(40, 'M') + ".gamma");
    EXPECT_EQ(names[3], std::string(127, 'n'));
    EXPECT_EQ(names[4], (std::string(40, 'M') + "." + long_name).substr(0, 127));
    EXPECT_EQ(names[5], "");
    // One buffer, overwritten by each call.
    char *first = qvmodule_timer_name(a);
    EXPECT_EQ(qvmodule_timer_name(b), first);
    EXPECT_STREQ(first, "bare");
    for (qvmodule_timer *t : {a, b, c, d, e, f})
        qvmodule_timer_delete(t);
    qvmodule_delete(lm);
}

/* ---------------------------------------------------------------- */
/* Tracing and the giant lock                                      */

TEST_F(TimerTest, TraceLinesFollowTheTimerBit)
{
    TraceCapture trace;
    trace_type_enable(trace_global, QV_TRACE_MODULE);
    EXPECT_EQ(qvmodule_timer_trace_on(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_MODULE | QV_TRACE_TIMER);
    trace_type_disable(trace_global, QV_TRACE_MODULE);

    Probe p;
    p.action = [](qvmodule_timer *self) { qvmodule_timer_delete(self); };
    qvmodule_timer_create_oneshot(tp, "t1", 0, 0, 0, probe_cb, &p);
    pass();
    qvmodule_timer_delete_all(tp);
    EXPECT_EQ(qvmodule_timer_trace_off(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, 0u);
    qvmodule_timer_delete(make(p, "quiet"));
    pass();

    EXPECT_EQ(trace.messages(), (std::vector<std::string>{
                                    "qvmodule_timer_create_internal: name:t1",
                                    "qvmodule_timer_event_cb: dispatching timer name:t1",
                                    "qvmodule_timer_delete: name:t1",
                                    "qvmodule_timer_delete_internal: name:t1",
                                    "qvmodule_timer_delete_all:",
                                }));
}

TEST_F(TimerTest, GiantLockNestsAroundEverySection)
{
    LockRecorder rec;
    rec.install();
    Probe p;
    qvmodule_timer *t = make(p);
    EXPECT_EQ(rec.take(), "LU");
    qvmodule_timer *u = qvmodule_timer_create(tp, "u", 0, 0, 5, probe_cb, &p);
    EXPECT_EQ(rec.take(), "LLUU"); // creation arms through the setter
    qvmodule_timer_set_oneshot(t, 5, 0);
    EXPECT_EQ(rec.take(), "LU");
    qvmodule_timer_running(t);
    EXPECT_EQ(rec.take(), "LU");
    qvmodule_timer_time_left(t);
    EXPECT_EQ(rec.take(), "LU");
    qvmodule_timer_reset(t);
    EXPECT_EQ(rec.take(), "LU");
    qvmodule_timer_delete(u);
    EXPECT_EQ(rec.take(), "LU");

    // Dispatch holds it around the function and the re-arm; what the
    // function does nests inside.
    size_t depth_in_function = 0;
    p.action = [&](qvmodule_timer *self) {
        depth_in_function = rec.depth();
        if (p.fires == 2)
            qvmodule_timer_uset_oneshot(self, 0, 0);
        if (p.fires == 3)
            qvmodule_timer_delete(self);
    };
    qvmodule_timer_uset_periodic(t, 1, 0);
    rec.take();
    ASSERT_TRUE(run_until([&] { return p.fires == 1; }));
    EXPECT_EQ(rec.take(), "LU"); // the re-arm is inside
    EXPECT_EQ(depth_in_function, 1u);
    qvmodule_timer_uset_oneshot(t, 0, 0);
    rec.take();
    pass();
    EXPECT_EQ(p.fires, 2);
    EXPECT_EQ(rec.take(), "LLUU");
    pass();
    EXPECT_EQ(p.fires, 3);
    EXPECT_EQ(rec.take(), "LLUU");
    EXPECT_TRUE(rec.matched);
    EXPECT_EQ(rec.depth(), 0u);
}

/* ---------------------------------------------------------------- */
/* Randomised: functions that delete, reset, set and expire timers    */

// Timers whose functions act on themselves and on each other at random.
// Between loop passes the list, the pool and each timer's armed state must
// agree with a model; under AddressSanitizer this also proves that no
// record is touched after it is freed.
class TimerChaos
{
  public:
    TimerChaos(qvmodule *a, qvmodule *b, uint32_t seed) : rng_(seed), mods_{a, b, nullptr} {}

    void step()
    {
        if (coin(30))
            act(nullptr);
        event_base_loop(g_event_base, coin(10) ? EVLOOP_ONCE : EVLOOP_NONBLOCK);
        check();
    }
    void finish()
    {
        while (!live_.empty())
            remove(live_.front(), true);
        check();
    }
    int fired = 0;

  private:
    struct Model {
        qvmodule_timer *t;
        qvmodule *owner;
        bool armed;
    };

    static void cb(qvmodule_timer *t, time_t)
    {
        auto *self = static_cast<TimerChaos *>(qvmodule_timer_data(t));
        self->fired++;
        self->act(t);
    }
    bool coin(int percent) { return int(rng_() % 100) < percent; }
    Model *find(qvmodule_timer *t)
    {
        for (Model &m : live_)
            if (m.t == t)
                return &m;
        return nullptr;
    }
    void remove(Model m, bool call_delete)
    {
        live_.erase(
            std::find_if(live_.begin(), live_.end(), [&](const Model &x) { return x.t == m.t; }));
        if (call_delete)
            qvmodule_timer_delete(m.t);
    }
    Model *pick() { return live_.empty() ? nullptr : &live_[rng_() % live_.size()]; }

    // One random operation; self is the timer whose function is running.
    void act(qvmodule_timer *self)
    {
        Model *m = self ? find(self) : pick();
        switch (rng_() % 9) {
        case 0:
        case 1:
            if (live_.size() < 24) {
                qvmodule *owner = mods_[rng_() % 3];
                qvmodule_timer *t =
                    qvmodule_timer_ucreate_oneshot(owner, "chaos", 0, rng_() % 2000, 0, cb, this);
                live_.push_back({t, owner, true});
            }
            break;
        case 2:
            if (m) {
                qvmodule_timer_uset_periodic(m->t, 100 + rng_() % 2000, rng_() % 60);
                m->armed = true;
            }
            break;
        case 3:
            if (m) {
                qvmodule_timer_reset(m->t);
                m->armed = false;
            }
            break;
        case 4:
            if (m) {
                qvmodule_timer_expire_immediately(m->t);
                m->armed = true;
            }
            break;
        case 5:
            if (m)
                remove(*m, true);
            break;
        case 6: {
            Model *other = pick();
            if (other)
                remove(*other, true);
            break;
        }
        case 7: {
            qvmodule *owner = mods_[rng_() % 2];
            qvmodule_timer_delete_all(owner);
            std::vector<Model> keep;
            for (const Model &x : live_)
                if (x.owner != owner)
                    keep.push_back(x);
            live_ = keep;
            break;
        }
        default:
            if (m) {
                qvmodule_timer_uset_oneshot(m->t, rng_() % 1500, 0);
                m->armed = true;
            }
            break;
        }
    }

    void check()
    {
        std::vector<qvmodule_timer *> want;
        for (const Model &m : live_) {
            want.push_back(m.t);
            ASSERT_EQ(qvmodule_timer_qvmodule(m.t), m.owner);
            ASSERT_EQ(bool(qvmodule_timer_running(m.t)), m.armed);
        }
        ASSERT_EQ(listed(), want);
        ASSERT_EQ(pool_in_use(), live_.size());
    }

    std::mt19937 rng_;
    qvmodule *mods_[3];
    std::vector<Model> live_;
};

TEST_F(TimerTest, RandomisedSelfAndCrossDeletion)
{
    qvmodule *other = qvmodule_alloc("other", 0, nullptr);
    qvmodule_create(other);
    for (uint32_t seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        TimerChaos chaos(tp, other, seed);
        for (int i = 0; i < 1500 && !HasFatalFailure(); i++)
            chaos.step();
        chaos.finish();
        EXPECT_GT(chaos.fired, 100);
    }
    qvmodule_delete(other);
}

/* ---------------------------------------------------------------- */
/* Fatal checks                                                     */

void *no_memory(size_t)
{
    return nullptr;
}

using TimerDeathTest = TimerTest;

TEST_F(TimerDeathTest, AssertionTexts)
{
    using qvtest::assertion_re;
    Probe p;
    EXPECT_DEATH(qvmodule_timer_create(tp, "x", 1, 0, 0, probe_cb, &p),
                 assertion_re("qv_timer.cpp", "flags == 0"));
    EXPECT_DEATH(
        {
            event_set_mem_functions(no_memory, realloc, free);
            qvmodule_timer_create(tp, "x", 0, 0, 0, probe_cb, &p);
        },
        assertion_re("qv_timer.cpp", "tip->timer_event"));
    // An event without a base cannot be added or deleted.
    EXPECT_DEATH(
        {
            g_event_base = nullptr;
            qvmodule_timer_create_oneshot(tp, "x", 0, 5, 0, probe_cb, &p);
        },
        assertion_re("qv_timer.cpp", "event_add(tip->timer_event, &tv) == 0"));
    EXPECT_DEATH(
        {
            g_event_base = nullptr;
            qvmodule_timer_reset(make(p));
        },
        assertion_re("qv_timer.cpp", "event_del(tip->timer_event) == 0"));
    qvmodule_timer *t = make(p);
    EXPECT_DEATH(qvmodule_timer_event_cb(-1, EV_READ, t),
                 assertion_re("qv_timer.cpp", "(event & 0x01) == 0x01"));
    qvmodule_timer_delete(t);
}

/* ---------------------------------------------------------------- */
/* A real daemon                                                    */

void daemon_timer_fires(qvmodule_timer *t, time_t)
{
    qvmodule_timer_delete(t);
    event_base_loopexit(g_event_base, nullptr);
}

TEST(TimerDaemon, TraceFileHoldsTheTimerLines)
{
    qvtest::TempDir dir;
    std::string log = dir.file("timerd.log");
    std::string pid = dir.file("timerd.pid");
    int status = qvtest::run_in_child([&] {
        static qv_daemon_app_ctx_t ctx;
        ctx.log_file_name = const_cast<char *>(log.c_str());
        ctx.pid_filename = const_cast<char *>(pid.c_str());
        char arg0[] = "/usr/sbin/timerd";
        char *argv[] = {arg0, nullptr};
        qv_daemon_init(1, argv, &ctx);
        qv_ui_init("timerd");
        if (jrpc_invoke_trace("timerd", "timer", 1) != JRPC_SUCCESS)
            return 2;
        qvmodule *m = qvmodule_alloc("tm", 0, nullptr);
        qvmodule_create(m);
        qvmodule_timer_ucreate_oneshot(m, "tick", 0, 1000, 0, daemon_timer_fires, nullptr);
        qvmodule_timer_create(m, "idle", 0, 0, 0, daemon_timer_fires, nullptr);
        qv_daemon_loop();
        qvmodule_delete(m);
        return 0;
    });
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    std::vector<std::string> msgs;
    for (const std::string &line : qvtest::read_lines(log)) {
        size_t at = line.find("[timerd]  ");
        ASSERT_NE(at, std::string::npos) << line;
        std::string msg = line.substr(at + 10);
        if (msg.rfind("qvmodule_timer", 0) == 0)
            msgs.push_back(msg);
    }
    EXPECT_EQ(msgs, (std::vector<std::string>{
                        "qvmodule_timer_create_internal: name:tick",
                        "qvmodule_timer_create_internal: name:idle",
                        "qvmodule_timer_event_cb: dispatching timer name:tick",
                        "qvmodule_timer_delete: name:tick",
                        "qvmodule_timer_delete_internal: name:tick",
                        "qvmodule_timer_delete_all:",
                        "qvmodule_timer_delete: name:idle",
                        "qvmodule_timer_delete_internal: name:idle",
                    }));
}

} // namespace
