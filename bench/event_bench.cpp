// Cost of recording events: 10,000 objects of one module, each event with
// two actions and one information block of four elements, so seven text
// copies per event. The rings are filled before timing, so every event
// also frees the oldest one of its object, as in a daemon that has run a
// while.
//
// The anchor is the copies alone: the same seven qvmodule_mem_strdup calls
// per event into a table of 15 slots per object, each freeing the copies
// it replaces, so it holds the same texts as the store. Rounds of a variant
// and of the anchor alternate in one benchmark, so both run under the same
// conditions; the counters give events per second, the anchor's time, the
// ratio and the bytes charged to "Event History" per object. A table of the
// medians follows the run.

#include <benchmark/benchmark.h>

#include <stdio.h>
#include <string.h>

#include <array>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "libcpe_event_public_api.h"
#include "qv_memory.h"

namespace
{

constexpr size_t kObjects = 10000;
constexpr size_t kRing = EVH_MAX_EVENTS - 1;
constexpr size_t kCopies = 7; // two actions, a heading, four elements

const char *const kActions[] = {"neighbor state changed to Established", "route refresh sent"};
const char kHeading[] = "Peer";
const char *const kElements[] = {"address 192.0.2.17", "remote AS 64512", "hold time 90",
                                 "uptime 3d"};

evh_module_t *module;
std::vector<evh_object_t *> objects;
std::vector<std::string> names;

const char *event_name(event_id_t)
{
    return "PEER";
}

void record(evh_object_t *obj, event_id_t id)
{
    evh_event_t *event = evh_event_new(obj, id);
    event_record_action(event, kActions[0]);
    evh_einfo_t *einfo = evh_einfo_new(event, kHeading);
    for (const char *element : kElements)
        event_record_einfo(einfo, element);
    event_record_action(event, kActions[1]);
}

// The same copies without the store: a ring of copy sets per object.
struct CopyRings {
    std::vector<std::array<char *, kCopies>> slots =
        std::vector<std::array<char *, kCopies>>(kObjects * kRing);
    size_t next = 0;
    qvmodule *tp;

    void copy(size_t object)
    {
        auto &set = slots[object * kRing + next];
        for (char *p : set)
            qvmodule_mem_free(tp, p);
        const char *texts[kCopies] = {kActions[0],  kHeading,     kElements[0], kElements[1],
                                      kElements[2], kElements[3], kActions[1]};
        for (size_t i = 0; i < kCopies; i++)
            set[i] = qvmodule_mem_strdup(tp, texts[i]);
    }
};

CopyRings *copy_rings;
event_id_t next_id;

enum Variant { kHandle, kByName };
const char *const kVariantNames[] = {"record_by_handle", "record_by_name"};

// One event on every object; returns the round's nanoseconds.
double round_ns(Variant v)
{
    auto start = std::chrono::steady_clock::now();
    event_id_t id = next_id++;
    for (size_t i = 0; i < kObjects; i++)
        record(v == kHandle ? objects[i] : evh_object_add(module, names[i].c_str()), id);
    auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - start).count();
}

double anchor_round_ns()
{
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < kObjects; i++)
        copy_rings->copy(i);
    copy_rings->next = (copy_rings->next + 1) % kRing;
    auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - start).count();
}

double charged_per_object()
{
    for (const qvmodule_mem_cookie_t *c = qvmodule_cookies; c; c = c->tmc_next)
        if (strcmp(c->tmc_name, "Event History") == 0)
            return double(c->tmc_n_bytes) / kObjects;
    return 0;
}

void BM_Record(benchmark::State &state, Variant v)
{
    double ours = 0, anchor = 0;
    bool ours_first = true;
    for (auto _ : state) {
        double o, a;
        if (ours_first) {
            o = round_ns(v);
            a = anchor_round_ns();
        } else {
            a = anchor_round_ns();
            o = round_ns(v);
        }
        ours_first = !ours_first;
        ours += o, anchor += a;
        state.SetIterationTime(o * 1e-9);
    }
    double events = double(state.iterations()) * kObjects;
    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.counters["events_per_s"] = events / (ours * 1e-9);
    state.counters["ns_per_event"] = ours / events;
    state.counters["strdup7_ns"] = anchor / events;
    state.counters["ratio"] = anchor > 0 ? ours / anchor : 0;
    state.counters["charged_B_per_obj"] = charged_per_object();
}

class TableReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs)
            if (r.run_type == Run::RT_Iteration || r.aggregate_name == "median")
                for (const char *key :
                     {"events_per_s", "ns_per_event", "strdup7_ns", "ratio", "charged_B_per_obj"})
                    if (auto it = r.counters.find(key); it != r.counters.end())
                        rows_[r.run_name.function_name][key] = it->second.value;
    }

    void print_table() const
    {
        printf("\nEvents on %zu objects, 7 copies each, against the same %zu qvmodule_mem_strdup "
               "calls per event (+ the frees), alternated in one run (medians):\n",
               kObjects, kCopies);
        printf("%-18s %12s %12s %14s %7s %18s\n", "variant", "events/s", "ns/event",
               "strdup x7 (ns)", "ratio", "charged B/object");
        for (const char *name : kVariantNames) {
            auto it = rows_.find(name);
            if (it == rows_.end())
                continue;
            auto v = [&](const char *k) { return it->second.count(k) ? it->second.at(k) : 0.0; };
            printf("%-18s %12.0f %12.1f %14.1f %7.2f %18.0f\n", name, v("events_per_s"),
                   v("ns_per_event"), v("strdup7_ns"), v("ratio"), v("charged_B_per_obj"));
        }
        printf("Records per object from the pools (not charged): %zu ring events of %zu bytes, "
               "each with a block of %zu bytes, and the object of %zu bytes.\n",
               kRing, sizeof(evh_event_t), sizeof(evh_einfo_t), sizeof(evh_object_t));
    }

  private:
    std::map<std::string, std::map<std::string, double>> rows_;
};

} // namespace

int main(int argc, char **argv)
{
    qvmodule_memory_init();
    qvmodule_init();
    evh_init();
    evh_event_cb_t cb = {event_name};
    module = evh_register_cb("bench", &cb);
    for (size_t i = 0; i < kObjects; i++) {
        names.push_back("peer-" + std::to_string(i));
        objects.push_back(evh_object_add(module, names.back().c_str()));
    }
    qvmodule *anchor_module = qvmodule_alloc("strdup anchor", 0, nullptr);
    qvmodule_create(anchor_module);
    copy_rings = new CopyRings{};
    copy_rings->tp = anchor_module;
    // Full rings and a full copy table: every timed event frees one.
    for (size_t r = 0; r < kRing; r++) {
        round_ns(kHandle);
        anchor_round_ns();
    }

    for (Variant v : {kHandle, kByName})
        benchmark::RegisterBenchmark(kVariantNames[v], BM_Record, v)->UseManualTime();

    std::vector<char *> args(argv, argv + argc);
    std::string reps = "--benchmark_repetitions=5";
    std::string aggr = "--benchmark_report_aggregates_only=true";
    auto given = [&](const char *flag) {
        for (int i = 1; i < argc; i++)
            if (strncmp(argv[i], flag, strlen(flag)) == 0)
                return true;
        return false;
    };
    if (!given("--benchmark_repetitions"))
        args.push_back(reps.data());
    if (!given("--benchmark_report_aggregates_only"))
        args.push_back(aggr.data());
    int n = static_cast<int>(args.size());
    args.push_back(nullptr);

    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_table();
    benchmark::Shutdown();
    return 0;
}
