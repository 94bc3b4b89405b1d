// Timers: how creation and arming map absent values, a seeded random model
// of dispatch, deletion and remaining time, jitter, the show output, trace
// lines with the lock among them, fatal checks and a daemon's trace file.

#include <gtest/gtest.h>

#include <event2/event.h>
#include <stdlib.h>

#include <algorithm>

#include "qv_timer_private.h"
#include "timer_job_test_util.h"

namespace
{

using TimerTest = qvtest::TimerJobTest;

void nop(qvmodule_timer *, time_t) {}

int64_t usec(const struct timeval &tv)
{
    return int64_t(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// The wall clock as libevent took it for the timeouts added now.
int64_t cached_now()
{
    struct timeval tv;
    event_base_gettimeofday_cached(g_event_base, &tv);
    return usec(tv);
}

// Nothing left when not scheduled; else at most the delay, and at least the
// delay less its jitter and the time since it was armed. libevent's coarse
// clock makes remaining times right to within a few of its ticks.
void expect_left(qvmodule_timer *t, bool sched, int64_t delay, unsigned jitter, int64_t since)
{
    constexpr int64_t kSlop = 50000;
    utime_t u;
    qvmodule_timer_utime_left(t, &u);
    int64_t left = int64_t(u.ut_sec) * 1000000 + u.ut_usec;
    ASSERT_TRUE(sched || left == 0) << left;
    if (!sched || delay < 0)
        return;
    ASSERT_LE(left, delay + kSlop);
    ASSERT_GE(left + cached_now() - since, delay - delay * std::min(jitter, 50u) / 200 - kSlop);
}

struct Arming {
    std::function<qvmodule_timer *(qvmodule *)> make;
    struct timeval period;
    int64_t delay; // -1: not scheduled
    unsigned jitter = 0;
};
#define MAKE(call) [](qvmodule *m) { return call; }
#define SET(calls)                                                                                 \
    [](qvmodule *m) {                                                                              \
        qvmodule_timer *t = qvmodule_timer_create(m, "t", 0, 0, 0, nop, nullptr);                  \
        calls;                                                                                     \
        return t;                                                                                  \
    }

TEST_F(TimerTest, CreationAndArmingMapAbsentValues)
{
    static utime_t iv15 = {1, 500000}, us3M = {0, 3000000}, off2 = {2, 0};
    const Arming cases[] = {
        {MAKE(qvmodule_timer_create(m, "t", 0, 10, 2, nop, nullptr)), {10, 0}, 2000000},
        {MAKE(qvmodule_timer_create(m, "t", 0, -5, -3, nop, nullptr)), {0, 0}, -1},
        {MAKE(qvmodule_timer_create(m, "t", 0, -5, 2, nop, nullptr)), {0, 0}, 2000000},
        {MAKE(qvmodule_timer_create_jittered(m, "t", 0, 0, 30, nop, nullptr)), {0, 0}, -1},
        {MAKE(qvmodule_timer_create_jittered(m, "t", 0, 20, 30, nop, nullptr)),
         {20, 0},
         20000000,
         30},
        {MAKE(qvmodule_timer_create_oneshot(m, "t", 0, 0, 0, nop, nullptr)), {0, 0}, 0},
        {MAKE(qvmodule_timer_create_oneshot(m, "t", 0, 3, 9, nop, nullptr)), {0, 0}, 3000000, 9},
        {MAKE(qvmodule_timer_ucreate_oneshot(m, "t", 0, 2500000, 0, nop, nullptr)),
         {0, 0},
         2500000},
        {MAKE(qvmodule_timer_ucreate(m, "t", 0, &iv15, &off2, 0, nop, nullptr)),
         {1, 500000},
         2000000},
        {MAKE(qvmodule_timer_ucreate(m, "t", 0, &us3M, nullptr, 0, nop, nullptr)), {3, 0}, 3000000},
        {SET(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_set(t, 0, 0)), {0, 0}, -1},
        {SET(qvmodule_timer_set(t, 10, 3)), {10, 0}, 3000000},
        {SET(qvmodule_timer_set(t, -1, 0)), {-1, 0}, 0},
        {SET(qvmodule_timer_set_periodic(t, 0, 0)), {0, 0}, 0},
        {SET(qvmodule_timer_uset_periodic(t, 1500000, 0)), {1, 500000}, 1500000},
        {SET(qvmodule_timer_set_oneshot(t, 2, 20)), {0, 0}, 2000000, 20},
        {SET(qvmodule_timer_uset_oneshot(t, 3000001, 0)), {0, 0}, 3000001},
        {SET(qvmodule_timer_set_uoffset(t, &off2, 0)), {0, 0}, 2000000},
        {SET(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_uset(t, 0, 0, 7)), {0, 0}, -1, 7},
        {SET(qvmodule_timer_set_periodic(t, 30, 40); qvmodule_timer_set(t, 0, 8)), {0, 0}, 8000000},
    };
    for (const Arming &c : cases) {
        SCOPED_TRACE(&c - cases);
        int64_t since = cached_now();
        qvmodule_timer *t = c.make(tp);
        struct timeval iv;
        qvmodule_timer_periodic_getval(t, &iv);
        EXPECT_EQ(usec(iv), usec(c.period));
        EXPECT_EQ(t->timer_jitter, c.jitter);
        EXPECT_EQ(bool(qvmodule_timer_running(t)), c.delay >= 0);
        expect_left(t, c.delay >= 0, std::max<int64_t>(c.delay, 0), c.jitter, since);
        qvmodule_timer_delete(t);
    }
    utime_t untouched = {7, 7};
    qvmodule_timer_utime_left(nullptr, &untouched);
    EXPECT_TRUE(untouched.ut_sec == 7 && untouched.ut_usec == 7);
    EXPECT_EQ(qvmodule_timer_time_left(nullptr), 0);
    EXPECT_FALSE(qvmodule_timer_running(nullptr));
    qvmodule_timer_delete(nullptr);
}

struct TimerModel {
    qvmodule_timer *r;
    qvmodule *owner;
    bool armed = false, sched = false, resched = false;
    int64_t period = 0, delay = 0, since = 0;
    unsigned jitter = 0;
};

// Timers whose functions set, reset, expire and delete themselves and each
// other. A timer fires only when scheduled and is told its period's
// seconds; afterwards the function's decision stands, else a periodic one
// is re-armed and a one-shot one stays idle but still counts as running.
struct TimerChaos : qvtest::Chaos<qvmodule_timer, TimerModel> {
    TimerChaos(uint32_t seed, qvmodule *tp)
        : Chaos(seed, tp, qvmodule_timer_delete, qvmodule_timer_delete_all)
    {
    }
    static void cb(qvmodule_timer *t, time_t interval)
    {
        auto *c = static_cast<TimerChaos *>(qvmodule_timer_data(t));
        TimerModel *m = c->find(t);
        ASSERT_TRUE(m && m->sched);
        ASSERT_EQ(interval, m->period / 1000000);
        ASSERT_EQ(qvtest::lock_held.size(), 1u);
        c->runs++;
        m->sched = m->resched = false;
        for (int n = 1 + c->rnd(2); n > 0; n--)
            c->act(t);
        if ((m = c->find(t)) && !m->resched && m->period)
            c->arm(*m, m->period, m->period, m->jitter);
        c->check(t);
    }
    void arm(TimerModel &m, int64_t period, int64_t delay, unsigned jitter)
    {
        m = {m.r, m.owner, true, true, true, period, delay, cached_now(), jitter};
    }
    void act(qvmodule_timer *self)
    {
        unsigned op = rnd(14), j = rnd(60);
        TimerModel *m = pick(self);
        int32_t us = 100 + rnd(2000), s = 1 + rnd(2);
        utime_t iv = {0, us}, off = {0, int32_t(rnd(2000))};
        if (op >= 11) {
            shared_op(op - 11, self);
        } else if (op < 3) {
            qvmodule *o = owner();
            if (live.size() < 24)
                live.push_back({qvmodule_timer_create(o, "chaos", 0, 0, 0, cb, this), o});
        } else if (!m) {
        } else if (op < 6) { // a first delay that differs from the period
            bool with_off = rnd(2);
            arm(*m, us, with_off ? off.ut_usec : us, j);
            qvmodule_timer_uset(m->r, &iv, with_off ? &off : nullptr, j);
        } else if (op < 8) {
            arm(*m, 0, us, j);
            qvmodule_timer_uset_oneshot(m->r, us, j);
        } else if (op == 8) { // seconds: fire only when expired at once
            int32_t first = rnd(3);
            arm(*m, s * 1000000LL, (first ? first : s) * 1000000LL, 0);
            qvmodule_timer_set(m->r, s, first);
        } else if (op == 9) {
            qvmodule_timer_reset(m->r);
            m->armed = m->sched = false, m->period = 0, m->resched = true;
        } else {
            qvmodule_timer_expire_immediately(m->r);
            m->delay = m->sched ? m->delay : -1;
            m->armed = m->sched = m->resched = true;
        }
    }
    // self is the timer whose function runs: not yet re-armed, and still
    // listed if its deletion is pending.
    void check(qvmodule_timer *self)
    {
        std::vector<qvmodule_timer *> want, got;
        for (qvmodule_timer *t = timer_head.timer_forw; t != &timer_head; t = t->timer_forw)
            got.push_back(t);
        for (const TimerModel &m : live) {
            want.push_back(m.r);
            ASSERT_EQ(qvmodule_timer_qvmodule(m.r), m.owner);
            ASSERT_EQ(bool(qvmodule_timer_running(m.r)), m.armed);
            if (m.r == self)
                continue;
            ASSERT_EQ(event_pending(m.r->timer_event, EV_TIMEOUT, nullptr) != 0, m.sched);
            expect_left(m.r, m.sched, m.delay, m.jitter, m.since);
        }
        bool dying = self && !find(self);
        ASSERT_TRUE(!dying || std::erase(got, self) == 1);
        ASSERT_EQ(got, want);
        ASSERT_EQ(qvmodule_timer_block_index->tb_n_alloc, want.size() + dying);
    }
};

TEST_F(TimerTest, RandomisedDispatchAndDeletion)
{
    qvtest::run_chaos<TimerChaos>(tp, {1, 2, 3});
}

// Over each unit's range: the delay only shrinks, by less than half of the
// percentage capped at 50, in whole units; grand(n) stays below n/2.
TEST(TimerJitter, UnitsCapAndBounds)
{
    std::mt19937 rng(12345);
    struct {
        uint32_t lo, hi;
        int64_t unit;
    } ranges[] = {{0, 41, 1}, {42, 42948, 1000}, {42949, 2000000000, 1000000}};
    for (auto &r : ranges) {
        for (int i = 0; i < 20000; i++) {
            uint32_t sec = std::uniform_int_distribution<uint32_t>(r.lo, r.hi)(rng), n = rng();
            unsigned j = rng() % 121, cap = std::min(j, 50u);
            struct timeval iv = {time_t(sec), suseconds_t(rng() % 1000000)}, a = iv, b = iv;
            srand48(i);
            timer_apply_jitter(&a, &iv, j);
            srand48(i);
            timer_apply_jitter(&b, &iv, cap);
            int64_t dec = usec(iv) - usec(a);
            ASSERT_TRUE(a.tv_usec >= 0 && a.tv_usec < 1000000 && usec(a) == usec(b));
            ASSERT_TRUE(dec >= 0 && dec <= usec(iv) * cap / 200 && dec % r.unit == 0)
                << sec << "s " << iv.tv_usec << "us j" << j;
            ASSERT_LT(uint64_t(grand(n)) * 2, uint64_t(n) + (n == 0));
        }
    }
}

TEST_F(TimerTest, ShowListsDisplayNamesInCreationOrder)
{
    EXPECT_EQ(qvtest::show(qvmodule_timer_show), "{Timer List{}}");
    std::string m60(60, 'M'), n200(200, 'n'), m40(40, 'M');
    qvmodule *lm = qvmodule_alloc(m60.c_str(), 0, nullptr);
    qvmodule_create(lm);
    std::pair<qvmodule *, const char *> made[] = {{tp, "alpha"},      {nullptr, "bare"},
                                                  {lm, "gamma"},      {nullptr, n200.c_str()},
                                                  {lm, n200.c_str()}, {nullptr, nullptr}};
    std::vector<qvmodule_timer *> ts;
    for (auto [m, name] : made)
        ts.push_back(qvmodule_timer_create(m, name, 0, 0, 0, nop, nullptr));
    EXPECT_EQ(qvtest::show(qvmodule_timer_show),
              "{Timer List{Timer{Name=mod.alpha},Timer{Name=bare},Timer{Name=" + m40 +
                  ".gamma},Timer{Name=" + std::string(127, 'n') +
                  "},Timer{Name=" + (m40 + "." + n200).substr(0, 127) + "},Timer{Name=}}}");
    char *first = qvmodule_timer_name(ts[0]);
    EXPECT_EQ(qvmodule_timer_name(ts[1]), first);
    EXPECT_STREQ(first, "bare");
    qvmodule_delete(lm);
    for (qvmodule_timer *t : {ts[0], ts[1], ts[3], ts[5]})
        qvmodule_timer_delete(t);
}

// Sets itself once more on its first run, deletes itself on its second.
void twice(qvmodule_timer *t, time_t)
{
    int *runs = static_cast<int *>(qvmodule_timer_data(t));
    if (++*runs == 1)
        qvmodule_timer_uset_oneshot(t, 0, 0);
    else
        qvmodule_timer_delete(t);
}

TEST_F(TimerTest, TraceLinesAndTheLockAroundEverySection)
{
    qvtest::TraceCapture trace;
    trace_type_enable(trace_global, QV_TRACE_MODULE);
    EXPECT_EQ(qvmodule_timer_trace_on(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_MODULE | QV_TRACE_TIMER);
    trace_type_disable(trace_global, QV_TRACE_MODULE);
    int runs = 0;
    qvmodule_timer_create_oneshot(tp, "t1", 0, 0, 0, twice, &runs);
    qvtest::pass();
    qvtest::pass();
    EXPECT_EQ(runs, 2);
    qvmodule_timer *t2 = qvmodule_timer_create(tp, "t2", 0, 0, 0, nop, nullptr);
    qvmodule_timer_running(t2);
    qvmodule_timer_time_left(t2);
    qvmodule_timer_set_oneshot(t2, 5, 0);
    qvmodule_timer_expire_immediately(t2);
    qvmodule_timer_reset(t2);
    qvmodule_timer_delete_all(tp);
    EXPECT_EQ(qvmodule_timer_trace_off(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, 0u);
    qvmodule_timer_delete(qvmodule_timer_create(tp, "quiet", 0, 0, 0, nop, nullptr));
    EXPECT_EQ(
        trace.text(),
        "L; qvmodule_timer_create_internal: name:t1; L; U; U; "
        "L; qvmodule_timer_event_cb: dispatching timer name:t1; L; U; U; "
        "L; qvmodule_timer_event_cb: dispatching timer name:t1; qvmodule_timer_delete: name:t1; "
        "qvmodule_timer_delete_internal: name:t1; L; U; U; "
        "L; qvmodule_timer_create_internal: name:t2; U; L; U; L; U; L; U; L; U; L; U; "
        "qvmodule_timer_delete_all:; qvmodule_timer_delete: name:t2; "
        "qvmodule_timer_delete_internal: name:t2; L; U; L; U; L; U");
}

void *no_memory(size_t)
{
    return nullptr;
}

using TimerDeathTest = TimerTest;

TEST_F(TimerDeathTest, FatalChecks)
{
    qvmodule *m = tp;
    qvmodule_timer *t = qvmodule_timer_create(tp, "x", 0, 0, 0, nop, nullptr);
    qvtest::expect_fatal(
        "qv_timer.cpp",
        {{"flags == 0", [m] { qvmodule_timer_create(m, "x", 1, 0, 0, nop, nullptr); }},
         {"tip->timer_event",
          [m] {
              event_set_mem_functions(no_memory, realloc, free);
              qvmodule_timer_create(m, "x", 0, 0, 0, nop, nullptr);
          }},
         // An event without a base can be neither added nor deleted.
         {"event_add(tip->timer_event, &tv) == 0",
          [m] {
              g_event_base = nullptr;
              qvmodule_timer_create_oneshot(m, "x", 0, 5, 0, nop, nullptr);
          }},
         {"event_del(tip->timer_event) == 0",
          [m] {
              g_event_base = nullptr;
              qvmodule_timer_reset(qvmodule_timer_create(m, "x", 0, 0, 0, nop, nullptr));
          }},
         {"(event & 0x01) == 0x01", [t] { qvmodule_timer_event_cb(-1, EV_READ, t); }}});
    qvmodule_timer_delete(t);
}

void stop_loop(qvmodule_timer *t, time_t)
{
    qvmodule_timer_delete(t);
    event_base_loopexit(g_event_base, nullptr);
}

TEST(TimerDaemon, TraceFileHoldsTheTimerLines)
{
    qvtest::TempDir dir;
    std::string log = dir.file("timerd.log"), pid = dir.file("timerd.pid");
    int status = qvtest::run_in_child([&] {
        static qv_daemon_app_ctx_t ctx;
        ctx.log_file_name = const_cast<char *>(log.c_str());
        ctx.pid_filename = const_cast<char *>(pid.c_str());
        char arg0[] = "/usr/sbin/timerd", *argv[] = {arg0, nullptr};
        qv_daemon_init(1, argv, &ctx);
        qv_ui_init("timerd");
        if (jrpc_invoke_trace("timerd", "timer", 1) != JRPC_SUCCESS)
            return 2;
        qvmodule *m = qvmodule_alloc("tm", 0, nullptr);
        qvmodule_create(m);
        qvmodule_timer_ucreate_oneshot(m, "tick", 0, 1000, 0, stop_loop, nullptr);
        qvmodule_timer_create(m, "idle", 0, 0, 0, stop_loop, nullptr);
        qv_daemon_loop();
        qvmodule_delete(m);
        return 0;
    });
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(qvtest::read_file(log).find("[timerd]  qvmodule_timer_event_cb"), std::string::npos);
    EXPECT_EQ(qvtest::trace_text(log, "qvmodule_timer"),
              "qvmodule_timer_create_internal: name:tick; qvmodule_timer_create_internal: "
              "name:idle; qvmodule_timer_event_cb: dispatching timer name:tick; "
              "qvmodule_timer_delete: name:tick; qvmodule_timer_delete_internal: name:tick; "
              "qvmodule_timer_delete_all:; qvmodule_timer_delete: name:idle; "
              "qvmodule_timer_delete_internal: name:idle");
}

} // namespace
