// Block pools, memory cookies and the "memory" show output.
//
// Pools and cookies are process globals and tests of this program may run
// in one process in any order: each test makes its own pools and module
// records and looks at its own counters or at deltas.

#include <gtest/gtest.h>

#include <signal.h>
#include <string.h>
#include <sys/resource.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qv_daemon_private.h"
#include "qv_memory_private.h"
#include "qv_test_util.h"

namespace
{

void ensure_memory()
{
    static bool done = false;
    if (!done) {
        qvmodule_memory_init();
        done = true;
    }
}

class Memory : public ::testing::Test
{
  protected:
    void SetUp() override { ensure_memory(); }
};

// A module record is all a cookie needs of its module.
qvmodule make_module(const char *name)
{
    qvmodule tp{};
    tp.qvmodule_name = name;
    tp.qvmodule_socket = -1;
    return tp;
}

struct PoolCounts {
    unsigned max, cur, req, fre;
    bool operator==(const PoolCounts &) const = default;
};

PoolCounts counts(block_t tb)
{
    return {tb->tb_max_alloc, tb->tb_n_alloc, tb->tb_n_alloc_requests, tb->tb_n_free_requests};
}

struct CookieCounts {
    uint32_t bytes, max_bytes, alloc, max_alloc, calls;
    bool operator==(const CookieCounts &) const = default;
};

std::ostream &operator<<(std::ostream &os, const CookieCounts &c)
{
    return os << "{bytes " << c.bytes << " max " << c.max_bytes << " alloc " << c.alloc << " max "
              << c.max_alloc << " calls " << c.calls << "}";
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

// Caps the address space a little above what the process uses now, so that
// the heap really runs out.
void limit_address_space()
{
    unsigned long pages = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr || fscanf(f, "%lu", &pages) != 1)
        abort();
    fclose(f);
    rlim_t cap = pages * sysconf(_SC_PAGESIZE) + (32u << 20);
    struct rlimit rl = {cap, cap};
    if (setrlimit(RLIMIT_AS, &rl) != 0)
        abort();
}

// Takes every byte the heap will still give, large pieces first. The
// pieces are chained so that the compiler cannot drop the calls.
void *heap_hoard;

void exhaust_heap()
{
    for (size_t size : {size_t{1} << 20, size_t{65536}, size_t{4096}, size_t{256}, size_t{16}})
        while (void *p = malloc(size)) {
            *static_cast<void **>(p) = heap_hoard;
            heap_hoard = p;
        }
}

// ---------------------------------------------------------------------------
// Walking show output: keys repeat, so objects are read member by member.

std::vector<std::string> keys_of(const cJSON *obj)
{
    std::vector<std::string> keys;
    for (const cJSON *c = obj->child; c; c = c->next)
        keys.push_back(c->string ? c->string : "");
    return keys;
}

// The values of an entry whose members must be exactly `keys`, in order;
// the first member is a string, the others numbers.
struct Entry {
    std::string name;
    std::vector<double> numbers;
};

Entry read_entry(const cJSON *obj, const std::vector<std::string> &keys)
{
    EXPECT_EQ(keys_of(obj), keys);
    Entry e;
    const cJSON *c = obj->child;
    if (c && cJSON_IsString(c))
        e.name = c->valuestring;
    for (c = c ? c->next : nullptr; c; c = c->next) {
        EXPECT_TRUE(cJSON_IsNumber(c)) << c->string;
        e.numbers.push_back(c->valuedouble);
    }
    return e;
}

const std::vector<std::string> kBlockKeys = {"Name",      "Size",      "Max Alloc",
                                             "Cur Alloc", "Alloc Req", "Free Req"};
const std::vector<std::string> kCookieKeys = {"Name",      "Max Bytes", "Cur Bytes",
                                              "Max Alloc", "Cur Alloc", "Calls"};

struct MemoryShow {
    std::vector<Entry> blocks, cookies;
};

MemoryShow read_memory_show(const cJSON *root)
{
    MemoryShow out;
    EXPECT_EQ(keys_of(root), (std::vector<std::string>{"Block List", "Mem Cookie List"}));
    if (root->child == nullptr || root->child->next == nullptr)
        return out;
    for (const cJSON *b = root->child->child; b; b = b->next) {
        EXPECT_STREQ(b->string, "Block");
        out.blocks.push_back(read_entry(b, kBlockKeys));
    }
    for (const cJSON *c = root->child->next->child; c; c = c->next) {
        EXPECT_STREQ(c->string, "Cookie");
        out.cookies.push_back(read_entry(c, kCookieKeys));
    }
    return out;
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
// A recording lock function: re-entrant, checks that every unlock passes
// back the result of the innermost open lock.

struct LockCall {
    int lock;
    int res;
    const char *last_caller; // the caller recorded by the previous lock
};

struct LockRecorder {
    std::vector<LockCall> calls;
    std::vector<int> open;
    int next_token = 100;
    bool answer_minus_one = false;
    bool nested_ok = true;
};

LockRecorder *recorder;

int recording_lock(int lock, int res)
{
    recorder->calls.push_back({lock, res, qv_gian_lock_last_caller});
    if (lock) {
        int token = recorder->answer_minus_one ? -1 : recorder->next_token++;
        recorder->open.push_back(token);
        return token;
    }
    if (recorder->open.empty() || recorder->open.back() != res)
        recorder->nested_ok = false;
    else
        recorder->open.pop_back();
    return 0;
}

// Installs the recorder for one scope and removes every lock function after.
struct RecordingLock {
    LockRecorder rec;
    explicit RecordingLock(bool minus_one = false)
    {
        rec.answer_minus_one = minus_one;
        recorder = &rec;
        qv_giant_lock_func_init(recording_lock);
    }
    ~RecordingLock()
    {
        qv_giant_lock_func_init(nullptr);
        recorder = nullptr;
    }
    std::string pattern() const
    {
        std::string s;
        for (const LockCall &c : rec.calls)
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
    EXPECT_EQ(a->tb_size, 32);
    EXPECT_STREQ(c->tb_name, "pool76");
    EXPECT_EQ(counts(a), (PoolCounts{0, 0, 0, 0}));

    // The names pool counts its own records like any other pool.
    PoolCounts names_after = counts(&qvmodule_block_names);
    EXPECT_EQ(names_after.cur, names_before.cur + 4);
    EXPECT_EQ(names_after.req, names_before.req + 4);
    EXPECT_EQ(names_after.max, std::max(names_before.max, names_after.cur));

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
    void *m1 = qvmodule_block_alloc(tb);
    void *m2 = qvmodule_block_alloc(tb);
    void *m3 = qvmodule_block_alloc(tb);
    qvmodule_block_free(tb, m1);
    qvmodule_block_free(tb, m2);
    void *m4 = qvmodule_block_alloc(tb);
    EXPECT_EQ(counts(tb), (PoolCounts{3, 2, 4, 2}));
    qvmodule_block_free(tb, m3);
    qvmodule_block_free(tb, m4);
    EXPECT_EQ(counts(tb), (PoolCounts{3, 0, 4, 4}));
}

TEST_F(Memory, EveryBlockIsZeroFilledEvenWhenReusingDirtyMemory)
{
    static const char name[] = "pool_zero";
    block_t tb = qvmodule_block_init(200, name);
    qvmodule_mem_cookie_t *anon = qvmodule_cookie_anon;
    for (int round = 0; round < 3; round++) {
        std::vector<unsigned char *> blocks, charged;
        for (int i = 0; i < 64; i++) {
            blocks.push_back(static_cast<unsigned char *>(qvmodule_block_alloc(tb)));
            charged.push_back(static_cast<unsigned char *>(qvmodule_cookie_malloc(anon, 200)));
        }
        for (int i = 0; i < 64; i++) {
            for (int j = 0; j < 200; j++) {
                ASSERT_EQ(blocks[i][j], 0) << round << " " << i << " " << j;
                ASSERT_EQ(charged[i][j], 0) << round << " " << i << " " << j;
            }
            memset(blocks[i], 0xA5, 200);
            memset(charged[i], 0x5A, 200);
            qvmodule_block_free(tb, blocks[i]);
            qvmodule_cookie_free(anon, charged[i]);
        }
    }
}

TEST_F(Memory, ExhaustedHeapCountsNothing)
{
    static const char name[] = "pool_exhaust";
    int status = qvtest::run_in_child([] {
        block_t tb = qvmodule_block_init(60000, name);
        qvmodule tp = make_module("exhaust");
        qvmodule_mem_cookie_t *tmc = qvmodule_cookie_from_qvmodule(&tp);
        char *keep = static_cast<char *>(qvmodule_mem_malloc(&tp, 16));
        memcpy(keep, "still here", 11);
        CookieCounts before = counts(tmc);

        limit_address_space();
        unsigned got = 0;
        while (qvmodule_block_alloc(tb) != nullptr)
            got++;
        exhaust_heap();
        if (got == 0 || counts(tb) != PoolCounts{got, got, got, 0})
            return 1;
        if (qvmodule_block_alloc(tb) != nullptr || counts(tb) != PoolCounts{got, got, got, 0})
            return 2;
        // Allocation, copy and resize fail without counting; a failed
        // resize leaves the old block valid and charged.
        if (qvmodule_mem_malloc(&tp, 100) != nullptr || qvmodule_mem_strdup(&tp, "x") != nullptr)
            return 3;
        if (qvmodule_mem_realloc(&tp, keep, 100) != nullptr)
            return 4;
        if (counts(tmc) != before || strcmp(keep, "still here") != 0 ||
            qvmodule_get_actual_alloc_size(keep) != 16)
            return 5;
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
            limit_address_space();
            exhaust_heap();
            qvmodule_block_init(24, name);
        },
        "qv_memory.cpp:qvmodule_block_init: assertion \"qvmodule_block_alloc\\(tb\\)\" failed");
}

// ---------------------------------------------------------------------------
// Cookies

TEST_F(Memory, StringCopiesAreChargedAndFreedThroughTheHeader)
{
    qvmodule tp = make_module("strmod");
    char *copy = qvmodule_mem_strdup(&tp, "abc");
    ASSERT_NE(copy, nullptr);
    qvmodule_mem_cookie_t *tmc = tp.qvmodule_mem_cookie;
    ASSERT_NE(tmc, nullptr);
    EXPECT_EQ(qvmodule_cookies, tmc) << "newest cookie first";
    EXPECT_EQ(tmc->tmc_name, tp.qvmodule_name) << "the name pointer is kept, not copied";
    EXPECT_EQ(tmc->tmc_qvmodule, &tp);
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

TEST_F(Memory, ZeroSizeAndOversizedRequestsCountNothingButCreateTheCookie)
{
    qvmodule tp = make_module("zeromod");
    unsigned cookies_before = qvmodule_cookie_block->tb_n_alloc;
    EXPECT_EQ(qvmodule_mem_malloc(&tp, 0), nullptr);
    ASSERT_NE(tp.qvmodule_mem_cookie, nullptr);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies_before + 1);
    EXPECT_EQ(counts(tp.qvmodule_mem_cookie), (CookieCounts{0, 0, 0, 0, 0}));

    // The 32-bit header cannot describe these.
    EXPECT_EQ(qvmodule_mem_malloc(&tp, UINT32_MAX), nullptr);
    EXPECT_EQ(qvmodule_mem_malloc(&tp, UINT32_MAX - 3), nullptr);
    EXPECT_EQ(counts(tp.qvmodule_mem_cookie), (CookieCounts{0, 0, 0, 0, 0}));

    MemoryShow shown = run_memory_show();
    ASSERT_FALSE(shown.cookies.empty());
    EXPECT_EQ(shown.cookies.front().name, "zeromod");
    EXPECT_EQ(shown.cookies.front().numbers, (std::vector<double>{0, 0, 0, 0, 0}));

    qvmodule_mem_cookie_free(&tp);
    EXPECT_EQ(tp.qvmodule_mem_cookie, nullptr);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies_before);
}

TEST_F(Memory, ResizeAlwaysMovesAndKeepsTheSmallerSize)
{
    qvmodule tp = make_module("resizemod");
    auto *p = static_cast<unsigned char *>(qvmodule_mem_malloc(&tp, 10));
    for (int i = 0; i < 10; i++)
        p[i] = static_cast<unsigned char>(i + 1);
    qvmodule_mem_cookie_t *tmc = tp.qvmodule_mem_cookie;
    EXPECT_EQ(qvmodule_get_actual_alloc_size(p), 10u);

    auto *q = static_cast<unsigned char *>(qvmodule_mem_realloc(&tp, p, 20));
    ASSERT_NE(q, nullptr);
    EXPECT_NE(q, p);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(q[i], i + 1);
    for (int i = 10; i < 20; i++)
        EXPECT_EQ(q[i], 0);
    // New block charged before the old one leaves: 30 bytes and 2 blocks
    // at the peak.
    EXPECT_EQ(counts(tmc), (CookieCounts{20, 30, 1, 2, 3}));

    auto *r = static_cast<unsigned char *>(qvmodule_mem_realloc(&tp, q, 5));
    EXPECT_EQ(qvmodule_get_actual_alloc_size(r), 5u);
    EXPECT_EQ(memcmp(r, "\1\2\3\4\5", 5), 0);
    EXPECT_EQ(counts(tmc), (CookieCounts{5, 30, 1, 2, 5}));

    EXPECT_EQ(qvmodule_mem_realloc(&tp, r, 0), nullptr);
    EXPECT_EQ(counts(tmc), (CookieCounts{0, 30, 0, 2, 6}));
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
    qvmodule_mem_malloc(&b, 0); // b's cookie, empty
    qvmodule_mem_free(&b, p);
    EXPECT_EQ(counts(b.qvmodule_mem_cookie), (CookieCounts{0, 0, 0, 0, 1}));
    EXPECT_EQ(counts(a.qvmodule_mem_cookie), (CookieCounts{100, 100, 1, 1, 1}));

    void *q = qvmodule_mem_malloc(&b, 10);
    void *big = qvmodule_mem_malloc(&a, 50);
    qvmodule_mem_free(&b, big); // 50 bytes against b's 10
    EXPECT_EQ(counts(b.qvmodule_mem_cookie), (CookieCounts{0, 10, 0, 1, 3}));
    qvmodule_mem_free(&a, q);
    EXPECT_EQ(counts(a.qvmodule_mem_cookie), (CookieCounts{140, 150, 1, 2, 3}));
    qvmodule_mem_cookie_free(&a);
    qvmodule_mem_cookie_free(&b);
}

TEST_F(Memory, AnonymousCookieTakesModulelessMemoryAndStandsLast)
{
    qvmodule_mem_cookie_t *anon = qvmodule_cookie_anon;
    ASSERT_NE(anon, nullptr);
    EXPECT_STREQ(anon->tmc_name, "--Anonymous--");
    EXPECT_EQ(anon->tmc_qvmodule, nullptr);
    CookieCounts before = counts(anon);

    static const char same_text[] = "twin";
    qvmodule t1 = make_module(same_text), t2 = make_module(same_text);
    qvmodule_mem_malloc(&t1, 0);
    qvmodule_mem_malloc(&t2, 0);
    char *p = qvmodule_mem_strdup(nullptr, "seven!");
    EXPECT_EQ(anon->tmc_n_bytes, before.bytes + 7);
    EXPECT_EQ(anon->tmc_n_alloc, before.alloc + 1);
    EXPECT_EQ(anon->tmc_n_func_calls, before.calls + 1);

    MemoryShow shown = run_memory_show();
    ASSERT_GE(shown.cookies.size(), 3u);
    EXPECT_EQ(shown.cookies.back().name, "--Anonymous--");
    EXPECT_EQ(shown.cookies[0].name, "twin");
    EXPECT_EQ(shown.cookies[1].name, "twin");

    qvmodule_mem_free(nullptr, p);
    EXPECT_EQ(anon->tmc_n_bytes, before.bytes);
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
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies - 1);

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
        unsigned char fill;
    };
    struct Owner {
        qvmodule mod;
        qvmodule *tp;
        std::vector<Live> live;
        CookieCounts expect{};
    };
    static const char *names[] = {"rnd0", "rnd1", "rnd2"};
    std::vector<Owner> owners(4);
    for (int i = 0; i < 3; i++) {
        owners[i].mod = make_module(names[i]);
        owners[i].tp = &owners[i].mod;
    }
    owners[3].tp = nullptr;
    owners[3].expect = counts(qvmodule_cookie_anon);
    // The anonymous cookie may carry earlier tests' memory: start the
    // expectation from what it holds.
    std::mt19937 rng(20240611);

    auto cookie = [](Owner &o) { return qvmodule_cookie_from_qvmodule(o.tp); };
    auto charge = [](Owner &o, int64_t bytes, int allocs) {
        o.expect.bytes += static_cast<uint32_t>(bytes);
        o.expect.alloc += allocs;
        o.expect.max_bytes = std::max(o.expect.max_bytes, o.expect.bytes);
        o.expect.max_alloc = std::max(o.expect.max_alloc, o.expect.alloc);
    };
    auto fill = [](Live &l) {
        for (size_t i = 0; i < l.size; i++)
            l.p[i] = static_cast<unsigned char>(l.fill + i);
    };

    for (int step = 0; step < 4000; step++) {
        Owner &o = owners[rng() % owners.size()];
        size_t size = rng() % 300;
        int op = rng() % 4;
        if (op == 0 || o.live.empty()) {
            auto *p = static_cast<unsigned char *>(qvmodule_mem_malloc(o.tp, size));
            if (size == 0) {
                ASSERT_EQ(p, nullptr);
                continue;
            }
            ASSERT_NE(p, nullptr);
            for (size_t i = 0; i < size; i++)
                ASSERT_EQ(p[i], 0);
            Live l{p, size, static_cast<unsigned char>(rng())};
            fill(l);
            o.live.push_back(l);
            charge(o, size, 1);
            o.expect.calls++;
        } else if (op == 1) {
            std::string text(size, 'x');
            auto *p = reinterpret_cast<unsigned char *>(qvmodule_mem_strdup(o.tp, text.c_str()));
            ASSERT_STREQ(reinterpret_cast<char *>(p), text.c_str());
            Live l{p, size + 1, static_cast<unsigned char>(rng())};
            fill(l);
            o.live.push_back(l);
            charge(o, size + 1, 1);
            o.expect.calls++;
        } else {
            size_t k = rng() % o.live.size();
            Live l = o.live[k];
            o.live.erase(o.live.begin() + k);
            if (op == 2) {
                qvmodule_mem_free(o.tp, l.p);
                charge(o, -static_cast<int64_t>(l.size), -1);
                o.expect.calls++;
            } else {
                auto *p = static_cast<unsigned char *>(qvmodule_mem_realloc(o.tp, l.p, size));
                if (size == 0) {
                    ASSERT_EQ(p, nullptr);
                    charge(o, -static_cast<int64_t>(l.size), -1);
                    o.expect.calls++;
                } else {
                    ASSERT_NE(p, nullptr);
                    for (size_t i = 0; i < size; i++)
                        ASSERT_EQ(p[i], i < l.size ? static_cast<unsigned char>(l.fill + i) : 0)
                            << "step " << step;
                    charge(o, size, 1);
                    charge(o, -static_cast<int64_t>(l.size), -1);
                    o.expect.calls += 2;
                    Live moved{p, size, static_cast<unsigned char>(rng())};
                    fill(moved);
                    o.live.push_back(moved);
                }
            }
        }
        ASSERT_EQ(counts(cookie(o)), o.expect) << "step " << step;
        for (const Live &l : o.live) {
            ASSERT_EQ(qvmodule_get_actual_alloc_size(l.p), l.size) << "step " << step;
            ASSERT_EQ(l.p[l.size - 1], static_cast<unsigned char>(l.fill + l.size - 1));
        }
    }
    for (Owner &o : owners) {
        for (const Live &l : o.live)
            qvmodule_mem_free(o.tp, l.p);
        if (o.tp)
            qvmodule_mem_cookie_free(o.tp);
    }
}

// ---------------------------------------------------------------------------
// Giant lock sections

TEST_F(Memory, StatisticsUpdatesTakeTheLockAndResizeNestsInsideIt)
{
    qvmodule tp = make_module("lockmod");
    qvmodule_mem_malloc(&tp, 0); // cookie creation takes no lock
    void *p, *q;
    {
        RecordingLock lock;
        EXPECT_EQ(qvmodule_mem_malloc(&tp, 0), nullptr);
        EXPECT_EQ(lock.pattern(), "");
        p = qvmodule_mem_malloc(&tp, 10);
        EXPECT_EQ(lock.pattern(), "LU");
        q = qvmodule_mem_realloc(&tp, p, 20);
        EXPECT_EQ(lock.pattern(), "LULLULUU");
        for (const LockCall &c : lock.rec.calls)
            if (c.lock) {
                EXPECT_EQ(c.res, 0) << "a lock is called with (1, 0)";
            }
        qvmodule_mem_free(&tp, q);
        EXPECT_EQ(lock.pattern(), "LULLULUULU");
        EXPECT_TRUE(lock.rec.nested_ok);
        EXPECT_TRUE(lock.rec.open.empty());
        // The unlock of the resize passes back its own lock's result.
        EXPECT_EQ(lock.rec.calls[7].lock, 0);
        EXPECT_EQ(lock.rec.calls[7].res, 101);
    }
    {
        // A lock function answering -1 makes each lock leave its caller's
        // name behind, which the next call of the function can see.
        RecordingLock lock(true);
        p = qvmodule_mem_malloc(&tp, 10);
        q = qvmodule_mem_realloc(&tp, p, 20);
        qvmodule_mem_free(&tp, q);
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
            EXPECT_STREQ(lock.rec.calls[i + 1].last_caller, expect[i]) << i;
        EXPECT_STREQ(qv_gian_lock_last_caller, "qvmodule_cookie_free");
        EXPECT_TRUE(lock.rec.nested_ok);
    }
    EXPECT_EQ(counts(tp.qvmodule_mem_cookie), (CookieCounts{0, 30, 0, 2, 8}));
    qvmodule_mem_cookie_free(&tp);
}

std::recursive_mutex thread_lock;

int mutex_lock(int lock, int)
{
    if (lock)
        thread_lock.lock();
    else
        thread_lock.unlock();
    return 1;
}

TEST_F(Memory, ThreadsSharingACookieUnderARecursiveLockKeepExactCounts)
{
    qvmodule tp = make_module("threadmod");
    qvmodule_mem_malloc(&tp, 0);
    qv_giant_lock_func_init(mutex_lock);
    constexpr int kRounds = 20000;
    auto work = [&tp](unsigned seed) {
        std::mt19937 rng(seed);
        for (int i = 0; i < kRounds; i++) {
            void *p = qvmodule_mem_malloc(&tp, 1 + rng() % 64);
            p = qvmodule_mem_realloc(&tp, p, 1 + rng() % 64);
            qvmodule_mem_free(&tp, p);
        }
    };
    std::thread t1(work, 1), t2(work, 2);
    t1.join();
    t2.join();
    qv_giant_lock_func_init(nullptr);
    const qvmodule_mem_cookie_t *tmc = tp.qvmodule_mem_cookie;
    EXPECT_EQ(tmc->tmc_n_bytes, 0u);
    EXPECT_EQ(tmc->tmc_n_alloc, 0u);
    EXPECT_EQ(tmc->tmc_n_func_calls, 2u * kRounds * 4);
    EXPECT_LE(tmc->tmc_max_alloc, 4u);
    qvmodule_mem_cookie_free(&tp);
}

// ---------------------------------------------------------------------------
// The "memory" show output

TEST_F(Memory, ShowListsEveryPoolAndCookieMemberByMember)
{
    static const char pool_name[] = "show_pool";
    block_t tb = qvmodule_block_init(1000, pool_name);
    void *b1 = qvmodule_block_alloc(tb);
    void *b2 = qvmodule_block_alloc(tb);
    void *b3 = qvmodule_block_alloc(tb);
    qvmodule_block_free(tb, b3);
    qvmodule tp = make_module("showmod");
    void *m1 = qvmodule_mem_malloc(&tp, 9);
    void *m2 = qvmodule_mem_malloc(&tp, 5);
    qvmodule_mem_free(&tp, m2);
    qvmodule_mem_strdup(&tp, nullptr);
    // Counters are shown as their unsigned 32-bit value.
    tp.qvmodule_mem_cookie->tmc_max_bytes = 4000000000u;

    qv_ui_init("memtestapp");
    cJSON *root = nullptr;
    ASSERT_EQ(jrpc_invoke_show("memtestapp", "memory", &root), JRPC_SUCCESS);
    MemoryShow shown = read_memory_show(root);
    char *first_text = cJSON_Print(root);
    cJSON_Delete(root);

    std::vector<block_t> pools;
    for (block_t p = qvmodule_block_list; p; p = p->tb_next)
        pools.push_back(p);
    ASSERT_EQ(shown.blocks.size(), pools.size());
    for (size_t i = 0; i < pools.size(); i++) {
        block_t p = pools[i];
        EXPECT_EQ(shown.blocks[i].name, p->tb_name);
        EXPECT_EQ(
            shown.blocks[i].numbers,
            (std::vector<double>{double(p->tb_size), double(p->tb_max_alloc), double(p->tb_n_alloc),
                                 double(p->tb_n_alloc_requests), double(p->tb_n_free_requests)}));
        if (p == tb) {
            EXPECT_EQ(shown.blocks[i].numbers, (std::vector<double>{1000, 3, 2, 3, 1}));
        }
    }

    std::vector<qvmodule_mem_cookie_t *> cookies;
    for (auto *c = qvmodule_cookies; c; c = c->tmc_next)
        cookies.push_back(c);
    ASSERT_EQ(shown.cookies.size(), cookies.size());
    for (size_t i = 0; i < cookies.size(); i++)
        EXPECT_EQ(shown.cookies[i].name, cookies[i]->tmc_name);
    EXPECT_EQ(shown.cookies.front().name, "showmod");
    EXPECT_EQ(shown.cookies.front().numbers, (std::vector<double>{4000000000.0, 9, 2, 1, 4}));
    EXPECT_EQ(shown.cookies.back().name, "--Anonymous--");

    // A second run gives an equal, independent result and changes nothing.
    cJSON *again = nullptr;
    ASSERT_EQ(jrpc_invoke_show("memtestapp", "memory", &again), JRPC_SUCCESS);
    char *second_text = cJSON_Print(again);
    EXPECT_STREQ(first_text, second_text);
    cJSON_Delete(again);
    free(first_text);
    free(second_text);

    qvmodule_block_free(tb, b1);
    qvmodule_block_free(tb, b2);
    qvmodule_mem_free(&tp, m1);
    qvmodule_mem_cookie_free(&tp);
}
