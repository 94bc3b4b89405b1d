// Timer and job dispatch against the same patterns written directly on
// libevent, on the library's own event base, in one run.
//
// Time is process CPU time per dispatch: libevent's monotonic clock is
// coarse, so a 1 us timer waits for the clock's next tick and wall time
// would measure the clock rather than the dispatcher. Each benchmark runs
// the library's pattern and its raw anchor in alternate rounds, so that
// both see the same machine, and keeps each side's best round: load from
// elsewhere only ever adds time. The program ends by printing each
// pattern's ratio to its anchor.

#include <benchmark/benchmark.h>

#include <event2/event.h>
#include <event2/thread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "qv_daemon.h"
#include "qv_memory.h"

namespace
{

qvmodule *bench_module;
uint64_t dispatches;
uint64_t lock_calls;

double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Best CPU nanoseconds per dispatch, by side.
std::map<std::string, double> &results()
{
    static std::map<std::string, double> r;
    return r;
}

// One side of a comparison: prepare and finish are not timed, run is.
struct Side {
    const char *key;
    std::function<void()> prepare, run, finish;
};

// Runs every side once per iteration, in turn, and reports each side's
// best round; the manual time of an iteration is the first side's round.
void contest(benchmark::State &state, std::vector<Side> sides)
{
    std::vector<double> best(sides.size(), std::numeric_limits<double>::infinity());
    for (auto _ : state) {
        double first = 0;
        for (size_t i = 0; i < sides.size(); i++) {
            Side &s = sides[i];
            if (s.prepare)
                s.prepare();
            uint64_t before = dispatches;
            double t0 = cpu_seconds();
            s.run();
            double t = cpu_seconds() - t0;
            if (s.finish)
                s.finish();
            double ns = t * 1e9 / double(dispatches - before);
            best[i] = std::min(best[i], ns);
            if (i == 0)
                first = t;
        }
        state.SetIterationTime(first);
    }
    for (size_t i = 0; i < sides.size(); i++) {
        state.counters[sides[i].key] = best[i];
        results()[sides[i].key] = best[i];
    }
}

void run_until(uint64_t target)
{
    while (dispatches < target)
        event_base_loop(g_event_base, EVLOOP_ONCE);
}

int counting_lock(int, int)
{
    lock_calls++;
    return 0;
}

void install_lock()
{
    qv_giant_lock_func_init(counting_lock);
}

void remove_lock()
{
    qv_giant_lock_func_init(nullptr);
}

const struct timeval kZero = {0, 0};
const struct timeval kOneUsec = {0, 1};

/* (a), (d): 10,000 periodic timers with a 1 us period. */

constexpr int kTimers = 10000;
constexpr uint64_t kPeriodicRound = 100000;

void count_timer(qvmodule_timer *, time_t)
{
    dispatches++;
}

void raw_periodic_cb(evutil_socket_t, short, void *arg)
{
    dispatches++;
    event_add(static_cast<struct event *>(arg), &kOneUsec);
}

void BM_Periodic(benchmark::State &state)
{
    std::vector<qvmodule_timer *> timers;
    std::vector<struct event *> events;
    for (int i = 0; i < kTimers; i++) {
        timers.push_back(qvmodule_timer_create(bench_module, "p", 0, 0, 0, count_timer, nullptr));
        events.push_back(event_new(g_event_base, -1, 0, raw_periodic_cb, event_self_cbarg()));
    }
    auto arm = [&] {
        for (qvmodule_timer *t : timers)
            qvmodule_timer_uset_periodic(t, 1, 0);
    };
    auto disarm = [&] {
        for (qvmodule_timer *t : timers)
            qvmodule_timer_reset(t);
    };
    auto run = [] { run_until(dispatches + kPeriodicRound); };
    contest(state, {
                       {"raw_periodic",
                        [&] {
                            for (struct event *ev : events)
                                event_add(ev, &kOneUsec);
                        },
                        run,
                        [&] {
                            for (struct event *ev : events)
                                event_del(ev);
                        }},
                       {"timer_periodic", arm, run, disarm},
                       {"timer_periodic_locked",
                        [&] {
                            arm();
                            install_lock();
                        },
                        run,
                        [&] {
                            remove_lock();
                            disarm();
                        }},
                   });
    for (qvmodule_timer *t : timers)
        qvmodule_timer_delete(t);
    for (struct event *ev : events)
        event_free(ev);
}

/* (b), (d): a one-shot re-set to zero delay from its own function. */

constexpr uint64_t kResetRound = 20000;
uint64_t stop_at;

void reset_timer(qvmodule_timer *t, time_t)
{
    if (++dispatches < stop_at)
        qvmodule_timer_uset_oneshot(t, 0, 0);
    else
        event_base_loopbreak(g_event_base);
}

void raw_reset_cb(evutil_socket_t, short, void *arg)
{
    if (++dispatches < stop_at)
        event_add(static_cast<struct event *>(arg), &kZero);
    else
        event_base_loopbreak(g_event_base);
}

void BM_OneshotReset(benchmark::State &state)
{
    qvmodule_timer *t = qvmodule_timer_create(bench_module, "r", 0, 0, 0, reset_timer, nullptr);
    struct event *ev = event_new(g_event_base, -1, 0, raw_reset_cb, event_self_cbarg());
    auto timer_run = [t] {
        stop_at = dispatches + kResetRound;
        qvmodule_timer_uset_oneshot(t, 0, 0);
        event_base_loop(g_event_base, 0);
    };
    contest(state, {
                       {"raw_reset", nullptr,
                        [ev] {
                            stop_at = dispatches + kResetRound;
                            event_add(ev, &kZero);
                            event_base_loop(g_event_base, 0);
                        },
                        nullptr},
                       {"timer_reset", nullptr, timer_run, nullptr},
                       {"timer_reset_locked", install_lock, timer_run, remove_lock},
                   });
    qvmodule_timer_delete(t);
    event_free(ev);
}

/* (c): one-shot timers and foreground jobs made, dispatched and freed. */

constexpr int kBatch = 100;
constexpr int kBatches = 100;

void raw_count_cb(evutil_socket_t, short, void *)
{
    dispatches++;
}

void BM_CreateDelete(benchmark::State &state)
{
    contest(state, {
                       {"raw_create", nullptr,
                        [] {
                            struct event *batch[kBatch];
                            for (int b = 0; b < kBatches; b++) {
                                for (struct event *&ev : batch) {
                                    ev = event_new(g_event_base, -1, 0, raw_count_cb, nullptr);
                                    event_add(ev, &kZero);
                                }
                                run_until(dispatches + kBatch);
                                for (struct event *ev : batch)
                                    event_free(ev);
                            }
                        },
                        nullptr},
                       {"timer_create", nullptr,
                        [] {
                            qvmodule_timer *batch[kBatch];
                            for (int b = 0; b < kBatches; b++) {
                                for (qvmodule_timer *&t : batch)
                                    t = qvmodule_timer_create_oneshot(bench_module, "c", 0, 0, 0,
                                                                      count_timer, nullptr);
                                run_until(dispatches + kBatch);
                                for (qvmodule_timer *t : batch)
                                    qvmodule_timer_delete(t);
                            }
                        },
                        nullptr},
                   });
}

void count_job(qvmodule_job *)
{
    dispatches++;
}

void raw_job_cb(evutil_socket_t, short, void *arg)
{
    dispatches++;
    event_free(static_cast<struct event *>(arg));
}

void BM_ForegroundJob(benchmark::State &state)
{
    contest(state, {
                       {"raw_active", nullptr,
                        [] {
                            for (int b = 0; b < kBatches; b++) {
                                for (int i = 0; i < kBatch; i++) {
                                    struct event *ev = event_new(g_event_base, -1, EV_READ,
                                                                 raw_job_cb, event_self_cbarg());
                                    event_active(ev, EV_READ, 1);
                                }
                                run_until(dispatches + kBatch);
                            }
                        },
                        nullptr},
                       {"job_foreground", nullptr,
                        [] {
                            for (int b = 0; b < kBatches; b++) {
                                for (int i = 0; i < kBatch; i++)
                                    qvmodule_job_create_foreground(bench_module, "j", count_job,
                                                                   nullptr);
                                run_until(dispatches + kBatch);
                            }
                        },
                        nullptr},
                   });
}

BENCHMARK(BM_Periodic)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OneshotReset)->UseManualTime()->Iterations(40)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CreateDelete)->UseManualTime()->Iterations(40)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ForegroundJob)->UseManualTime()->Iterations(40)->Unit(benchmark::kMillisecond);

void print_ratios()
{
    struct Row {
        const char *label, *ours, *raw;
        double target;
    } rows[] = {
        {"(a) periodic re-arm", "timer_periodic", "raw_periodic", 1.3},
        {"(b) one-shot re-set from its function", "timer_reset", "raw_reset", 1.3},
        {"(c) one-shot create/dispatch/delete", "timer_create", "raw_create", 2.5},
        {"(c) foreground job create/dispatch/free", "job_foreground", "raw_active", 2.5},
        {"(d) periodic re-arm, counting lock", "timer_periodic_locked", "raw_periodic", 1.3},
        {"(d) one-shot re-set, counting lock", "timer_reset_locked", "raw_reset", 1.3},
    };
    printf("\n%-42s %10s %10s %7s %7s\n", "pattern (CPU ns per dispatch)", "library", "libevent",
           "ratio", "target");
    for (const Row &r : rows) {
        auto ours = results().find(r.ours), raw = results().find(r.raw);
        if (ours == results().end() || raw == results().end() || raw->second <= 0)
            continue;
        double ratio = ours->second / raw->second;
        printf("%-42s %10.1f %10.1f %7.2f %7.1f %s\n", r.label, ours->second, raw->second, ratio,
               r.target, ratio <= r.target ? "ok" : "MISSED");
    }
    if (lock_calls)
        printf("the counting lock was called %llu times\n",
               static_cast<unsigned long long>(lock_calls));
}

} // namespace

int main(int argc, char **argv)
{
    // A daemon's base locks itself for other threads; --no_libevent_locks
    // measures the base without that, as it was made before.
    bool locks = true;
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--no_libevent_locks") == 0) {
            locks = false;
            for (int j = i; j < argc; j++)
                argv[j] = argv[j + 1];
            argc--;
            break;
        }
    if (locks)
        evthread_use_pthreads();
    g_event_base = event_base_new();
    qvmodule_memory_init();
    qvmodule_init();
    qvmodule_timer_init();
    qvmodule_job_init();
    bench_module = qvmodule_alloc("bench", 0, nullptr);
    qvmodule_create(bench_module);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    print_ratios();
    return 0;
}
