// Shared by the timer and job tests: the subsystems on a fresh event base,
// a recording giant lock, trace and show capture, fatal-check tables and
// the frame of the seeded random tests.
#pragma once

#include <gtest/gtest.h>

#include <event2/event.h>
#include <string.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qv_daemon.h"
#include "qv_jobs_private.h"
#include "qv_memory.h"
#include "qv_test_util.h"
#include "qv_trace.h"

namespace qvtest
{

struct TimerJobEnv : ::testing::Environment {
    void SetUp() override
    {
        g_event_base = event_base_new();
        qvmodule_memory_init();
        qvmodule_init();
        qvmodule_timer_init();
        qvmodule_job_init();
    }
};
inline ::testing::Environment *const timer_job_env =
    ::testing::AddGlobalTestEnvironment(new TimerJobEnv);

// Every unlock must pass back the result of the lock it matches. With a
// trace file open, "L" and "U" lines show where the lock stands.
inline std::vector<int> lock_held;
inline bool lock_matched = true;
inline int record_lock(int lock, int res)
{
    if (trace_global)
        trace_cb(trace_global, TRUE, -1, lock ? "L" : "U");
    if (lock) {
        lock_held.push_back(int(lock_held.size()) + 100);
        return lock_held.back();
    }
    lock_matched = lock_matched && !lock_held.empty() && lock_held.back() == res;
    if (!lock_held.empty())
        lock_held.pop_back();
    return 0;
}

// A module "mod", the recording lock, and no record left behind.
class TimerJobTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        tp = qvmodule_alloc("mod", 0, nullptr);
        qvmodule_create(tp);
        qv_giant_lock_func_init(record_lock);
    }
    void TearDown() override
    {
        qvmodule_delete(tp);
        qv_giant_lock_func_init(nullptr);
        EXPECT_TRUE(lock_held.empty() && lock_matched);
        EXPECT_EQ(qvmodule_timer_block_index->tb_n_alloc, 0u);
        EXPECT_EQ(qvmodule_job_block_index->tb_n_alloc, 0u);
    }
    qvmodule *tp = nullptr;
};

inline void pass()
{
    event_base_loop(g_event_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

// The messages of a trace file starting with prefix, joined by "; ".
inline std::string trace_text(const std::string &path, const std::string &prefix = "")
{
    std::string out;
    for (const std::string &line : read_lines(path)) {
        std::string msg = line.substr(line.find("]  ") + 3);
        if (msg.rfind(prefix, 0) == 0)
            out += (out.empty() ? "" : "; ") + msg;
    }
    return out;
}

// A trace file of its own as trace_global, for tests without start-up.
class TraceCapture
{
  public:
    TraceCapture() { trace_global = trace_file_open(dir_.file("t.log").c_str(), 1000000, 2); }
    ~TraceCapture()
    {
        trace_file_close(trace_global);
        trace_global = nullptr;
    }
    std::string text() const { return trace_text(dir_.file("t.log")); }

  private:
    TempDir dir_;
};

// A cJSON object as name{member,...}, a string member as name=value.
inline std::string flat(const cJSON *o)
{
    std::string s = o->string ? o->string : "";
    if (cJSON_IsString(o))
        return s + "=" + o->valuestring;
    s += "{";
    for (const cJSON *c = o->child; c; c = c->next)
        s += flat(c) + (c->next ? "," : "");
    return s + "}";
}

inline std::string show(jrpc_method_handler_t handler)
{
    jrpc_method_ctx ctx = {nullptr, cJSON_CreateObject()};
    EXPECT_EQ(handler(&ctx), JRPC_SUCCESS);
    std::string s = flat(ctx.jrpc_result_root);
    cJSON_Delete(ctx.jrpc_result_root);
    return s;
}

// Each call must die of the fatal check with its text, reported from file.
struct Fatal {
    const char *text;
    std::function<void()> call;
};
inline void expect_fatal(const char *file, const std::vector<Fatal> &cases)
{
    for (const Fatal &c : cases) {
        std::string re = std::string(file) + ":.*assertion \"";
        for (const char *p = c.text; *p; p++)
            re += std::string(strchr("\\^$.|?*+()[]{}", *p) ? "\\" : "") + *p;
        EXPECT_DEATH(c.call(), re + "\" failed") << c.text;
    }
}

// The frame of the seeded random tests: records of type Rec, owned by the
// fixture's module, a second module or none, are made and deleted at
// random, also from their own functions. A derived class keeps the model
// M (with members r and owner) and checks the library against it.
template <class Rec, class M> struct Chaos {
    Chaos(uint32_t seed, qvmodule *tp, void (*del)(Rec *), void (*del_all)(qvmodule *))
        : rng(seed), mods{tp, fresh_module()}, del(del), del_all(del_all)
    {
    }
    static qvmodule *fresh_module()
    {
        qvmodule *m = qvmodule_alloc("other", 0, nullptr);
        qvmodule_create(m);
        return m;
    }
    qvmodule *owner() { return rnd(5) ? mods[rnd(2)] : nullptr; }
    M *find(const Rec *r)
    {
        for (M &m : live)
            if (m.r == r)
                return &m;
        return nullptr;
    }
    M *pick(Rec *self)
    {
        return self && rnd(2) ? find(self) : live.empty() ? nullptr : &live[rnd(live.size())];
    }
    void forget(const Rec *r)
    {
        std::erase_if(live, [r](const M &m) { return m.r == r; });
    }
    void forget_owner(const qvmodule *o)
    {
        std::erase_if(live, [o](const M &m) { return m.owner == o; });
    }
    // What timers and jobs share: delete one (from its own function twice,
    // the second call finding it pending), all of a module's, or a module.
    void shared_op(unsigned op, Rec *self)
    {
        M *m = pick(self);
        if (op == 0 && m) {
            Rec *r = m->r;
            forget(r);
            del(r);
            if (r == self)
                del(r);
        } else if (op == 1) {
            qvmodule *o = mods[rnd(2)];
            del_all(o);
            forget_owner(o);
        } else if (op == 2) {
            qvmodule_delete(mods[1]);
            forget_owner(mods[1]);
            mods[1] = fresh_module();
        }
    }
    void finish()
    {
        qvmodule_delete(mods[1]);
        forget_owner(mods[1]);
        for (M &m : live)
            del(m.r);
        live.clear();
    }
    unsigned rnd(unsigned n) { return rng() % n; }

    std::mt19937 rng;
    qvmodule *mods[2];
    std::vector<M> live;
    void (*del)(Rec *);
    void (*del_all)(qvmodule *);
    int runs = 0;
};

// Between loop passes, which never wait more than 2 ms, the model holds.
template <class C> void run_chaos(qvmodule *tp, std::initializer_list<uint32_t> seeds)
{
    struct event *pacer = event_new(
        g_event_base, -1, EV_PERSIST, [](int, short, void *) {}, nullptr);
    struct timeval two_ms = {0, 2000};
    event_add(pacer, &two_ms);
    for (uint32_t seed : seeds) {
        SCOPED_TRACE(seed);
        C c(seed, tp);
        for (int i = 0; i < 1500 && !::testing::Test::HasFatalFailure(); i++) {
            if (c.rnd(3) == 0)
                c.act(nullptr);
            event_base_loop(g_event_base, c.rnd(10) ? EVLOOP_NONBLOCK : EVLOOP_ONCE);
            c.check(nullptr);
            ASSERT_TRUE(lock_held.empty() && lock_matched);
        }
        c.finish();
        c.check(nullptr);
        EXPECT_GT(c.runs, 100);
    }
    event_free(pacer);
}

} // namespace qvtest
