// Cost of the memory accounting: charged allocations (a module's cookie and
// the anonymous one) and block pools against calloc+free of the same sizes,
// calloc being the heap call with the same zero-filled contract; malloc+free
// is measured beside them for reference. Three patterns: one allocation
// freed at once, batches of 10,000 freed in order, and batches freed in a
// fixed random order.
//
// A fifth variant, "bare", is the accounting written out in the benchmark
// itself: calloc of the size and the block's offset (the 4-byte header sits
// right in front of the block, which stays aligned as the library's are),
// the header, and the
// cookie's five counters with their floor and high-water marks, without the
// library's calls, cookie lookup or lock check. It shows what the counting
// alone adds to calloc+free.
//
// Every benchmark alternates rounds of its variant with rounds of
// calloc+free, so the anchor is measured in the same run and under the same
// conditions; the reported time is the variant's, and the counters give the
// anchor's time and the ratio. A table of the ratios (medians of the
// repetitions) follows the run.

#include <benchmark/benchmark.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "qv_memory.h"

namespace
{

constexpr size_t kBatch = 10000;
constexpr size_t kSingleRound = 1000; // pairs timed together in the single pattern
constexpr size_t kSizes[] = {16, 64, 256};

std::map<size_t, block_t> pools;
qvmodule *bench_module;
std::vector<size_t> free_order; // a fixed permutation of 0..kBatch-1

// Each variant is made for one block size; a pool's handle is looked up
// once, as a daemon keeps its pool handle.
struct Calloc {
    size_t n;
    explicit Calloc(size_t size) : n(size) {}
    void *alloc() const { return calloc(1, n); }
    void release(void *p) const { free(p); }
};
struct Malloc {
    size_t n;
    explicit Malloc(size_t size) : n(size) {}
    void *alloc() const { return malloc(n); }
    void release(void *p) const { free(p); }
};
struct ModuleCookie {
    size_t n;
    explicit ModuleCookie(size_t size) : n(size) {}
    void *alloc() const { return qvmodule_mem_malloc(bench_module, n); }
    void release(void *p) const { qvmodule_mem_free(bench_module, p); }
};
struct AnonCookie {
    size_t n;
    explicit AnonCookie(size_t size) : n(size) {}
    void *alloc() const { return qvmodule_mem_malloc(nullptr, n); }
    void release(void *p) const { qvmodule_mem_free(nullptr, p); }
};
struct Pool {
    block_t tb;
    explicit Pool(size_t size) : tb(pools.at(size)) {}
    void *alloc() const { return qvmodule_block_alloc(tb); }
    void release(void *p) const { qvmodule_block_free(tb, p); }
};

struct BareCounts {
    uint32_t n_bytes, max_bytes, n_alloc, max_alloc, n_calls;
} bare_counts;

// The library's block layout: the block starts this far into the heap
// block, its 4-byte size header right in front of it.
constexpr size_t kBareOffset = sizeof(void *) == 8 ? alignof(max_align_t) : 8;

[[gnu::noinline]] void *bare_alloc(size_t n)
{
    auto *mem = static_cast<char *>(calloc(1, n + kBareOffset));
    if (mem == nullptr)
        return nullptr;
    auto *hdr = reinterpret_cast<uint32_t *>(mem + kBareOffset) - 1;
    BareCounts &c = bare_counts;
    c.n_bytes += uint32_t(n);
    c.max_bytes = std::max(c.max_bytes, c.n_bytes);
    c.n_alloc++;
    c.max_alloc = std::max(c.max_alloc, c.n_alloc);
    c.n_calls++;
    *hdr = uint32_t(n);
    return hdr + 1;
}

[[gnu::noinline]] void bare_free(void *p)
{
    uint32_t *hdr = static_cast<uint32_t *>(p) - 1;
    BareCounts &c = bare_counts;
    c.n_bytes -= std::min(c.n_bytes, *hdr);
    c.n_alloc -= std::min(c.n_alloc, 1u);
    c.n_calls++;
    free(reinterpret_cast<char *>(p) - kBareOffset);
}

struct Bare {
    size_t n;
    explicit Bare(size_t size) : n(size) {}
    void *alloc() const { return bare_alloc(n); }
    void release(void *p) const { bare_free(p); }
};

enum Pattern { kSingle, kInOrder, kRandom };
const char *const kPatternNames[] = {"single", "batch_in_order", "batch_random"};
const char *const kVariantNames[] = {"malloc", "cookie_module", "cookie_anon", "pool", "bare"};

// The thread's CPU time: other engineers' builds on the same cores take the
// processor away between rounds, which wall time would count.
double cpu_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

// One round of a pattern; returns its CPU time in nanoseconds.
template <class A> double round_ns(const A &a, Pattern pattern, std::vector<void *> &held)
{
    double start = cpu_ns();
    if (pattern == kSingle) {
        for (size_t i = 0; i < kSingleRound; i++) {
            void *p = a.alloc();
            benchmark::DoNotOptimize(p);
            a.release(p);
        }
    } else {
        for (size_t i = 0; i < kBatch; i++) {
            held[i] = a.alloc();
            benchmark::DoNotOptimize(held[i]);
        }
        if (pattern == kRandom)
            for (size_t i : free_order)
                a.release(held[i]);
        else
            for (void *p : held)
                a.release(p);
    }
    return cpu_ns() - start;
}

template <class A> void against_calloc(benchmark::State &state, Pattern pattern, size_t size)
{
    const A variant(size);
    const Calloc anchor(size);
    std::vector<void *> held(kBatch);
    double variant_ns = 0, anchor_ns = 0;
    bool variant_first = true;
    for (auto _ : state) {
        // Alternating which goes first keeps either from always running on
        // a heap the other has just warmed.
        double v, c;
        if (variant_first) {
            v = round_ns(variant, pattern, held);
            c = round_ns(anchor, pattern, held);
        } else {
            c = round_ns(anchor, pattern, held);
            v = round_ns(variant, pattern, held);
        }
        variant_first = !variant_first;
        variant_ns += v;
        anchor_ns += c;
        state.SetIterationTime(v * 1e-9);
    }
    double pairs = double(state.iterations()) * (pattern == kSingle ? kSingleRound : kBatch);
    state.SetItemsProcessed(static_cast<int64_t>(pairs));
    state.counters["ns_per_pair"] = variant_ns / pairs;
    state.counters["calloc_ns_per_pair"] = anchor_ns / pairs;
    state.counters["ratio"] = anchor_ns > 0 ? variant_ns / anchor_ns : 0;
}

template <class A> void register_variant(const char *variant)
{
    for (int p = kSingle; p <= kRandom; p++)
        for (size_t size : kSizes) {
            std::string name =
                std::string(kPatternNames[p]) + "/" + variant + "/" + std::to_string(size);
            benchmark::RegisterBenchmark(name.c_str(), [p, size](benchmark::State &s) {
                against_calloc<A>(s, Pattern(p), size);
            })->UseManualTime();
        }
}

// Keeps the ratio of every benchmark (the median when repeated) and the
// anchor's time for the table printed after the run.
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median")
                continue;
            auto ratio = r.counters.find("ratio");
            auto anchor = r.counters.find("calloc_ns_per_pair");
            if (ratio == r.counters.end() || anchor == r.counters.end())
                continue;
            ratio_[r.run_name.function_name] = ratio->second.value;
            anchor_[r.run_name.function_name] = anchor->second.value;
        }
    }

    void print_ratios() const
    {
        printf("\nTime per allocation+free as a ratio to calloc+free of the same pattern and "
               "size, measured alternately in the same benchmark (medians):\n");
        printf("%-16s %5s %11s", "pattern", "size", "calloc(ns)");
        for (const char *variant : kVariantNames)
            printf(" %14s", variant);
        printf("\n");
        for (const char *pattern : kPatternNames)
            for (size_t size : kSizes) {
                auto key = [&](const char *variant) {
                    return std::string(pattern) + "/" + variant + "/" + std::to_string(size);
                };
                // Every variant timed the same anchor; any one that ran gives its time.
                double anchor_ns = 0;
                for (const char *variant : kVariantNames)
                    if (auto it = anchor_.find(key(variant)); it != anchor_.end())
                        anchor_ns = it->second;
                if (anchor_ns == 0)
                    continue;
                printf("%-16s %5zu %11.2f", pattern, size, anchor_ns);
                for (const char *variant : kVariantNames) {
                    auto it = ratio_.find(key(variant));
                    if (it == ratio_.end())
                        printf(" %14s", "-"); // filtered out of this run
                    else
                        printf(" %14.3f", it->second);
                }
                printf("\n");
            }
    }

  private:
    std::map<std::string, double> ratio_, anchor_;
};

} // namespace

int main(int argc, char **argv)
{
    qvmodule_memory_init();
    qvmodule_init();
    static const char *const names[] = {"bench16", "bench64", "bench256"};
    for (size_t i = 0; i < 3; i++)
        pools[kSizes[i]] = qvmodule_block_init(kSizes[i], names[i]);
    bench_module = qvmodule_alloc("bench", 0, nullptr);
    qvmodule_create(bench_module);
    qvmodule_mem_malloc(bench_module, 0); // its cookie exists before timing

    free_order.resize(kBatch);
    std::iota(free_order.begin(), free_order.end(), 0);
    std::shuffle(free_order.begin(), free_order.end(), std::mt19937(12345));

    register_variant<Malloc>(kVariantNames[0]);
    register_variant<ModuleCookie>(kVariantNames[1]);
    register_variant<AnonCookie>(kVariantNames[2]);
    register_variant<Pool>(kVariantNames[3]);
    register_variant<Bare>(kVariantNames[4]);

    // Repeated by default, so that the table shows medians, in short runs
    // since each benchmark times its anchor as well.
    std::vector<char *> args(argv, argv + argc);
    std::string reps = "--benchmark_repetitions=5";
    std::string aggr = "--benchmark_report_aggregates_only=true";
    std::string mint = "--benchmark_min_time=0.2";
    auto given = [&](const char *flag) {
        for (int i = 1; i < argc; i++)
            if (strncmp(argv[i], flag, strlen(flag)) == 0)
                return true;
        return false;
    };
    if (!given("--benchmark_repetitions"))
        args.push_back(reps.data());
    if (!given("--benchmark_min_time"))
        args.push_back(mint.data());
    if (!given("--benchmark_report_aggregates_only"))
        args.push_back(aggr.data());
    int n = static_cast<int>(args.size());
    args.push_back(nullptr);

    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();
    return 0;
}
