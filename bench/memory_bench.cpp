// Cost of the memory accounting: charged allocations (a module's cookie and
// the anonymous one) and block pools against calloc+free of the same sizes,
// calloc being the heap call with the same zero-filled contract; malloc+free
// is shown beside it. Three patterns: one allocation freed at once, batches
// of 10,000 freed in order, and batches freed in a fixed random order.
//
// After the run a table gives every variant's time as a ratio to calloc+free
// of the same pattern and size (medians of the repetitions).

#include <benchmark/benchmark.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

template <class A> void single(benchmark::State &state, size_t size)
{
    const A a(size);
    for (auto _ : state) {
        void *p = a.alloc();
        benchmark::DoNotOptimize(p);
        a.release(p);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class A> void batch(benchmark::State &state, size_t size, bool random_order)
{
    const A a(size);
    std::vector<void *> held(kBatch);
    for (auto _ : state) {
        for (size_t i = 0; i < kBatch; i++) {
            held[i] = a.alloc();
            benchmark::DoNotOptimize(held[i]);
        }
        if (random_order)
            for (size_t i : free_order)
                a.release(held[i]);
        else
            for (void *p : held)
                a.release(p);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

const char *const kVariants[] = {"calloc", "malloc", "cookie_module", "cookie_anon", "pool"};
const char *const kPatterns[] = {"single", "batch_in_order", "batch_random"};

template <class A> void register_variant(const char *variant)
{
    for (size_t size : kSizes) {
        std::string tail = std::string(variant) + "/" + std::to_string(size);
        benchmark::RegisterBenchmark(("single/" + tail).c_str(),
                                     [size](benchmark::State &s) { single<A>(s, size); });
        benchmark::RegisterBenchmark(("batch_in_order/" + tail).c_str(),
                                     [size](benchmark::State &s) { batch<A>(s, size, false); });
        benchmark::RegisterBenchmark(("batch_random/" + tail).c_str(),
                                     [size](benchmark::State &s) { batch<A>(s, size, true); });
    }
}

// Keeps the time per item of every run (the median when repeated) for the
// ratio table.
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median")
                continue;
            double items =
                r.counters.count("items_per_second") ? r.counters.at("items_per_second").value : 0;
            if (items > 0)
                per_item_ns_[r.run_name.function_name] = 1e9 / items;
        }
    }

    void print_ratios() const
    {
        printf("\nTime per allocation+free, and ratio to calloc+free of the same pattern and "
               "size:\n");
        printf("%-16s %5s %12s %8s %14s %12s %8s\n", "pattern", "size", "calloc(ns)", "malloc",
               "cookie_module", "cookie_anon", "pool");
        for (const char *pattern : kPatterns)
            for (size_t size : kSizes) {
                auto ns = [&](const char *variant) {
                    auto it = per_item_ns_.find(std::string(pattern) + "/" + variant + "/" +
                                                std::to_string(size));
                    return it == per_item_ns_.end() ? 0.0 : it->second;
                };
                double anchor = ns("calloc");
                if (anchor <= 0)
                    continue;
                printf("%-16s %5zu %12.2f %8.3f %14.3f %12.3f %8.3f\n", pattern, size, anchor,
                       ns("malloc") / anchor, ns("cookie_module") / anchor,
                       ns("cookie_anon") / anchor, ns("pool") / anchor);
            }
    }

  private:
    std::map<std::string, double> per_item_ns_;
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

    register_variant<Calloc>(kVariants[0]);
    register_variant<Malloc>(kVariants[1]);
    register_variant<ModuleCookie>(kVariants[2]);
    register_variant<AnonCookie>(kVariants[3]);
    register_variant<Pool>(kVariants[4]);

    // Repeated and interleaved by default, so that a drifting machine does
    // not favour whichever variant happens to run first.
    std::vector<char *> args(argv, argv + argc);
    std::string reps = "--benchmark_repetitions=5",
                inter = "--benchmark_enable_random_interleaving=true",
                mint = "--benchmark_min_time=0.2", aggr = "--benchmark_report_aggregates_only=true";
    auto given = [&](const char *flag) {
        for (int i = 1; i < argc; i++)
            if (strncmp(argv[i], flag, strlen(flag)) == 0)
                return true;
        return false;
    };
    if (!given("--benchmark_repetitions"))
        args.push_back(reps.data());
    if (!given("--benchmark_enable_random_interleaving"))
        args.push_back(inter.data());
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
