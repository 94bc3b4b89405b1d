// A 64-byte echo over a socketpair, served by a module's recv method,
// against the same echo served by a persistent read event written
// directly on libevent, on the library's own event base, in one run.
//
// Each message is written by the driver, served in one turn of the loop
// and read back by the driver. Time is process CPU time per message. The
// two sides run in alternate rounds, so both see the same machine, and
// each keeps its best round: load from elsewhere only ever adds time. The
// program ends by printing the ratio to the anchor.

#include <benchmark/benchmark.h>

#include <event2/event.h>
#include <stdio.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "qv_daemon.h"
#include "qv_memory.h"

namespace
{

constexpr size_t kMessage = 64;
constexpr int kRound = 20000;
constexpr double kTarget = 1.1;

double best_module = std::numeric_limits<double>::infinity();
double best_raw = std::numeric_limits<double>::infinity();

double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void echo(int fd)
{
    char buf[kMessage];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0 && write(fd, buf, size_t(n)) != n)
        abort();
}

void module_recv(qvmodule *tp)
{
    echo(tp->qvmodule_socket);
}

void raw_read_cb(evutil_socket_t fd, short, void *)
{
    echo(fd);
}

// CPU nanoseconds per message over one round driven through driver.
double round_ns(int driver)
{
    char msg[kMessage] = {}, back[kMessage];
    double t0 = cpu_seconds();
    for (int i = 0; i < kRound; i++) {
        if (write(driver, msg, sizeof msg) != ssize_t(sizeof msg))
            abort();
        event_base_loop(g_event_base, EVLOOP_ONCE);
        if (read(driver, back, sizeof back) != ssize_t(sizeof back))
            abort();
    }
    return (cpu_seconds() - t0) * 1e9 / kRound;
}

void BM_Echo64(benchmark::State &state)
{
    int mod_pair[2], raw_pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, mod_pair) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, raw_pair) != 0)
        abort();
    qvmodule *tp = qvmodule_alloc("echo", 0, nullptr);
    qvmodule_set_recv(tp, module_recv);
    tp->qvmodule_socket = mod_pair[0];
    qvmodule_create(tp);
    struct event *raw =
        event_new(g_event_base, raw_pair[0], EV_READ | EV_PERSIST, raw_read_cb, nullptr);
    event_add(raw, nullptr);
    for (auto _ : state) {
        double m = round_ns(mod_pair[1]);
        double r = round_ns(raw_pair[1]);
        best_module = std::min(best_module, m);
        best_raw = std::min(best_raw, r);
        state.SetIterationTime(m * kRound * 1e-9);
    }
    state.counters["module_ns"] = best_module;
    state.counters["raw_ns"] = best_raw;
    event_free(raw);
    qvmodule_delete(tp);
    close(mod_pair[1]), close(raw_pair[0]), close(raw_pair[1]);
}

BENCHMARK(BM_Echo64)->UseManualTime()->Iterations(30)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    g_event_base = event_base_new();
    qvmodule_memory_init();
    qvmodule_init();
    qvmodule_timer_init();
    qvmodule_job_init();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (best_raw > 0 && best_raw < std::numeric_limits<double>::infinity()) {
        double ratio = best_module / best_raw;
        printf("\n%-44s %10s %10s %7s %7s\n", "pattern (CPU ns per message)", "library", "libevent",
               "ratio", "target");
        printf("%-44s %10.1f %10.1f %7.3f %7.1f %s\n", "64-byte echo, recv method vs read event",
               best_module, best_raw, ratio, kTarget, ratio <= kTarget ? "ok" : "MISSED");
    }
    return 0;
}
