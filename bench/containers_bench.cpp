// The ordered containers against their standard anchors, measured in one
// run: hbt against std::set and boost::intrusive::avl_set (insert, lookup,
// in-order walk, delete), patricia against std::map and std::unordered_map
// (exact lookup, next-greater search). Keys are random and visited in random
// order. Each benchmark reports the time per operation and the bytes each
// element costs beyond its key; the run ends with a table of ratios.
//
// Benchmark names: <operation>/<key>/<elements>/<structure>. A full run with
// medians takes about four minutes:
//   containers_bench --benchmark_min_time=0.05 --benchmark_repetitions=3
//                    --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <boost/intrusive/avl_set.hpp>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qv_hbtree.h"
#include "qv_patricia.h"

namespace bi = boost::intrusive;

namespace
{

// 16-byte keys compared as byte strings, as the trees see them.
struct Str16 {
    uint8_t b[16];
};
bool operator<(const Str16 &a, const Str16 &b)
{
    return memcmp(a.b, b.b, 16) < 0;
}
bool operator==(const Str16 &a, const Str16 &b)
{
    return memcmp(a.b, b.b, 16) == 0;
}
struct Str16Hash {
    size_t operator()(const Str16 &k) const
    {
        return std::hash<std::string_view>()(
            std::string_view(reinterpret_cast<const char *>(k.b), 16));
    }
};

int cmp3(uint64_t a, uint64_t b)
{
    return (a > b) - (a < b);
}
int cmp3(const Str16 &a, const Str16 &b)
{
    return memcmp(a.b, b.b, 16);
}

template <typename K> K random_key(std::mt19937_64 &rng);
template <> uint64_t random_key<uint64_t>(std::mt19937_64 &rng)
{
    return rng();
}
template <> Str16 random_key<Str16>(std::mt19937_64 &rng)
{
    Str16 k;
    uint64_t a = rng(), b = rng();
    memcpy(k.b, &a, 8);
    memcpy(k.b + 8, &b, 8);
    return k;
}
template <typename K> const char *key_name();
template <> const char *key_name<uint64_t>()
{
    return "u64";
}
template <> const char *key_name<Str16>()
{
    return "str16";
}

// n distinct random keys, and two further random orders of them.
template <typename K> struct Keys {
    std::vector<K> insert, probe, erase;
    explicit Keys(size_t n)
    {
        std::mt19937_64 rng(n);
        std::set<K> seen;
        while (insert.size() < n) {
            K k = random_key<K>(rng);
            if (seen.insert(k).second)
                insert.push_back(k);
        }
        probe = erase = insert;
        std::shuffle(probe.begin(), probe.end(), rng);
        std::shuffle(erase.begin(), erase.end(), rng);
    }
};

template <typename K> const Keys<K> &keys(size_t n)
{
    static std::unique_ptr<Keys<K>> cached;
    if (!cached || cached->insert.size() != n)
        cached = std::make_unique<Keys<K>>(n);
    return *cached;
}

size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

void per_op(benchmark::State &state, size_t n)
{
    state.counters["per_op"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

void overhead(benchmark::State &state, double bytes)
{
    state.counters["overhead_B"] = bytes;
}

// ---------------------------------------------------------------- hbt ----

template <typename K> struct HRec {
    hbt_node_t node;
    K key;
};

template <typename K> int hbt_cmp(hbt_node_t *a, hbt_node_t *b)
{
    return cmp3(reinterpret_cast<HRec<K> *>(a)->key, reinterpret_cast<HRec<K> *>(b)->key);
}

template <typename K> struct HbtTree {
    std::vector<HRec<K>> recs;
    hbt_node_t *root = nullptr;
    explicit HbtTree(const std::vector<K> &ks) : recs(ks.size())
    {
        for (size_t i = 0; i < ks.size(); ++i)
            recs[i].key = ks[i];
    }
    void fill()
    {
        for (auto &r : recs)
            hbt_insert(&root, &r.node, hbt_cmp<K>);
    }
    void reset()
    {
        for (auto &r : recs)
            r.node = hbt_node_t{};
        root = nullptr;
    }
};

template <typename K> void hbt_insert_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    HbtTree<K> t(ks.insert);
    for (auto _ : state) {
        t.fill();
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
    per_op(state, ks.insert.size());
}

template <typename K> void hbt_lookup_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    HbtTree<K> t(ks.insert);
    t.fill();
    HRec<K> probe{};
    for (auto _ : state) {
        size_t found = 0;
        for (const K &k : ks.probe) {
            probe.key = k;
            found += hbt_lookup(t.root, &probe.node, hbt_cmp<K>) != nullptr;
        }
        benchmark::DoNotOptimize(found);
    }
    per_op(state, ks.probe.size());
    overhead(state, sizeof(HRec<K>) - sizeof(K));
}

template <typename K> void hbt_walk_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    HbtTree<K> t(ks.insert);
    t.fill();
    for (auto _ : state) {
        size_t n = 0;
        for (hbt_node_t *p = hbt_iterate_next(t.root, nullptr); p; p = hbt_iterate_next(t.root, p))
            ++n;
        benchmark::DoNotOptimize(n);
    }
    per_op(state, ks.insert.size());
}

template <typename K> void hbt_delete_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    HbtTree<K> t(ks.insert);
    // Records in deletion order, so that each delete names its node directly.
    std::vector<HRec<K> *> order;
    {
        std::map<K, HRec<K> *> by_key;
        for (auto &r : t.recs)
            by_key[r.key] = &r;
        for (const K &k : ks.erase)
            order.push_back(by_key[k]);
    }
    for (auto _ : state) {
        state.PauseTiming();
        t.fill();
        state.ResumeTiming();
        for (HRec<K> *r : order)
            hbt_delete(&t.root, &r->node, hbt_cmp<K>);
    }
    per_op(state, ks.erase.size());
}

// ----------------------------------------------------------- std::set ----

template <typename K> void set_insert_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    for (auto _ : state) {
        std::set<K> s;
        for (const K &k : ks.insert)
            s.insert(k);
        state.PauseTiming();
        s.clear();
        state.ResumeTiming();
    }
    per_op(state, ks.insert.size());
}

template <typename K> void set_lookup_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    size_t before = heap_in_use();
    std::set<K> s(ks.insert.begin(), ks.insert.end());
    double per_elem = static_cast<double>(heap_in_use() - before) / ks.insert.size();
    for (auto _ : state) {
        size_t found = 0;
        for (const K &k : ks.probe)
            found += s.find(k) != s.end();
        benchmark::DoNotOptimize(found);
    }
    per_op(state, ks.probe.size());
    overhead(state, per_elem - sizeof(K));
}

template <typename K> void set_walk_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    std::set<K> s;
    for (const K &k : ks.insert)
        s.insert(k);
    for (auto _ : state) {
        size_t n = 0;
        for (auto it = s.begin(); it != s.end(); ++it)
            ++n;
        benchmark::DoNotOptimize(n);
    }
    per_op(state, ks.insert.size());
}

template <typename K> void set_delete_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    for (auto _ : state) {
        state.PauseTiming();
        std::set<K> s;
        for (const K &k : ks.insert)
            s.insert(k);
        state.ResumeTiming();
        for (const K &k : ks.erase)
            s.erase(k);
    }
    per_op(state, ks.erase.size());
}

// ------------------------------------------- boost::intrusive::avl_set ----

template <typename K> struct ARec : bi::avl_set_base_hook<bi::link_mode<bi::normal_link>> {
    K key;
};
template <typename K> struct AKey {
    typedef K type;
    const K &operator()(const ARec<K> &r) const { return r.key; }
};
template <typename K> using AvlSet = bi::avl_set<ARec<K>, bi::key_of_value<AKey<K>>>;

template <typename K> struct AvlTree {
    std::vector<ARec<K>> recs;
    AvlSet<K> set;
    explicit AvlTree(const std::vector<K> &ks) : recs(ks.size())
    {
        for (size_t i = 0; i < ks.size(); ++i)
            recs[i].key = ks[i];
    }
    void fill()
    {
        for (auto &r : recs)
            set.insert(r);
    }
};

template <typename K> void avl_insert_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    AvlTree<K> t(ks.insert);
    for (auto _ : state) {
        t.fill();
        state.PauseTiming();
        t.set.clear();
        state.ResumeTiming();
    }
    per_op(state, ks.insert.size());
}

template <typename K> void avl_lookup_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    AvlTree<K> t(ks.insert);
    t.fill();
    for (auto _ : state) {
        size_t found = 0;
        for (const K &k : ks.probe)
            found += t.set.find(k) != t.set.end();
        benchmark::DoNotOptimize(found);
    }
    per_op(state, ks.probe.size());
    overhead(state, sizeof(ARec<K>) - sizeof(K));
}

template <typename K> void avl_walk_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    AvlTree<K> t(ks.insert);
    t.fill();
    for (auto _ : state) {
        size_t n = 0;
        for (auto it = t.set.begin(); it != t.set.end(); ++it)
            ++n;
        benchmark::DoNotOptimize(n);
    }
    per_op(state, ks.insert.size());
}

template <typename K> void avl_delete_bm(benchmark::State &state, size_t n)
{
    const auto &ks = keys<K>(n);
    AvlTree<K> t(ks.insert);
    for (auto _ : state) {
        state.PauseTiming();
        t.fill();
        state.ResumeTiming();
        for (const K &k : ks.erase)
            t.set.erase(k);
    }
    per_op(state, ks.erase.size());
}

// ----------------------------------------------------------- patricia ----

// A key of KB bytes in the order the tree sees it (big-endian for integers).
template <size_t KB> struct PKey {
    uint8_t b[KB];
};
using MapKey4 = uint32_t;
using MapKey16 = Str16;
template <size_t KB> using MapKey = std::conditional_t<KB == 4, MapKey4, MapKey16>;

template <size_t KB> MapKey<KB> to_map_key(const PKey<KB> &k)
{
    if constexpr (KB == 4) {
        return (uint32_t{k.b[0]} << 24) | (uint32_t{k.b[1]} << 16) | (uint32_t{k.b[2]} << 8) |
               k.b[3];
    } else {
        Str16 s;
        memcpy(s.b, k.b, 16);
        return s;
    }
}

template <size_t KB> struct PRec {
    patnode node;
    uint8_t key[KB];
};

// n stored keys; probes: the stored keys in another order (exact lookup)
// and fresh random keys (next-greater search).
template <size_t KB> struct PData {
    std::vector<PKey<KB>> stored, exact, between;
    explicit PData(size_t n)
    {
        std::mt19937_64 rng(n + KB);
        std::set<MapKey<KB>> seen;
        auto draw = [&] {
            PKey<KB> k;
            for (auto &c : k.b)
                c = static_cast<uint8_t>(rng());
            return k;
        };
        while (stored.size() < n) {
            PKey<KB> k = draw();
            if (seen.insert(to_map_key(k)).second)
                stored.push_back(k);
        }
        exact = stored;
        std::shuffle(exact.begin(), exact.end(), rng);
        for (size_t i = 0; i < n; ++i)
            between.push_back(draw());
    }
};

template <size_t KB> const PData<KB> &pdata(size_t n)
{
    static std::unique_ptr<PData<KB>> cached;
    if (!cached || cached->stored.size() != n)
        cached = std::make_unique<PData<KB>>(n);
    return *cached;
}

template <size_t KB> struct PatTree {
    std::vector<PRec<KB>> recs;
    patroot root{};
    explicit PatTree(const std::vector<PKey<KB>> &ks) : recs(ks.size())
    {
        patricia_root_init(&root, FALSE, KB, 0);
        for (size_t i = 0; i < ks.size(); ++i) {
            patricia_node_init_length(&recs[i].node, 0);
            memcpy(recs[i].key, ks[i].b, KB);
            patricia_add(&root, &recs[i].node);
        }
    }
};

template <size_t KB> void pat_exact_bm(benchmark::State &state, size_t n)
{
    const auto &d = pdata<KB>(n);
    PatTree<KB> t(d.stored);
    for (auto _ : state) {
        size_t found = 0;
        for (const auto &k : d.exact)
            found += patricia_get(&t.root, KB, k.b) != nullptr;
        benchmark::DoNotOptimize(found);
    }
    per_op(state, d.exact.size());
    overhead(state, sizeof(PRec<KB>) - KB);
}

template <size_t KB> void pat_next_bm(benchmark::State &state, size_t n)
{
    const auto &d = pdata<KB>(n);
    PatTree<KB> t(d.stored);
    for (auto _ : state) {
        size_t found = 0;
        for (const auto &k : d.between)
            found += patricia_getnext(&t.root, KB, k.b, FALSE) != nullptr;
        benchmark::DoNotOptimize(found);
    }
    per_op(state, d.between.size());
}

template <size_t KB, typename Map> void map_exact_bm(benchmark::State &state, size_t n)
{
    const auto &d = pdata<KB>(n);
    size_t before = heap_in_use();
    Map m;
    for (const auto &k : d.stored)
        m.emplace(to_map_key(k), uint32_t{0});
    double per_elem = static_cast<double>(heap_in_use() - before) / d.stored.size();
    std::vector<MapKey<KB>> probes;
    for (const auto &k : d.exact)
        probes.push_back(to_map_key(k));
    for (auto _ : state) {
        size_t found = 0;
        for (const auto &k : probes)
            found += m.find(k) != m.end();
        benchmark::DoNotOptimize(found);
    }
    per_op(state, probes.size());
    overhead(state, per_elem - sizeof(typename Map::value_type));
}

template <size_t KB> void map_next_bm(benchmark::State &state, size_t n)
{
    const auto &d = pdata<KB>(n);
    std::map<MapKey<KB>, uint32_t> m;
    for (const auto &k : d.stored)
        m.emplace(to_map_key(k), uint32_t{0});
    std::vector<MapKey<KB>> probes;
    for (const auto &k : d.between)
        probes.push_back(to_map_key(k));
    for (auto _ : state) {
        size_t found = 0;
        for (const auto &k : probes)
            found += m.upper_bound(k) != m.end();
        benchmark::DoNotOptimize(found);
    }
    per_op(state, probes.size());
}

template <size_t KB> using StdMap = std::map<MapKey<KB>, uint32_t>;
template <size_t KB>
using StdHash = std::unordered_map<MapKey<KB>, uint32_t,
                                   std::conditional_t<KB == 4, std::hash<uint32_t>, Str16Hash>>;

// ------------------------------------------------------------ ratios ----

// Prints the console output as usual, then one line per operation with the
// ratio of each library structure to its anchors.
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    explicit RatioReporter(OutputOptions opts) : ConsoleReporter(opts) {}

    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            // With --benchmark_repetitions the median stands for the run.
            bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if ((r.run_type != Run::RT_Iteration && !median) || r.error_occurred)
                continue;
            std::string name = r.run_name.str();
            size_t slash = name.rfind('/');
            Entry &e = table_[name.substr(0, slash)][name.substr(slash + 1)];
            if (e.from_median && !median)
                continue;
            e.from_median = median;
            e.ns = r.counters.at("per_op").value * 1e9;
            auto ovh = r.counters.find("overhead_B");
            if (ovh != r.counters.end())
                e.overhead = ovh->second.value;
        }
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n%-26s %10s %10s %10s %9s %9s\n", "operation/key/elements", "ours ns",
                    "anchor1", "anchor2", "ours/a1", "ours/a2");
        for (auto &[group, by] : table_) {
            const char *ours = by.count("hbt") ? "hbt" : "patricia";
            const char *a1 = by.count("hbt") ? "std_set" : "std_map";
            const char *a2 = by.count("hbt") ? "avl_set" : "unordered_map";
            double o = by[ours].ns;
            std::printf("%-26s %10.1f %10s %10s %9s %9s\n", group.c_str(), o,
                        ns_text(by, a1).c_str(), ns_text(by, a2).c_str(),
                        ratio_text(o, by, a1).c_str(), ratio_text(o, by, a2).c_str());
        }
        std::printf("\nbytes per element beyond the key (%s build):\n",
                    sizeof(void *) == 8 ? "64-bit" : "32-bit");
        for (auto &[group, by] : table_)
            for (auto &[structure, e] : by)
                if (e.overhead >= 0)
                    std::printf("  %-26s %-14s %6.1f\n", group.c_str(), structure.c_str(),
                                e.overhead);
    }

  private:
    struct Entry {
        double ns = 0;
        double overhead = -1;
        bool from_median = false;
    };
    using Row = std::map<std::string, Entry>;

    static std::string fmt(double v)
    {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%.2f", v);
        return buf;
    }
    static std::string ns_text(const Row &by, const char *s)
    {
        auto it = by.find(s);
        return it == by.end() ? "-" : fmt(it->second.ns);
    }
    static std::string ratio_text(double ours, const Row &by, const char *s)
    {
        auto it = by.find(s);
        return it == by.end() || it->second.ns == 0 ? "-" : fmt(ours / it->second.ns);
    }
    std::map<std::string, Row> table_;
};

using BmFn = void (*)(benchmark::State &, size_t);

void add(const std::string &op, const char *key, size_t n, const char *structure, BmFn fn)
{
    std::string name = op + "/" + key + "/" + std::to_string(n) + "/" + structure;
    benchmark::RegisterBenchmark(name.c_str(), fn, n)->Unit(benchmark::kMillisecond);
}

template <typename K> void add_trees(size_t n)
{
    const char *k = key_name<K>();
    add("insert", k, n, "hbt", hbt_insert_bm<K>);
    add("insert", k, n, "std_set", set_insert_bm<K>);
    add("insert", k, n, "avl_set", avl_insert_bm<K>);
    add("lookup", k, n, "hbt", hbt_lookup_bm<K>);
    add("lookup", k, n, "std_set", set_lookup_bm<K>);
    add("lookup", k, n, "avl_set", avl_lookup_bm<K>);
    add("walk", k, n, "hbt", hbt_walk_bm<K>);
    add("walk", k, n, "std_set", set_walk_bm<K>);
    add("walk", k, n, "avl_set", avl_walk_bm<K>);
    add("delete", k, n, "hbt", hbt_delete_bm<K>);
    add("delete", k, n, "std_set", set_delete_bm<K>);
    add("delete", k, n, "avl_set", avl_delete_bm<K>);
}

template <size_t KB> void add_patricia(size_t n)
{
    const char *k = KB == 4 ? "key4" : "key16";
    add("exact", k, n, "patricia", pat_exact_bm<KB>);
    add("exact", k, n, "std_map", map_exact_bm<KB, StdMap<KB>>);
    add("exact", k, n, "unordered_map", map_exact_bm<KB, StdHash<KB>>);
    add("next", k, n, "patricia", pat_next_bm<KB>);
    add("next", k, n, "std_map", map_next_bm<KB>);
}

} // namespace

int main(int argc, char **argv)
{
    for (size_t n : {100000, 1000000}) {
        add_trees<uint64_t>(n);
        add_trees<Str16>(n);
        add_patricia<4>(n);
        add_patricia<16>(n);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                 : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
