// Jobs: a seeded random model of creation, runs and deletion, the show
// output, trace lines with the lock among them, and the fatal checks.

#include <gtest/gtest.h>

#include <event2/event.h>
#include <stdlib.h>

#include <algorithm>

#include "timer_job_test_util.h"

namespace
{

using JobTest = qvtest::TimerJobTest;

void nop(qvmodule_job *) {}

std::vector<qvmodule_job *> queued(qvmodule_job *head)
{
    std::vector<qvmodule_job *> out;
    for (qvmodule_job *j = head->job_forw; j != head; j = j->job_forw)
        out.push_back(j);
    return out;
}

struct JobModel {
    qvmodule_job *r;
    qvmodule *owner;
    bool fg;
};

// Jobs whose functions make and delete jobs. Every level up to 7 and 64
// make a background job, 128 a foreground one. A foreground job runs once,
// in creation order, and is freed; a background one is queued again after
// each run until deleted.
struct JobChaos : qvtest::Chaos<qvmodule_job, JobModel> {
    JobChaos(uint32_t seed, qvmodule *tp)
        : Chaos(seed, tp, qvmodule_job_delete, qvmodule_job_delete_all)
    {
    }
    static void cb(qvmodule_job *jp)
    {
        auto *c = static_cast<JobChaos *>(qvmodule_job_data(jp));
        auto first_fg = std::find_if(c->live.begin(), c->live.end(), [](auto &m) { return m.fg; });
        JobModel *m = c->find(jp);
        ASSERT_TRUE(m && (!m->fg || first_fg->r == jp));
        ASSERT_EQ(qvtest::lock_held.size(), 1u);
        c->runs++;
        bool fg = m->fg;
        for (int n = 1 + c->rnd(2); n > 0; n--)
            c->act(jp);
        if (fg)
            c->forget(jp);
        c->check(jp);
    }
    void act(qvmodule_job *self)
    {
        unsigned op = rnd(7);
        if (op >= 3) {
            shared_op(op < 5 ? 0 : op - 4, self);
        } else if (live.size() < 20) {
            int prio = rnd(2) ? 128 : rnd(5) ? int(rnd(8)) : 64;
            qvmodule *o = owner();
            live.push_back({qvmodule_job_create(o, prio, "chaos", cb, this), o, prio == 128});
        }
    }
    // self is the job whose function runs: not yet queued again, and still
    // queued if it is to be freed when it returns.
    void check(qvmodule_job *self)
    {
        std::vector<qvmodule_job *> want[2],
            got[2] = {queued(&qvmodule_job_bg_queue), queued(&qvmodule_job_fg_queue)};
        for (const JobModel &m : live) {
            want[m.fg].push_back(m.r);
            ASSERT_EQ(qvmodule_job_priority(m.r), m.fg ? 128u : 64u);
            ASSERT_EQ(qvmodule_job_qvmodule(m.r), m.owner);
            ASSERT_TRUE(m.r == self ||
                        event_pending(m.r->job_event, m.fg ? EV_READ : EV_TIMEOUT, nullptr));
        }
        bool dying = self && !find(self);
        ASSERT_TRUE(!dying || std::erase(got[self->job_priority == 128], self) == 1);
        ASSERT_EQ(got[0], want[0]);
        ASSERT_EQ(got[1], want[1]);
        ASSERT_EQ(qvmodule_job_block_index->tb_n_alloc, live.size() + dying);
    }
};

TEST_F(JobTest, RandomisedRunsAndDeletion)
{
    qvtest::run_chaos<JobChaos>(tp, {11, 12, 13});
}

TEST_F(JobTest, ShowListsForegroundThenBackground)
{
    EXPECT_EQ(qvtest::show(qvmodule_job_show), "{}");
    qvmodule_job *b1 = qvmodule_job_create_background(tp, 64, "b1", nop, nullptr);
    qvmodule_job *b2 = qvmodule_job_create_background(nullptr, 0, "b2", nop, nullptr);
    const std::string bg = "Background Job List{Job{Name=b1},Job{Name=b2}}";
    EXPECT_EQ(qvtest::show(qvmodule_job_show), "{" + bg + "}");
    qvmodule_job_create_foreground(tp, "f1", nop, nullptr);
    qvmodule_job_create_foreground(nullptr, "f2", nop, nullptr);
    EXPECT_EQ(qvtest::show(qvmodule_job_show),
              "{Fourground Job List{Job{Name=f1},Job{Name=f2}}," + bg + "}");
    qvtest::pass();
    qvmodule_job_delete(b1);
    qvmodule_job_delete(b2);
}

void delete_twice(qvmodule_job *jp)
{
    qvmodule_job_delete(jp);
    qvmodule_job_delete(jp);
}

TEST_F(JobTest, TraceLinesAndTheLockAroundEverySection)
{
    qvtest::TraceCapture trace;
    trace_type_enable(trace_global, QV_TRACE_TIMER | QV_TRACE_SOCKET);
    EXPECT_EQ(qvmodule_job_trace_on(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_TIMER | QV_TRACE_SOCKET | QV_TRACE_JOB);
    trace_type_disable(trace_global, QV_TRACE_TIMER | QV_TRACE_SOCKET);
    qvmodule_job_create_foreground(tp, "f", nop, nullptr);
    qvmodule_job_create_background(tp, 64, "b", delete_twice, nullptr);
    for (int i = 0; i < 1000 && qvmodule_job_block_index->tb_n_alloc; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    qvmodule_job_create_foreground(tp, "c", nop, nullptr);
    qvmodule_job_delete_all(tp);
    EXPECT_EQ(qvmodule_job_trace_off(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, 0u);
    qvmodule_job_create_foreground(tp, "quiet", nop, nullptr);
    qvtest::pass();
    EXPECT_EQ(trace.text(),
              "L; U; qvmodule_job_create_foreground: name:f; "
              "L; U; qvmodule_job_create_background: name:b; "
              "qvmodule_job_event_cb: dispatching job, name:f; L; L; "
              "qvmodule_job_delete_internal: name:f; U; U; "
              "qvmodule_job_event_cb: dispatching job, name:b; L; qvmodule_job_delete: name:b; "
              "qvmodule_job_delete: name:b; L; qvmodule_job_delete_internal: name:b; U; U; "
              "L; U; qvmodule_job_create_foreground: name:c; qvmodule_job_delete_all:; "
              "qvmodule_job_delete: name:c; L; qvmodule_job_delete_internal: name:c; U; "
              "L; U; L; L; U; U");
}

void *no_memory(size_t)
{
    return nullptr;
}

using JobDeathTest = JobTest;

TEST_F(JobDeathTest, FatalChecks)
{
    qvmodule *m = tp;
    qvmodule_job *f = qvmodule_job_create_foreground(tp, "f", nop, nullptr);
    qvmodule_job *b = qvmodule_job_create_background(tp, 64, "b", nop, nullptr);
    std::vector<qvtest::Fatal> cases = {
        {"jp->job_event",
         [m] {
             event_set_mem_functions(no_memory, realloc, free);
             qvmodule_job_create_foreground(m, "x", nop, nullptr);
         }},
        {"jp->job_event",
         [m] {
             event_set_mem_functions(no_memory, realloc, free);
             qvmodule_job_create_background(m, 1, "x", nop, nullptr);
         }},
        // An event without a base can be neither added nor deleted.
        {"event_add(jp->job_event, &tv) == 0",
         [m] {
             g_event_base = nullptr;
             qvmodule_job_create_background(m, 1, "x", nop, nullptr);
         }},
        {"event_del(jp->job_event) == 0",
         [f] {
             event_free(f->job_event);
             f->job_event = event_new(nullptr, -1, EV_READ, qvmodule_job_event_cb, f);
             qvmodule_job_delete(f);
         }},
        {"(event & 0x02) == 0x02", [f] { qvmodule_job_event_cb(-1, EV_TIMEOUT, f); }},
        {"(event & 0x01) == 0x01", [b] { qvmodule_job_event_cb(-1, EV_READ, b); }},
    };
    for (int prio : {8, 63, 65, 127, -1, 129})
        cases.push_back(
            {"priority == 128", [m, prio] { qvmodule_job_create(m, prio, "x", nop, 0); }});
    for (int prio : {128, 8, -1})
        cases.push_back({"(priority <= 7 && priority >= 0) || priority == 64",
                         [m, prio] { qvmodule_job_create_background(m, prio, "x", nop, 0); }});
    qvtest::expect_fatal("qv_jobs.cpp", cases);
    qvmodule_job_delete(f);
    qvmodule_job_delete(b);
}

} // namespace
