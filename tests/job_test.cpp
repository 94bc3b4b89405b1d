// Jobs: priorities, a foreground job's single run, a background job's
// repeated runs, deferred deletion, the show output, tracing and the
// giant lock.

#include <gtest/gtest.h>

#include <event2/event.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qv_daemon_private.h"
#include "qv_jobs_private.h"
#include "timer_job_test_util.h"

using qvtest::LockRecorder;
using qvtest::members;
using qvtest::TraceCapture;

namespace
{

::testing::Environment *const env = ::testing::AddGlobalTestEnvironment(new qvtest::TimerJobEnv);

// Data of a test job: how often it ran and what it does when it runs. The
// runs of all probes are logged in order.
std::vector<std::string> run_log;

struct Probe {
    explicit Probe(const char *n) : name(n) {}
    std::string name;
    int runs = 0;
    std::function<void(qvmodule_job *)> action;
};

void probe_cb(qvmodule_job *jp)
{
    auto *p = static_cast<Probe *>(qvmodule_job_data(jp));
    p->runs++;
    run_log.push_back(p->name);
    if (p->action)
        p->action(jp);
}

std::vector<qvmodule_job *> queued(qvmodule_job *head)
{
    std::vector<qvmodule_job *> out;
    for (qvmodule_job *j = head->job_forw; j != head; j = j->job_forw)
        out.push_back(j);
    return out;
}

unsigned int pool_in_use()
{
    return qvmodule_job_block_index->tb_n_alloc;
}

void pass()
{
    event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

bool run_until(const std::function<bool()> &pred, int max_passes = 5000)
{
    for (int i = 0; i < max_passes && !pred(); i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    return pred();
}

class JobTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        run_log.clear();
        tp = qvmodule_alloc("mod", 0, nullptr);
        qvmodule_create(tp);
    }
    void TearDown() override
    {
        qv_giant_lock_func_init(nullptr);
        qvmodule_delete(tp);
        EXPECT_TRUE(queued(&qvmodule_job_fg_queue).empty());
        EXPECT_TRUE(queued(&qvmodule_job_bg_queue).empty());
        EXPECT_EQ(pool_in_use(), 0u);
    }
    qvmodule_job *fg(Probe &p)
    {
        return qvmodule_job_create_foreground(tp, p.name.c_str(), probe_cb, &p);
    }
    qvmodule_job *bg(Probe &p)
    {
        return qvmodule_job_create_background(tp, 64, p.name.c_str(), probe_cb, &p);
    }
    qvmodule *tp = nullptr;
};

TEST_F(JobTest, PriorityChoosesTheKind)
{
    Probe p{"p"};
    std::vector<qvmodule_job *> background;
    for (int prio : {0, 3, 7, 64}) {
        qvmodule_job *jp = qvmodule_job_create(tp, prio, "b", probe_cb, &p);
        EXPECT_EQ(qvmodule_job_priority(jp), 64u) << prio;
        background.push_back(jp);
    }
    qvmodule_job *jp = qvmodule_job_create(tp, 128, "f", probe_cb, &p);
    EXPECT_EQ(qvmodule_job_priority(jp), 128u);
    EXPECT_EQ(queued(&qvmodule_job_bg_queue), background);
    EXPECT_EQ(queued(&qvmodule_job_fg_queue), std::vector<qvmodule_job *>{jp});
    EXPECT_EQ(qvmodule_job_qvmodule(jp), tp);
    EXPECT_STREQ(qvmodule_get_job_name(jp), "f");
    qvmodule_job_set_data(jp, nullptr);
    EXPECT_EQ(qvmodule_job_data(jp), nullptr);
    for (qvmodule_job *b : background)
        qvmodule_job_delete(b);
    qvmodule_job_delete(jp);
    pass();
    EXPECT_EQ(p.runs, 0);
    EXPECT_STREQ(qvmodule_job_fg_queue.job_name, "Job Foreground Queue");
    EXPECT_STREQ(qvmodule_job_bg_queue.job_name, "Job Background Queue");
}

TEST_F(JobTest, ForegroundRunsOnceInCreationOrderAndIsFreed)
{
    Probe a{"a"}, b{"b"}, c{"c"}, never{"never"};
    unsigned int frees = qvmodule_job_block_index->tb_n_free_requests;
    fg(a);
    qvmodule_job *gone = fg(never);
    fg(b);
    fg(c);
    qvmodule_job_delete(gone);
    pass();
    EXPECT_EQ(run_log, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(pool_in_use(), 0u);
    EXPECT_EQ(qvmodule_job_block_index->tb_n_free_requests, frees + 4);
    for (int i = 0; i < 5; i++)
        pass();
    EXPECT_EQ(run_log.size(), 3u);
}

TEST_F(JobTest, ForegroundMadeInACallbackRunsInThisPassOrTheNext)
{
    Probe outer{"outer"}, inner{"inner"};
    outer.action = [&](qvmodule_job *) { fg(inner); };
    fg(outer);
    pass();
    pass();
    EXPECT_EQ(run_log, (std::vector<std::string>{"outer", "inner"}));
}

TEST_F(JobTest, BackgroundRunsUntilItDeletesItself)
{
    Probe p{"bg"};
    unsigned int in_use_during = 0;
    bool queued_during = false;
    p.action = [&](qvmodule_job *self) {
        if (p.runs < 3)
            return;
        qvmodule_job_delete(self);
        in_use_during = pool_in_use();
        auto q = queued(&qvmodule_job_bg_queue);
        queued_during = std::find(q.begin(), q.end(), self) != q.end();
        EXPECT_EQ(qvmodule_job_qvmodule(self), nullptr);
    };
    bg(p);
    ASSERT_TRUE(run_until([&] { return p.runs == 3; }));
    EXPECT_EQ(in_use_during, 1u);
    EXPECT_TRUE(queued_during);
    EXPECT_EQ(pool_in_use(), 0u);
    for (int i = 0; i < 10; i++)
        event_base_loop(g_event_base, EVLOOP_ONCE);
    EXPECT_EQ(p.runs, 3);
}

TEST_F(JobTest, SecondDeleteWhileRunningOnlyTraces)
{
    TraceCapture trace;
    qvmodule_job_trace_on(nullptr);
    Probe p{"twice"};
    p.action = [](qvmodule_job *self) {
        qvmodule_job_delete(self);
        qvmodule_job_delete(self);
    };
    unsigned int frees = qvmodule_job_block_index->tb_n_free_requests;
    bg(p);
    ASSERT_TRUE(run_until([&] { return p.runs == 1; }));
    EXPECT_EQ(qvmodule_job_block_index->tb_n_free_requests, frees + 1);
    auto msgs = trace.messages();
    EXPECT_EQ(std::count(msgs.begin(), msgs.end(), "qvmodule_job_delete: name:twice"), 2);
    EXPECT_EQ(std::count(msgs.begin(), msgs.end(), "qvmodule_job_delete_internal: name:twice"), 1);
}

TEST_F(JobTest, DeleteAllWhileOneOfThemRunsAndModuleDeletion)
{
    qvmodule *other = qvmodule_alloc("other", 0, nullptr);
    qvmodule_create(other);
    Probe f1{"f1"}, b1{"b1"}, b2{"b2"}, o1{"o1"}, o2{"o2"};
    std::vector<qvmodule_job *> fg_during, bg_during;
    b1.action = [&](qvmodule_job *) {
        fg(f1); // removed before it can run
        qvmodule_job_delete_all(tp);
        fg_during = queued(&qvmodule_job_fg_queue);
        bg_during = queued(&qvmodule_job_bg_queue);
    };
    qvmodule_job *jb1 = bg(b1);
    qvmodule_job *ob = qvmodule_job_create_background(other, 2, "o1", probe_cb, &o1);
    bg(b2);
    qvmodule_job_create_foreground(other, "o2", probe_cb, &o2);
    ASSERT_TRUE(run_until([&] { return b1.runs == 1; }));
    EXPECT_TRUE(fg_during.empty());
    EXPECT_EQ(bg_during, (std::vector<qvmodule_job *>{jb1, ob}));
    EXPECT_EQ(queued(&qvmodule_job_bg_queue), std::vector<qvmodule_job *>{ob});
    for (int i = 0; i < 3; i++)
        pass();
    EXPECT_EQ(f1.runs, 0);
    EXPECT_EQ(o2.runs, 1);

    // Deleting the module takes its jobs, a foreground one not yet run too.
    Probe o3{"o3"};
    qvmodule_job_create_foreground(other, "o3", probe_cb, &o3);
    qvmodule_delete(other);
    EXPECT_TRUE(queued(&qvmodule_job_bg_queue).empty());
    EXPECT_TRUE(queued(&qvmodule_job_fg_queue).empty());
    pass();
    EXPECT_EQ(o3.runs, 0);
}

std::vector<std::string> shown(const char *list_name, cJSON *root)
{
    std::vector<std::string> names;
    auto lists = members(root, list_name);
    EXPECT_LE(lists.size(), 1u);
    for (cJSON *list : lists) {
        EXPECT_EQ(cJSON_GetArraySize(list), int(members(list, "Job").size()));
        for (cJSON *job : members(list, "Job"))
            names.push_back(cJSON_GetObjectItem(job, "Name")->valuestring);
    }
    return names;
}

cJSON *show()
{
    cJSON *root = cJSON_CreateObject();
    jrpc_method_ctx ctx = {nullptr, root};
    EXPECT_EQ(qvmodule_job_show(&ctx), JRPC_SUCCESS);
    return root;
}

TEST_F(JobTest, ShowListsForegroundThenBackground)
{
    cJSON *root = show();
    EXPECT_EQ(root->child, nullptr);
    cJSON_Delete(root);

    Probe b1{"b1"}, b2{"b2"}, f1{"f1"}, f2{"f2"};
    qvmodule_job *jb1 = bg(b1);
    qvmodule_job *jb2 = qvmodule_job_create_background(nullptr, 0, "b2", probe_cb, &b2);
    root = show();
    EXPECT_EQ(members(root, "Fourground Job List").size(), 0u);
    EXPECT_EQ(shown("Background Job List", root), (std::vector<std::string>{"b1", "b2"}));
    cJSON_Delete(root);

    fg(f1);
    fg(f2);
    root = show();
    ASSERT_NE(root->child, nullptr);
    EXPECT_STREQ(root->child->string, "Fourground Job List");
    EXPECT_EQ(shown("Fourground Job List", root), (std::vector<std::string>{"f1", "f2"}));
    EXPECT_EQ(shown("Background Job List", root), (std::vector<std::string>{"b1", "b2"}));
    cJSON_Delete(root);
    pass();
    qvmodule_job_delete(jb1);
    qvmodule_job_delete(jb2);
}

TEST_F(JobTest, TraceLinesFollowTheJobBit)
{
    TraceCapture trace;
    trace_type_enable(trace_global, QV_TRACE_TIMER | QV_TRACE_SOCKET);
    EXPECT_EQ(qvmodule_job_trace_on(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_TIMER | QV_TRACE_SOCKET | QV_TRACE_JOB);
    trace_type_disable(trace_global, QV_TRACE_TIMER | QV_TRACE_SOCKET);

    Probe f{"f"}, b{"b"};
    b.action = [](qvmodule_job *self) { qvmodule_job_delete(self); };
    fg(f);
    bg(b);
    ASSERT_TRUE(run_until([&] { return b.runs == 1; }));
    qvmodule_job_delete_all(tp);
    EXPECT_EQ(qvmodule_job_trace_off(nullptr), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, 0u);
    Probe quiet{"quiet"};
    fg(quiet);
    pass();

    EXPECT_EQ(trace.messages(), (std::vector<std::string>{
                                    "qvmodule_job_create_foreground: name:f",
                                    "qvmodule_job_create_background: name:b",
                                    "qvmodule_job_event_cb: dispatching job, name:f",
                                    "qvmodule_job_delete_internal: name:f",
                                    "qvmodule_job_event_cb: dispatching job, name:b",
                                    "qvmodule_job_delete: name:b",
                                    "qvmodule_job_delete_internal: name:b",
                                    "qvmodule_job_delete_all:",
                                }));
}

// The dispatch line is written before the lock is taken, and the free
// comes inside it.
int tracing_lock(int lock, int)
{
    trace_cb(trace_global, TRUE, -1, lock ? "lock" : "unlock");
    return 0;
}

TEST_F(JobTest, DispatchLineComesBeforeTheLock)
{
    TraceCapture trace;
    Probe f{"f"};
    fg(f);
    trace_type_enable(trace_global, QV_TRACE_JOB);
    qv_giant_lock_func_init(tracing_lock);
    pass();
    qv_giant_lock_func_init(nullptr);
    EXPECT_EQ(trace.messages(), (std::vector<std::string>{
                                    "qvmodule_job_event_cb: dispatching job, name:f",
                                    "lock",
                                    "lock",
                                    "qvmodule_job_delete_internal: name:f",
                                    "unlock",
                                    "unlock",
                                }));
}

TEST_F(JobTest, GiantLockNestsAroundEverySection)
{
    LockRecorder rec;
    rec.install();
    size_t depth_in_function = 0;
    Probe f{"f"}, b{"b"};
    f.action = [&](qvmodule_job *) { depth_in_function = rec.depth(); };
    b.action = [&](qvmodule_job *self) {
        if (b.runs == 2)
            qvmodule_job_delete(self);
    };
    fg(f);
    EXPECT_EQ(rec.take(), "LU");
    pass();
    EXPECT_EQ(rec.take(), "LLUU"); // run, then freed inside the lock
    EXPECT_EQ(depth_in_function, 1u);
    bg(b);
    EXPECT_EQ(rec.take(), "LU");
    ASSERT_TRUE(run_until([&] { return b.runs == 1; }));
    EXPECT_EQ(rec.take(), "LU"); // run and re-add
    ASSERT_TRUE(run_until([&] { return b.runs == 2; }));
    EXPECT_EQ(rec.take(), "LLUU");
    Probe d{"d"};
    qvmodule_job_delete(bg(d));
    EXPECT_EQ(rec.take(), "LULU");
    EXPECT_TRUE(rec.matched);
    EXPECT_EQ(rec.depth(), 0u);
}

// Jobs whose functions make, delete and mass-delete jobs at random; the
// queues and the pool must agree with a model between loop passes.
class JobChaos
{
  public:
    JobChaos(qvmodule *a, qvmodule *b, uint32_t seed) : rng_(seed), mods_{a, b} {}

    void step()
    {
        if (rng_() % 3 == 0)
            act(nullptr);
        event_base_loop(g_event_base, rng_() % 10 == 0 ? EVLOOP_ONCE : EVLOOP_NONBLOCK);
        check();
    }
    void finish()
    {
        for (Model &m : jobs_)
            qvmodule_job_delete(m.jp);
        jobs_.clear();
        check();
    }
    int runs = 0;

  private:
    struct Model {
        qvmodule_job *jp;
        qvmodule *owner;
        bool foreground;
    };

    static void cb(qvmodule_job *jp)
    {
        auto *self = static_cast<JobChaos *>(qvmodule_job_data(jp));
        self->runs++;
        self->act(jp);
        // A foreground job is freed when it returns.
        if (jp->job_priority == QVMODULE_JOB_PRIORITY_FOREGROUND)
            self->forget(jp);
    }
    void forget(qvmodule_job *jp)
    {
        auto it =
            std::find_if(jobs_.begin(), jobs_.end(), [&](const Model &m) { return m.jp == jp; });
        if (it != jobs_.end())
            jobs_.erase(it);
    }
    void act(qvmodule_job *self)
    {
        switch (rng_() % 6) {
        case 0:
        case 1: {
            if (jobs_.size() >= 20)
                break;
            qvmodule *owner = mods_[rng_() % 2];
            bool foreground = rng_() % 2;
            qvmodule_job *jp = foreground
                                   ? qvmodule_job_create_foreground(owner, "fg", cb, this)
                                   : qvmodule_job_create(owner, int(rng_() % 8), "bg", cb, this);
            jobs_.push_back({jp, owner, foreground});
            break;
        }
        case 2:
            if (self) {
                qvmodule_job_delete(self);
                forget(self);
            }
            break;
        case 3:
            if (!jobs_.empty()) {
                qvmodule_job *victim = jobs_[rng_() % jobs_.size()].jp;
                qvmodule_job_delete(victim);
                forget(victim);
            }
            break;
        case 4: {
            qvmodule *owner = mods_[rng_() % 2];
            qvmodule_job_delete_all(owner);
            std::vector<Model> keep;
            for (const Model &m : jobs_)
                if (m.owner != owner)
                    keep.push_back(m);
            jobs_ = keep;
            break;
        }
        default:
            break;
        }
    }
    void check()
    {
        std::vector<qvmodule_job *> want_fg, want_bg;
        for (const Model &m : jobs_)
            (m.foreground ? want_fg : want_bg).push_back(m.jp);
        ASSERT_EQ(queued(&qvmodule_job_fg_queue), want_fg);
        ASSERT_EQ(queued(&qvmodule_job_bg_queue), want_bg);
        ASSERT_EQ(pool_in_use(), jobs_.size());
    }

    std::mt19937 rng_;
    qvmodule *mods_[2];
    std::vector<Model> jobs_;
};

TEST_F(JobTest, RandomisedCreationAndDeletion)
{
    qvmodule *other = qvmodule_alloc("other", 0, nullptr);
    qvmodule_create(other);
    for (uint32_t seed : {11u, 12u, 13u}) {
        SCOPED_TRACE(seed);
        JobChaos chaos(tp, other, seed);
        for (int i = 0; i < 1500 && !HasFatalFailure(); i++)
            chaos.step();
        chaos.finish();
        EXPECT_GT(chaos.runs, 100);
    }
    qvmodule_delete(other);
}

void no_op(qvmodule_job *) {}

void *no_memory(size_t)
{
    return nullptr;
}

using JobDeathTest = JobTest;

TEST_F(JobDeathTest, AssertionTexts)
{
    using qvtest::assertion_re;
    for (int prio : {8, 63, 65, 127, -1, 129})
        EXPECT_DEATH(qvmodule_job_create(tp, prio, "x", no_op, nullptr),
                     assertion_re("qv_jobs.cpp", "priority == 128"))
            << prio;
    for (int prio : {128, 8, -1})
        EXPECT_DEATH(
            qvmodule_job_create_background(tp, prio, "x", no_op, nullptr),
            assertion_re("qv_jobs.cpp", "(priority <= 7 && priority >= 0) || priority == 64"))
            << prio;
    EXPECT_DEATH(
        {
            event_set_mem_functions(no_memory, realloc, free);
            qvmodule_job_create_foreground(tp, "x", no_op, nullptr);
        },
        assertion_re("qv_jobs.cpp", "jp->job_event"));
    EXPECT_DEATH(
        {
            event_set_mem_functions(no_memory, realloc, free);
            qvmodule_job_create_background(tp, 1, "x", no_op, nullptr);
        },
        assertion_re("qv_jobs.cpp", "jp->job_event"));
    // An event without a base can be neither added nor deleted.
    EXPECT_DEATH(
        {
            g_event_base = nullptr;
            qvmodule_job_create_background(tp, 1, "x", no_op, nullptr);
        },
        assertion_re("qv_jobs.cpp", "event_add(jp->job_event, &tv) == 0"));
    EXPECT_DEATH(
        {
            qvmodule_job *jp = qvmodule_job_create_foreground(tp, "x", no_op, nullptr);
            event_free(jp->job_event);
            jp->job_event = event_new(nullptr, -1, EV_READ, qvmodule_job_event_cb, jp);
            qvmodule_job_delete(jp);
        },
        assertion_re("qv_jobs.cpp", "event_del(jp->job_event) == 0"));

    qvmodule_job *f = qvmodule_job_create_foreground(tp, "f", no_op, nullptr);
    qvmodule_job *b = qvmodule_job_create_background(tp, 64, "b", no_op, nullptr);
    EXPECT_DEATH(qvmodule_job_event_cb(-1, EV_TIMEOUT, f),
                 assertion_re("qv_jobs.cpp", "(event & 0x02) == 0x02"));
    EXPECT_DEATH(qvmodule_job_event_cb(-1, EV_READ, b),
                 assertion_re("qv_jobs.cpp", "(event & 0x01) == 0x01"));
    qvmodule_job_delete(f);
    qvmodule_job_delete(b);
}

} // namespace
