// Block pools, memory cookies and the "memory" show output.
//
// Pools and cookies are process globals and the tests of this program may
// run in one process in any order: each test makes its own pools and
// module records and looks at its own counters or at deltas.

#include <gtest/gtest.h>

#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "qv_daemon_private.h"
#include "qv_memory_private.h"
#include "qv_test_util.h"

namespace
{

class Memory : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { qvmodule_memory_init(); }
};

// A module record is all a cookie needs of its module.
qvmodule make_module(const char *name)
{
    qvmodule tp{};
    tp.qvmodule_name = name;
    tp.qvmodule_socket = -1;
    return tp;
}

using PoolCounts = std::array<unsigned, 4>;   // max, current, alloc req, free req
using CookieCounts = std::array<uint32_t, 5>; // bytes, max bytes, allocs, max allocs, calls

PoolCounts counts(block_t tb)
{
    return {tb->tb_max_alloc, tb->tb_n_alloc, tb->tb_n_alloc_requests, tb->tb_n_free_requests};
}

CookieCounts counts(const qvmodule_mem_cookie_t *tmc)
{
    return {tmc->tmc_n_bytes, tmc->tmc_max_bytes, tmc->tmc_n_alloc, tmc->tmc_max_alloc,
            tmc->tmc_n_func_calls};
}

bool in_cookie_list(const qvmodule_mem_cookie_t *tmc)
{
    for (auto *c = qvmodule_cookies; c; c = c->tmc_next)
        if (c == tmc)
            return true;
    return false;
}

// ---------------------------------------------------------------------------
// Show output: keys repeat, so objects are walked member by member.

std::vector<std::string> keys_of(const cJSON *obj)
{
    std::vector<std::string> keys;
    for (const cJSON *c = obj ? obj->child : nullptr; c; c = c->next)
        keys.push_back(c->string ? c->string : "");
    return keys;
}

struct Entry {
    std::string name;
    std::vector<double> numbers;
};

// The entries of a list whose members are all `key`, each holding exactly
// `fields` in order: a string, then numbers.
std::vector<Entry> read_list(const cJSON *list, const char *key,
                             const std::vector<std::string> &fields)
{
    std::vector<Entry> out;
    for (const cJSON *e = list ? list->child : nullptr; e; e = e->next) {
        EXPECT_STREQ(e->string, key);
        EXPECT_EQ(keys_of(e), fields);
        Entry entry;
        for (const cJSON *c = e->child; c; c = c->next) {
            if (c == e->child)
                entry.name = cJSON_IsString(c) ? c->valuestring : "(not a string)";
            else
                entry.numbers.push_back(cJSON_IsNumber(c) ? c->valuedouble : -1);
        }
        out.push_back(entry);
    }
    return out;
}

struct MemoryShow {
    std::vector<Entry> blocks, cookies;
};

MemoryShow read_memory_show(const cJSON *root)
{
    EXPECT_EQ(keys_of(root), (std::vector<std::string>{"Block List", "Mem Cookie List"}));
    const cJSON *blocks = root->child, *cookies = blocks ? blocks->next : nullptr;
    return {read_list(blocks, "Block",
                      {"Name", "Size", "Max Alloc", "Cur Alloc", "Alloc Req", "Free Req"}),
            read_list(cookies, "Cookie",
                      {"Name", "Max Bytes", "Cur Bytes", "Max Alloc", "Cur Alloc", "Calls"})};
}

MemoryShow run_memory_show()
{
    jrpc_method_ctx ctx{nullptr, cJSON_CreateObject()};
    EXPECT_EQ(qvmodule_memory_show(&ctx), JRPC_SUCCESS);
    MemoryShow out = read_memory_show(ctx.jrpc_result_root);
    cJSON_Delete(ctx.jrpc_result_root);
    return out;
}

// ---------------------------------------------------------------------------
// A recording, re-entrant lock function. Each lock answers a fresh token
// (or -1), and each unlock must pass back the token of the innermost lock
// still open. The caller name that the previous lock left behind is noted.

struct LockCall {
    int lock, res;
    const char *last_caller;
};

struct RecordingLock {
    static inline RecordingLock *active;
    std::vector<LockCall> calls;
    std::vector<int> open;
    int next_token = 100;
    bool answer_minus_one;
    bool nested_ok = true;

    explicit RecordingLock(bool minus_one = false) : answer_minus_one(minus_one)
    {
        active = this;
        qv_giant_lock_func_init(record);
    }
    ~RecordingLock()
    {
        qv_giant_lock_func_init(nullptr);
        active = nullptr;
    }
    static int record(int lock, int res)
    {
        RecordingLock &r = *active;
        r.calls.push_back({lock, res, qv_gian_lock_last_caller});
        if (lock) {
            r.open.push_back(r.answer_minus_one ? -1 : r.next_token++);
            return r.open.back();
        }
        r.nested_ok = r.nested_ok && !r.open.empty() && r.open.back() == res;
        if (!r.open.empty())
            r.open.pop_back();
        return 0;
    }
    std::string pattern() const
    {
        std::string s;
        for (const LockCall &c : calls)
            s += c.lock ? 'L' : 'U';
        return s;
    }
};

} // namespace

// ---------------------------------------------------------------------------
// Block pools

TEST_F(Memory, PoolsStayInAscendingSizeWithEqualSizesInCreationOrder)
{
    static const char first32[] = "pool32_first", second32[] = "pool32_second";
    static const char p12[] = "pool12", p76[] = "pool76";
    PoolCounts names_before = counts(&qvmodule_block_names);

    block_t a = qvmodule_block_init(32, first32);
    block_t b = qvmodule_block_init(12, p12);
    block_t c = qvmodule_block_init(76, p76);
    block_t d = qvmodule_block_init(32, second32);

    std::vector<block_t> ours;
    unsigned prev_size = 0;
    bool names_seen = false;
    for (block_t tb = qvmodule_block_list; tb; tb = tb->tb_next) {
        EXPECT_GE(tb->tb_size, prev_size) << tb->tb_name;
        prev_size = tb->tb_size;
        names_seen |= tb == &qvmodule_block_names;
        if (tb == a || tb == b || tb == c || tb == d)
            ours.push_back(tb);
    }
    EXPECT_TRUE(names_seen);
    EXPECT_EQ(ours, (std::vector<block_t>{b, a, d, c}));
    EXPECT_EQ(c->tb_size, 76);
    EXPECT_EQ(c->tb_name, p76);
    EXPECT_EQ(counts(a), (PoolCounts{0, 0, 0, 0}));

    // The names pool counts its own records like any other pool.
    PoolCounts names_after = counts(&qvmodule_block_names);
    EXPECT_EQ(names_after[1], names_before[1] + 4);
    EXPECT_EQ(names_after[2], names_before[2] + 4);
    EXPECT_EQ(names_after[0], std::max(names_before[0], names_after[1]));

    // Equal text at another address, or the same name with another size,
    // is a different pool; the same size and name pointer is a bug.
    static char copy32[sizeof(first32)];
    memcpy(copy32, first32, sizeof(first32));
    EXPECT_NE(qvmodule_block_init(32, copy32), nullptr);
    EXPECT_NE(qvmodule_block_init(33, first32), nullptr);
    EXPECT_DEATH(qvmodule_block_init(32, first32), "assertion \"0\" failed");
    EXPECT_DEATH(qvmodule_block_init(65536, p12), "assertion \"size <= UINT16_MAX\" failed");
}

TEST_F(Memory, PoolCountersFollowAllocationsAndFrees)
{
    static const char name[] = "pool_counters";
    block_t tb = qvmodule_block_init(48, name);
    void *m1 = qvmodule_block_alloc(tb), *m2 = qvmodule_block_alloc(tb);
    void *m3 = qvmodule_block_alloc(tb);
    qvmodule_block_free(tb, m1);
    qvmodule_block_free(tb, m2);
    void *m4 = qvmodule_block_alloc(tb);
    EXPECT_EQ(counts(tb), (PoolCounts{3, 2, 4, 2}));
    qvmodule_block_free(tb, m3);
    qvmodule_block_free(tb, m4);
    EXPECT_EQ(counts(tb), (PoolCounts{3, 0, 4, 4}));
}

// Small blocks are cleared piecewise and large ones by the heap: every size
// on both sides, reusing memory just dirtied and freed, comes back zero.
TEST_F(Memory, EveryBlockIsZeroFilledEvenWhenReusingDirtyMemory)
{
    static const char name[] = "pool_zero";
    std::vector<size_t> sizes;
    for (size_t n = 1; n <= 300; n++)
        sizes.push_back(n);
    for (size_t n : {1015u, 1016u, 1019u, 1020u, 1021u, 1024u, 1025u, 4000u, 60000u})
        sizes.push_back(n);
    auto all_zero = [](const unsigned char *p, size_t n) {
        return std::all_of(p, p + n, [](unsigned char c) { return c == 0; });
    };
    for (size_t n : sizes) {
        block_t tb = qvmodule_block_init(n, name); // one name, many sizes
        for (int round = 0; round < 3; round++) {
            unsigned char *blocks[4], *charged[4];
            for (int i = 0; i < 4; i++) {
                blocks[i] = static_cast<unsigned char *>(qvmodule_block_alloc(tb));
                charged[i] = static_cast<unsigned char *>(qvmodule_mem_malloc(nullptr, n));
            }
            for (int i = 0; i < 4; i++) {
                ASSERT_TRUE(all_zero(blocks[i], n)) << "pool block of " << n << ", round " << round;
                ASSERT_TRUE(all_zero(charged[i], n)) << "charged " << n << ", round " << round;
                memset(blocks[i], 0xA5, n);
                memset(charged[i], 0x5A, n);
                qvmodule_block_free(tb, blocks[i]);
                qvmodule_mem_free(nullptr, charged[i]);
            }
        }
    }
}

TEST_F(Memory, ExhaustedHeapCountsNothing)
{
    static const char name[] = "pool_exhaust";
    int status = qvtest::run_in_child([] {
        block_t tb = qvmodule_block_init(60000, name);
        qvmodule tp = make_module("exhaust");
        char *keep = static_cast<char *>(qvmodule_mem_malloc(&tp, 16));
        memcpy(keep, "still here", 11);
        CookieCounts before = counts(tp.qvmodule_mem_cookie);

        qvtest::limit_address_space();
        unsigned got = 0;
        while (qvmodule_block_alloc(tb) != nullptr)
            got++;
        qvtest::exhaust_heap();
        if (got == 0 || qvmodule_block_alloc(tb) != nullptr ||
            counts(tb) != PoolCounts{got, got, got, 0})
            return 1;
        // Allocation, copy and resize fail without counting; a failed
        // resize leaves the old block valid and charged.
        if (qvmodule_mem_malloc(&tp, 100) != nullptr || qvmodule_mem_strdup(&tp, "x") != nullptr ||
            qvmodule_mem_realloc(&tp, keep, 100) != nullptr)
            return 2;
        if (counts(tp.qvmodule_mem_cookie) != before || strcmp(keep, "still here") != 0 ||
            qvmodule_get_actual_alloc_size(keep) != 16)
            return 3;
        return 0;
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Memory, RecordAllocationFailureIsFatal)
{
    static const char name[] = "pool_fatal";
    EXPECT_DEATH(
        {
            qvtest::exhaust_heap();
            qvmodule_block_init(24, name);
        },
        "qv_memory.cpp:qvmodule_block_init: assertion \"qvmodule_block_alloc\\(tb\\)\" failed");
}

// ---------------------------------------------------------------------------
// Cookies

TEST_F(Memory, CookiesAreMadeOnFirstUseAndCountCopiesCallsAndRefusals)
{
    qvmodule tp = make_module("strmod");
    unsigned cookies_before = qvmodule_cookie_block->tb_n_alloc;
    // A zero-size request counts nothing, yet makes the cookie.
    EXPECT_EQ(qvmodule_mem_malloc(&tp, 0), nullptr);
    qvmodule_mem_cookie_t *tmc = tp.qvmodule_mem_cookie;
    ASSERT_NE(tmc, nullptr);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies_before + 1);
    EXPECT_EQ(qvmodule_cookies, tmc) << "newest cookie first";
    EXPECT_EQ(tmc->tmc_name, tp.qvmodule_name) << "the name pointer is kept, not copied";
    EXPECT_EQ(tmc->tmc_qvmodule, &tp);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 0, 0, 0, 0}));
    MemoryShow shown = run_memory_show();
    ASSERT_FALSE(shown.cookies.empty());
    EXPECT_EQ(shown.cookies.front().name, "strmod");
    EXPECT_EQ(shown.cookies.front().numbers, std::vector<double>(5, 0));

    // The 32-bit header cannot describe these.
    EXPECT_EQ(qvmodule_mem_malloc(&tp, UINT32_MAX), nullptr);
    EXPECT_EQ(qvmodule_mem_malloc(&tp, UINT32_MAX - 3), nullptr);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 0, 0, 0, 0}));

    char *copy = qvmodule_mem_strdup(&tp, "abc");
    EXPECT_STREQ(copy, "abc");
    EXPECT_EQ(qvmodule_get_actual_alloc_size(copy), 4u);
    uint32_t header;
    memcpy(&header, copy - 4, sizeof(header));
    EXPECT_EQ(header, 4u);
    EXPECT_EQ(counts(tmc), (CookieCounts{4, 4, 1, 1, 1}));
    qvmodule_mem_free(&tp, copy);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 4, 0, 1, 2}));
    EXPECT_EQ(qvmodule_mem_strdup(&tp, nullptr), nullptr);
    qvmodule_mem_free(&tp, nullptr);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 4, 0, 1, 3}));
    qvmodule_mem_cookie_free(&tp);
}

TEST_F(Memory, ResizeAlwaysMovesAndKeepsTheSmallerSize)
{
    qvmodule tp = make_module("resizemod");
    auto *p = static_cast<unsigned char *>(qvmodule_mem_malloc(&tp, 10));
    memcpy(p, "\1\2\3\4\5\6\7\10\11\12", 10);
    qvmodule_mem_cookie_t *tmc = tp.qvmodule_mem_cookie;

    auto *q = static_cast<unsigned char *>(qvmodule_mem_realloc(&tp, p, 20));
    ASSERT_NE(q, p);
    EXPECT_EQ(memcmp(q, "\1\2\3\4\5\6\7\10\11\12\0\0\0\0\0\0\0\0\0\0", 20), 0);
    // The new block is charged before the old one leaves: 30 bytes and 2
    // blocks at the peak.
    EXPECT_EQ(counts(tmc), (CookieCounts{20, 30, 1, 2, 3}));

    auto *r = static_cast<unsigned char *>(qvmodule_mem_realloc(&tp, q, 5));
    EXPECT_EQ(qvmodule_get_actual_alloc_size(r), 5u);
    EXPECT_EQ(memcmp(r, "\1\2\3\4\5", 5), 0);
    EXPECT_EQ(counts(tmc), (CookieCounts{5, 30, 1, 2, 5}));

    EXPECT_EQ(qvmodule_mem_realloc(&tp, r, 0), nullptr);
    EXPECT_EQ(qvmodule_mem_realloc(&tp, nullptr, 0), nullptr);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 30, 0, 2, 6}));
    void *s = qvmodule_mem_realloc(&tp, nullptr, 8);
    EXPECT_EQ(qvmodule_get_actual_alloc_size(s), 8u);
    EXPECT_EQ(counts(tmc), (CookieCounts{8, 30, 1, 2, 7}));
    qvmodule_mem_free(&tp, s);
    qvmodule_mem_cookie_free(&tp);
}

TEST_F(Memory, FreesThroughAnotherCookieStopAtZero)
{
    qvmodule a = make_module("owner"), b = make_module("other");
    void *p = qvmodule_mem_malloc(&a, 100);
    void *q = qvmodule_mem_malloc(&b, 10);
    qvmodule_mem_free(&b, p); // 100 bytes against b's 10
    EXPECT_EQ(counts(b.qvmodule_mem_cookie), (CookieCounts{0, 10, 0, 1, 2}));
    EXPECT_EQ(counts(a.qvmodule_mem_cookie), (CookieCounts{100, 100, 1, 1, 1}));
    qvmodule_mem_free(&a, q);
    EXPECT_EQ(counts(a.qvmodule_mem_cookie), (CookieCounts{90, 100, 0, 1, 2}));
    qvmodule_mem_cookie_free(&a);
    qvmodule_mem_cookie_free(&b);
}

TEST_F(Memory, AnonymousCookieTakesModulelessMemoryAndStandsLast)
{
    qvmodule_mem_cookie_t *anon = qvmodule_cookie_anon;
    EXPECT_STREQ(anon->tmc_name, "--Anonymous--");
    EXPECT_EQ(anon->tmc_qvmodule, nullptr);
    CookieCounts before = counts(anon);

    static const char same_text[] = "twin";
    qvmodule t1 = make_module(same_text), t2 = make_module(same_text);
    qvmodule_mem_malloc(&t1, 0);
    qvmodule_mem_malloc(&t2, 0);
    char *p = qvmodule_mem_strdup(nullptr, "seven!");
    EXPECT_EQ(counts(anon)[0], before[0] + 7);
    EXPECT_EQ(counts(anon)[2], before[2] + 1);
    EXPECT_EQ(counts(anon)[4], before[4] + 1);

    MemoryShow shown = run_memory_show();
    ASSERT_GE(shown.cookies.size(), 3u);
    EXPECT_EQ(shown.cookies[0].name, "twin");
    EXPECT_EQ(shown.cookies[1].name, "twin");
    EXPECT_EQ(shown.cookies.back().name, "--Anonymous--");
    qvmodule_mem_free(nullptr, p);
    EXPECT_EQ(counts(anon)[0], before[0]);
    qvmodule_mem_cookie_free(&t1);
    qvmodule_mem_cookie_free(&t2);
}

TEST_F(Memory, CookieRemovalUnlinksOnlyThatCookie)
{
    qvmodule a = make_module("rm_a"), b = make_module("rm_b");
    qvmodule_mem_malloc(&a, 0);
    qvmodule_mem_malloc(&b, 0);
    qvmodule_mem_cookie_t *ca = a.qvmodule_mem_cookie, *cb = b.qvmodule_mem_cookie;
    unsigned cookies = qvmodule_cookie_block->tb_n_alloc;

    qvmodule_mem_cookie_free(&a); // not at the head of the list
    EXPECT_EQ(a.qvmodule_mem_cookie, nullptr);
    EXPECT_FALSE(in_cookie_list(ca));
    EXPECT_TRUE(in_cookie_list(cb));
    EXPECT_TRUE(in_cookie_list(qvmodule_cookie_anon));
    qvmodule_mem_cookie_free(&a); // no cookie: nothing
    qvmodule_mem_cookie_free(nullptr);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies - 1);

    qvmodule_mem_cookie_t stray{};
    qvmodule c = make_module("stray");
    c.qvmodule_mem_cookie = &stray;
    EXPECT_DEATH(qvmodule_mem_cookie_free(&c), "assertion \"tmc_next\" failed");
    qvmodule_mem_cookie_free(&b);
}

// Random allocations, copies, resizes and frees over a few modules and the
// anonymous cookie, checked after every step against what is outstanding.
TEST_F(Memory, RandomOperationsKeepCountsAndContents)
{
    struct Live {
        unsigned char *p;
        size_t size;
        unsigned char seed;
    };
    struct Owner {
        qvmodule mod, *tp;
        std::vector<Live> live;
        CookieCounts expect;
    };
    static const char *names[] = {"rnd0", "rnd1", "rnd2"};
    Owner owners[4];
    for (int i = 0; i < 3; i++) {
        owners[i].mod = make_module(names[i]);
        owners[i].tp = &owners[i].mod;
        owners[i].expect = {};
    }
    // The anonymous cookie carries what other tests left: start from that.
    owners[3].tp = nullptr;
    owners[3].expect = counts(qvmodule_cookie_anon);

    std::mt19937 rng(20240611);
    auto charge = [](Owner &o, int64_t bytes, int allocs, int calls) {
        CookieCounts &e = o.expect;
        e[0] += static_cast<uint32_t>(bytes);
        e[1] = std::max(e[1], e[0]);
        e[2] += allocs;
        e[3] = std::max(e[3], e[2]);
        e[4] += calls;
    };
    auto keep = [&rng](Owner &o, void *p, size_t size) {
        Live l{static_cast<unsigned char *>(p), size, static_cast<unsigned char>(rng())};
        for (size_t i = 0; i < size; i++)
            l.p[i] = static_cast<unsigned char>(l.seed + i);
        o.live.push_back(l);
    };

    for (int step = 0; step < 4000; step++) {
        Owner &o = owners[rng() % 4];
        size_t size = rng() % 300;
        unsigned op = o.live.empty() ? 0 : rng() % 4;
        if (op == 0) {
            auto *p = static_cast<unsigned char *>(qvmodule_mem_malloc(o.tp, size));
            ASSERT_EQ(p == nullptr, size == 0);
            if (p == nullptr)
                continue;
            ASSERT_TRUE(std::all_of(p, p + size, [](unsigned char c) { return c == 0; }));
            charge(o, size, 1, 1);
            keep(o, p, size);
        } else if (op == 1) {
            std::string text(size, 'x');
            char *p = qvmodule_mem_strdup(o.tp, text.c_str());
            ASSERT_STREQ(p, text.c_str());
            charge(o, size + 1, 1, 1);
            keep(o, p, size + 1);
        } else {
            size_t k = rng() % o.live.size();
            Live l = o.live[k];
            o.live.erase(o.live.begin() + k);
            if (op == 2) {
                qvmodule_mem_free(o.tp, l.p);
                charge(o, -int64_t(l.size), -1, 1);
                continue;
            }
            auto *p = static_cast<unsigned char *>(qvmodule_mem_realloc(o.tp, l.p, size));
            ASSERT_EQ(p == nullptr, size == 0);
            charge(o, size, p ? 1 : 0, p ? 1 : 0);
            charge(o, -int64_t(l.size), -1, 1);
            for (size_t i = 0; i < size; i++)
                ASSERT_EQ(p[i], i < l.size ? static_cast<unsigned char>(l.seed + i) : 0) << step;
            if (p)
                keep(o, p, size);
        }
        ASSERT_EQ(counts(qvmodule_cookie_from_qvmodule(o.tp)), o.expect) << "step " << step;
        for (const Live &l : o.live) {
            ASSERT_EQ(qvmodule_get_actual_alloc_size(l.p), l.size) << "step " << step;
            ASSERT_EQ(l.p[l.size - 1], static_cast<unsigned char>(l.seed + l.size - 1));
        }
    }
    for (Owner &o : owners) {
        for (const Live &l : o.live)
            qvmodule_mem_free(o.tp, l.p);
        qvmodule_mem_cookie_free(o.tp);
    }
}

// ---------------------------------------------------------------------------
// Giant lock sections

TEST_F(Memory, StatisticsUpdatesTakeTheLockAndResizeNestsInsideIt)
{
    qvmodule tp = make_module("lockmod");
    {
        RecordingLock lock;
        EXPECT_EQ(qvmodule_mem_malloc(&tp, 0), nullptr);
        EXPECT_EQ(lock.pattern(), "") << "neither cookie creation nor a zero size locks";
        void *p = qvmodule_mem_malloc(&tp, 10);
        EXPECT_EQ(lock.pattern(), "LU");
        void *q = qvmodule_mem_realloc(&tp, p, 20);
        EXPECT_EQ(lock.pattern(), "LULLULUU");
        EXPECT_EQ(lock.calls[7].res, 101)
            << "the resize's unlock passes back its own lock's result";
        qvmodule_mem_free(&tp, q);
        EXPECT_EQ(lock.pattern(), "LULLULUULU");
        for (const LockCall &c : lock.calls)
            EXPECT_TRUE(!c.lock || c.res == 0) << "a lock is called with (1, 0)";
        EXPECT_TRUE(lock.nested_ok);
        EXPECT_TRUE(lock.open.empty());
    }
    {
        // Answering -1 makes each lock leave its caller's name behind, where
        // the next call of the lock function sees it.
        RecordingLock lock(true);
        void *p = qvmodule_mem_malloc(&tp, 10);
        qvmodule_mem_free(&tp, qvmodule_mem_realloc(&tp, p, 20));
        ASSERT_EQ(lock.pattern(), "LULLULUULU");
        const char *expect[] = {"qvmodule_cookie_malloc",  // U of malloc
                                "qvmodule_cookie_malloc",  // L of realloc
                                "qvmodule_cookie_realloc", // L of nested malloc
                                "qvmodule_cookie_malloc",  // U of nested malloc
                                "qvmodule_cookie_malloc",  // L of nested free
                                "qvmodule_cookie_free",    // U of nested free
                                "qvmodule_cookie_free",    // U of realloc
                                "qvmodule_cookie_free"};   // L of the last free
        for (int i = 0; i < 8; i++)
            EXPECT_STREQ(lock.calls[i + 1].last_caller, expect[i]) << i;
        EXPECT_STREQ(qv_gian_lock_last_caller, "qvmodule_cookie_free");
        EXPECT_TRUE(lock.nested_ok);
    }
    EXPECT_EQ(counts(tp.qvmodule_mem_cookie), (CookieCounts{0, 30, 0, 2, 8}));
    qvmodule_mem_cookie_free(&tp);
}

// ---------------------------------------------------------------------------
// The "memory" show output

TEST_F(Memory, ShowListsEveryPoolAndCookieMemberByMember)
{
    static const char pool_name[] = "show_pool";
    block_t tb = qvmodule_block_init(1000, pool_name);
    void *b1 = qvmodule_block_alloc(tb), *b2 = qvmodule_block_alloc(tb);
    qvmodule_block_free(tb, qvmodule_block_alloc(tb));
    qvmodule tp = make_module("showmod");
    void *m1 = qvmodule_mem_malloc(&tp, 9);
    qvmodule_mem_free(&tp, qvmodule_mem_malloc(&tp, 5));
    qvmodule_mem_strdup(&tp, nullptr);
    // Counters are shown as their unsigned 32-bit value.
    tp.qvmodule_mem_cookie->tmc_max_bytes = 4000000000u;

    qv_ui_init("memtestapp");
    cJSON *root = nullptr, *again = nullptr;
    ASSERT_EQ(jrpc_invoke_show("memtestapp", "memory", &root), JRPC_SUCCESS);
    MemoryShow shown = read_memory_show(root);

    std::vector<Entry> pools, cookies;
    for (block_t p = qvmodule_block_list; p; p = p->tb_next)
        pools.push_back({p->tb_name,
                         {double(p->tb_size), double(p->tb_max_alloc), double(p->tb_n_alloc),
                          double(p->tb_n_alloc_requests), double(p->tb_n_free_requests)}});
    for (auto *c = qvmodule_cookies; c; c = c->tmc_next)
        cookies.push_back(
            {c->tmc_name,
             {double(c->tmc_max_bytes), double(c->tmc_n_bytes), double(c->tmc_max_alloc),
              double(c->tmc_n_alloc), double(c->tmc_n_func_calls)}});
    ASSERT_EQ(shown.blocks.size(), pools.size());
    for (size_t i = 0; i < pools.size(); i++) {
        EXPECT_EQ(shown.blocks[i].name, pools[i].name) << i;
        EXPECT_EQ(shown.blocks[i].numbers, pools[i].numbers) << pools[i].name;
    }
    ASSERT_EQ(shown.cookies.size(), cookies.size());
    for (size_t i = 0; i < cookies.size(); i++) {
        EXPECT_EQ(shown.cookies[i].name, cookies[i].name) << i;
        EXPECT_EQ(shown.cookies[i].numbers, cookies[i].numbers) << cookies[i].name;
    }
    // Each member is where its own counter belongs.
    auto mine = std::find_if(shown.blocks.begin(), shown.blocks.end(),
                             [](const Entry &e) { return e.name == "show_pool"; });
    ASSERT_NE(mine, shown.blocks.end());
    EXPECT_EQ(mine->numbers, (std::vector<double>{1000, 3, 2, 3, 1}));
    EXPECT_EQ(shown.cookies.front().name, "showmod");
    EXPECT_EQ(shown.cookies.front().numbers, (std::vector<double>{4000000000.0, 9, 2, 1, 4}));
    EXPECT_EQ(shown.cookies.back().name, "--Anonymous--");

    // A second run gives an equal, independent result and changes nothing.
    ASSERT_EQ(jrpc_invoke_show("memtestapp", "memory", &again), JRPC_SUCCESS);
    // (cJSON's own comparison looks members up by key, which repeats.)
    char *first_text = cJSON_PrintUnformatted(root), *second_text = cJSON_PrintUnformatted(again);
    EXPECT_NE(root, again);
    EXPECT_STREQ(first_text, second_text);
    free(first_text);
    free(second_text);
    cJSON_Delete(root);
    cJSON_Delete(again);

    qvmodule_block_free(tb, b1);
    qvmodule_block_free(tb, b2);
    qvmodule_mem_free(&tp, m1);
    qvmodule_mem_cookie_free(&tp);
}
