// Timers and jobs: arming a timer, jitter, one seeded model of dispatch,
// deletion and the show output, the fatal checks, and a daemon's trace.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>

#include "qv_jobs_private.h"
#include "qv_queue.h"
#include "qv_test_daemon.h"
#include "qv_timer_private.h"

namespace
{

// A registered module; the first call brings the subsystems up.
qvmodule *module(const char *name)
{
    [[maybe_unused]] static bool up = g_event_base || [] { // unless a daemon started
        g_event_base = event_base_new();
        qvmodule_memory_init();
        qvmodule_init();
        qvmodule_timer_init();
        qvmodule_job_init();
        return true;
    }();
    qvmodule *m = qvmodule_alloc(name, 0, nullptr);
    qvmodule_create(m);
    return m;
}

// Counts the locks held and the unlocks that do not pass back what the
// latest lock returned; "L" and "U" lines show them in an open trace file.
struct Lock {
    static inline int held = 0, wrong = 0;
    static int record(int lock, int res)
    {
        if (trace_global)
            trace_cb(trace_global, TRUE, -1, lock ? "L" : "U");
        if (lock)
            return 100 + held++;
        wrong += res != 100 + --held;
        return 0;
    }
    static bool idle() { return !held && !wrong; }
};

// The module "mod", the recording lock, and no record left behind.
class TimerJobTest : public ::testing::Test
{
  protected:
    void SetUp() override { qv_giant_lock_func_init(Lock::record); }
    void TearDown() override
    {
        qvmodule_delete(tp);
        qv_giant_lock_func_init(nullptr);
        EXPECT_TRUE(Lock::idle());
        EXPECT_EQ(qvmodule_timer_block_index->tb_n_alloc, 0u);
        EXPECT_EQ(qvmodule_job_block_index->tb_n_alloc, 0u);
    }
    static void pass() { event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }
    qvmodule *tp = module("mod");
};
using TimerJobDeathTest = TimerJobTest;

void nop(qvmodule_timer *, time_t) {}
void nop_job(qvmodule_job *) {}

std::string show(jrpc_method_handler_t handler)
{
    jrpc_method_ctx ctx = {nullptr, cJSON_CreateObject()};
    char text[8192];
    EXPECT_EQ(handler(&ctx), JRPC_SUCCESS);
    EXPECT_TRUE(cJSON_PrintPreallocated(ctx.jrpc_result_root, text, sizeof text, false));
    cJSON_Delete(ctx.jrpc_result_root);
    return text;
}

const auto usec = [](const struct timeval &tv) { return tv.tv_sec * 1000000LL + tv.tv_usec; };

// The wall clock as libevent took it for the timeouts added now.
int64_t cached_now()
{
    struct timeval tv;
    event_base_gettimeofday_cached(g_event_base, &tv);
    return usec(tv);
}

// A timer or a job of the model, or a timer of the table.
struct Rec {
    void *r;
    qvmodule *owner;
    bool armed = false, sched = false, resched = false;
    int64_t period = 0, delay = 0, since = 0;
    unsigned jitter = 0;
    bool job = false, fg = false;
    qvmodule_timer *t() const { return static_cast<qvmodule_timer *>(r); }
    qvmodule_job *j() const { return static_cast<qvmodule_job *>(r); }
};

// The wall clock, against which the library takes the remaining time.
int64_t real_now()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return usec(tv);
}

// Remaining time: none when not scheduled, else at most the delay (-1:
// unknown) and at least that less its jitter and the time since arming.
// The arming time is libevent's cached clock, never later than the clock
// the timer was set from; the end is read after the library's own reading,
// so time lost to a busy machine only widens the bounds. The slack covers
// the wall and monotonic clocks' granularity alone.
void expect_timer(const Rec &m)
{
    struct timeval iv;
    utime_t u;
    qvmodule_timer_periodic_getval(m.t(), &iv);
    qvmodule_timer_utime_left(m.t(), &u);
    int64_t elapsed = real_now() - m.since;
    int64_t left = int64_t(u.ut_sec) * 1000000 + u.ut_usec, grain = 5000, d = m.delay;
    int64_t least = d * (200 - std::min(m.jitter, 50u)) / 200 - grain;
    ASSERT_EQ(qvmodule_timer_qvmodule(m.t()), m.owner);
    ASSERT_EQ(qvmodule_timer_running(m.t()), m.armed);
    ASSERT_EQ(usec(iv), m.period);
    ASSERT_EQ(m.t()->timer_jitter, m.jitter);
    ASSERT_EQ(event_pending(m.t()->timer_event, EV_TIMEOUT, nullptr) != 0, m.sched);
    if (!m.sched) {
        ASSERT_EQ(left, 0);
    } else if (d >= 0) {
        ASSERT_LE(left, d + grain) << "jitter " << m.jitter;
        ASSERT_GE(left + elapsed, least) << "jitter " << m.jitter;
    }
}

// A row arms an idle timer t of module m, or makes t anew; then its period,
// first delay (-1: none) and jitter are as given.
#define ROW(...) []([[maybe_unused]] qvmodule *m, qvmodule_timer *&t) { __VA_ARGS__; }
struct Arming {
    void (*arm)(qvmodule *m, qvmodule_timer *&t);
    struct timeval period;
    int64_t delay;
    unsigned jitter = 0;
};

TEST_F(TimerJobTest, TimerCreationAndArmingMapAbsentValues)
{
    static utime_t iv15 = {1, 500000}, off2 = {2, 0};
    const Arming rows[] = {
        {ROW(t = qvmodule_timer_create(m, "t", 0, 10, 2, nop, nullptr)), {10, 0}, 2000000},
        {ROW(t = qvmodule_timer_create(m, "t", 0, -5, -3, nop, nullptr)), {0, 0}, -1},
        {ROW(t = qvmodule_timer_create(m, "t", 0, -5, 2, nop, nullptr)), {0, 0}, 2000000},
        {ROW(t = qvmodule_timer_create_jittered(m, "t", 0, 0, 30, nop, nullptr)), {0, 0}, -1},
        {ROW(t = qvmodule_timer_create_jittered(m, "t", 0, 20, 30, nop, 0)), {20, 0}, 20000000, 30},
        {ROW(t = qvmodule_timer_create_oneshot(m, "t", 0, 0, 0, nop, nullptr)), {0, 0}, 0},
        {ROW(t = qvmodule_timer_create_oneshot(m, "t", 0, 3, 9, nop, nullptr)), {0, 0}, 3000000, 9},
        {ROW(t = qvmodule_timer_ucreate_oneshot(m, "t", 0, 2500000, 0, nop, 0)), {0, 0}, 2500000},
        {ROW(t = qvmodule_timer_ucreate(m, "t", 0, &iv15, &off2, 0, nop, 0)), {1, 500000}, 2000000},
        {ROW(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_set(t, 0, 0)), {0, 0}, -1},
        {ROW(qvmodule_timer_set(t, 10, 3)), {10, 0}, 3000000},
        {ROW(qvmodule_timer_set(t, -1, 0)), {-1, 0}, 0},
        {ROW(qvmodule_timer_set_periodic(t, 0, 0)), {0, 0}, 0},
        {ROW(qvmodule_timer_uset_periodic(t, 1500000, 0)), {1, 500000}, 1500000},
        {ROW(qvmodule_timer_set_oneshot(t, 2, 20)), {0, 0}, 2000000, 20},
        {ROW(qvmodule_timer_uset_oneshot(t, 3000001, 0)), {0, 0}, 3000001},
        {ROW(qvmodule_timer_set_uoffset(t, &off2, 0)), {0, 0}, 2000000},
        {ROW(qvmodule_timer_set_periodic(t, 4, 0); qvmodule_timer_uset(t, 0, 0, 7)), {0, 0}, -1, 7},
        {ROW(qvmodule_timer_set_periodic(t, 30, 40); qvmodule_timer_set(t, 0, 8)), {0, 0}, 8000000},
    };
    for (const Arming &row : rows) {
        SCOPED_TRACE(&row - rows);
        int64_t since = cached_now();
        qvmodule_timer *t = qvmodule_timer_create(tp, "t", 0, 0, 0, nop, nullptr);
        row.arm(tp, t);
        bool on = row.delay >= 0;
        expect_timer({t, tp, on, on, false, usec(row.period), row.delay, since, row.jitter});
    }
    // A periodic timer draws a fresh jitter at every re-arm.
    qvmodule_timer *t = qvmodule_timer_create_jittered(tp, "t", 0, 100, 50, nop, nullptr);
    std::set<time_t> lefts;
    for (int i = 0; i < 8; i++, pass(), lefts.insert(qvmodule_timer_time_left(t)))
        qvmodule_timer_expire_immediately(t);
    EXPECT_GT(lefts.size(), 1u);
    utime_t untouched = {7, 7};
    qvmodule_timer_utime_left(nullptr, &untouched);
    EXPECT_EQ(untouched.ut_sec, 7);
    EXPECT_EQ(untouched.ut_usec, 7);
    EXPECT_EQ(qvmodule_timer_time_left(nullptr), 0);
    EXPECT_FALSE(qvmodule_timer_running(nullptr));
    qvmodule_timer_delete(nullptr);
}

// Over each unit's range: the delay only shrinks, by less than half of the
// percentage capped at 50, in whole units; grand(n) stays below n/2.
TEST(TimerJitter, UnitsCapAndBounds)
{
    std::mt19937 rng(12345);
    const uint32_t ranges[][3] = {{0, 41, 1}, {42, 42948, 1000}, {42949, 2000000000, 1000000}};
    for (int i = 0; i < 60000; i++) {
        const uint32_t *r = ranges[i % 3];
        uint32_t sec = std::uniform_int_distribution<uint32_t>(r[0], r[1])(rng), n = rng();
        unsigned j = rng() % 121, cap = std::min(j, 50u);
        struct timeval iv = {time_t(sec), suseconds_t(rng() % 1000000)}, a = iv;
        timer_apply_jitter(&a, &iv, j);
        int64_t dec = usec(iv) - usec(a);
        ASSERT_GE(a.tv_usec, 0);
        ASSERT_LT(a.tv_usec, 1000000);
        ASSERT_GE(dec, 0) << sec << "s " << iv.tv_usec << "us j" << j;
        ASSERT_LE(dec, usec(iv) * cap / 200) << sec << "s " << iv.tv_usec << "us j" << j;
        ASSERT_EQ(dec % r[2], 0) << sec << "s " << iv.tv_usec << "us j" << j;
        ASSERT_LT(uint64_t(grand(n)) * 2, uint64_t(n) + (n == 0));
    }
}

// Timers and jobs whose functions make, arm, expire and delete timers and
// jobs. A timer fires only when scheduled, told its period's seconds; then
// the function's decision stands, else a periodic one is re-armed and a
// one-shot one stays idle, still running. A foreground job runs once, in
// creation order; a background one waits again after each run. A record
// deleted by its own function stays listed, without owner, until it returns.
struct Chaos {
    Chaos(uint32_t seed, qvmodule *tp) : rng(seed), mods{tp, module("other")} {}
    // A pass in six follows a 2 ms pause. The second module goes last.
    void run(int steps)
    {
        for (int i = 0; i < steps && !::testing::Test::HasFatalFailure(); i++) {
            if (rnd(3) == 0)
                act(nullptr);
            if (rnd(6) == 0)
                usleep(2000);
            event_base_loop(g_event_base, EVLOOP_NONBLOCK);
            check(nullptr);
            ASSERT_TRUE(Lock::idle());
        }
        qvmodule_delete(mods[1]);
        for (qvmodule *o : {mods[0], (qvmodule *)nullptr})
            qvmodule_timer_delete_all(o), qvmodule_job_delete_all(o);
        live.clear();
        check(nullptr);
        EXPECT_GT(runs[0], 300) << "timer dispatches";
        EXPECT_GT(runs[1], 300) << "job dispatches";
    }
    static void timer_cb(qvmodule_timer *t, time_t interval)
    {
        auto *c = static_cast<Chaos *>(qvmodule_timer_data(t));
        Rec *m = c->find(t);
        ASSERT_NE(m, nullptr) << "a timer the model does not hold fired";
        ASSERT_TRUE(m->sched) << "an unscheduled timer fired";
        ASSERT_EQ(interval, m->period / 1000000);
        m->sched = m->resched = false;
        if ((m = c->dispatched(t, 0)) && !m->resched && m->period) { // the dispatcher re-arms
            c->arm_since = cached_now();
            c->arm(*m, m->period, m->period, m->jitter);
        }
        if (m == nullptr) {
            ASSERT_EQ(qvmodule_timer_qvmodule(t), nullptr) << "deleted, yet owned";
        }
        c->check(t);
    }
    static void job_cb(qvmodule_job *jp)
    {
        auto *c = static_cast<Chaos *>(qvmodule_job_data(jp));
        Rec *m = c->find(jp);
        ASSERT_NE(m, nullptr) << "a job the model does not hold ran";
        if (m->fg) {
            ASSERT_EQ(std::ranges::find(c->live, true, &Rec::fg)->r, jp) << "out of order";
        }
        bool fg = m->fg;
        if (c->dispatched(jp, 1) == nullptr) {
            ASSERT_EQ(qvmodule_job_qvmodule(jp), nullptr) << "deleted, yet owned";
        }
        if (fg)
            c->forget([jp](const Rec &x) { return x.r == jp; });
        c->check(jp);
    }
    // The function's acts, under the lock; then what is left of its record.
    Rec *dispatched(void *self, int job)
    {
        EXPECT_EQ(Lock::held, 1);
        runs[job]++;
        for (int n = 1 + rnd(2); n > 0; n--)
            act(self);
        return find(self);
    }
    unsigned rnd(unsigned n) { return rng() % n; }
    Rec *find(const void *r)
    {
        auto it = std::ranges::find(live, r, &Rec::r);
        return it == live.end() ? nullptr : &*it;
    }
    void forget(auto pred) { std::erase_if(live, pred); }
    void arm(Rec &m, int64_t period, int64_t delay, unsigned jitter, bool on = true)
    {
        m = {m.r, m.owner, on, on, true, on ? period : 0, delay, arm_since, jitter};
    }
    void act(void *self)
    {
        arm_since = cached_now(); // before the library reads the clock
        unsigned op = rnd(16), j = rnd(60), jobs = rnd(2);
        Rec *m = self && rnd(2) ? find(self) : live.empty() ? nullptr : &live[rnd(live.size())];
        int32_t us = 100 + rnd(2000), s = 1 + rnd(2), first = rnd(3);
        int prio = rnd(2) ? 128 : rnd(5) ? int(rnd(8)) : 64;
        utime_t iv = {0, us}, off = {0, int32_t(rnd(2000))};
        utime_t *ivp = rnd(3) ? &iv : nullptr, *offp = rnd(2) ? &off : nullptr;
        qvmodule *o = rnd(5) ? mods[rnd(2)] : nullptr, *d = mods[rnd(2)];
        bool timer = m && !m->job;
        if (op < 3 && live.size() < 40) {
            live.push_back({qvmodule_timer_create(o, "chaos", 0, 0, 0, timer_cb, this), o});
        } else if (op >= 3 && op < 6 && live.size() < 40) {
            qvmodule_job *jp = qvmodule_job_create(o, prio, "chaos", job_cb, this);
            live.push_back({.r = jp, .owner = o, .job = true, .fg = prio == 128});
        } else if (op >= 6 && op < 10 && timer) { // neither interval nor offset: a reset
            qvmodule_timer_uset(m->t(), ivp, offp, j);
            arm(*m, ivp ? us : 0, offp ? off.ut_usec : us, j, ivp || offp);
        } else if (op == 10 && timer) { // seconds, and a first delay of its own
            qvmodule_timer_set(m->t(), s, first);
            arm(*m, s * 1000000LL, (first ? first : s) * 1000000LL, 0);
        } else if (op == 11 && timer) { // libevent reports no sound expiry then
            qvmodule_timer_expire_immediately(m->t());
            m->delay = m->sched ? m->delay : -1;
            m->armed = m->sched = m->resched = true;
        } else if (op >= 12 && op < 14 && m) { // its own twice: found pending
            Rec x = *m;
            forget([&x](const Rec &y) { return y.r == x.r; });
            for (int n = x.r == self ? 2 : 1; n > 0; n--)
                x.job ? qvmodule_job_delete(x.j()) : qvmodule_timer_delete(x.t());
        } else if (op == 14) {
            forget([&](const Rec &y) { return y.owner == d && y.job == jobs; });
            jobs ? qvmodule_job_delete_all(d) : qvmodule_timer_delete_all(d);
        } else if (op == 15) {
            forget([&](const Rec &y) { return y.owner == mods[1]; });
            qvmodule_delete(std::exchange(mods[1], module("other")));
        }
    }
    // self is the record whose function runs: not yet re-armed or waiting
    // again, and listed until it returns if it is then to be freed.
    void check(void *self)
    {
        auto listed = [](auto *head, std::vector<void *> v = {}) {
            return qv::for_each(head, [&](auto *r) { v.push_back(r); }), v;
        };
        std::vector<void *> want[3], got[3] = {listed(&timer_head), listed(&qvmodule_job_fg_queue),
                                               listed(&qvmodule_job_bg_queue)};
        std::string shown[3], jobs, list[3] = {"", "Fourground Job List", "Background Job List"};
        unsigned in_pool[2] = {0, 0}, dying = self && !find(self);
        for (const Rec &m : live) {
            int k = m.job ? 2 - m.fg : 0;
            want[k].push_back(m.r);
            in_pool[m.job]++;
            std::string name = m.owner && !m.job ? qvmodule_name(m.owner) + std::string(".") : "";
            shown[k] +=
                (m.job ? R"(,"Job")" : R"(,"Timer")") + (R"(:{"Name":")" + name) + R"(chaos"})";
            if (m.r != self && !m.job)
                expect_timer(m);
            if (m.r != self && m.job) {
                ASSERT_EQ(qvmodule_job_qvmodule(m.j()), m.owner);
                ASSERT_EQ(qvmodule_job_priority(m.j()), m.fg ? 128u : 64u);
                ASSERT_TRUE(event_pending(m.j()->job_event, m.fg ? EV_READ : EV_TIMEOUT, nullptr));
            }
        }
        for (int i = 0; i < 3; i++)
            if (dying && std::erase(got[i], self))
                in_pool[i > 0]++, dying = 0;
        ASSERT_FALSE(dying) << "the running record left its list early";
        for (int i = 0; i < 3; i++)
            ASSERT_EQ(got[i], want[i]) << "list " << i;
        ASSERT_EQ(qvmodule_timer_block_index->tb_n_alloc, in_pool[0]);
        ASSERT_EQ(qvmodule_job_block_index->tb_n_alloc, in_pool[1]);
        // The shown lists, a job list only when it has jobs, jobs bare.
        for (int k : {1, 2})
            jobs += shown[k].empty() ? "" : ",\"" + list[k] + "\":{" + shown[k].substr(1) + "}";
        if (self == nullptr) {
            ASSERT_EQ(show(qvmodule_timer_show),
                      R"({"Timer List":{)" + shown[0].substr(!shown[0].empty()) + "}}");
            ASSERT_EQ(show(qvmodule_job_show), "{" + jobs.substr(!jobs.empty()) + "}");
        }
    }

    std::mt19937 rng;
    qvmodule *mods[2];
    std::vector<Rec> live;
    int runs[2] = {0, 0};
    int64_t arm_since = 0;
};

TEST_F(TimerJobTest, RandomisedDispatchAndDeletion)
{
    Chaos(1, tp).run(4500);
}

// Module names are cut to 40 characters and display names to 127, in one
// buffer; a timer without owner or name has an empty one.
TEST_F(TimerJobTest, TimerDisplayNamesAreCut)
{
    std::string n(200, 'n'), m40(40, 'M'), m60(60, 'M');
    qvmodule *lm = module(m60.c_str()), *owners[] = {lm, nullptr, nullptr, lm};
    const char *names[] = {"gamma", nullptr, n.c_str(), n.c_str()};
    std::string want[] = {m40 + ".gamma", "", n.substr(0, 127), (m40 + "." + n).substr(0, 127)};
    for (int i = 0; i < 4; i++) {
        qvmodule_timer *t = qvmodule_timer_create(owners[i], names[i], 0, 0, 0, nop, nullptr);
        EXPECT_EQ(qvmodule_timer_name(t), want[i]);
        EXPECT_EQ(qvmodule_timer_name(t), qvmodule_timer_name(timer_head.timer_forw));
    }
    qvmodule_delete(lm);
    qvmodule_timer_delete_all(nullptr);
}

// Each call dies of the fatal check with its text, reported from its file;
// some first take libevent's memory or the event base away.
struct Fatal {
    void (*before)();
    const char *file, *text;
    std::function<void()> call;
    static void as_is() {}
    static void no_base() { g_event_base = nullptr; }
    static void no_memory() { event_set_mem_functions(null_malloc, realloc, free); }
    static void *null_malloc(size_t) { return nullptr; }
};
#define FATAL(before, file, text, ...) (Fatal{Fatal::before, file, text, [=] { __VA_ARGS__; }})

TEST_F(TimerJobDeathTest, FatalChecks)
{
    qvmodule *m = tp;
    qvmodule_timer *t = qvmodule_timer_create(tp, "x", 0, 0, 0, nop, nullptr);
    qvmodule_job *f = qvmodule_job_create_foreground(tp, "f", nop_job, nullptr);
    qvmodule_job *b = qvmodule_job_create_background(tp, 64, "b", nop_job, nullptr);
    const char *T = "qv_timer.cpp", *J = "qv_jobs.cpp";
    std::vector<Fatal> cases = {
        FATAL(as_is, T, "flags == 0", qvmodule_timer_create(m, "x", 1, 0, 0, nop, 0)),
        FATAL(no_memory, T, "tip->timer_event", qvmodule_timer_create(m, "x", 0, 0, 0, nop, 0)),
        FATAL(no_base, T, "event_add(tip->timer_event, &tv) == 0",
              qvmodule_timer_create_oneshot(m, "x", 0, 5, 0, nop, 0)),
        FATAL(no_base, T, "event_del(tip->timer_event) == 0",
              qvmodule_timer_reset(qvmodule_timer_create(m, "x", 0, 0, 0, nop, 0))),
        FATAL(as_is, T, "(event & 0x01) == 0x01", qvmodule_timer_event_cb(-1, EV_READ, t)),
        FATAL(no_memory, J, "jp->job_event", qvmodule_job_create_foreground(m, "x", nop_job, 0)),
        FATAL(no_memory, J, "jp->job_event", qvmodule_job_create_background(m, 1, "x", nop_job, 0)),
        FATAL(no_base, J, "event_add(jp->job_event, &tv) == 0",
              qvmodule_job_create_background(m, 1, "x", nop_job, 0)),
        FATAL(no_base, J, "event_del(jp->job_event) == 0",
              qvmodule_job_delete(qvmodule_job_create_foreground(m, "x", nop_job, 0))),
        FATAL(as_is, J, "(event & 0x02) == 0x02", qvmodule_job_event_cb(-1, EV_TIMEOUT, f)),
        FATAL(as_is, J, "(event & 0x01) == 0x01", qvmodule_job_event_cb(-1, EV_READ, b))};
    for (int p : {8, 63, 65, 127, -1, 129})
        cases.push_back(
            FATAL(as_is, J, "priority == 128", qvmodule_job_create(m, p, "x", nop_job, 0)));
    for (int p : {128, 8, -1})
        cases.push_back(FATAL(as_is, J, "(priority <= 7 && priority >= 0) || priority == 64",
                              qvmodule_job_create_background(m, p, "x", nop_job, 0)));
    for (const Fatal &c : cases)
        EXPECT_DEATH((c.before(), c.call()), qvtest::fatal_re(std::string(c.file) + ":.*", c.text));
}

void delete_and_stop(qvmodule_timer *t, time_t)
{
    qvmodule_timer_delete(t);
    event_base_loopexit(g_event_base, nullptr);
}

void delete_twice_and_stop(qvmodule_job *jp)
{
    qvmodule_job_delete(jp);
    qvmodule_job_delete(jp);
    event_base_loopexit(g_event_base, nullptr);
}

// Tracing switched on and off through the management commands leaves the
// other bits alone; the lock stands around every section.
TEST(TimerJobDaemon, TraceLinesAndTheLockAmongThem)
{
    qvtest::Daemon d(true);
    std::string text;
    int status = qvtest::run_in_child([&] {
        d.start("/usr/sbin/qvd");
        qv_ui_init("qvd");
        qvmodule *m = module("m");
        trace_type_enable(trace_global, QV_TRACE_SOCKET);
        jrpc_invoke_trace("qvd", "timer", 1), jrpc_invoke_trace("qvd", "job", 1);
        bool on = trace_global->trace_mask == (QV_TRACE_SOCKET | QV_TRACE_TIMER | QV_TRACE_JOB);
        trace_cb(trace_global, TRUE, -1, "go");
        qv_giant_lock_func_init(Lock::record);
        qvmodule_timer_create_oneshot(m, "t1", 0, 0, 0, delete_and_stop, nullptr);
        qvmodule_timer *t2 = qvmodule_timer_create(m, "t2", 0, 0, 0, nop, nullptr);
        qv_daemon_loop();
        qvmodule_timer_running(t2);
        qvmodule_timer_set_oneshot(t2, 5, 0);
        qvmodule_timer_expire_immediately(t2);
        qvmodule_timer_reset(t2);
        qvmodule_timer_delete_all(m);
        qvmodule_job_create_foreground(m, "f", nop_job, nullptr);
        qvmodule_job_create_background(m, 64, "b", delete_twice_and_stop, nullptr);
        qv_daemon_loop();
        qvmodule_job_create_foreground(m, "c", nop_job, nullptr);
        qvmodule_job_delete_all(m);
        jrpc_invoke_trace("qvd", "timer", 0), jrpc_invoke_trace("qvd", "job", 0);
        qvmodule_timer_delete(qvmodule_timer_create(m, "quiet", 0, 0, 0, nop, nullptr));
        qvmodule_job_create_foreground(m, "quiet", nop_job, nullptr);
        event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        return on && trace_global->trace_mask == QV_TRACE_SOCKET && Lock::idle() ? 0 : 2;
    });
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    // The messages after "go", less their leading "qvmodule_".
    for (const std::string &line : qvtest::read_lines(d.trace)) {
        std::string msg = line.substr(line.find("]  ") + 3);
        text += "; " + msg.substr(msg.rfind("qvmodule_", 0) == 0 ? 9 : 0);
    }
    EXPECT_EQ(text.substr(text.find("; go; ") + 6),
              "L; timer_create_internal: name:t1; L; U; U; L; timer_create_internal: name:t2; U; "
              "L; timer_event_cb: dispatching timer name:t1; timer_delete: name:t1; "
              "timer_delete_internal: name:t1; L; U; U; L; U; L; U; L; U; L; U; timer_delete_all:; "
              "timer_delete: name:t2; timer_delete_internal: name:t2; L; U; "
              "L; U; job_create_foreground: name:f; L; U; job_create_background: name:b; "
              "L; job_event_cb: dispatching job, name:f; L; job_delete_internal: name:f; U; U; "
              "L; job_event_cb: dispatching job, name:b; job_delete: name:b; job_delete: name:b; "
              "L; job_delete_internal: name:b; U; U; L; U; job_create_foreground: name:c; "
              "job_delete_all:; job_delete: name:c; L; job_delete_internal: name:c; U; "
              "L; U; L; U; L; U; L; L; U; U");
}

} // namespace
