// Pools, cookies, the module registry, their shows, qvmodule_quit, a fresh daemon.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <regex>

#include "event_private.h"
#include "qv_jobs_private.h"
#include "qv_memory_private.h"
#include "qv_show.h"
#include "qv_test_daemon.h"

namespace
{
// Pools, cookies and the registry are process globals: tests look at deltas.
[[maybe_unused]] const bool initialised =
    (qvmodule_memory_init(), qvmodule_init(), qv_ui_init("qvtest"), true);
using Counts = std::array<uint32_t, 5>; // in the order the "memory" show prints them

Counts counts(block_t tb)
{
    return {tb->tb_size, tb->tb_max_alloc, tb->tb_n_alloc, tb->tb_n_alloc_requests,
            tb->tb_n_free_requests};
}

Counts counts(const qvmodule_mem_cookie_t *c)
{
    return {c->tmc_max_bytes, c->tmc_n_bytes, c->tmc_max_alloc, c->tmc_n_alloc,
            c->tmc_n_func_calls};
}

std::string show(const char *keyword)
{
    cJSON *root = nullptr;
    EXPECT_EQ(jrpc_invoke_show("qvtest", keyword, &root), JRPC_SUCCESS);
    std::unique_ptr<char, decltype(&free)> text(cJSON_PrintUnformatted(root), free);
    cJSON_Delete(root);
    return text.get();
}

// What the shows must print, member by member, for the lists as they stand.
std::string memory_show_of_lists()
{
    std::string s = R"({"Block List":{)";
    auto entry = [&s](const char *key, const char *name, Counts v, std::array<const char *, 5> k) {
        s += (s.back() == '{' ? "\"" : ",\"") + std::string(key) + R"(":{"Name":")" + name + "\"";
        for (int i = 0; i < 5; i++)
            s += ",\"" + std::string(k[i]) + "\":" + std::to_string(v[i]) + (i < 4 ? "" : "}");
    };
    for (block_t tb = qvmodule_block_list; tb; tb = tb->tb_next)
        entry("Block", tb->tb_name, counts(tb),
              {"Size", "Max Alloc", "Cur Alloc", "Alloc Req", "Free Req"});
    s += R"(},"Mem Cookie List":{)";
    for (auto *c = qvmodule_cookies; c; c = c->tmc_next)
        entry("Cookie", c->tmc_name, counts(c),
              {"Max Bytes", "Cur Bytes", "Max Alloc", "Cur Alloc", "Calls"});
    return s + "}}";
}

std::string module_show_of(const std::vector<qvmodule *> &modules)
{
    std::string s = R"({"qvmodule List":{)";
    for (qvmodule *tp : modules)
        s += (s.back() == '{' ? "" : ",") + std::string(R"("qvmodule":{"Name":")") +
             std::string(tp->qvmodule_name).substr(0, 40) + "\"}";
    return s + "}}";
}

// Answers locks with -1, which leaves the caller's name behind. Logs each call as L or U, the
// letter after "qvmodule_cookie_" of the name it finds, and "!" if its argument is wrong.
std::string lock_calls;
int lock_log(int lock, int res)
{
    const char *last = qv_gian_lock_last_caller;
    lock_calls += std::string(lock ? "L" : "U") + (last ? last[16] : '-');
    lock_calls += res == (lock ? 0 : -1) ? "" : "!";
    return -1;
}

struct Trace { // a trace file of the test's own as trace_global
    qvtest::TempDir dir;
    std::string path = dir.file("trace.log");
    Trace() { trace_global = trace_file_open(path.c_str(), 1000000, 2); }
    ~Trace() { trace_file_close(trace_global), trace_global = nullptr; }
};

} // namespace

// Allocations, copies, resizes and frees (some through another module's cookie), and pool
// blocks of every clearing size, dirtied before freeing, against a model and the lock calls.
TEST(Memory, RandomOperationsAgreeWithAModel)
{
    struct Owner {
        qvmodule mod{}, *tp = nullptr;
        block_t tb = nullptr;
        Counts want{};
        std::vector<std::pair<unsigned char *, uint32_t>> live; // filled with fill(size)
    };
    // Out of size order; 16 again last, under equal text at another address. Pools live on.
    const char *name = strdup("random"), *again = strdup("random");
    const unsigned sizes[] = {1025, 3, 1, 4, 16, 7, 8, 15, 33, 64, 65, 129, 1024, 5000, 16};
    std::vector<Owner> all(19);
    Counts names = counts(&qvmodule_block_names);
    unsigned cookies = qvmodule_cookie_block->tb_n_alloc;
    qv_giant_lock_func_init(lock_log), lock_calls.clear();
    for (int i = 0; i < 19; i++) {
        Owner &o = all[i];
        o.mod.qvmodule_name = i < 2 ? "twin" : "solo"; // two cookies of one name
        o.tp = i < 3 ? &o.mod : nullptr;
        o.tb = i > 3 ? qvmodule_block_init(sizes[i - 4], i < 18 ? name : again) : nullptr;
        o.want = o.tb ? counts(o.tb) : i == 3 ? counts(qvmodule_cookie_anon) : Counts{};
        // A zero size counts nothing, yet makes the cookie, newest first.
        if (o.tp) {
            EXPECT_EQ(qvmodule_mem_malloc(o.tp, 0), nullptr);
            EXPECT_EQ(qvmodule_cookies->tmc_qvmodule, o.tp);
            EXPECT_EQ(qvmodule_cookies, o.mod.qvmodule_mem_cookie);
        }
    }
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies + 3);
    names[2] += 15, names[3] += 15, names[1] = std::max(names[1], names[2]);
    EXPECT_EQ(counts(&qvmodule_block_names), names) << "the names pool counts its records";
    std::vector<block_t> listed;
    for (block_t tb = qvmodule_block_list; tb; tb = tb->tb_next)
        listed.push_back(tb);
    auto at = [&](block_t tb) { return std::ranges::find(listed, tb); }; // equal sizes as created
    EXPECT_EQ(listed.size(), names[2] + 1u);
    EXPECT_LT(at(all[8].tb), at(all[18].tb)) << "equal sizes in creation order";
    EXPECT_TRUE(std::ranges::is_sorted(listed, {}, &qvmodule_block_t::tb_size));
    std::mt19937 rng(20240611);
    std::string locks; // each op's calls, and the caller the next call will find
    char last = qv_gian_lock_last_caller ? qv_gian_lock_last_caller[16] : '-';
    auto fill = [](uint32_t n) { return char(0x80 | n); };
    auto filled = [](const void *p, size_t n, char v) {
        return !n || (p && !memcmp(p, std::string(n, v).data(), n));
    };
    auto keep = [&](Owner &o, void *p, uint32_t n) {
        memset(p, fill(n), n), o.live.push_back({static_cast<unsigned char *>(p), n});
    };
    auto take = [&](Owner &o) {
        auto at = o.live.begin() + rng() % o.live.size();
        auto l = *at;
        o.live.erase(at);
        EXPECT_TRUE(filled(l.first, l.second, fill(l.second))) << "block of " << l.second;
        if (!o.tb) {
            EXPECT_EQ(qvmodule_get_actual_alloc_size(l.first), l.second);
        }
        return l;
    };
    auto charge = [&](Owner &o, void *p, uint32_t bytes) {
        Counts &w = o.want;
        w[1] += bytes, w[0] = std::max(w[0], w[1]), w[3]++, w[2] = std::max(w[2], w[3]), w[4]++;
        keep(o, p, bytes), locks += {'L', last, 'U', 'm'}, last = 'm';
    };
    auto discharge = [&](Counts &w, uint32_t bytes) {
        w[1] -= std::min(w[1], bytes), w[3] -= std::min(w[3], 1u), w[4]++,
            locks += {'L', last, 'U', 'f'}, last = 'f';
    };
    for (int step = 0; step < 5000; step++) {
        // Without a lock function the counting takes its own inline path.
        bool locked = rng() % 4 != 0;
        char last_before = last;
        qv_giant_lock_func_init(locked ? lock_log : nullptr);
        Owner &o = all[rng() % 4], &pool = all[4 + rng() % 15];
        uint32_t size = rng() % 4 ? rng() % 200 : rng() % 3000;
        unsigned op = rng() % (o.live.empty() ? 2 : 5);
        std::string text(size, 'x');
        if (op < 2) { // a resize of nothing allocates; a copy of null is only a call
            const char *src = size % 8 == 1 ? nullptr : text.c_str();
            void *p = op          ? qvmodule_mem_strdup(o.tp, src)
                      : rng() % 2 ? qvmodule_mem_malloc(o.tp, size)
                                  : qvmodule_mem_realloc(o.tp, nullptr, size);
            size += op && src;
            ASSERT_EQ(p == nullptr, size == 0 || (op && !src)) << "op " << op << " size " << size;
            if (op && src) {
                ASSERT_STREQ(static_cast<char *>(p), text.c_str());
            }
            if (!op) {
                ASSERT_TRUE(filled(p, size, 0)) << "not cleared, size " << size;
            }
            p ? charge(o, p, size) : void(o.want[4] += op && !src);
        } else if (op == 2) { // a new block, charged before the old one leaves, all under lock
            auto [q, n] = take(o);
            auto *p = static_cast<unsigned char *>(qvmodule_mem_realloc(o.tp, q, size));
            uint32_t copied = std::min(size, n);
            ASSERT_EQ(p == nullptr, size == 0) << "resize to " << size;
            ASSERT_NE(p, q) << "a resize always moves";
            ASSERT_TRUE(filled(p, copied, fill(n))) << "copied " << copied << " of " << n;
            ASSERT_TRUE(filled(p + copied, size - copied, 0)) << "growth not cleared";
            p ? (locks += {'L', last}, last = 'r', charge(o, p, size)) : void();
            discharge(o.want, n);
            locks += p ? "Uf" : "";
        } else { // op 4 frees through any cookie, maybe another module's
            Owner &via = op == 4 ? all[rng() % 4] : o;
            auto [p, n] = take(o);
            qvmodule_mem_free(via.tp, p);
            discharge(via.want, n);
        }
        if (pool.live.empty() || rng() % 2) {
            void *p = qvmodule_block_alloc(pool.tb);
            ASSERT_TRUE(filled(p, pool.tb->tb_size, 0)) << pool.tb->tb_size;
            pool.want[1] = std::max(pool.want[1], ++pool.want[2]), pool.want[3]++;
            keep(pool, p, pool.tb->tb_size);
        } else {
            qvmodule_block_free(pool.tb, take(pool).first);
            pool.want[2]--, pool.want[4]++;
        }
        for (Owner &x : all)
            ASSERT_EQ(x.tb ? counts(x.tb) : counts(qvmodule_cookie_from_qvmodule(x.tp)), x.want);
        if (!locked)
            locks.clear(), last = last_before;
        ASSERT_EQ(std::exchange(lock_calls, ""), std::exchange(locks, ""));
    }
    qv_giant_lock_func_init(nullptr);
    EXPECT_EQ(qvmodule_mem_malloc(all[0].tp, UINT32_MAX - 3), nullptr) << "too big for the header";
    all[0].mod.qvmodule_mem_cookie->tmc_max_bytes = 4000000000u; // shown as unsigned 32 bits
    EXPECT_EQ(show("memory"), memory_show_of_lists());
    for (Owner &o : all) {
        for (auto [p, n] : o.live)
            o.tb ? qvmodule_block_free(o.tb, p) : qvmodule_mem_free(o.tp, p);
        qvmodule_mem_cookie_free(o.tp); // the oldest first: not at the head of the list
    }
}

// Allocations, creations, deletions (some refused), frees of modules never
// created and trace switching, against a list and the trace lines it predicts.
TEST(Module, RandomLifecyclesAgreeWithAModel)
{
    Trace trace;
    const char *names[] = {"m0", "m1", "a name of more than forty characters, cut in shows"};
    qvmodule listener{};
    listener.qvmodule_name = "listener", listener.qvmodule_socket_domain = AF_INET;
    listener.qvmodule_socket = 5, listener.qvmodule_flags = ~0u, listener.qvmodule_data = &trace;
    unsigned cookies = qvmodule_cookie_block->tb_n_alloc;
    trace_type_enable(trace_global, QV_TRACE_LIBEVENT);
    bool on = false;
    std::string lines;
    auto note = [&](std::string line) { lines += on ? line + "\n" : ""; };
    std::mt19937 rng(4242);
    std::vector<qvmodule *> model;
    for (int step = 0; step < 1000; step++) {
        unsigned op = rng() % (model.empty() ? 3 : 5);
        qvmodule *tp = model.empty() ? nullptr : model[rng() % model.size()];
        std::string tail = tp ? std::string(": name:") + tp->qvmodule_name : "";
        if (op == 0) {
            ASSERT_EQ(jrpc_invoke_trace("qvtest", "module", on = !on), JRPC_SUCCESS);
            ASSERT_EQ(trace_global->trace_mask, QV_TRACE_LIBEVENT | (on ? QV_TRACE_MODULE : 0));
        } else if (op < 3) { // allocated, then created or freed unregistered
            const char *name = names[rng() % 3];
            bool accept = rng() % 2;
            tp = accept ? qvmodule_alloc_accept(&listener, name, 0, nullptr)
                        : qvmodule_alloc(name, 0, nullptr);
            note(std::string("qvmodule_alloc: name:") + name);
            accept ? note(std::string("qvmodule_alloc_accept: name:listener, new_name:") + name)
                   : void();
            // Of the listener only the socket domain is taken over.
            ASSERT_EQ(tp->qvmodule_socket, -1);
            ASSERT_EQ(tp->qvmodule_flags, 0u);
            ASSERT_EQ(tp->qvmodule_data, nullptr);
            ASSERT_EQ(tp->qvmodule_socket_domain, accept ? AF_INET : 0);
            ASSERT_EQ(tp->qvmodule_forw, nullptr);
            qvmodule_mem_malloc(tp, rng() % 40); // size 0 makes only the cookie
            note((op == 1 ? "qvmodule_create: name:" : "qvmodule_free: name:") + std::string(name));
            op == 1 ? (qvmodule_create(tp), model.push_back(tp)) : qvmodule_free(tp);
        } else if (op == 3) { // "any of the bits", of which only the first is ever set
            bool kept = qvmodule_flags_isset(tp, QVMODULE_FLAG_NO_DELETE | QVMODULE_FLAG_ACCEPT);
            note("qvmodule_delete" + tail);
            if (!kept)
                note("qvmodule_free" + tail), std::erase(model, tp);
            qvmodule snapshot = *tp;
            qvmodule_delete(tp);
            if (kept) {
                ASSERT_EQ(memcmp(&snapshot, tp, sizeof snapshot), 0) << "only a trace line";
            }
        } else {
            bool set = qvmodule_flags_isset(tp, QVMODULE_FLAG_NO_DELETE);
            (set ? qvmodule_flags_reset : qvmodule_flags_set)(tp, QVMODULE_FLAG_NO_DELETE | 0x100);
        }
        ASSERT_EQ(show("module"), module_show_of(model));
        ASSERT_EQ(qvmodule_block_index->tb_n_alloc, model.size());
    }
    EXPECT_EQ(jrpc_invoke_trace("qvtest", "module", 0), JRPC_SUCCESS);
    for (qvmodule *tp : model)
        qvmodule_flags_reset(tp, QVMODULE_FLAG_NO_DELETE), qvmodule_delete(tp);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies) << "cookies go with their modules";
    // The messages, without time, host and program.
    EXPECT_EQ(std::regex_replace(qvtest::read_file(trace.path), std::regex(".*]  "), ""), lines);
    char *first = qvmodule_name(&listener);
    EXPECT_EQ(qvmodule_name(nullptr), first) << "one shared buffer";
    EXPECT_STREQ(first, "(null qvmodule)");
}

// What ends the process, each in a child: broken invariants, no heap, qvmodule_quit.
TEST(Module, FatalErrorsHeapExhaustionAndQuitInAChild)
{
    Trace trace;
    trace_type_enable(trace_global, QV_TRACE_MODULE);
    static const char name[] = "fatal";
    const auto abrt = ::testing::KilledBySignal(SIGABRT);
    using ::testing::ExitedWithCode;
    const std::tuple<void (*)(), std::function<bool(int)>, const char *> cases[] = {
        {[] { qvmodule_block_init(32, name), qvmodule_block_init(32, name); }, abrt,
         "qv_memory.cpp:qvmodule_block_init: assertion \"0\" failed"},
        {[] { // nothing counted, a failed resize leaves the old block, a pool record is fatal
             block_t tb = qvmodule_block_init(24, name);
             qvmodule *tp = qvmodule_alloc(name, 0, nullptr);
             char *kept = qvmodule_mem_strdup(tp, "still here");
             qvtest::exhaust_heap();
             if (qvmodule_block_alloc(tb) || counts(tb) != Counts{24, 0, 0, 0, 0} ||
                 qvmodule_mem_malloc(tp, 100) || qvmodule_mem_strdup(tp, "x") ||
                 qvmodule_mem_realloc(tp, kept, 100) || strcmp(kept, "still here") ||
                 counts(tp->qvmodule_mem_cookie) != Counts{11, 11, 1, 1, 1})
                 _exit(1);
             qvmodule_block_init(24, "record");
         },
         abrt,
         "qv_memory.cpp:qvmodule_block_init: assertion \"qvmodule_block_alloc\\(tb\\)\" failed"},
        {[] { atexit([] { fputs(trace_global ? "open" : "closed", stderr); }), qvmodule_quit(0); },
         ExitedWithCode(0), "closed"},
        {[] { signal(SIGABRT, [](int) { _exit(errno); }), qvmodule_quit(22); }, ExitedWithCode(22),
         ""},
        {[] { atexit([] { qvmodule_quit(0); }), qvmodule_quit(0); }, abrt,
         "qv_module.cpp:qvmodule_quit: assertion \"!recursed\" failed"},
    };
    for (const auto &[fn, ends, text] : cases) {
        // The case that runs out of heap cannot under a sanitizer.
        if (qvtest::sanitized && strstr(text, "qvmodule_block_alloc"))
            continue;
        EXPECT_EXIT(fn(), ends, text);
    }
    EXPECT_NE(qvtest::read_file(trace.path).find("]  qvmodule_quit:\n"), std::string::npos);
}

// A real daemon, in a child: its fresh shows (the show shell's module and cookie among them); a
// deleted module's timers and jobs go too.
TEST(ModuleDaemon, FreshDaemonShowsItsPoolsCookiesAndModules)
{
    qvtest::Daemon d(true);
    int status = qvtest::run_in_child([&d] {
        d.start("/usr/sbin/freshd");
        qvmodule *tp = qvmodule_alloc("appmod", 0, nullptr);
        qvmodule_create(tp), qvmodule_mem_strdup(tp, "hello");
        EXPECT_EQ(show("module"), module_show_of({evh_qvmodule, sh_qvmodule, tp}))
            << "start-up made the event history's and the show shell's modules";
        std::string mem = show("memory");
        EXPECT_EQ(mem, memory_show_of_lists());
        EXPECT_TRUE(mem.ends_with(
            R"("Cookie":{"Name":"appmod","Max Bytes":6,"Cur Bytes":6,"Max Alloc":1,"Cur Alloc":1,"Calls":1},)"
            R"("Cookie":{"Name":"QV Show infra","Max Bytes":9,"Cur Bytes":9,"Max Alloc":1,"Cur Alloc":1,"Calls":1},)"
            R"("Cookie":{"Name":"--Anonymous--","Max Bytes":0,"Cur Bytes":0,"Max Alloc":0,"Cur Alloc":0,"Calls":0}}})"));
        auto fail = [](qvmodule_job *) { abort(); };
        qvmodule_timer_create(
            tp, "t", 0, 1, 0, [](qvmodule_timer *, time_t) { abort(); }, 0);
        qvmodule_job_create_foreground(tp, "fg", fail, nullptr);
        qvmodule_job_create_background(tp, 0, "bg", fail, nullptr);
        qvmodule_delete(tp);
        event_base_loop(g_event_base, EVLOOP_NONBLOCK);
        EXPECT_EQ(counts(qvmodule_timer_block_index)[2] + counts(qvmodule_job_block_index)[2], 0u);
        return int(::testing::Test::HasFailure());
    });
    EXPECT_EQ(status, 0);
}

// Every charged block, fresh, copied or resized, and every pool block can hold any object.
TEST(Memory, BlocksAreAlignedForAnyObject)
{
    const size_t want = sizeof(void *) == 8 ? alignof(max_align_t) : 8;
    auto misalignment = [want](const void *p) { return reinterpret_cast<uintptr_t>(p) % want; };
    qvmodule mod{};
    mod.qvmodule_name = "aligned";
    for (size_t size : {1, 3, 4, 7, 8, 15, 16, 17, 31, 64, 100, 128, 129, 1000, 1024, 1025, 5000}) {
        void *p = qvmodule_mem_malloc(&mod, size);
        EXPECT_EQ(misalignment(p), 0u) << "malloc of " << size;
        EXPECT_EQ(qvmodule_get_actual_alloc_size(p), size);
        void *q = qvmodule_mem_realloc(nullptr, p, size * 2 + 1);
        EXPECT_EQ(misalignment(q), 0u) << "resize of " << size;
        std::string text(size, 'a');
        char *s = qvmodule_mem_strdup(&mod, text.c_str());
        EXPECT_EQ(misalignment(s), 0u) << "copy of " << size;
        block_t tb = qvmodule_block_init(size, "aligned");
        void *b = qvmodule_block_alloc(tb);
        EXPECT_EQ(misalignment(b), 0u) << "pool block of " << size;
        qvmodule_block_free(tb, b);
        qvmodule_mem_free(&mod, s);
        qvmodule_mem_free(nullptr, q);
    }
    qvmodule_mem_cookie_free(&mod);
}
